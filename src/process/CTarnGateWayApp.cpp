#include "process/CTarnGateWayApp.h"

#include <thrift/transport/TServerSocket.h>

#include <QCoreApplication>
#include <QMetaObject>
#include <cstdio>

#include "log/trace.h"
#include "platform/machine_kind.h"
#include "process/CMainFrame.h"
#include "process/server_lifecycle.h"
#include "tasks/TaskWorker.h"

namespace tarn {
namespace {

constexpr std::chrono::seconds kConnectionGrace{2};

}  // namespace

CTarnGateWayApp::CTarnGateWayApp() : CTarnGateWayApp(settings{}) {}

CTarnGateWayApp::CTarnGateWayApp(settings overrides) : settings_(std::move(overrides)) {}

CTarnGateWayApp::~CTarnGateWayApp() { ExitInstance(kExitOk); }

exit_code CTarnGateWayApp::InitInstance() {
  main_frame_ = std::make_unique<CMainFrame>(*this);

  // The server test comes first: on a server nothing may listen, whoever else runs.
  if (is_server_edition()) {
    TARN_TRACE(kTraceProgress, "TarnGateWay.exe can't run on Windows Server version.");
    return kExitServerEdition;
  }
  if (another_gateway_answers(settings_.probe_uri)) {
    TARN_TRACE(kTraceProgress,
               "TarnGateWay.exe already run, it can't serve more than one Windows user, stop "
               "this instance.");
    return kExitAlreadyRunning;
  }

  task_worker_ = std::make_shared<TaskWorker>(main_frame_.get());
  lifecycle_ = std::make_shared<server_lifecycle>();
  server_thread_ = std::make_shared<std::thread>([this] { server_thread_main(); });
  return kExitOk;
}

int CTarnGateWayApp::ExitInstance(int loop_code) {
  if (server_thread_ && server_thread_->joinable()) {
    if (lifecycle_->stop_needed() && server_) {
      server_->stop();
      // stop() interrupts waiting reads; a client that holds a reply unread, or a request
      // in progress, gets a moment to finish and then loses its connection.
      if (!lifecycle_->wait_finished(kConnectionGrace)) end_connections(*server_);
    }
    server_thread_->join();
  }
  return loop_code;
}

int CTarnGateWayApp::listening_port(std::chrono::milliseconds wait) const {
  if (!lifecycle_ || !lifecycle_->wait_listening(wait)) return 0;
  auto socket = std::dynamic_pointer_cast<apache::thrift::transport::TServerSocket>(
      server_->getServerTransport());
  return socket ? socket->getPort() : 0;
}

void CTarnGateWayApp::server_thread_main() {
  std::shared_ptr<apache::thrift::server::TThreadedServer> server;
  try {
    server = assemble_server(task_worker_, lifecycle_, settings_.port);
  } catch (const std::exception& e) {
    std::fprintf(stderr, "tarngateway: can't build the server: %s\n", e.what());
    lifecycle_->end_serving();
    quit_loop(kExitFailure);
    return;
  }
  server_ = server;
  TARN_TRACE(kTraceProgress, "TarnGateWay started.");
  if (!lifecycle_->begin_serving()) return;

  std::string failure;
  try {
    server->serve();
  } catch (const std::exception& e) {
    failure = e.what();
  }
  switch (lifecycle_->end_serving()) {
    case server_lifecycle::ending::stopped:
      return;
    case server_lifecycle::ending::never_listened:
      std::fprintf(stderr, "tarngateway: can't listen on port %d: %s\n", settings_.port,
                   failure.c_str());
      break;
    case server_lifecycle::ending::died:
      std::fprintf(stderr, "tarngateway: the server on port %d ended by itself%s%s\n",
                   settings_.port, failure.empty() ? "" : ": ", failure.c_str());
      break;
  }
  quit_loop(kExitPortUnavailable);
}

void CTarnGateWayApp::quit_loop(int code) {
  QMetaObject::invokeMethod(
      main_frame_.get(), [code] { QCoreApplication::exit(code); }, Qt::QueuedConnection);
}

}  // namespace tarn
