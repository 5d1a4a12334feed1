#include "web/web_content.h"

#include <fcntl.h>
#include <linux/openat2.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstdlib>
#include <memory>
#include <utility>

#include "platform/mutex.h"
#include "platform/self_exe.h"
#include "platform/unique_fd.h"

namespace tarn {
namespace {

Mutex root_mu;
std::string root_for_testing TARN_GUARDED_BY(root_mu);  // empty: none

constexpr int kOpenFlags = O_RDONLY | O_CLOEXEC | O_NOCTTY | O_NONBLOCK;

std::string real_path(const std::string& path) {
  std::unique_ptr<char, decltype(&std::free)> resolved(::realpath(path.c_str(), nullptr),
                                                       &std::free);
  return resolved ? std::string(resolved.get()) : std::string();
}

// Opens `relative` below the folder `root` so that no step of the resolution, symbolic links
// included, leaves the folder. openat2() checks that in the kernel, race-free; where it is
// missing (old kernels, seccomp filters that refuse it) the fully resolved path is compared
// with the resolved folder instead.
unique_fd open_beneath(const std::string& root, const std::string& relative) {
  unique_fd dir(::open(root.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC));
  if (!dir || relative.empty()) return unique_fd();

  open_how how{};
  how.flags = kOpenFlags;
  how.resolve = RESOLVE_BENEATH | RESOLVE_NO_MAGICLINKS;
  long fd = ::syscall(SYS_openat2, dir.get(), relative.c_str(), &how, sizeof(how));
  if (fd >= 0) return unique_fd(static_cast<int>(fd));
  if (errno != ENOSYS && errno != EPERM) return unique_fd();

  const std::string real_root = real_path(root);
  const std::string real_file = real_path(root + "/" + relative);
  if (real_root.empty() || real_file.compare(0, real_root.size() + 1, real_root + "/") != 0) {
    return unique_fd();
  }
  return unique_fd(::open(real_file.c_str(), kOpenFlags | O_NOFOLLOW));
}

}  // namespace

std::string web_root() {
  {
    MutexLock lock(root_mu);
    if (!root_for_testing.empty()) return root_for_testing;
  }
  const std::string dir = self_exe_dir();
  // Without the program's own path there is no web folder; the current folder never stands in.
  return dir.empty() ? std::string() : dir + "www-data";
}

void set_web_root_for_testing(std::string root) {
  MutexLock lock(root_mu);
  root_for_testing = std::move(root);
}

std::string file_path_of_uri(const std::string& web_root, const std::string& uri,
                             const std::string& default_uri) {
  return web_root + (uri.size() == 1 ? default_uri : uri);
}

const char* content_type_of(const std::string& path) {
  static constexpr struct {
    const char* extension;
    const char* type;
  } kTypes[] = {
      {"js", "application/javascript"},
      {"gif", "image/gif"},
      {"htm", "text/html"},
      {"html", "text/html"},
      {"jpg", "image/jpeg"},
      {"png", "image/png"},
      {"css", "text/css"},
  };
  const size_t slash = path.rfind('/');
  const size_t dot = path.rfind('.');
  if (dot == std::string::npos || (slash != std::string::npos && dot < slash)) return "text/plain";
  const std::string extension = path.substr(dot + 1);
  for (const auto& row : kTypes) {
    if (extension == row.extension) return row.type;
  }
  return "text/plain";
}

std::optional<std::string> read_web_file(const std::string& web_root, const std::string& path) {
  if (web_root.empty() || path.compare(0, web_root.size(), web_root) != 0) return std::nullopt;
  size_t start = web_root.size();
  while (start < path.size() && path[start] == '/') ++start;
  unique_fd fd = open_beneath(web_root, path.substr(start));
  if (!fd) return std::nullopt;

  // Only regular files: a folder, a FIFO or a device gives the same answer as a missing file.
  struct stat st;
  if (::fstat(fd.get(), &st) != 0 || !S_ISREG(st.st_mode)) return std::nullopt;

  std::string body;
  body.reserve(static_cast<size_t>(st.st_size));
  char buffer[64 * 1024];
  for (;;) {
    ssize_t n = ::read(fd.get(), buffer, sizeof(buffer));
    if (n < 0 && errno == EINTR) continue;
    if (n < 0) return std::nullopt;
    if (n == 0) break;
    body.append(buffer, static_cast<size_t>(n));
  }
  return body;
}

}  // namespace tarn
