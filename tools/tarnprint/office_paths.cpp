#include "office_paths.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>

#include <cerrno>
#include <cstring>

#include "platform/private_temp.h"

namespace tarn {

std::optional<office_paths> office_runtime(std::string* err) {
  auto temp = private_temp_dir(err);
  if (!temp) return std::nullopt;
  office_paths paths{*temp / "tarnoffice"};
  const std::string dir = paths.dir.string();
  if (::mkdir(dir.c_str(), 0700) != 0 && errno != EEXIST) {
    *err = "can't create " + dir + ": " + std::strerror(errno);
    return std::nullopt;
  }
  struct stat st;
  if (::lstat(dir.c_str(), &st) != 0) {
    *err = "can't read " + dir + ": " + std::strerror(errno);
    return std::nullopt;
  }
  // Whoever may enter this folder may talk to the office and read what it converts.
  if (!S_ISDIR(st.st_mode) || st.st_uid != ::getuid() || (st.st_mode & 077) != 0) {
    *err = dir + " is not a private folder of this user's";
    return std::nullopt;
  }
  return paths;
}

std::optional<socket_address> make_socket_address(const std::filesystem::path& path,
                                                  std::string* err) {
  socket_address result;
  result.addr.sun_family = AF_UNIX;
  std::string text = path.string();
  if (text.size() >= sizeof(result.addr.sun_path)) {
    const std::string folder = path.parent_path().string();
    result.dir.reset(::open(folder.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC));
    if (!result.dir) {
      *err = "can't open " + folder + ": " + std::strerror(errno);
      return std::nullopt;
    }
    text = "/proc/self/fd/" + std::to_string(result.dir.get()) + "/" + path.filename().string();
    if (text.size() >= sizeof(result.addr.sun_path)) {
      *err = "socket name too long: " + path.string();
      return std::nullopt;
    }
  }
  std::memcpy(result.addr.sun_path, text.c_str(), text.size() + 1);
  result.len = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + text.size() + 1);
  return result;
}

unique_fd lock_file(const std::filesystem::path& path, bool wait, std::string* err) {
  unique_fd fd(::open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600));
  if (!fd) {
    *err = "can't open " + path.string() + ": " + std::strerror(errno);
    return fd;
  }
  int rc;
  do {
    rc = ::flock(fd.get(), LOCK_EX | (wait ? 0 : LOCK_NB));
  } while (rc != 0 && errno == EINTR);
  if (rc != 0) {
    if (errno != EWOULDBLOCK) *err = "can't lock " + path.string() + ": " + std::strerror(errno);
    fd.reset();
  }
  return fd;
}

std::string file_url(const std::filesystem::path& path) {
  static constexpr char kHex[] = "0123456789ABCDEF";
  std::string url = "file://";
  for (unsigned char c : path.string()) {
    const bool plain = (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') ||
                       c == '-' || c == '.' || c == '_' || c == '~' || c == '/';
    if (plain) {
      url += static_cast<char>(c);
    } else {
      url += '%';
      url += kHex[c >> 4];
      url += kHex[c & 15];
    }
  }
  return url;
}

}  // namespace tarn
