// Builds the gateway's service, on the server thread, in the order its log shows: log,
// dynamic pages, handler, the "/logs" feature flag, processor, server socket, HTTP transport
// and JSON protocol factories, and a threaded server with one joined thread per connection.
#pragma once

#include <thrift/server/TThreadedServer.h>

#include <memory>

namespace tarn {

class TaskWorker;

inline constexpr int kGatewayPort = 9090;
// Where the "/logs" switch lives: bit 2 (value 4) of this DWORD in the current user's store.
inline constexpr const char* kFeatureKey = "Software\\Vantu\\PDF\\V1\\TarnGateWay";
inline constexpr const char* kFeatureValue = "Tarn_GateWay_fetatures";

// The server, not yet listening; serve() opens the port. The listening socket and every
// accepted one are close-on-exec, so helpers the gateway starts don't keep the port.
// `events` (may be null) is installed as the server's event handler. `port` is kGatewayPort
// except in tests, which listen on port 0.
std::shared_ptr<apache::thrift::server::TThreadedServer> assemble_server(
    std::shared_ptr<TaskWorker> worker,
    std::shared_ptr<apache::thrift::server::TServerEventHandler> events, int port = kGatewayPort);

// True when the current user's store switches the "/logs" page on.
bool logs_page_enabled();

}  // namespace tarn
