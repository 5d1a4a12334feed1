// tarngateway: the per-user gateway process on port 9090.
#include <malloc.h>
#include <thrift/Thrift.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <QApplication>
#include <cstdio>
#include <cstdlib>
#include <memory>

#include "dialogs/dialog_look.h"
#include "log/trace.h"
#include "process/CTarnGateWayApp.h"
#include "process/exit_codes.h"
#include "process/signal_watcher.h"
#include "tasks/TarnGateWayHandler.h"

namespace {

constexpr const char* kFooter = R"(
It takes no options: it serves HTTP on port 9090 (Thrift JSON calls by POST, the files of
www-data/ beside it by GET) until SIGTERM, SIGINT or SIGHUP ends it.

Exit codes:
  0  stopped by a signal
  1  the service couldn't be built
  2  bad command line
  3  another gateway already answers on port 9090; this one gave up
  4  this machine is a server; the gateway doesn't run there
  5  port 9090 can't be listened on (the reason is on standard error)

Environment:
  TARN_TRACE=85  write the diagnostic lines to standard error
  QT_QPA_PLATFORM  Qt platform; without a display, or with one that can't be reached,
                   "offscreen" is used)";

bool has_value(const char* name) {
  const char* value = std::getenv(name);
  return value != nullptr && value[0] != '\0';
}

// Qt aborts at start when it finds no display; the gateway must run all the same (at boot
// under systemd, over ssh, in tests). Its dialogs then have nowhere to show.
void use_offscreen_without_display() {
  if (!has_value("DISPLAY") && !has_value("WAYLAND_DISPLAY") && !has_value("QT_QPA_PLATFORM"))
    setenv("QT_QPA_PLATFORM", "offscreen", 1);
}

}  // namespace

int main(int argc, char** argv) {
  CLI::App cli(
      "The Vantu Tarn gateway: lets the document management web client hand work to "
      "the PDF tools of this machine.",
      "tarngateway");
  cli.set_version_flag("--version", tarn::kVersionText);
  cli.footer(kFooter);
  try {
    cli.parse(argc, argv);
  } catch (const CLI::Success& e) {
    return cli.exit(e);
  } catch (const CLI::ParseError& e) {
    std::fprintf(stderr, "tarngateway: %s (see --help)\n", e.what());
    return tarn::kExitUsage;
  }

  if (::geteuid() == 0) {
    std::fprintf(stderr,
                 "tarngateway: warning: running as root; every web page in a browser of this "
                 "machine could then act as root. Run it as the desktop user.\n");
  }
  // Request buffers are freed after each big request; from the heap glibc would keep them.
  mallopt(M_MMAP_THRESHOLD, 256 * 1024);
  // Thrift's own reports name what a client sent: they go through the diagnostic channel,
  // which makes them one line each.
  apache::thrift::GlobalOutput.setOutputFunction(
      [](const char* text) { TARN_TRACE(tarn::kTraceWarning, "%s", text); });

  use_offscreen_without_display();
  // A DISPLAY whose server has gone (a session that ended, a stale variable) would abort Qt
  // as well: with a list of platforms it falls back to offscreen instead.
  tarn::prefer_display_platform();
  QApplication qt(argc, argv);
  QApplication::setQuitOnLastWindowClosed(false);
  QCoreApplication::setApplicationName("tarngateway");

  auto stop_on_signal = std::make_unique<tarn::signal_watcher>([](int signo) {
    TARN_TRACE(tarn::kTraceProgress, "Signal %d: stopping.", signo);
    QCoreApplication::exit(tarn::kExitOk);
  });

  tarn::CTarnGateWayApp app;
  int code = app.InitInstance();
  if (code == tarn::kExitOk) code = qt.exec();
  // A second Ctrl-C while connections drain ends the process at once.
  stop_on_signal.reset();
  return app.ExitInstance(code);
}
