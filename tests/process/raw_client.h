// A raw TCP client for tests that compare the gateway's bytes on the wire. Every read gives up
// after five seconds, so a server that stays silent fails the test instead of hanging it.
#pragma once

#include <string>

#include "platform/unique_fd.h"

namespace tarn::test {

class raw_client {
 public:
  // Connects to 127.0.0.1:port; connected() says whether it worked.
  explicit raw_client(int port);

  bool connected() const { return static_cast<bool>(fd_); }
  bool send(const std::string& bytes);
  // One HTTP response: the head up to the blank line, then Content-Length bytes of body (none
  // without that header). Empty when the server closed or stayed silent first.
  std::string read_response();
  // Everything until the server closes; `closed` tells whether it did within the time-out.
  std::string read_until_close(bool* closed = nullptr);

 private:
  // Appends what arrives to buffer_; false on close, error or time-out.
  bool fill();

  unique_fd fd_;
  std::string buffer_;
};

// A POST of `body` to "/" with its Content-Length, as a browser sends it.
std::string post_request(const std::string& body);

}  // namespace tarn::test
