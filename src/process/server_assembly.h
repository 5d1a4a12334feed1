// Builds the gateway's service, on the server thread, in the order its log shows: log,
// dynamic pages, handler, the "/logs" feature flag, processor, server socket, HTTP transport
// and JSON protocol factories, and a threaded server with one joined thread per connection.
#pragma once

#include <thrift/server/TThreadedServer.h>

#include <chrono>
#include <memory>

#include "web/thrift_http_server.h"

namespace tarn {

class TaskWorker;

inline constexpr int kGatewayPort = 9090;

// What guards port 9090, read from the stores at start (defaults where nothing is set).
struct gateway_settings {
  int64_t max_clients = 64;
  bool allow_remote = false;
  http_request_limits limits;
  std::chrono::milliseconds send_timeout{30000};
  std::shared_ptr<const http_access_rules> rules;
};
gateway_settings read_gateway_settings();

// After stop(): ends the connections still open, whatever their clients do, so that serve()
// returns.
void end_connections(apache::thrift::server::TThreadedServer& server);

// The server, not yet listening; serve() opens the port. The listening socket and every
// accepted one are close-on-exec, so helpers the gateway starts don't keep the port.
// `events` (may be null) is installed as the server's event handler. `port` is kGatewayPort
// except in tests, which listen on port 0.
std::shared_ptr<apache::thrift::server::TThreadedServer> assemble_server(
    std::shared_ptr<TaskWorker> worker,
    std::shared_ptr<apache::thrift::server::TServerEventHandler> events, int port = kGatewayPort);

}  // namespace tarn
