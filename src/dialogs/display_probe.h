// Finds a display that a dialog can be shown on when this process has none: the gateway may
// start before the desktop session exists and then runs on Qt's offscreen platform, which it
// can't leave. A display that appears later is found in the process's own environment, in the
// systemd user environment (where the session imports DISPLAY and WAYLAND_DISPLAY), or as an
// X socket of this user in /tmp/.X11-unix. No Qt; each find() looks afresh.
#pragma once

#include <sys/types.h>

#include <filesystem>
#include <functional>
#include <optional>
#include <string>
#include <utility>
#include <vector>

namespace tarn {

// What a child process needs to open the display.
struct display_env {
  std::vector<std::pair<std::string, std::string>> vars;  // DISPLAY, WAYLAND_DISPLAY, ...
  // QT_QPA_PLATFORM for the child: X first, because only there can a dialog raise itself and
  // stay on top; "offscreen" last, so that a display that went away gives a clear exit, not
  // an abort.
  std::string qt_platforms;
  std::string where;  // for the log, e.g. "DISPLAY=:0 from the systemd user environment"
};

class display_probe {
 public:
  struct sources {
    std::function<std::optional<std::string>(const std::string& name)> own_env;
    // "NAME=VALUE" lines, as `systemctl --user show-environment` prints them; empty if none.
    std::function<std::string()> session_env;
    std::filesystem::path x11_socket_dir = "/tmp/.X11-unix";
    uid_t uid = 0;
  };
  // getenv, systemctl, /tmp/.X11-unix (or $TARN_X11_SOCKET_DIR), getuid().
  static sources system_sources();

  explicit display_probe(sources from = system_sources()) : from_(std::move(from)) {}

  std::optional<display_env> find() const;

 private:
  sources from_;
};

// The variables of `systemctl --user show-environment` output; $'...' values are unquoted.
std::vector<std::pair<std::string, std::string>> parse_session_env(const std::string& text);

}  // namespace tarn
