// Reading a whole configuration file, for the tools that take one.
#pragma once

#include <string>

namespace toolfiles {

// Reads the regular file at path into text. False with errno set when it
// cannot be opened or read; a directory fails with EISDIR rather than
// reading as an empty file.
bool read_file(const std::string &path, std::string &text);

}  // namespace toolfiles
