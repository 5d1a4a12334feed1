#include "platform/process_launch.h"

#include <fcntl.h>
#include <linux/close_range.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "platform/unique_fd.h"

extern char** environ;

namespace tarn {
namespace {

void set_err(std::string* err, std::string text) {
  if (err != nullptr) *err = std::move(text);
}

// Runs in the forked grandchild: only async-signal-safe calls from here to execve, since the
// caller may have other threads that held locks at the time of the fork.
[[noreturn]] void exec_grandchild(char* const* argv, int nice_increment, int report_fd) {
  setsid();
  struct sigaction dfl;
  std::memset(&dfl, 0, sizeof dfl);
  dfl.sa_handler = SIG_DFL;
  for (int sig = 1; sig < NSIG; ++sig) sigaction(sig, &dfl, nullptr);
  sigset_t none;
  sigemptyset(&none);
  sigprocmask(SIG_SETMASK, &none, nullptr);
  int null_fd = open("/dev/null", O_RDONLY);
  if (null_fd >= 0 && null_fd != STDIN_FILENO) {
    dup2(null_fd, STDIN_FILENO);
    close(null_fd);
  }
  // Close-on-exec rather than close, so that the report pipe still works if execve fails.
  close_range(3, ~0U, CLOSE_RANGE_CLOEXEC);
  if (nice_increment != 0)
    setpriority(PRIO_PROCESS, 0, getpriority(PRIO_PROCESS, 0) + nice_increment);
  execve(argv[0], argv, environ);
  int code = errno;
  (void)!write(report_fd, &code, sizeof code);
  _exit(127);
}

}  // namespace

std::vector<std::string> split_command_line(std::string_view line) {
  std::vector<std::string> args;
  size_t i = 0;
  const size_t n = line.size();
  while (true) {
    while (i < n && (line[i] == ' ' || line[i] == '\t')) ++i;
    if (i >= n) break;
    std::string arg;
    bool quoted = false;
    while (i < n) {
      const char c = line[i];
      if (!quoted && (c == ' ' || c == '\t')) break;
      if (c == '\\') {
        size_t slashes = 0;
        while (i < n && line[i] == '\\') {
          ++slashes;
          ++i;
        }
        if (i < n && line[i] == '"') {
          arg.append(slashes / 2, '\\');
          if (slashes % 2 == 1) {
            arg += '"';
            ++i;
          }
          // An even count leaves the quote to the branch below, which opens or closes a group.
        } else {
          arg.append(slashes, '\\');
        }
        continue;
      }
      if (c == '"') {
        if (quoted && i + 1 < n && line[i + 1] == '"') {
          arg += '"';
          i += 2;
          continue;
        }
        quoted = !quoted;
        ++i;
        continue;
      }
      arg += c;
      ++i;
    }
    args.push_back(std::move(arg));
  }
  return args;
}

std::string quote_argument(std::string_view arg) {
  std::string out = "\"";
  size_t slashes = 0;
  for (char c : arg) {
    if (c == '\\') {
      ++slashes;
      continue;
    }
    if (c == '"') {
      out.append(2 * slashes + 1, '\\');
    } else {
      out.append(slashes, '\\');
    }
    slashes = 0;
    out += c;
  }
  // Backslashes right before the closing quote must not escape it.
  out.append(2 * slashes, '\\');
  out += '"';
  return out;
}

bool spawn_detached(const std::vector<std::string>& argv, const detached_options& options,
                    std::string* err) {
  if (argv.empty() || argv[0].empty()) {
    set_err(err, "no program to start");
    return false;
  }
  // Everything the children touch is made before the fork: they may not allocate.
  std::vector<char*> args;
  args.reserve(argv.size() + 1);
  for (const auto& arg : argv) args.push_back(const_cast<char*>(arg.c_str()));
  args.push_back(nullptr);

  int report[2];
  if (pipe2(report, O_CLOEXEC) != 0) {
    set_err(err, std::string("can't make a pipe: ") + std::strerror(errno));
    return false;
  }
  unique_fd read_end(report[0]);
  unique_fd write_end(report[1]);

  const pid_t middle = fork();
  if (middle < 0) {
    set_err(err, "can't start " + argv[0] + ": " + std::strerror(errno));
    return false;
  }
  if (middle == 0) {
    const pid_t pid = fork();
    if (pid == 0) exec_grandchild(args.data(), options.nice_increment, report[1]);
    if (pid < 0) {
      int code = errno;
      (void)!write(report[1], &code, sizeof code);
    }
    _exit(0);
  }
  write_end.reset();
  int status = 0;
  while (waitpid(middle, &status, 0) < 0 && errno == EINTR) {
  }
  // End of file without a word means execve succeeded and closed the pipe.
  int code = 0;
  ssize_t got;
  while ((got = read(read_end.get(), &code, sizeof code)) < 0 && errno == EINTR) {
  }
  if (got == static_cast<ssize_t>(sizeof code)) {
    set_err(err, "can't start " + argv[0] + ": " + std::strerror(code));
    return false;
  }
  return true;
}

}  // namespace tarn
