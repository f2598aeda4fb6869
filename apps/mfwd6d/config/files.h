// The files of a configuration, read from disk.
#ifndef MFWD6_APPS_MFWD6D_CONFIG_FILES_H
#define MFWD6_APPS_MFWD6D_CONFIG_FILES_H

#include "apps/mfwd6d/config/document.h"

namespace mfwd6::config {

// Largest file that is taken.
inline constexpr size_t file_bytes = size_t{256} << 20;

// Reads with read(2), expands with glob(3).
file_reader disk();

// The whole of a file. A sentence, empty for success.
std::string read_file(const std::string &path, std::string *text);

// Replaces a file at once: another name first, then rename(2). A sentence, empty for success.
std::string replace_file(const std::string &path, std::string_view text);

}  // namespace mfwd6::config

#endif
