// The HTTP transport of port 9090: Thrift's THttpServer, which speaks POST and a CORS
// preflight, turned into a small web server by its own parseStatusLine: GET serves files of
// the web folder and dynamic pages, OPTIONS answers the preflight, POST goes to the
// processor. Bad request lines throw TTransportException, which ends only this connection.
#pragma once

#include <thrift/transport/THttpServer.h>
#include <thrift/transport/TTransport.h>

#include <memory>
#include <string>

#include "web/dynamic_uri_handler.h"

namespace tarn {

class thrift_http_server : public apache::thrift::transport::THttpServer {
 public:
  // `dynamic` may be null: then no URI is dynamic.
  thrift_http_server(std::shared_ptr<apache::thrift::transport::TTransport> transport,
                     const std::string& default_document,
                     std::shared_ptr<dynamic_uri_handler> dynamic);
  ~thrift_http_server() override;

 protected:
  bool parseStatusLine(char* status) override;

 private:
  const std::string default_uri_;  // "/" + the default document
  const std::shared_ptr<dynamic_uri_handler> dynamic_;
};

class thrift_http_server_factory : public apache::thrift::transport::TTransportFactory {
 public:
  thrift_http_server_factory(const std::string& default_document,
                             std::shared_ptr<dynamic_uri_handler> dynamic);
  ~thrift_http_server_factory() override;

  std::shared_ptr<apache::thrift::transport::TTransport> getTransport(
      std::shared_ptr<apache::thrift::transport::TTransport> transport) override;

 private:
  const std::string default_document_;
  const std::shared_ptr<dynamic_uri_handler> dynamic_;
};

}  // namespace tarn
