#include "assistant.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "platform/ascii_text.h"
#include "platform/child_process.h"
#include "platform/unique_fd.h"
#include "platform/user_dirs.h"

namespace tarn {
namespace {

namespace fs = std::filesystem;
using std::chrono::milliseconds;

constexpr size_t kMaxCollected = 64 * 1024;
constexpr std::chrono::seconds kTerminateGrace(10);
constexpr int kMaxNameTries = 1000;

std::string first_line(const std::string& text) {
  std::string line = text.substr(0, text.find('\n'));
  while (!line.empty() && (line.back() == '\r' || line.back() == ' ')) line.pop_back();
  return line;
}

// Creates the first free name of "stem.pdf", "stem (2).pdf", ... exclusively, so that neither
// an older file nor a second assistant running at the same time is ever written over.
std::optional<fs::path> reserve_output(const fs::path& dir, const std::string& stem,
                                       std::string* err) {
  for (int n = 1; n <= kMaxNameTries; ++n) {
    const std::string name = n == 1 ? stem + ".pdf" : stem + " (" + std::to_string(n) + ").pdf";
    const fs::path path = dir / name;
    unique_fd fd(::open(path.c_str(), O_CREAT | O_EXCL | O_WRONLY | O_CLOEXEC, 0666));
    if (fd) return path;
    if (errno != EEXIST) {
      *err = "can't create " + path.string() + ": " + std::strerror(errno);
      return std::nullopt;
    }
  }
  *err = "no free name for " + stem + ".pdf in " + dir.string();
  return std::nullopt;
}

std::string describe_xps_failure(int code) {
  switch (code) {
    case kTarnImageUnreadable:
      return "not a readable XPS document";
    case kTarnImageUnwritable:
      return "the PDF could not be written";
    case kTarnImageRenderFailed:
      return "a page could not be drawn";
    default:
      return "tarnimage.so failed with " + std::to_string(code);
  }
}

bool drain(int fd, std::string* into) {
  char buffer[4096];
  while (true) {
    ssize_t n = ::read(fd, buffer, sizeof buffer);
    if (n > 0) {
      if (into->size() < kMaxCollected)
        into->append(buffer, std::min(static_cast<size_t>(n), kMaxCollected - into->size()));
      continue;
    }
    if (n < 0 && errno == EINTR) continue;
    return n == 0;  // true at end of file; false when nothing more is there for now
  }
}

}  // namespace

collected_run run_collecting(const std::vector<std::string>& argv, int collected_fd, int signal_fd,
                             std::chrono::seconds timeout) {
  collected_run run;
  int ends[2];
  if (pipe2(ends, O_CLOEXEC) != 0) {
    run.start_error = std::string("can't make a pipe: ") + std::strerror(errno);
    return run;
  }
  unique_fd read_end(ends[0]);
  unique_fd write_end(ends[1]);
  fcntl(read_end.get(), F_SETFL, O_NONBLOCK);
  child_options options;
  (collected_fd == STDOUT_FILENO ? options.stdout_fd : options.stderr_fd) = write_end.get();
  auto child = child_process::start(argv, options, &run.start_error);
  write_end.reset();
  if (!child) return run;

  using clock = std::chrono::steady_clock;
  const auto deadline = clock::now() + timeout;
  bool pipe_open = true;
  while (!child->poll_exit()) {
    const auto left = std::chrono::ceil<milliseconds>(deadline - clock::now());
    if (left.count() <= 0) {
      run.timed_out = true;
      break;
    }
    pollfd fds[3] = {{child->pidfd(), POLLIN, 0},
                     {pipe_open ? read_end.get() : -1, POLLIN, 0},
                     {signal_fd, POLLIN, 0}};
    if (::poll(fds, 3, static_cast<int>(std::min<long long>(left.count(), 1 << 30))) < 0 &&
        errno != EINTR)
      break;
    if (fds[1].revents != 0 && drain(read_end.get(), &run.output)) pipe_open = false;
    if (fds[2].revents != 0) {
      run.interrupted = true;
      break;
    }
  }
  if (!child->poll_exit()) {
    child->signal(SIGTERM);
    if (!child->wait_for(kTerminateGrace)) child->signal(SIGKILL);
    child->wait();
  } else {
    run.exit_code = child->poll_exit();
  }
  // What the program wrote before it ended; a process it left running may hold the pipe.
  if (pipe_open) drain(read_end.get(), &run.output);
  return run;
}

fs::path documents_dir() {
  const fs::path home = home_dir();
  const char* path_var = std::getenv("PATH");
  std::string dirs = path_var != nullptr ? path_var : "/usr/bin:/bin";
  for (size_t start = 0; start <= dirs.size();) {
    size_t colon = dirs.find(':', start);
    if (colon == std::string::npos) colon = dirs.size();
    const std::string tool = dirs.substr(start, colon - start) + "/xdg-user-dir";
    start = colon + 1;
    if (::access(tool.c_str(), X_OK) != 0) continue;
    collected_run run =
        run_collecting({tool, "DOCUMENTS"}, STDOUT_FILENO, -1, std::chrono::seconds(10));
    const fs::path found = first_line(run.output);
    if (run.exit_code == 0 && found.is_absolute() &&
        (found / "").lexically_normal() != (home / "").lexically_normal())
      return found;
    break;
  }
  return home / "Documents";
}

assistant::assistant(fs::path out_dir, std::string tarnprint, int signal_fd,
                     std::chrono::seconds helper_timeout)
    : out_dir_(std::move(out_dir)),
      tarnprint_(std::move(tarnprint)),
      signal_fd_(signal_fd),
      helper_timeout_(helper_timeout) {}

conversion assistant::convert(const std::string& source) {
  conversion result;
  struct stat st;
  if (::stat(source.c_str(), &st) != 0) {
    result.reason = std::string("can't read it: ") + std::strerror(errno);
    return result;
  }
  if (!S_ISREG(st.st_mode)) {
    result.reason = "not a file";
    return result;
  }
  const fs::path src(source);
  std::string stem = src.stem().string();
  if (stem.empty()) stem = src.filename().string();
  auto output = reserve_output(out_dir_, stem, &result.reason);
  if (!output) return result;
  // Hidden beside the reserved name, and as unique as it is.
  const fs::path part = out_dir_ / ("." + output->filename().string());
  ::unlink(part.c_str());

  const std::string ext = ascii_lower(src.extension().string());
  result = ext == ".xps" || ext == ".oxps" ? convert_xps(source, part) : print(source, part);
  struct stat made;
  if (result.ok && (::stat(part.c_str(), &made) != 0 || made.st_size == 0)) {
    result.ok = false;
    result.reason = "no PDF came out";
  }
  if (result.ok && ::rename(part.c_str(), output->c_str()) != 0) {
    result.ok = false;
    result.reason = "can't rename " + part.string() + ": " + std::strerror(errno);
  }
  if (!result.ok) {
    ::unlink(part.c_str());
    ::unlink(output->c_str());
    return result;
  }
  result.output = *output;
  return result;
}

conversion assistant::print(const std::string& source, const std::string& part) {
  conversion result;
  collected_run run = run_collecting({tarnprint_, "/p", source, part, "/noviewpdf"}, STDERR_FILENO,
                                     signal_fd_, helper_timeout_);
  const std::string said = first_line(run.output);
  if (!run.start_error.empty()) {
    result.reason = run.start_error;
  } else if (run.interrupted) {
    result.interrupted = true;
    result.reason = "interrupted";
  } else if (run.timed_out) {
    result.reason =
        "tarnprint still running after " + std::to_string(helper_timeout_.count()) + " s; ended";
    result.why = left_out_reason::timed_out;
    result.limit = helper_timeout_;
  } else if (run.exit_code != 0) {
    result.reason = "tarnprint exited with " + std::to_string(run.exit_code.value_or(-1)) +
                    (said.empty() ? "" : ": " + said);
    result.why = print_failure_reason(print_run{false, run.exit_code});
    result.limit = print_helper_convert_timeout();
  } else {
    result.ok = true;
  }
  return result;
}

conversion assistant::convert_xps(const std::string& source, const std::string& part) {
  conversion result;
  std::scoped_lock lock(xps_mu_);
  if (!xps_.is_loaded() && !xps_load_error_) {
    std::string err;
    module_handle module =
        LoadFromProgramOrInstall(kTarnImageLibrary, kLoadProgramFolder | kLoadInstallFolder, &err);
    if (!module || !xps_.attach(std::move(module), &err)) xps_load_error_ = err;
  }
  if (!xps_.is_loaded()) {
    result.reason =
        std::string("can't load ") + kTarnImageLibrary + ": " + xps_load_error_.value_or("");
    return result;
  }
  const int code = xps_.XpsToPdfConvert(source.c_str(), part.c_str(), 15, 0, 0);
  if (code < 0) {
    result.reason = describe_xps_failure(code);
    return result;
  }
  result.ok = true;
  return result;
}

}  // namespace tarn
