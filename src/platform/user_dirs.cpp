#include "platform/user_dirs.h"

#include <pwd.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <string>

namespace tarn {
namespace {

std::optional<std::filesystem::path> absolute_env(const char* name) {
  const char* value = std::getenv(name);
  if (value == nullptr || value[0] != '/') return std::nullopt;
  return std::filesystem::path(value);
}

std::filesystem::path xdg_or_home(const char* name, const char* below_home) {
  if (auto dir = absolute_env(name)) return *dir;
  return home_dir() / below_home;
}

}  // namespace

std::filesystem::path home_dir() {
  if (auto dir = absolute_env("HOME")) return *dir;
  if (const passwd* pw = getpwuid(getuid()); pw != nullptr && pw->pw_dir != nullptr)
    return pw->pw_dir;
  return "/";
}

std::filesystem::path xdg_config_home() { return xdg_or_home("XDG_CONFIG_HOME", ".config"); }
std::filesystem::path xdg_data_home() { return xdg_or_home("XDG_DATA_HOME", ".local/share"); }
std::filesystem::path xdg_state_home() { return xdg_or_home("XDG_STATE_HOME", ".local/state"); }
std::filesystem::path xdg_cache_home() { return xdg_or_home("XDG_CACHE_HOME", ".cache"); }
std::optional<std::filesystem::path> xdg_runtime_dir() { return absolute_env("XDG_RUNTIME_DIR"); }

bool make_dirs(const std::filesystem::path& dir, unsigned mode) {
  std::string path;
  for (const auto& step : dir) {
    if (step == "/") {
      path.assign(1, '/');  // not = "/": GCC 12 warns falsely (-Wrestrict)
      continue;
    }
    if (!path.empty() && path.back() != '/') path += '/';
    path += step.string();
    if (::mkdir(path.c_str(), mode) != 0 && errno != EEXIST) return false;
  }
  struct stat st;
  if (::stat(dir.c_str(), &st) != 0) return false;
  if (!S_ISDIR(st.st_mode)) {
    errno = ENOTDIR;
    return false;
  }
  return true;
}

}  // namespace tarn
