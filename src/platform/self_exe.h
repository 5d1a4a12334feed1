// The running program's own file, the Linux stand-in for the module file name.
#pragma once

#include <filesystem>
#include <string>

namespace tarn {

// Absolute path of the running executable (from /proc/self/exe); empty if unreadable.
std::filesystem::path self_exe_path();

// The folder that holds the running executable, with a trailing "/".
std::string self_exe_dir();

}  // namespace tarn
