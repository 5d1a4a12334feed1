#include "support/run_program.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <unistd.h>

#include <cerrno>
#include <filesystem>
#include <stdexcept>

#include "platform/child_process.h"

namespace tarn::test {

program_result run_program(const std::vector<std::string>& args, const std::string& input,
                           std::chrono::milliseconds timeout) {
  std::vector<std::string> argv = args;
  std::string input_file;  // the child's standard input is /dev/null unless redirected
  if (!input.empty()) {
    input_file = (std::filesystem::temp_directory_path() / "tarn-input-XXXXXX").string();
    const unique_fd file(mkstemp(input_file.data()));
    if (!file ||
        write(file.get(), input.data(), input.size()) != static_cast<ssize_t>(input.size()))
      throw std::runtime_error("can't write " + input_file);
    argv.insert(argv.begin(), {"/bin/sh", "-c", "exec \"$@\" < \"$0\"", input_file});
  }
  int out[2], err[2];
  if (pipe2(out, O_CLOEXEC) != 0 || pipe2(err, O_CLOEXEC) != 0)
    throw std::runtime_error("pipe failed");
  unique_fd out_write(out[1]), err_write(err[1]);
  program_result result;
  auto child = child_process::start(
      argv, {.stdout_fd = out_write.get(), .stderr_fd = err_write.get()}, &result.err);
  out_write.reset();
  err_write.reset();
  const auto deadline = std::chrono::steady_clock::now() + timeout;
  pollfd fds[2] = {{out[0], POLLIN, 0}, {err[0], POLLIN, 0}};
  std::string* sinks[2] = {&result.out, &result.err};
  while (child && (fds[0].fd >= 0 || fds[1].fd >= 0)) {
    const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
        deadline - std::chrono::steady_clock::now());
    if (left.count() <= 0) {
      child->signal(SIGKILL);
      break;
    }
    if (poll(fds, 2, static_cast<int>(left.count())) < 0 && errno != EINTR) break;
    for (int i = 0; i < 2; ++i) {
      if (fds[i].fd < 0 || fds[i].revents == 0) continue;
      char buffer[8192];
      const ssize_t n = read(fds[i].fd, buffer, sizeof buffer);
      if (n > 0) sinks[i]->append(buffer, static_cast<size_t>(n));
      if (n == 0 || (n < 0 && errno != EINTR)) fds[i].fd = -1;
    }
  }
  close(out[0]);
  close(err[0]);
  result.exit_code = child ? child->wait() : 127;
  if (!input_file.empty()) unlink(input_file.c_str());
  return result;
}

std::string dist_program(const std::string& name) {
  return std::string(TARN_DIST_DIR) + "/" + name;
}

}  // namespace tarn::test
