// Where the user's warm office lives: one folder inside the private temporary folder, 0700 and
// owned by the user, holding the socket, the locks, the pid file, the log, the office profile
// and the office's own temporary folder. Shared by tarnprint and tarnoffice.
#pragma once

#include <sys/socket.h>
#include <sys/un.h>

#include <filesystem>
#include <optional>
#include <string>

#include "platform/unique_fd.h"

namespace tarn {

struct office_paths {
  std::filesystem::path dir;

  std::filesystem::path socket() const { return dir / "office.sock"; }
  // Held by a tarnprint while it checks for a worker and starts one.
  std::filesystem::path start_lock() const { return dir / "start.lock"; }
  // Held by a tarnprint while this office converts its document.
  std::filesystem::path busy_lock() const { return dir / "busy.lock"; }
  // Held by a worker for its whole life, so that a new one waits until the old one is gone.
  std::filesystem::path life_lock() const { return dir / "office.lock"; }
  std::filesystem::path pid_file() const { return dir / "office.pid"; }
  std::filesystem::path log_file() const { return dir / "office.log"; }
  std::filesystem::path profile() const { return dir / "profile"; }
  std::filesystem::path office_tmp() const { return dir / "tmp"; }
};

// The folder "tarnoffice" in private_temp_dir(), created 0700 when missing. Nullopt with *err
// when it can't be made, or is not a folder of this user's that only this user can enter.
std::optional<office_paths> office_runtime(std::string* err);

// A socket address for `path`. A path too long for sun_path is reached through
// /proc/self/fd/N of an open handle on its folder, which `dir` keeps open.
struct socket_address {
  sockaddr_un addr{};
  socklen_t len = 0;
  unique_fd dir;
};
std::optional<socket_address> make_socket_address(const std::filesystem::path& path,
                                                  std::string* err);

// Opens (creating 0600) and locks `path` with flock; the lock lasts as long as the fd.
// `wait` false gives an empty fd at once when another process holds the lock.
unique_fd lock_file(const std::filesystem::path& path, bool wait, std::string* err);

// "file:///..." with every byte outside [A-Za-z0-9-._~/] percent-encoded.
std::string file_url(const std::filesystem::path& path);

}  // namespace tarn
