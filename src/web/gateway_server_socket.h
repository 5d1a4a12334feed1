// The listening socket of port 9090: dual-stack "[::]" where the system has IPv6 (IPv4
// peers arrive as ::ffff:a.b.c.d), else "0.0.0.0"; peers other than loopback are closed at
// accept, before a byte is read or a thread is spent on them, unless remote clients are allowed.
#pragma once

#include <thrift/transport/TServerSocket.h>

#include <memory>
#include <string>

namespace tarn {

class gateway_server_socket : public apache::thrift::transport::TServerSocket {
 public:
  gateway_server_socket(int port, bool allow_remote);

  // "::" when an IPv6 socket can be made here, else "0.0.0.0".
  static std::string wildcard_address();

 protected:
  std::shared_ptr<apache::thrift::transport::TTransport> acceptImpl() override;

 private:
  const bool allow_remote_;
};

}  // namespace tarn
