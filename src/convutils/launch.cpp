#include "convutils/ConvUtils.h"

#include <signal.h>
#include <unistd.h>

#include <QCoreApplication>
#include <QEventLoop>
#include <QSocketNotifier>
#include <QTimer>
#include <QVariant>
#include <chrono>
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

// Traces why `program` may not be run.
bool trusted_program(const std::string& program) {
  std::string why;
  if (trusted_path(program, &why)) return true;
  TARN_TRACE(kTraceError, "Refusing to run %s: %s", program.c_str(), why.c_str());
  return false;
}

}  // namespace

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
    std::string install;
    ReadInstallPath(&install, 1);
    const std::string helper = FindInstalledFile(install, kPrintHelperProgram, "bin");
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
