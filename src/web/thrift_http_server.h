// The HTTP transport of port 9090: Thrift's THttpServer, which speaks POST and a CORS
// preflight, turned into a small web server by its own parseStatusLine: GET serves files of
// the web folder and dynamic pages, OPTIONS answers the preflight, POST goes to the
// processor. Bad request lines throw TTransportException, which ends only this connection.
#pragma once

#include <thrift/transport/THttpServer.h>
#include <thrift/transport/TTransport.h>

#include <chrono>
#include <cstdint>
#include <memory>
#include <string>

#include "web/dynamic_uri_handler.h"

namespace tarn {

// What one request may cost a connection. A request over either bound ends its connection.
struct http_request_limits {
  // Largest body, as Content-Length or as the sum of its chunks (Thrift's own message limit);
  // the request line, headers and chunk framing may add 1 MiB on the wire.
  uint32_t max_body_bytes = 100 * 1024 * 1024;
  // Longest silence of the client once a request has begun. Waiting for the next request on
  // a kept-alive connection has no limit.
  std::chrono::milliseconds read_timeout{30000};
};

class thrift_http_server : public apache::thrift::transport::THttpServer {
 public:
  // `dynamic` may be null: then no URI is dynamic.
  thrift_http_server(std::shared_ptr<apache::thrift::transport::TTransport> transport,
                     const std::string& default_document,
                     std::shared_ptr<dynamic_uri_handler> dynamic,
                     const http_request_limits& limits = {});
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
  // Content-Length is read strictly and held to the body limit; other headers as THttpServer
  // reads them.
  void parseHeader(char* header) override;

 private:
  // Reads the next body into readBuffer_ and checks it; false at its end.
  bool take_body();
  void serve_get(const std::string& uri);
  // Writes a whole reply at once and makes the next read begin with a request line.
  void send_reply(const std::string& reply);

  const std::string default_uri_;  // "/" + the default document
  const std::shared_ptr<dynamic_uri_handler> dynamic_;
};

class thrift_http_server_factory : public apache::thrift::transport::TTransportFactory {
 public:
  thrift_http_server_factory(const std::string& default_document,
                             std::shared_ptr<dynamic_uri_handler> dynamic,
                             const http_request_limits& limits = {});
  ~thrift_http_server_factory() override;

  std::shared_ptr<apache::thrift::transport::TTransport> getTransport(
      std::shared_ptr<apache::thrift::transport::TTransport> transport) override;

 private:
  const std::string default_document_;
  const std::shared_ptr<dynamic_uri_handler> dynamic_;
  const http_request_limits limits_;
};

}  // namespace tarn
