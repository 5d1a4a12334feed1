#include "dialogs/display_probe.h"

#include <sys/stat.h>
#include <unistd.h>

#include <QProcess>
#include <algorithm>
#include <charconv>
#include <cstdlib>
#include <map>

#include "dialogs/child_launch_internal.h"

namespace tarn {
namespace {

constexpr int kSystemctlMs = 2000;

using env_map = std::map<std::string, std::string>;

bool socket_at(const std::filesystem::path& path, uid_t* owner = nullptr) {
  struct stat st;
  if (stat(path.c_str(), &st) != 0 || !S_ISSOCK(st.st_mode)) return false;
  if (owner) *owner = st.st_uid;
  return true;
}

// The display number of a local X display (":0", ":1.0", "unix:2"); empty for a remote one.
std::optional<int> local_x_display(const std::string& display) {
  std::string_view rest(display);
  if (rest.starts_with("unix:")) {
    rest.remove_prefix(5);
  } else if (rest.starts_with(":")) {
    rest.remove_prefix(1);
  } else {
    return std::nullopt;
  }
  int number = -1;
  auto [end, ec] = std::from_chars(rest.data(), rest.data() + rest.size(), number);
  if (ec != std::errc() || number < 0 || (end != rest.data() + rest.size() && *end != '.'))
    return std::nullopt;
  return number;
}

std::string value_of(const env_map& env, const std::string& name) {
  auto it = env.find(name);
  return it == env.end() ? std::string() : it->second;
}

}  // namespace

std::vector<std::pair<std::string, std::string>> parse_session_env(const std::string& text) {
  std::vector<std::pair<std::string, std::string>> vars;
  size_t pos = 0;
  while (pos < text.size()) {
    size_t end = text.find('\n', pos);
    if (end == std::string::npos) end = text.size();
    std::string line = text.substr(pos, end - pos);
    pos = end + 1;
    size_t eq = line.find('=');
    if (eq == std::string::npos || eq == 0) continue;
    std::string value = line.substr(eq + 1);
    // systemd quotes values with special characters as $'...' with backslash escapes.
    if (value.size() >= 3 && value.starts_with("$'") && value.ends_with("'")) {
      std::string plain;
      for (size_t i = 2; i + 1 < value.size(); ++i) {
        if (value[i] == '\\' && i + 2 < value.size()) {
          char c = value[++i];
          plain += c == 'n' ? '\n' : c == 't' ? '\t' : c;
        } else {
          plain += value[i];
        }
      }
      value = std::move(plain);
    }
    vars.emplace_back(line.substr(0, eq), std::move(value));
  }
  return vars;
}

display_probe::sources display_probe::system_sources() {
  sources from;
  from.own_env = [](const std::string& name) -> std::optional<std::string> {
    const char* value = std::getenv(name.c_str());
    if (value == nullptr) return std::nullopt;
    return std::string(value);
  };
  from.session_env = [] {
    QProcess systemctl;
    keep_descriptors_from_child(systemctl);
    systemctl.start("systemctl", {"--user", "show-environment"}, QIODevice::ReadOnly);
    if (!systemctl.waitForFinished(kSystemctlMs) ||
        systemctl.exitStatus() != QProcess::NormalExit || systemctl.exitCode() != 0) {
      systemctl.kill();
      systemctl.waitForFinished(kSystemctlMs);
      return std::string();
    }
    return systemctl.readAllStandardOutput().toStdString();
  };
  // Tests point this at a folder of their own, so that a gateway without a display never
  // takes the X server another test started.
  if (const char* dir = std::getenv("TARN_X11_SOCKET_DIR"); dir != nullptr && *dir != '\0')
    from.x11_socket_dir = dir;
  from.uid = getuid();
  return from;
}

std::optional<display_env> display_probe::find() const {
  static const char* const kNames[] = {"DISPLAY", "WAYLAND_DISPLAY", "XAUTHORITY",
                                       "XDG_RUNTIME_DIR"};
  std::vector<std::pair<std::string, env_map>> candidates;
  if (from_.own_env) {
    env_map own;
    for (const char* name : kNames) {
      if (auto value = from_.own_env(name)) own[name] = *value;
    }
    candidates.emplace_back("the gateway's environment", std::move(own));
  }
  if (from_.session_env) {
    env_map session;
    for (auto& [name, value] : parse_session_env(from_.session_env())) {
      if (std::find(std::begin(kNames), std::end(kNames), name) != std::end(kNames))
        session[name] = value;
    }
    candidates.emplace_back("the systemd user environment", std::move(session));
  }

  for (const auto& [source, env] : candidates) {
    const std::string display = value_of(env, "DISPLAY");
    bool x_ok = false;
    if (!display.empty()) {
      auto number = local_x_display(display);
      // A remote display (ssh forwarding) can't be checked here; the child will find out.
      x_ok = !number || socket_at(from_.x11_socket_dir / ("X" + std::to_string(*number)));
    }
    const std::string wayland = value_of(env, "WAYLAND_DISPLAY");
    bool wayland_ok = false;
    if (!wayland.empty()) {
      std::filesystem::path socket(wayland);
      if (socket.is_relative()) {
        std::string runtime = value_of(env, "XDG_RUNTIME_DIR");
        if (runtime.empty() && from_.own_env)
          runtime = from_.own_env("XDG_RUNTIME_DIR").value_or("");
        socket =
            runtime.empty() ? std::filesystem::path() : std::filesystem::path(runtime) / wayland;
      }
      wayland_ok = !socket.empty() && socket_at(socket);
    }
    if (!x_ok && !wayland_ok) continue;

    display_env found;
    std::string platforms;
    if (x_ok) {
      found.vars.emplace_back("DISPLAY", display);
      found.where = "DISPLAY=" + display;
      platforms = "xcb;";
    }
    if (wayland_ok) {
      found.vars.emplace_back("WAYLAND_DISPLAY", wayland);
      found.where += (found.where.empty() ? "" : " ") + std::string("WAYLAND_DISPLAY=") + wayland;
      platforms += "wayland;";
    }
    for (const char* name : {"XAUTHORITY", "XDG_RUNTIME_DIR"}) {
      if (env.count(name)) found.vars.emplace_back(name, env.at(name));
    }
    found.qt_platforms = platforms + "offscreen";
    found.where += " from " + source;
    return found;
  }

  // Nobody said where the display is; an X server of this user's own session still counts.
  std::error_code ec;
  std::optional<int> lowest;
  for (auto it = std::filesystem::directory_iterator(from_.x11_socket_dir, ec);
       !ec && it != std::filesystem::directory_iterator(); it.increment(ec)) {
    const std::string name = it->path().filename().string();
    if (name.size() < 2 || name[0] != 'X') continue;
    auto number = local_x_display(":" + name.substr(1));
    uid_t owner = 0;
    if (!number || name.find('.') != std::string::npos || !socket_at(it->path(), &owner) ||
        owner != from_.uid)
      continue;
    if (!lowest || *number < *lowest) lowest = number;
  }
  if (!lowest) return std::nullopt;
  display_env found;
  const std::string display = ":" + std::to_string(*lowest);
  found.vars.emplace_back("DISPLAY", display);
  found.qt_platforms = "xcb;offscreen";
  found.where =
      "DISPLAY=" + display + " from the user's own X socket in " + from_.x11_socket_dir.string();
  return found;
}

}  // namespace tarn
