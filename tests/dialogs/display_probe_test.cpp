#include "dialogs/display_probe.h"

#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <map>

#include "dialog_test_support.h"

namespace tarn {
namespace {

void make_socket(const std::filesystem::path& path) {
  std::filesystem::create_directories(path.parent_path());
  int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  sockaddr_un addr{};
  addr.sun_family = AF_UNIX;
  path.string().copy(addr.sun_path, sizeof(addr.sun_path) - 1);
  EXPECT_EQ(bind(fd, reinterpret_cast<sockaddr*>(&addr), sizeof(addr)), 0) << path;
  close(fd);
}

using display_probe_test = test::sandboxed_test;

TEST_F(display_probe_test, FindsADisplayOfThisUserThatIsThere) {
  const std::filesystem::path x11 = env_.root() / "X11-unix", run = env_.root() / "run";
  make_socket(x11 / "X5");
  make_socket(x11 / "X6");
  make_socket(run / "wayland-0");
  std::filesystem::create_directories(x11 / "X4");  // not a socket
  const std::string r = run.string();
  const struct {
    const char* what;
    std::map<std::string, std::string> own;
    std::string session;
    uid_t uid;
    std::optional<std::string> vars;  // empty: nothing found
    const char* platforms;
  } cases[] = {
      // clang-format off
      {"own X display", {{"DISPLAY", ":5"}}, "", 0, "DISPLAY=:5 ", "xcb;offscreen"},
      {"own display gone, the session's there", {{"DISPLAY", ":9"}},
       "LANG=C\nDISPLAY=:6.0\nXAUTHORITY=$'/tmp/x auth'\n", 0,
       "DISPLAY=:6.0 XAUTHORITY=/tmp/x auth ", "xcb;offscreen"},
      {"session wayland", {}, "WAYLAND_DISPLAY=wayland-0\nXDG_RUNTIME_DIR=" + r + "\n", 0,
       "WAYLAND_DISPLAY=wayland-0 XDG_RUNTIME_DIR=" + r + " ", "wayland;offscreen"},
      {"X first beside wayland", {{"XDG_RUNTIME_DIR", r}},
       "DISPLAY=unix:5\nWAYLAND_DISPLAY=wayland-0\n", 0,
       "DISPLAY=unix:5 WAYLAND_DISPLAY=wayland-0 ", "xcb;wayland;offscreen"},
      {"remote display, left to the child", {{"DISPLAY", "localhost:10.0"}}, "", 0,
       "DISPLAY=localhost:10.0 ", "xcb;offscreen"},
      {"nobody said, our own X socket", {}, "", 0, "DISPLAY=:5 ", "xcb;offscreen"},
      {"nobody said, another user's X", {}, "", 1, {}, nullptr},
      {"not a socket, nor missing ones", {{"DISPLAY", ":4"}, {"WAYLAND_DISPLAY", "w-9"}},
       "DISPLAY=:3\n", 1, {}, nullptr},
      // clang-format on
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.what);
    display_probe::sources from;
    from.own_env = [&c](const std::string& name) -> std::optional<std::string> {
      auto it = c.own.find(name);
      return it == c.own.end() ? std::nullopt : std::optional(it->second);
    };
    from.session_env = [&c] { return c.session; };
    from.x11_socket_dir = x11;
    from.uid = getuid() + c.uid;
    auto found = display_probe(from).find();
    ASSERT_EQ(found.has_value(), c.vars.has_value());
    if (!found) continue;
    std::string vars;
    for (const auto& [name, value] : found->vars) vars += name + "=" + value + " ";
    EXPECT_EQ(vars, *c.vars);
    EXPECT_EQ(found->qt_platforms, c.platforms);
  }
}

}  // namespace
}  // namespace tarn
