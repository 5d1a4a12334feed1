#include "shared_extension_cache.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "platform/unique_fd.h"

namespace tarn {

namespace fs = std::filesystem;

fs::path shared_extension_cache() {
  std::error_code ec;
  const fs::path cache = fs::weakly_canonical("/usr/lib/libreoffice/share/uno_packages/cache", ec);
  return (ec ? fs::path("/usr/lib/libreoffice/share/uno_packages/cache") : cache) / "uno_packages";
}

bool open_shared_extension_cache(std::string* err) {
  const std::string dir = shared_extension_cache().string();
  // Its parent comes with the office; without it the office isn't installed as expected and
  // will say so itself.
  if (::mkdir(dir.c_str(), 0755) != 0 && errno != EEXIST) {
    if (errno == ENOENT) return true;
    *err = "can't create " + dir + ": " + std::strerror(errno);
    return false;
  }
  unique_fd fd(::open(dir.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
  struct stat st;
  if (!fd || ::fstat(fd.get(), &st) != 0) {
    *err = "can't open " + dir + ": " + std::strerror(errno);
    return false;
  }
  // The umask may have taken bits from a new folder too.
  if ((st.st_mode & 0755) != 0755 && ::fchmod(fd.get(), (st.st_mode & 07777) | 0755) != 0) {
    *err = "can't make " + dir + " readable by all users: " + std::strerror(errno);
    return false;
  }
  return true;
}

std::string shared_extension_cache_hint() {
  const std::string dir = shared_extension_cache().string();
  if (::access(dir.c_str(), F_OK) != 0 || ::access(dir.c_str(), R_OK | X_OK) == 0) return "";
  return "LibreOffice can't start for this user because its shared extension cache " + dir +
         " is not readable (an office run as root leaves it so); as root, run: chmod 0755 '" + dir +
         "'";
}

}  // namespace tarn
