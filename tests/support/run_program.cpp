#include "support/run_program.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <stdexcept>

namespace tarn::test {

program_result run_program(const std::vector<std::string>& args, const std::string& input,
                           std::chrono::milliseconds timeout) {
  int in_pipe[2], out_pipe[2], err_pipe[2];
  if (pipe2(in_pipe, O_CLOEXEC) != 0 || pipe2(out_pipe, O_CLOEXEC) != 0 ||
      pipe2(err_pipe, O_CLOEXEC) != 0)
    throw std::runtime_error("pipe failed");
  std::vector<char*> argv;
  for (const auto& arg : args) argv.push_back(const_cast<char*>(arg.c_str()));
  argv.push_back(nullptr);

  pid_t pid = fork();
  if (pid < 0) throw std::runtime_error("fork failed");
  if (pid == 0) {
    dup2(in_pipe[0], STDIN_FILENO);
    dup2(out_pipe[1], STDOUT_FILENO);
    dup2(err_pipe[1], STDERR_FILENO);
    execv(argv[0], argv.data());
    _exit(127);
  }
  close(in_pipe[0]);
  close(out_pipe[1]);
  close(err_pipe[1]);
  signal(SIGPIPE, SIG_IGN);
  if (!input.empty()) {
    size_t done = 0;
    while (done < input.size()) {
      ssize_t n = write(in_pipe[1], input.data() + done, input.size() - done);
      if (n < 0 && errno == EINTR) continue;
      if (n <= 0) break;
      done += static_cast<size_t>(n);
    }
  }
  close(in_pipe[1]);

  program_result result;
  const auto deadline = std::chrono::steady_clock::now() + timeout;
  pollfd fds[2] = {{out_pipe[0], POLLIN, 0}, {err_pipe[0], POLLIN, 0}};
  std::string* sinks[2] = {&result.out, &result.err};
  int open_fds = 2;
  bool killed = false;
  while (open_fds > 0) {
    auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
        deadline - std::chrono::steady_clock::now());
    if (left.count() <= 0 && !killed) {
      kill(pid, SIGKILL);
      killed = true;
    }
    int ready = poll(fds, 2, killed ? 1000 : static_cast<int>(left.count()));
    if (ready < 0 && errno == EINTR) continue;
    if (ready == 0 && killed) break;
    for (int i = 0; i < 2; ++i) {
      if (fds[i].fd < 0 || (fds[i].revents & (POLLIN | POLLHUP | POLLERR)) == 0) continue;
      char buffer[8192];
      ssize_t n = read(fds[i].fd, buffer, sizeof buffer);
      if (n > 0) {
        sinks[i]->append(buffer, static_cast<size_t>(n));
      } else if (n == 0 || errno != EINTR) {
        close(fds[i].fd);
        fds[i].fd = -1;
        --open_fds;
      }
    }
  }
  for (auto& fd : fds)
    if (fd.fd >= 0) close(fd.fd);
  int status = 0;
  while (waitpid(pid, &status, 0) < 0 && errno == EINTR) {
  }
  result.exit_code = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
  return result;
}

std::string dist_program(const std::string& name) { return std::string(TARN_DIST_DIR) + "/" + name; }

}  // namespace tarn::test
