// A tiny HTTP server for tests: answers every request with one fixed reply and closes the
// connection, and records each request's head. It stands in for "something else on the port".
#pragma once

#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "platform/unique_fd.h"

namespace tarn::test {

class canned_http_server {
 public:
  // Listens on the wildcard address, IPv6 and IPv4, on `port` (0: any free port). Throws
  // std::runtime_error naming the port when it can't.
  explicit canned_http_server(std::string reply, int port = 0);
  ~canned_http_server();
  canned_http_server(const canned_http_server&) = delete;
  canned_http_server& operator=(const canned_http_server&) = delete;

  int port() const { return port_; }
  std::string uri() const { return "http://127.0.0.1:" + std::to_string(port_); }
  // The heads received so far (request line and headers, without the blank line).
  std::vector<std::string> requests() const;

  // A whole reply with the given status line, type and body.
  static std::string reply(const std::string& status, const std::string& type,
                           const std::string& body);

 private:
  void run();

  const std::string reply_;
  unique_fd listener_;
  int port_ = 0;
  mutable std::mutex mu_;
  std::vector<std::string> requests_;  // guarded by mu_
  std::thread thread_;
};

// The gateway's simplest call, its reply, and a request that posts a body as a browser does.
inline const std::string kVersionCall = R"([1,"get_version",1,0,{}])";
inline const std::string kVersionReply =
    R"json([1,"get_version",2,0,{"0":{"str":"Vantu Tarn (version 5.0)"}}])json";
inline std::string post_request(const std::string& body,
                                const std::string& type = "application/x-thrift") {
  return "POST / HTTP/1.1\r\nHost: localhost:9090\r\nContent-Type: " + type +
         "\r\nContent-Length: " + std::to_string(body.size()) + "\r\n\r\n" + body;
}

}  // namespace tarn::test
