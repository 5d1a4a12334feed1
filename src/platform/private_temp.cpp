#include "platform/private_temp.h"

#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <map>
#include <mutex>

#include "platform/user_dirs.h"

namespace tarn {
namespace {

namespace fs = std::filesystem;

bool is_private(const fs::path& dir, std::string* why) {
  struct stat st;
  if (::lstat(dir.c_str(), &st) != 0) {
    *why = "can't read " + dir.string() + ": " + std::strerror(errno);
  } else if (!S_ISDIR(st.st_mode)) {
    *why = dir.string() + " is not a folder";
  } else if (st.st_uid != ::getuid()) {
    *why = dir.string() + " belongs to another user (uid " + std::to_string(st.st_uid) + ")";
  } else if ((st.st_mode & 077) != 0) {
    *why = dir.string() + " is open to other users";
  } else {
    return true;
  }
  return false;
}

// Only the last step is ours to create; its parent must exist.
bool make_private(const fs::path& dir, std::string* why) {
  if (::mkdir(dir.c_str(), 0700) != 0 && errno != EEXIST) {
    *why = "can't create " + dir.string() + ": " + std::strerror(errno);
    return false;
  }
  return is_private(dir, why);
}

// One mkdtemp folder per place for the process, not one per call.
std::optional<fs::path> made_once(const fs::path& place, std::string* why) {
  static std::mutex mutex;
  static std::map<fs::path, fs::path> made;
  std::lock_guard lock(mutex);
  if (auto it = made.find(place); it != made.end() && is_private(it->second, why))
    return it->second;
  std::string pattern = (place / ("tarn-" + std::to_string(::getuid()) + "-XXXXXX")).string();
  if (::mkdtemp(pattern.data()) == nullptr) {
    *why = "can't create a folder in " + place.string() + ": " + std::strerror(errno);
    return std::nullopt;
  }
  made[place] = pattern;
  return fs::path(pattern);
}

}  // namespace

std::optional<fs::path> private_temp_dir(std::string* err) {
  std::string why;
  std::string reasons;
  auto note = [&] { reasons += (reasons.empty() ? "" : "; ") + why; };
  const std::string own_name = "tarn-" + std::to_string(::getuid());
  fs::path named;
  if (const char* dir = std::getenv("TMPDIR"); dir != nullptr && dir[0] == '/') {
    if (is_private(dir, &why)) return fs::path(dir);
    named = fs::path(dir) / own_name;
  } else if (auto runtime = xdg_runtime_dir()) {
    named = *runtime / "tarn";
  } else {
    named = fs::path("/tmp") / own_name;
  }
  if (make_private(named, &why)) return named;
  note();
  const fs::path cache = xdg_cache_home() / "tarn-tmp";
  if (!make_dirs(cache.parent_path(), 0700)) {
    why = "can't create " + cache.parent_path().string() + ": " + std::strerror(errno);
  } else if (make_private(cache, &why)) {
    return cache;
  }
  note();
  if (auto made = made_once(named.parent_path(), &why)) return made;
  note();
  if (err != nullptr) *err = reasons;
  return std::nullopt;
}

}  // namespace tarn
