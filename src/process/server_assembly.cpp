#include "process/server_assembly.h"

#include <fcntl.h>
#include <thrift/concurrency/ThreadFactory.h>
#include <thrift/protocol/TJSONProtocol.h>
#include <thrift/transport/TServerSocket.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <string>

#include "TarnGateWay.h"
#include "convutils/CConvRegKey.h"
#include "log/simple_log.h"
#include "log/trace.h"
#include "tasks/TarnGateWayHandler.h"
#include "tasks/TaskWorker.h"
#include "web/access_rules.h"
#include "web/dynamic_uri_handler.h"
#include "web/gateway_server_socket.h"
#include "web/thrift_http_server.h"

namespace tarn {
namespace {

using apache::thrift::concurrency::ThreadFactory;
using apache::thrift::protocol::TJSONProtocolFactory;
using apache::thrift::server::TServerEventHandler;
using apache::thrift::server::TThreadedServer;

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

constexpr const char* kUserKey = "Software\\Vantu\\PDF\\V1\\TarnGateWay";
constexpr const char* kPolicyKey = "Software\\Policies\\Vantu\\Tarn 5.0\\Gateway";

// The first of `places` that holds the value, held to [low, high]; else `fallback`.
DWORD read_dword(std::initializer_list<reg_root> places, const char* key, const char* name,
                 DWORD fallback, DWORD low, DWORD high) {
  for (reg_root root : places) {
    CConvRegKey setting(root, key, name, fallback);
    DWORD value = fallback;
    if (setting.read_number(&value) == kErrorSuccess) return std::clamp(value, low, high);
  }
  return fallback;
}

// A time limit in seconds: the user's value, else the machine's.
std::chrono::milliseconds seconds_setting(const char* name, DWORD fallback) {
  return std::chrono::seconds(read_dword({reg_root::current_user, reg_root::local_machine},
                                         kUserKey, name, fallback, 1, 86400));
}

// A machine policy; a user can't widen who may connect.
DWORD policy(const char* name, DWORD fallback, DWORD low, DWORD high) {
  return read_dword({reg_root::local_machine}, kPolicyKey, name, fallback, low, high);
}

// The Origin allow-list: the machine policy, else the user's setting; none means any origin.
std::vector<std::string> allowed_origins() {
  for (const auto& [root, key] : {std::pair{reg_root::local_machine, kPolicyKey},
                                  std::pair{reg_root::current_user, kUserKey}}) {
    CConvRegKey list(root, key, "AllowedOrigins", std::nullopt);
    if (const std::string* text = list.read_text(); text != nullptr && !text->empty())
      return parse_origin_list(*text);
  }
  return {};
}

}  // namespace

gateway_settings read_gateway_settings() {
  gateway_settings settings;
  settings.max_clients = policy("MaxClients", 64, 1, 4096);
  settings.allow_remote = policy("AllowRemoteClients", 0, 0, 1) != 0;
  settings.limits.read_timeout = seconds_setting("ReceiveTimeoutSeconds", 30);
  settings.limits.request_timeout = seconds_setting("RequestTimeoutSeconds", 60);
  settings.limits.idle_timeout = seconds_setting("IdleTimeoutSeconds", 120);
  settings.send_timeout = seconds_setting("SendTimeoutSeconds", 30);
  auto rules = std::make_shared<http_access_rules>();
  rules->own_names = own_host_names();
  rules->origins = allowed_origins();
  settings.rules = std::move(rules);
  return settings;
}

void end_connections(TThreadedServer& server) {
  if (auto transports =
          std::dynamic_pointer_cast<thrift_http_server_factory>(server.getInputTransportFactory()))
    transports->shut_down_connections();
}

std::shared_ptr<TThreadedServer> assemble_server(std::shared_ptr<TaskWorker> worker,
                                                 std::shared_ptr<TServerEventHandler> events,
                                                 int port) {
  const std::string start_text = std::string(kVersionText) + " GateWay started";
  auto log = std::make_shared<simple_log>(start_text);
  auto dynamic = std::make_shared<dynamic_uri_handler>();
  auto handler = std::make_shared<TarnGateWayHandler>(log, std::move(worker));
  if (logs_page_enabled()) dynamic->add_page("/logs", [log] { return log->render(); });
  auto processor = std::make_shared<TarnWwySrv::TarnGateWayProcessor>(handler);

  const gateway_settings settings = read_gateway_settings();
  auto socket = std::make_shared<gateway_server_socket>(port, settings.allow_remote);
  socket->setListenCallback(set_close_on_exec);
  socket->setAcceptCallback(set_close_on_exec);
  socket->setSendTimeout(static_cast<int>(settings.send_timeout.count()));
  auto transports = std::make_shared<thrift_http_server_factory>("index.html", dynamic,
                                                                 settings.limits, settings.rules);
  auto protocols = std::make_shared<TJSONProtocolFactory>();
  auto server = std::make_shared<TThreadedServer>(processor, socket, transports, protocols,
                                                  std::make_shared<ThreadFactory>(false));
  // Further clients wait in the listen backlog until a connection ends.
  server->setConcurrentClientLimit(settings.max_clients);
  if (events) server->setServerEventHandler(std::move(events));
  return server;
}

}  // namespace tarn
