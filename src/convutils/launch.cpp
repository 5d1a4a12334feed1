#include "convutils/ConvUtils.h"

#include <poll.h>
#include <signal.h>
#include <unistd.h>

#include <QCoreApplication>
#include <QEventLoop>
#include <QSocketNotifier>
#include <QTimer>
#include <QVariant>
#include <algorithm>
#include <chrono>
#include <memory>
#include <optional>

#include "log/trace.h"
#include "platform/child_process.h"
#include "platform/process_launch.h"
#include "platform/trusted_path.h"

namespace tarn {
namespace {

using std::chrono::milliseconds;
using std::chrono::seconds;

constexpr size_t kMaxCommandLine = 4096;
// After SIGTERM a helper gets this long to remove its own temporary files.
constexpr seconds kTerminateGrace(10);

// Waits for the child while the calling thread's event loop goes on serving events, so that
// the gateway's windows stay alive. Without an application object it simply blocks. Nullopt
// when `timeout` passes first.
std::optional<int> wait_serving_events(child_process& child, std::optional<milliseconds> timeout) {
  using clock = std::chrono::steady_clock;
  if (QCoreApplication::instance() == nullptr) return child.wait_for(timeout);
  const auto deadline = timeout ? clock::now() + *timeout : clock::time_point::max();
  QEventLoop loop;
  QSocketNotifier ended(child.pidfd(), QSocketNotifier::Read);
  QObject::connect(&ended, &QSocketNotifier::activated, &loop, &QEventLoop::quit);
  bool timed_out = false;
  QTimer timer;
  timer.setSingleShot(true);
  timer.setTimerType(Qt::PreciseTimer);
  QObject::connect(&timer, &QTimer::timeout, &loop, [&] {
    timed_out = true;
    loop.quit();
  });
  if (timeout) timer.start(*timeout);
  while (!child.poll_exit()) {
    if (timed_out) return std::nullopt;
    // A loop that won't run (the application is quitting) must not turn into a busy wait.
    if (loop.exec() != 0) {
      std::optional<milliseconds> left;
      if (timeout)
        left = std::max(milliseconds(0), std::chrono::ceil<milliseconds>(deadline - clock::now()));
      return child.wait_for(left);
    }
  }
  return child.poll_exit();
}

// Waits until one of `children` ends or `timeout` passes, serving the calling thread's events
// meanwhile when there is an application.
void wait_for_any(const std::vector<child_process*>& children, milliseconds timeout) {
  if (QCoreApplication::instance() != nullptr) {
    QEventLoop loop;
    std::vector<std::unique_ptr<QSocketNotifier>> ended;
    for (child_process* child : children) {
      ended.push_back(std::make_unique<QSocketNotifier>(child->pidfd(), QSocketNotifier::Read));
      QObject::connect(ended.back().get(), &QSocketNotifier::activated, &loop, &QEventLoop::quit);
    }
    QTimer::singleShot(timeout, Qt::PreciseTimer, &loop, &QEventLoop::quit);
    // A loop that won't run (the application is quitting) falls through to the plain wait.
    if (loop.exec() == 0) return;
  }
  std::vector<pollfd> fds;
  for (child_process* child : children) fds.push_back({child->pidfd(), POLLIN, 0});
  ::poll(fds.data(), fds.size(), static_cast<int>(std::min<long long>(timeout.count(), 1 << 30)));
}

std::string print_helper_path() {
  std::string install;
  ReadInstallPath(&install, 1);
  return FindInstalledFile(install, kPrintHelperProgram, "bin");
}

// Traces why `program` may not be run.
bool trusted_program(const std::string& program) {
  std::string why;
  if (trusted_path(program, &why)) return true;
  TARN_TRACE(kTraceError, "Refusing to run %s: %s", program.c_str(), why.c_str());
  return false;
}

}  // namespace

void WarmPrintHelper() {
  const std::string helper = print_helper_path();
  if (helper.empty() || !trusted_program(helper)) return;
  if (!spawn_detached({helper, "/warm"}))
    TARN_TRACE(kTraceError, "can't start %s /warm", helper.c_str());
}

std::vector<print_run> PrintPDFsWithHelper(
    const std::vector<std::pair<std::string, std::string>>& jobs) {
  using clock = std::chrono::steady_clock;
  struct running {
    size_t index;
    std::unique_ptr<child_process> child;
    clock::time_point deadline;
    bool terminated = false;
  };
  std::vector<print_run> made(jobs.size());
  const std::string helper = print_helper_path();
  TARN_TRACE(kTraceProgress, "TarnPrintHelper: %s", helper.c_str());
  if (helper.empty() || !trusted_program(helper)) return made;
  const seconds timeout = print_helper_timeout();
  const size_t parallel = print_helper_parallelism();
  std::vector<running> active;
  size_t next = 0;
  while (next < jobs.size() || !active.empty()) {
    for (; next < jobs.size() && active.size() < parallel; ++next) {
      const auto& [source, target] = jobs[next];
      const std::string line =
          "/p " + quote_argument(source) + " " + quote_argument(target) + " /noviewpdf";
      TARN_TRACE(kTraceProgress, "Cmd line: %s", line.c_str());
      std::vector<std::string> argv = split_command_line(line);
      argv.insert(argv.begin(), helper);
      std::string err;
      auto child = child_process::start(argv, {}, &err);
      if (!child) {
        TARN_TRACE(kTraceError, "ShellExecuteEx returned false: %s", err.c_str());
        continue;
      }
      active.push_back({next, std::move(child), clock::now() + timeout});
    }
    if (active.empty()) continue;
    std::vector<child_process*> children;
    auto soonest = clock::time_point::max();
    for (auto& r : active) {
      children.push_back(r.child.get());
      soonest = std::min(soonest, r.deadline);
    }
    wait_for_any(children,
                 std::max(milliseconds(0), std::chrono::ceil<milliseconds>(soonest - clock::now())));
    for (auto it = active.begin(); it != active.end();) {
      const std::string& target = jobs[it->index].second;
      std::optional<int> code = it->child->poll_exit();
      if (!code && clock::now() >= it->deadline) {
        if (!it->terminated) {
          TARN_TRACE(kTraceError, "Print helper still running after %lld s, ending it",
                     static_cast<long long>(timeout.count()));
          it->child->signal(SIGTERM);
          it->terminated = true;
          made[it->index].timed_out = true;
          made[it->index].limit = timeout;
          it->deadline = clock::now() + kTerminateGrace;
        } else {
          it->child->signal(SIGKILL);
          code = it->child->wait();
        }
      }
      if (!code) {
        ++it;
        continue;
      }
      if (!it->terminated) made[it->index].exit_code = code;
      if (*code == 0 && !it->terminated && ::access(target.c_str(), F_OK) == 0) {
        made[it->index].printed = true;
        TARN_TRACE(kTraceProgress, "Print Succeeded: %s", target.c_str());
      } else {
        TARN_TRACE(kTraceError, "Print failed: %s", target.c_str());
        // Whatever lies at the target now is a fragment of this run, not a result.
        if (it->terminated) ::unlink(target.c_str());
      }
      it = active.erase(it);
    }
  }
  return made;
}

bool CheckCommandLine(const std::string& command_line, std::string* checked) {
  if (command_line.size() >= kMaxCommandLine) return false;
  std::string named;
  if (auto open = command_line.find('"'); open != std::string::npos) {
    if (auto close = command_line.find('"', open + 1); close != std::string::npos)
      named = command_line.substr(open + 1, close - open - 1);
  }
  if (!named.empty()) {
    const bool address = named.starts_with("http://") || named.starts_with("https://") ||
                         named.starts_with("ftp:") || named.starts_with("file://");
    if (!address && ::access(named.c_str(), F_OK) != 0) return false;
  }
  *checked = command_line;
  return true;
}

bool LaunchConverter(const std::string& command_line, bool modal, QObject* parent) {
  std::string checked;
  if (!CheckCommandLine(command_line, &checked)) {
    TARN_TRACE(kTraceError, "ERROR: Invalid commandline parameter");
    return false;
  }
  std::string program;
  if (!ReadInstallPath(&program, 1)) return false;
  program += kAssistantProgram;
  if (!trusted_program(program)) return false;
  std::vector<std::string> argv = split_command_line(checked);
  argv.insert(argv.begin(), program);

  if (!modal) return spawn_detached(argv);
  const bool is_window = parent != nullptr && parent->isWidgetType();
  if (is_window) {
    parent->setProperty("enabled", QVariant(false));
  } else {
    TARN_TRACE(kTraceWarning,
               "ALERT: LaunchConverter should be modal, but the parent window is invalid");
  }
  auto child = child_process::start(argv);
  if (child) wait_serving_events(*child, std::nullopt);
  if (is_window) parent->setProperty("enabled", QVariant(true));
  return child != nullptr;
}

bool PrintPDFWithHelper(const std::string& source, const std::string& target, bool mode, bool view,
                        int /*unused1*/, int /*unused2*/) {
  return RunPrintHelper(source, target, mode, view).printed;
}

print_run RunPrintHelper(const std::string& source, const std::string& target, bool mode,
                         bool view) {
  print_run result;
  try {
    const std::string helper = print_helper_path();
    TARN_TRACE(kTraceProgress, "TarnPrintHelper: %s", helper.c_str());
    if (!helper.empty() && trusted_program(helper)) {
      const std::string line = std::string(mode ? "/m" : "/p") + " " + quote_argument(source) +
                               " " + quote_argument(target) + " " +
                               (view ? "/viewpdf" : "/noviewpdf");
      TARN_TRACE(kTraceProgress, "Cmd line: %s", line.c_str());
      std::vector<std::string> argv = split_command_line(line);
      argv.insert(argv.begin(), helper);
      TARN_TRACE(kTraceProgress, "ShellExecuteEx");
      std::string err;
      auto child = child_process::start(argv, {}, &err);
      if (!child) {
        TARN_TRACE(kTraceError, "ShellExecuteEx returned false");
        TARN_TRACE(kTraceError, "%s", err.c_str());
      } else {
        TARN_TRACE(kTraceProgress, "ShellExecuteEx returned true, vaiting for process to exit");
        const seconds timeout = print_helper_timeout();
        std::optional<int> code = wait_serving_events(*child, timeout);
        if (!code) {
          TARN_TRACE(kTraceError, "Print helper still running after %lld s, ending it",
                     static_cast<long long>(timeout.count()));
          result.timed_out = true;
          result.limit = timeout;
          child->signal(SIGTERM);
          code = wait_serving_events(*child, kTerminateGrace);
          if (!code) {
            child->signal(SIGKILL);
            code = child->wait();
          }
          // Whatever lies at the target now is a fragment of this run, not a result.
          ::unlink(target.c_str());
        } else {
          result.exit_code = code;
        }
        if (*code != 0) {
          TARN_TRACE(kTraceError, "Print failed");
        } else {
          TARN_TRACE(kTraceProgress, "GetExitCodeProcess returned 0");
          if (::access(target.c_str(), F_OK) == 0) {
            result.printed = true;
            TARN_TRACE(kTraceProgress, "Print Succeeded");
          } else {
            TARN_TRACE(kTraceError, "Printed file not found");
          }
        }
      }
    }
  } catch (...) {
    TARN_TRACE(kTraceError, "Exception in PrintPDFWithHelper");
  }
  TARN_TRACE(kTraceProgress, "PrintPDFWithHelper exit");
  return result;
}

}  // namespace tarn
