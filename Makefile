# A thin face over CMake; `make help` lists the targets.
SHELL := /bin/bash
JOBS ?= $(shell nproc)

.PHONY: help setup build run test test-release test-asan test-tsan bench lint format clean

help:            ## show this list
	@grep -hE '^[a-z-]+: .*##|^[a-z-]+:  *##' $(MAKEFILE_LIST) | sed -E 's/:[^#]*##/\t/' | expand -t 16

setup:           ## install the Debian packages that are missing
	@scripts/install-packages

build: setup     ## build everything, release
	cmake --preset release >/dev/null
	cmake --build --preset release -j $(JOBS)
