// Whether a program or library may be run or loaded from a path. The path comes from the
// settings store, which the user (or anything running as the user) can edit, and the file
// runs with the user's rights: a place someone else can write to would let them run code as
// this user.
#pragma once

#include <filesystem>
#include <string>

namespace tarn {

// True when `path` is absolute and names a file which, like every folder above it, belongs to
// root or to this user and can't be written by group or others. A folder writable by all
// passes only when it is root's and sticky (/tmp): nobody else may rename what lies in it.
// Links are followed, and their targets must pass too. Else false, and *why names the path at
// fault and the reason.
bool trusted_path(const std::filesystem::path& path, std::string* why);

}  // namespace tarn
