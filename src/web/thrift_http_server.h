// The HTTP transport of port 9090: Thrift's THttpServer, which speaks POST and a CORS
// preflight, turned into a small web server by its own parseStatusLine: GET serves files of
// the web folder and dynamic pages, OPTIONS answers the preflight, POST goes to the
// processor. Bad request lines throw TTransportException, which ends only this connection.
#pragma once

#include <thrift/transport/THttpServer.h>
#include <thrift/transport/TTransport.h>

#include <atomic>
#include <chrono>
#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "platform/mutex.h"

#include "web/dynamic_uri_handler.h"

namespace tarn {

// What one request may cost a connection. A request over any bound ends its connection.
struct http_request_limits {
  // Largest body, as Content-Length or as the sum of its chunks (Thrift's own message limit).
  // The largest real call, 1,000 references with a connection and a folder, is below 200 KiB.
  uint32_t max_body_bytes = 2 * 1024 * 1024;
  // The request line, headers and chunk framing together.
  uint32_t max_head_bytes = 64 * 1024;
  // Bytes of big bodies (the part beyond the first 64 KiB of each) that all connections
  // together may hold at once; a body that finds the budget spent ends its connection.
  uint64_t shared_body_bytes = 8 * 1024 * 1024;
  // Longest silence of the client once a request has begun.
  std::chrono::milliseconds read_timeout{30000};
  // Longest time from the first byte of a request to its last.
  std::chrono::milliseconds request_timeout{60000};
  // Longest wait for the next request of a kept-alive connection.
  std::chrono::milliseconds idle_timeout{120000};
};

// Who may send requests, by their headers (the peer address is the server socket's matter).
struct http_access_rules {
  bool check_host = true;              // Host must name this machine when present
  std::vector<std::string> own_names;  // this machine's names, besides localhost and loopback
  std::vector<std::string> origins;    // allowed Origin of a POST; empty: any
};

// What the connections of one server share: the budget for big bodies, and their sockets, so
// that the exit can end connections whose clients hold them.
class http_connections {
 public:
  explicit http_connections(uint64_t shared_body_bytes) : budget_(shared_body_bytes) {}

  // False when fewer than `bytes` are left.
  bool take_budget(uint64_t bytes);
  void give_budget(uint64_t bytes);

  void add(const void* owner, int fd);
  void remove(const void* owner);
  // shutdown(2) on every socket: blocked reads and writes return at once.
  void shut_down_all();

 private:
  std::atomic<uint64_t> budget_;
  Mutex mu_;
  std::map<const void*, int> sockets_ TARN_GUARDED_BY(mu_);
};

class thrift_http_server : public apache::thrift::transport::THttpServer {
 public:
  // `dynamic` may be null: then no URI is dynamic.
  thrift_http_server(std::shared_ptr<apache::thrift::transport::TTransport> transport,
                     const std::string& default_document,
                     std::shared_ptr<dynamic_uri_handler> dynamic,
                     const http_request_limits& limits = {},
                     std::shared_ptr<const http_access_rules> rules = nullptr,
                     std::shared_ptr<http_connections> connections = nullptr);
  ~thrift_http_server() override;

  // The protocol's reads. Each body is taken whole, chunks joined, and must be JSON before
  // the protocol sees a byte of it: TJSONProtocol takes an empty number for a value.
  uint32_t read_virt(uint8_t* buf, uint32_t len) override;
  uint32_t readAll_virt(uint8_t* buf, uint32_t len) override;
  // After a chunked body the next read begins with a request line again, so that a
  // kept-alive connection serves the request that follows (THttpTransport would read it as
  // chunks and drop it).
  uint32_t readEnd() override;

 protected:
  bool parseStatusLine(char* status) override;
  // Content-Length is read strictly and held to the body limit; Host and Origin are held to
  // the access rules; other headers as THttpServer reads them.
  void parseHeader(char* header) override;

 private:
  enum class method { post, get, options };

  // Reads the next body into readBuffer_ and checks it; false at its end. A GET or OPTIONS is
  // answered here, once its headers have passed the access rules.
  bool take_body();
  // Drops what earlier requests left in the buffers, so that a kept-alive connection holds no
  // more than its largest request, however many came before.
  void compact_buffers();
  [[noreturn]] void refuse(const std::string& why);
  void serve_get(const std::string& uri);
  // Writes a whole reply at once and makes the next read begin with a request line.
  void send_reply(const std::string& reply);

  const std::string default_uri_;  // "/" + the default document
  const std::shared_ptr<dynamic_uri_handler> dynamic_;
  const std::shared_ptr<const http_access_rules> rules_;  // may be null: no checks
  method method_ = method::post;
  std::string uri_;  // of a GET
};

class thrift_http_server_factory : public apache::thrift::transport::TTransportFactory {
 public:
  thrift_http_server_factory(const std::string& default_document,
                             std::shared_ptr<dynamic_uri_handler> dynamic,
                             const http_request_limits& limits = {},
                             std::shared_ptr<const http_access_rules> rules = nullptr);
  ~thrift_http_server_factory() override;

  // Ends every open connection of this factory's transports at once.
  void shut_down_connections() { connections_->shut_down_all(); }

  std::shared_ptr<apache::thrift::transport::TTransport> getTransport(
      std::shared_ptr<apache::thrift::transport::TTransport> transport) override;

 private:
  const std::string default_document_;
  const std::shared_ptr<dynamic_uri_handler> dynamic_;
  const http_request_limits limits_;
  const std::shared_ptr<const http_access_rules> rules_;
  const std::shared_ptr<http_connections> connections_;
};

}  // namespace tarn
