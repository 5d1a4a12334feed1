#include "x_display.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <signal.h>
#include <unistd.h>

#include <cstdlib>

#include "platform/unique_fd.h"

namespace tarn::test {
namespace {

constexpr const char* kXvfb = "/usr/bin/Xvfb";
constexpr const char* kXdotool = "/usr/bin/xdotool";

// One line from `fd` within `deadline`; empty when none came.
std::string read_line(int fd, std::chrono::milliseconds deadline) {
  std::string line;
  const auto end = std::chrono::steady_clock::now() + deadline;
  while (line.find('\n') == std::string::npos) {
    const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
        end - std::chrono::steady_clock::now());
    pollfd p{fd, POLLIN, 0};
    if (left.count() <= 0 || poll(&p, 1, static_cast<int>(left.count())) <= 0) return "";
    char buffer[64];
    const ssize_t n = read(fd, buffer, sizeof(buffer));
    if (n <= 0) return "";
    line.append(buffer, static_cast<size_t>(n));
  }
  return line.substr(0, line.find('\n'));
}

}  // namespace

x_display::x_display() {
  if (access(kXvfb, X_OK) != 0 || access(kXdotool, X_OK) != 0) {
    why_ = std::string(kXvfb) + " or " + kXdotool +
           " is missing (scripts/install-deps.sh test installs xvfb and xdotool)";
    return;
  }
  int fds[2];
  if (pipe2(fds, O_CLOEXEC) != 0) {
    why_ = "pipe failed";
    return;
  }
  unique_fd reader(fds[0]);
  unique_fd writer(fds[1]);
  // -displayfd: the server picks a free number itself and says which. -noreset: a server whose
  // last client left would reset and refuse connections meanwhile.
  server_ = child_process::start({kXvfb, "-displayfd", "1", "-noreset", "-nolisten", "tcp",
                                  "-screen", "0", "1280x1024x24"},
                                 {.stdout_fd = writer.get()}, &why_);
  writer.reset();
  if (!server_) return;
  const std::string number = read_line(reader.get(), std::chrono::seconds(30));
  if (number.empty()) {
    why_ = "Xvfb named no display within 30 s";
    server_.reset();
    return;
  }
  display_ = ":" + number;
}

x_display::~x_display() {
  if (!server_) return;
  // SIGTERM lets it remove its socket and lock file; the destructor kills what still runs.
  server_->signal(SIGTERM);
  server_->wait_for(std::chrono::seconds(10));
}

x_display::answer::answer(const x_display& x, const std::string& title,
                          const std::vector<std::string>& keys) {
  // Two runs of xdotool: keys typed "at" a window would go as sent events, which carry no Alt;
  // without a window they go through XTEST to the focus, as a keyboard's do.
  std::string script = std::string("DISPLAY=\"$0\" ") + kXdotool +
                       " search --sync --onlyvisible --name \"$1\" windowfocus --sync %1";
  if (!keys.empty())
    script += std::string(" && shift && DISPLAY=\"$0\" ") + kXdotool + " key --delay 100 \"$@\"";
  std::vector<std::string> argv = {"/bin/sh", "-c", script, x.display(), "^" + title + "$"};
  argv.insert(argv.end(), keys.begin(), keys.end());
  user_ = child_process::start(argv, {}, &why_);
}

void x_display::close_questions(const std::vector<std::string>& titles) const {
  for (const auto& title : titles) {
    auto user = child_process::start(
        {"/bin/sh", "-c",
         std::string("for w in $(DISPLAY=\"$0\" ") + kXdotool +
             " search --onlyvisible --name \"$1\"); do DISPLAY=\"$0\" " + kXdotool +
             " windowfocus --sync $w key Escape; done",
         display_, "^" + title + "$"});
    if (user && !user->wait_for(std::chrono::seconds(10))) user->signal(SIGKILL);
  }
}

bool x_display::answer::answered(std::chrono::milliseconds deadline) {
  if (!user_) return false;
  const auto code = user_->wait_for(deadline);
  if (!code) {
    ADD_FAILURE_AT(__FILE__, __LINE__) << "no window came up within " << deadline.count() << " ms";
    user_->signal(SIGKILL);
    user_->wait();
    return false;
  }
  return *code == 0;
}

}  // namespace tarn::test
