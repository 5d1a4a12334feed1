// The gateway process: start-up on the main thread (hidden main window, server-machine
// refusal, already-running refusal, task worker, server thread) and the exit sequence that
// stops the server and joins its thread. One object per process; every call but the server
// thread's own is made on the main thread, with a QApplication in place.
#pragma once

#include <thrift/server/TThreadedServer.h>

#include <chrono>
#include <memory>
#include <string>
#include <thread>

#include "process/exit_codes.h"
#include "process/probe.h"
#include "process/server_assembly.h"

namespace tarn {

class CMainFrame;
class TaskWorker;
class server_lifecycle;

class CTarnGateWayApp {
 public:
  // The port and the probe's address are constants; tests alone set others.
  struct settings {
    int port = kGatewayPort;
    std::string probe_uri = kProbeUri;
  };

  CTarnGateWayApp();
  explicit CTarnGateWayApp(settings overrides);
  // Runs the exit sequence if ExitInstance() didn't.
  ~CTarnGateWayApp();
  CTarnGateWayApp(const CTarnGateWayApp&) = delete;
  CTarnGateWayApp& operator=(const CTarnGateWayApp&) = delete;

  // kExitOk when the server thread is on its way and the event loop should run. Otherwise
  // the refusal's code (kExitServerEdition, kExitAlreadyRunning), its line written to the
  // diagnostic channel, and no worker or thread made.
  exit_code InitInstance();

  // After the event loop: stops a listening server, waits for its connections to end and
  // joins the server thread. Returns `loop_code`. Safe to call after a refusal, and twice.
  int ExitInstance(int loop_code);

  // The port the server listens on (the real one when settings.port is 0), waiting up to
  // `wait` for it to listen; 0 when it doesn't. Any thread.
  int listening_port(std::chrono::milliseconds wait = std::chrono::milliseconds(0)) const;

  // Main thread, for the main window; null before InitInstance() made it.
  TaskWorker* task_worker() const { return task_worker_.get(); }

 private:
  void server_thread_main();
  // Any thread: ends the event loop with `code` once it runs.
  void quit_loop(int code);

  const settings settings_;
  std::unique_ptr<CMainFrame> main_frame_;
  // Destroyed in the reverse order: the server (and with it the handler) first, the worker last.
  std::shared_ptr<TaskWorker> task_worker_;
  std::shared_ptr<std::thread> server_thread_;
  std::shared_ptr<server_lifecycle> lifecycle_;
  // Written once by the server thread before it begins to serve; the main thread reads it
  // only after server_lifecycle::stop_needed() said it listens, or after the join.
  std::shared_ptr<apache::thrift::server::TThreadedServer> server_;
};

}  // namespace tarn
