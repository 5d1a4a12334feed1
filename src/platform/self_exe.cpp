#include "platform/self_exe.h"

#include <system_error>

namespace tarn {

std::filesystem::path self_exe_path() {
  std::error_code ec;
  auto path = std::filesystem::read_symlink("/proc/self/exe", ec);
  return ec ? std::filesystem::path() : path;
}

std::string self_exe_dir() {
  std::string path = self_exe_path().string();
  auto slash = path.rfind('/');
  return slash == std::string::npos ? std::string() : path.substr(0, slash + 1);
}

}  // namespace tarn
