// A Thrift TThreadedServer for tests and benchmarks: the gateway's service on 127.0.0.1, on a
// port of the system's choosing, with whatever transport factory the caller gives. Serving
// starts in the constructor (which returns once the socket listens) and ends in the
// destructor, which joins the server thread.
#pragma once

#include <thrift/concurrency/ThreadFactory.h>
#include <thrift/protocol/TJSONProtocol.h>
#include <thrift/server/TThreadedServer.h>
#include <thrift/transport/TServerSocket.h>

#include <atomic>
#include <exception>
#include <future>
#include <memory>
#include <thread>

#include "TarnGateWay.h"

namespace tarn::test {

class in_process_server {
 public:
  in_process_server(std::shared_ptr<apache::thrift::transport::TTransportFactory> transports,
                    std::shared_ptr<TarnWwySrv::TarnGateWayIf> handler) {
    using namespace apache::thrift;
    socket_ = std::make_shared<transport::TServerSocket>("127.0.0.1", 0);
    server_ = std::make_shared<server::TThreadedServer>(
        std::make_shared<TarnWwySrv::TarnGateWayProcessor>(std::move(handler)), socket_, transports,
        std::make_shared<protocol::TJSONProtocolFactory>(),
        std::make_shared<concurrency::ThreadFactory>(false));
    auto listening = std::make_shared<ready_event>();
    std::future<void> ready = listening->promise.get_future();
    server_->setServerEventHandler(listening);
    thread_ = std::thread([this, listening] {
      try {
        server_->serve();
      } catch (...) {
        listening->fail(std::current_exception());
      }
    });
    ready.get();
  }
  ~in_process_server() {
    server_->stop();
    thread_.join();
  }
  in_process_server(const in_process_server&) = delete;
  in_process_server& operator=(const in_process_server&) = delete;

  int port() const { return socket_->getPort(); }

 private:
  struct ready_event : apache::thrift::server::TServerEventHandler {
    void preServe() override {
      if (!done.exchange(true)) promise.set_value();
    }
    void fail(std::exception_ptr error) {
      if (!done.exchange(true)) promise.set_exception(error);
    }
    std::atomic<bool> done{false};
    std::promise<void> promise;
  };

  std::shared_ptr<apache::thrift::transport::TServerSocket> socket_;
  std::shared_ptr<apache::thrift::server::TThreadedServer> server_;
  std::thread thread_;
};

}  // namespace tarn::test
