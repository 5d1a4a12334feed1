// A plain TCP client for wire tests: sends bytes as given and reads what comes back, so that
// replies can be compared byte for byte. Every wait is bounded by a watchdog that fails the
// test instead of hanging it.
#pragma once

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <stdexcept>
#include <string>
#include <string_view>

#include "platform/unique_fd.h"

namespace tarn::test {

class raw_http_client {
 public:
  static constexpr int kWatchdogMs = 20000;

  explicit raw_http_client(int port) : fd_(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(static_cast<uint16_t>(port));
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    if (!fd_ || ::connect(fd_.get(), reinterpret_cast<sockaddr*>(&address), sizeof(address)) != 0)
      throw std::runtime_error("connect to 127.0.0.1:" + std::to_string(port) + " failed");
  }

  // False when the server has already closed the connection.
  bool send(std::string_view bytes) {
    for (ssize_t n; !bytes.empty(); bytes.remove_prefix(static_cast<size_t>(n))) {
      if ((n = ::send(fd_.get(), bytes.data(), bytes.size(), MSG_NOSIGNAL)) <= 0) return false;
    }
    return true;
  }

  // Everything the server sends until it closes the connection.
  std::string read_to_close() {
    while (read_some()) {
    }
    return take(pending_.size());
  }

  // One reply whose head carries a Content-Length: the head, then that many bytes.
  std::string read_reply() {
    size_t end;
    while ((end = pending_.find("\r\n\r\n")) == std::string::npos && read_some()) {
    }
    if (end == std::string::npos) return take(pending_.size());
    const size_t at = pending_.find("Content-Length: ");
    const size_t size = end + 4 + (at < end ? std::stoul(pending_.substr(at + 16)) : 0);
    while (pending_.size() < size && read_some()) {
    }
    return take(size);
  }

  // True when the server closes the connection without sending anything more.
  bool closed_by_server() { return read_to_close().empty(); }

 private:
  bool read_some() {
    pollfd p{fd_.get(), POLLIN, 0};
    if (::poll(&p, 1, kWatchdogMs) <= 0) {
      ADD_FAILURE() << "the server neither answered nor closed within " << kWatchdogMs << " ms";
      return false;
    }
    char buffer[65536];
    const ssize_t n = ::recv(fd_.get(), buffer, sizeof(buffer), 0);
    if (n > 0) pending_.append(buffer, static_cast<size_t>(n));
    return n > 0;
  }

  std::string take(size_t count) {
    std::string head = pending_.substr(0, count);
    pending_.erase(0, count);
    return head;
  }

  unique_fd fd_;
  std::string pending_;
};

}  // namespace tarn::test
