#include "process/server_assembly.h"

#include <fcntl.h>
#include <thrift/concurrency/ThreadFactory.h>
#include <thrift/protocol/TJSONProtocol.h>
#include <thrift/transport/TServerSocket.h>

#include <cerrno>
#include <cstring>
#include <string>

#include "TarnGateWay.h"
#include "convutils/CConvRegKey.h"
#include "log/simple_log.h"
#include "log/trace.h"
#include "tasks/TarnGateWayHandler.h"
#include "tasks/TaskWorker.h"
#include "web/dynamic_uri_handler.h"
#include "web/thrift_http_server.h"

namespace tarn {
namespace {

using apache::thrift::concurrency::ThreadFactory;
using apache::thrift::protocol::TJSONProtocolFactory;
using apache::thrift::server::TServerEventHandler;
using apache::thrift::server::TThreadedServer;
using apache::thrift::transport::TServerSocket;

// Thrift opens its sockets without close-on-exec; a LibreOffice helper that inherited the
// listener would keep port 9090 taken after the gateway is gone.
void set_close_on_exec(int fd) {
  const int flags = ::fcntl(fd, F_GETFD);
  if (flags < 0 || ::fcntl(fd, F_SETFD, flags | FD_CLOEXEC) < 0)
    TARN_TRACE(kTraceError, "fcntl(%d, FD_CLOEXEC) failed: %s", fd, std::strerror(errno));
}

// The feature flags of the current user; the bit of value 4 switches the "/logs" page on. Read
// once, here: a change needs a new start.
bool logs_page_enabled() {
  CConvRegKey features(reg_root::current_user, "Software\\Vantu\\PDF\\V1\\TarnGateWay",
                       "Tarn_GateWay_fetatures", DWORD{0});
  return ((features.read_as_number() >> 2) & 1) != 0;
}

}  // namespace

std::shared_ptr<TThreadedServer> assemble_server(std::shared_ptr<TaskWorker> worker,
                                                 std::shared_ptr<TServerEventHandler> events,
                                                 int port) {
  const std::string start_text = std::string(kVersionText) + " GateWay started";
  auto log = std::make_shared<simple_log>(start_text);
  auto dynamic = std::make_shared<dynamic_uri_handler>();
  auto handler = std::make_shared<TarnGateWayHandler>(log, std::move(worker));
  if (logs_page_enabled()) dynamic->add_page("/logs", [log] { return log->render(); });
  auto processor = std::make_shared<TarnWwySrv::TarnGateWayProcessor>(handler);

  auto socket = std::make_shared<TServerSocket>(port);
  socket->setListenCallback(set_close_on_exec);
  socket->setAcceptCallback(set_close_on_exec);
  auto transports = std::make_shared<thrift_http_server_factory>("index.html", dynamic);
  auto protocols = std::make_shared<TJSONProtocolFactory>();
  auto server = std::make_shared<TThreadedServer>(processor, socket, transports, protocols,
                                                  std::make_shared<ThreadFactory>(false));
  if (events) server->setServerEventHandler(std::move(events));
  return server;
}

}  // namespace tarn
