#include "gateway_process.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/wait.h>

// glibc 2.36's header lacks the extern "C" block.
extern "C" {
#include <sys/pidfd.h>
}

#include <cerrno>

#include "support/run_program.h"
#include "support/test_env.h"
#include "web/raw_http_client.h"

extern char** environ;

namespace tarn::test {

gateway_process::gateway_process(const std::filesystem::path& folder, const std::string& name,
                                 const std::string& program_path)
    : out_path_(folder / (name + ".out")), err_path_(folder / (name + ".err")) {
  const std::string program = program_path.empty() ? dist_program("tarngateway") : program_path;
  char* const argv[] = {const_cast<char*>(program.c_str()), nullptr};
  const pid_t parent = getpid();
  const pid_t pid = fork();
  if (pid == 0) {
    // The watchdog of last resort: if the test process dies, so does the gateway, and port
    // 9090 is free for the next test. Only async-signal-safe calls until execve.
    if (prctl(PR_SET_PDEATHSIG, SIGKILL) != 0 || getppid() != parent) _exit(127);
    const int in = open("/dev/null", O_RDONLY | O_CLOEXEC);
    const int out = open(out_path_.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
    const int err = open(err_path_.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
    if (in < 0 || out < 0 || err < 0 || dup2(in, STDIN_FILENO) < 0 ||
        dup2(out, STDOUT_FILENO) < 0 || dup2(err, STDERR_FILENO) < 0)
      _exit(127);
    execve(argv[0], argv, environ);
    _exit(127);
  }
  if (pid > 0) {
    pid_ = pid;
    pidfd_.reset(pidfd_open(pid_, 0));
  }
}

gateway_process::~gateway_process() {
  if (pid_ > 0 && !exit_code_) {
    send_signal(SIGKILL);
    waitpid(pid_, nullptr, 0);
  }
}

bool gateway_process::wait_listening(std::chrono::milliseconds deadline) {
  const auto end = std::chrono::steady_clock::now() + deadline;
  while (std::chrono::steady_clock::now() < end) {
    if (port_answers()) return true;
    // Wakes at once when the process ends; else tries again after 10 ms.
    pollfd exited{pidfd_.get(), POLLIN, 0};
    if (poll(&exited, 1, 10) > 0) return false;
  }
  return false;
}

std::optional<int> gateway_process::wait_exit(std::chrono::milliseconds deadline) {
  if (exit_code_ || pid_ <= 0) return exit_code_;
  pollfd exited{pidfd_.get(), POLLIN, 0};
  int ready;
  while ((ready = poll(&exited, 1, static_cast<int>(deadline.count()))) < 0 && errno == EINTR) {
  }
  if (ready <= 0) return std::nullopt;
  int status = 0;
  while (waitpid(pid_, &status, 0) < 0 && errno == EINTR) {
  }
  exit_code_ = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
  return exit_code_;
}

bool gateway_process::send_signal(int signo) {
  // Through the pidfd: a PID that was already reaped and reused can't be hit.
  return pidfd_ && pidfd_send_signal(pidfd_.get(), signo, nullptr, 0) == 0;
}

std::string gateway_process::error_output() const { return read_file(err_path_); }

bool port_answers() {
  try {
    raw_http_client probe(kPort);
    return true;
  } catch (const std::runtime_error&) {
    return false;
  }
}

}  // namespace tarn::test
