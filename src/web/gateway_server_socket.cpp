#include "web/gateway_server_socket.h"

#include <netinet/in.h>
#include <sys/socket.h>
#include <thrift/transport/TSocket.h>
#include <unistd.h>

#include "log/trace.h"
#include "web/access_rules.h"

namespace tarn {

using apache::thrift::transport::TSocket;
using apache::thrift::transport::TTransport;

gateway_server_socket::gateway_server_socket(int port, bool allow_remote)
    : TServerSocket(wildcard_address(), port), allow_remote_(allow_remote) {}

std::string gateway_server_socket::wildcard_address() {
  // A kernel without IPv6 (ipv6.disable=1) can't make the socket at all.
  const int probe = ::socket(AF_INET6, SOCK_STREAM | SOCK_CLOEXEC, 0);
  if (probe < 0) return "0.0.0.0";
  sockaddr_in6 any{};
  any.sin6_family = AF_INET6;
  any.sin6_addr = in6addr_any;
  const bool usable = ::bind(probe, reinterpret_cast<sockaddr*>(&any), sizeof(any)) == 0;
  ::close(probe);
  return usable ? "::" : "0.0.0.0";
}

std::shared_ptr<TTransport> gateway_server_socket::acceptImpl() {
  for (;;) {
    std::shared_ptr<TTransport> client = TServerSocket::acceptImpl();
    if (allow_remote_) return client;
    auto* socket = dynamic_cast<TSocket*>(client.get());
    socklen_t length = 0;
    const sockaddr* peer = socket != nullptr ? socket->getCachedAddress(&length) : nullptr;
    if (is_loopback_peer(peer, length)) return client;
    TARN_TRACE(kTraceWarning, "Connection from %s refused: only this machine may connect.",
               socket != nullptr ? socket->getPeerAddress().c_str() : "?");
    client->close();
  }
}

}  // namespace tarn
