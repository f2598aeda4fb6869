# A thin face over CMake; `make help` lists the targets.
SHELL := /bin/bash
JOBS ?= $(shell nproc)
WERROR ?= OFF
SEED ?= 1
KILLS ?= 10000
FUZZ_SECONDS ?= 60

.PHONY: help setup build run crash test test-release test-asan test-tsan bench fuzz lint format clean

help:            ## show this list
	@sed -nE 's/^([a-z-]+):.*## (.*)/  \1\t\2/p' $(MAKEFILE_LIST) | expand -t 18

setup:           ## install the Debian packages that are missing
	@scripts/install-packages

build: setup     ## build everything (release)
	@cmake --preset release -DMFWD6_WERROR=$(WERROR) >/dev/null
	cmake --build --preset release -j $(JOBS)

run: setup       ## real packets through a router made of namespaces, whose processes are killed in mid-stream
	@cmake --preset release -DMFWD6_WERROR=$(WERROR) >/dev/null
	cmake --build --preset release -j $(JOBS) --target mfwd6-demo
	build/release/bin/mfwd6-demo

test: test-release test-asan test-tsan  ## all tests: release, address+undefined, thread sanitizer

test-release test-asan test-tsan: test-%: setup
	@cmake --preset $* -DMFWD6_WERROR=$(WERROR) >/dev/null
	cmake --build --preset $* -j $(JOBS)
	ctest --preset $* -j $(JOBS)

crash: build     ## kill owners and clients 10,000 times at any instruction, check what the next one finds
	build/release/bin/mfwd6-crash --seed $(SEED) --kills $(KILLS)

bench: build     ## run the benchmarks, each beside its yardstick
	scripts/bench

fuzz:            ## let each fuzzing target look for FUZZ_SECONDS (60), beginning with its corpus
	@scripts/install-packages --fuzz
	FUZZ_SECONDS=$(FUZZ_SECONDS) JOBS=$(JOBS) WERROR=$(WERROR) scripts/fuzz

lint: setup      ## clang-format and a Clang build must pass; prints what clang-tidy finds
	scripts/lint

format: setup    ## apply clang-format
	scripts/format

clean:           ## remove what was built
	rm -rf build
