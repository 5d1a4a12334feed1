#include "platform/child_process.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/syscall.h>
#include <sys/wait.h>

#include <cerrno>
#include <cstring>

extern char** environ;

namespace tarn {
namespace {

int exit_code_of(int status) {
  if (WIFEXITED(status)) return WEXITSTATUS(status);
  if (WIFSIGNALED(status)) return 128 + WTERMSIG(status);
  return 128;
}

// RAII for the two posix_spawn records.
struct spawn_records {
  posix_spawn_file_actions_t actions;
  posix_spawnattr_t attr;
  spawn_records() {
    posix_spawn_file_actions_init(&actions);
    posix_spawnattr_init(&attr);
  }
  ~spawn_records() {
    posix_spawnattr_destroy(&attr);
    posix_spawn_file_actions_destroy(&actions);
  }
  spawn_records(const spawn_records&) = delete;
  spawn_records& operator=(const spawn_records&) = delete;
};

}  // namespace

std::unique_ptr<child_process> child_process::start(const std::vector<std::string>& argv,
                                                    const child_options& options,
                                                    std::string* err) {
  if (argv.empty() || argv[0].empty()) {
    if (err != nullptr) *err = "no program to start";
    return nullptr;
  }
  std::vector<char*> args;
  for (const auto& arg : argv) args.push_back(const_cast<char*>(arg.c_str()));
  args.push_back(nullptr);

  spawn_records rec;
  posix_spawn_file_actions_addopen(&rec.actions, STDIN_FILENO, "/dev/null", O_RDONLY, 0);
  if (options.stdout_fd >= 0)
    posix_spawn_file_actions_adddup2(&rec.actions, options.stdout_fd, STDOUT_FILENO);
  if (options.stderr_fd >= 0)
    posix_spawn_file_actions_adddup2(&rec.actions, options.stderr_fd, STDERR_FILENO);
  // Descriptors made without O_CLOEXEC (by a library, or on another thread) must not reach
  // the child: an inherited listening socket would keep the gateway's port busy.
  posix_spawn_file_actions_addclosefrom_np(&rec.actions, 3);

  // The caller may block or ignore signals (a gateway handling SIGTERM itself, SIGPIPE
  // ignored); a child started with that mask could not be stopped.
  sigset_t all, none;
  sigfillset(&all);
  sigemptyset(&none);
  posix_spawnattr_setsigdefault(&rec.attr, &all);
  posix_spawnattr_setsigmask(&rec.attr, &none);
  posix_spawnattr_setflags(&rec.attr, POSIX_SPAWN_SETSIGDEF | POSIX_SPAWN_SETSIGMASK);

  pid_t pid = 0;
  const int code = posix_spawn(&pid, args[0], &rec.actions, &rec.attr, args.data(), environ);
  if (code != 0) {
    if (err != nullptr) *err = "can't start " + argv[0] + ": " + std::strerror(code);
    return nullptr;
  }
  // The child is not reaped yet, so its pid can't have been reused.
  // Through syscall(): glibc 2.36's <sys/pidfd.h> declares pidfd_open without C linkage.
  unique_fd pidfd(static_cast<int>(::syscall(SYS_pidfd_open, pid, 0)));
  if (!pidfd) {
    const int saved = errno;
    kill(pid, SIGKILL);
    while (waitpid(pid, nullptr, 0) < 0 && errno == EINTR) {
    }
    if (err != nullptr)
      *err = std::string("can't watch the started process: ") + std::strerror(saved);
    return nullptr;
  }
  return std::unique_ptr<child_process>(new child_process(pid, std::move(pidfd)));
}

child_process::~child_process() {
  if (exit_code_) return;
  kill(pid_, SIGKILL);
  int status = 0;
  while (waitpid(pid_, &status, 0) < 0 && errno == EINTR) {
  }
}

std::optional<int> child_process::poll_exit() {
  if (exit_code_) return exit_code_;
  int status = 0;
  pid_t got;
  while ((got = waitpid(pid_, &status, WNOHANG)) < 0 && errno == EINTR) {
  }
  if (got == pid_) {
    exit_code_ = exit_code_of(status);
  } else if (got < 0) {
    // Someone else reaped it (SIGCHLD ignored); its code is lost.
    exit_code_ = 128;
  }
  return exit_code_;
}

std::optional<int> child_process::wait_for(std::optional<std::chrono::milliseconds> timeout) {
  using clock = std::chrono::steady_clock;
  const auto deadline = timeout ? clock::now() + *timeout : clock::time_point::max();
  while (!poll_exit()) {
    int wait_ms = -1;
    if (timeout) {
      auto left = std::chrono::ceil<std::chrono::milliseconds>(deadline - clock::now());
      if (left.count() <= 0) return std::nullopt;
      wait_ms = static_cast<int>(std::min<long long>(left.count(), 1 << 30));
    }
    pollfd pfd = {pidfd_.get(), POLLIN, 0};
    if (::poll(&pfd, 1, wait_ms) < 0 && errno != EINTR) {
      if (timeout) return std::nullopt;
      int status = 0;
      while (waitpid(pid_, &status, 0) < 0 && errno == EINTR) {
      }
      exit_code_ = exit_code_of(status);
    }
  }
  return exit_code_;
}

void child_process::signal(int sig) {
  if (!exit_code_) kill(pid_, sig);
}

}  // namespace tarn
