#include "support/x_display.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>

#include "platform/unique_fd.h"

namespace tarn::test {

constexpr const char* kXvfb = "/usr/bin/Xvfb";
constexpr const char* kXdotool = "/usr/bin/xdotool";

x_display::x_display() {
  if (access(kXvfb, X_OK) != 0 || access(kXdotool, X_OK) != 0) {
    why_ = std::string(kXvfb) + " or " + kXdotool + " is missing (scripts/install-deps.sh test)";
    return;
  }
  int fds[2];
  if (pipe2(fds, O_CLOEXEC) != 0) {
    why_ = "pipe failed";
    return;
  }
  std::unique_ptr<FILE, int (*)(FILE*)> reader(fdopen(fds[0], "r"), fclose);
  unique_fd writer(fds[1]);
  // -displayfd: the server picks a free number itself and says which. -noreset: a server whose
  // last client left would reset and refuse connections meanwhile.
  server_ = child_process::start(
      {kXvfb, "-displayfd", "1", "-noreset", "-nolisten", "tcp", "-screen", "0", "1280x1024x24"},
      {.stdout_fd = writer.get()}, &why_);
  writer.reset();
  char number[16] = {};
  // Xvfb writes the newline apart and ends should nobody read it.
  if (!server_ || !fgets(number, sizeof number, reader.get())) {
    why_ += "; Xvfb named no display";
    server_.reset();
    return;
  }
  number[strcspn(number, "\n")] = '\0';
  display_ = std::string(":") + number;
}

x_display::~x_display() {
  if (!server_) return;
  // SIGTERM lets it remove its socket and lock file.
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
    auto user =
        child_process::start({"/bin/sh", "-c",
                              std::string("for w in $(DISPLAY=\"$0\" ") + kXdotool +
                                  " search --onlyvisible --name \"$1\"); do DISPLAY=\"$0\" " +
                                  kXdotool + " windowfocus --sync $w key Escape; done",
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
