#include "platform/private_temp.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "platform/user_dirs.h"

namespace tarn {
namespace {

std::filesystem::path candidate() {
  if (const char* dir = std::getenv("TMPDIR"); dir != nullptr && dir[0] == '/') return dir;
  if (auto runtime = xdg_runtime_dir()) return *runtime / "tarn";
  return "/tmp/tarn-" + std::to_string(getuid());
}

void set_err(std::string* err, std::string text) {
  if (err != nullptr) *err = std::move(text);
}

}  // namespace

std::optional<std::filesystem::path> private_temp_dir(std::string* err) {
  const std::filesystem::path dir = candidate();
  // Only the last step is ours to create; its parent ($XDG_RUNTIME_DIR, /tmp) must exist.
  if (::mkdir(dir.c_str(), 0700) != 0 && errno != EEXIST) {
    set_err(err, "can't create " + dir.string() + ": " + std::strerror(errno));
    return std::nullopt;
  }
  struct stat st;
  if (::lstat(dir.c_str(), &st) != 0) {
    set_err(err, "can't read " + dir.string() + ": " + std::strerror(errno));
    return std::nullopt;
  }
  if (!S_ISDIR(st.st_mode)) {
    set_err(err, dir.string() + " is not a folder");
    return std::nullopt;
  }
  if (st.st_uid != getuid()) {
    set_err(err, dir.string() + " belongs to another user (uid " + std::to_string(st.st_uid) + ")");
    return std::nullopt;
  }
  // $TMPDIR is the user's own choice and may be shared on purpose; the folders we make are not.
  if (std::getenv("TMPDIR") == nullptr && (st.st_mode & 077) != 0) {
    set_err(err, dir.string() + " is open to other users");
    return std::nullopt;
  }
  return dir;
}

}  // namespace tarn
