// Directories: making them, and the process's current directory.
#pragma once

#include <string>
#include <vector>

namespace TOLVEN::platform {

// Makes the directory `path` (one level: its parent must exist). True when it was made or
// already exists as a directory.
bool MakeDirectory(const char* path) noexcept;

// Makes `path` the process's current directory; false when it cannot.
bool ChangeCurrentDirectory(const char* path) noexcept;

// The process's current directory, absolute; false when it cannot be had.
bool CurrentDirectory(std::string& path);

// Replaces `names` with the names of the plain files in `directory` (no folders), in no
// particular order. False when the directory cannot be read; an empty one is true.
bool ListDirectoryFiles(const char* directory, std::vector<std::string>& names);

}  // namespace TOLVEN::platform
