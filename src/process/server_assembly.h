// Builds the gateway's service, on the server thread, in the order its log shows: log,
// dynamic pages, handler, the "/logs" feature flag, processor, server socket, HTTP transport
// and JSON protocol factories, and a threaded server with one joined thread per connection.
#pragma once

#include <thrift/server/TThreadedServer.h>

#include <memory>

namespace tarn {

class TaskWorker;

inline constexpr int kGatewayPort = 9090;

// The server, not yet listening; serve() opens the port. The listening socket and every
// accepted one are close-on-exec, so helpers the gateway starts don't keep the port.
// `events` (may be null) is installed as the server's event handler. `port` is kGatewayPort
// except in tests, which listen on port 0.
std::shared_ptr<apache::thrift::server::TThreadedServer> assemble_server(
    std::shared_ptr<TaskWorker> worker,
    std::shared_ptr<apache::thrift::server::TServerEventHandler> events, int port = kGatewayPort);

}  // namespace tarn
