// Directories: making them, and the process's current directory.
#pragma once

#include <string>

namespace TOLVEN::platform {

// Makes the directory `path` (one level: its parent must exist). True when it was made or
// already exists as a directory.
bool MakeDirectory(const char* path) noexcept;

// Makes `path` the process's current directory; false when it cannot.
bool ChangeCurrentDirectory(const char* path) noexcept;

// The process's current directory, absolute; false when it cannot be had.
bool CurrentDirectory(std::string& path);

}  // namespace TOLVEN::platform
