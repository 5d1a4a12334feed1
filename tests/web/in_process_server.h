// A Thrift TThreadedServer for tests and benchmarks: the gateway's service on 127.0.0.1, on a
// port of the system's choosing, with whatever transport factory the caller gives. The
// constructor returns once the socket listens (or throws why it can't); the destructor ends
// serving and joins the server thread.
#pragma once

#include <thrift/concurrency/ThreadFactory.h>
#include <thrift/protocol/TJSONProtocol.h>
#include <thrift/server/TThreadedServer.h>
#include <thrift/transport/TServerSocket.h>

#include <memory>
#include <thread>

#include "TarnGateWay.h"

namespace tarn::test {

class in_process_server {
 public:
  in_process_server(std::shared_ptr<apache::thrift::transport::TTransportFactory> transports,
                    std::shared_ptr<TarnWwySrv::TarnGateWayIf> handler) {
    using namespace apache::thrift;
    socket_ = std::make_shared<listening_socket>("127.0.0.1", 0);
    socket_->listen();
    server_ = std::make_shared<server::TThreadedServer>(
        std::make_shared<TarnWwySrv::TarnGateWayProcessor>(std::move(handler)), socket_, transports,
        std::make_shared<protocol::TJSONProtocolFactory>(),
        std::make_shared<concurrency::ThreadFactory>(false));
    thread_ = std::thread([this] { server_->serve(); });
  }
  ~in_process_server() {
    server_->stop();
    thread_.join();
  }
  in_process_server(const in_process_server&) = delete;
  in_process_server& operator=(const in_process_server&) = delete;

  int port() const { return socket_->getPort(); }

 private:
  // Listens once, in the constructor: the server's own call to listen() finds it done.
  struct listening_socket : apache::thrift::transport::TServerSocket {
    using TServerSocket::TServerSocket;
    void listen() override {
      if (!listening_) TServerSocket::listen();
      listening_ = true;
    }
    bool listening_ = false;
  };

  std::shared_ptr<listening_socket> socket_;
  std::shared_ptr<apache::thrift::server::TThreadedServer> server_;
  std::thread thread_;
};

}  // namespace tarn::test
