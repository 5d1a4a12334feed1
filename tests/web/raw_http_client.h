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

#include <chrono>
#include <stdexcept>
#include <string>
#include <string_view>

#include "platform/unique_fd.h"

namespace tarn::test {

class raw_http_client {
 public:
  static constexpr std::chrono::seconds kWatchdog{20};

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
    while (!bytes.empty()) {
      ssize_t n = ::send(fd_.get(), bytes.data(), bytes.size(), MSG_NOSIGNAL);
      if (n <= 0) return false;
      bytes.remove_prefix(static_cast<size_t>(n));
    }
    return true;
  }

  // Everything the server sends until it closes the connection.
  std::string read_to_close() {
    std::string all = take(pending_.size());
    while (read_some(all)) {
    }
    return all;
  }

  // One reply whose head carries a Content-Length: the head, then that many bytes.
  std::string read_reply() {
    size_t end;
    while ((end = pending_.find("\r\n\r\n")) == std::string::npos) {
      if (!read_some(pending_)) return take(pending_.size());
    }
    const size_t at = pending_.find("Content-Length: ");
    const size_t length = at < end ? std::stoul(pending_.substr(at + 16)) : 0;
    while (pending_.size() < end + 4 + length) {
      if (!read_some(pending_)) break;
    }
    return take(std::min(pending_.size(), end + 4 + length));
  }

  // True when a byte of a reply (or the close) is already there; never waits.
  bool has_data() {
    if (!pending_.empty()) return true;
    pollfd p{fd_.get(), POLLIN, 0};
    return ::poll(&p, 1, 0) > 0;
  }

  // True when the server closes the connection without sending anything more.
  bool closed_by_server() {
    std::string rest;
    while (read_some(rest)) {
    }
    return rest.empty() && pending_.empty();
  }

 private:
  bool read_some(std::string& into) {
    pollfd p{fd_.get(), POLLIN, 0};
    const int ready = ::poll(&p, 1, static_cast<int>(std::chrono::milliseconds(kWatchdog).count()));
    if (ready <= 0) {
      ADD_FAILURE() << "the server neither answered nor closed within " << kWatchdog.count()
                    << " s";
      return false;
    }
    char buffer[65536];
    ssize_t n = ::recv(fd_.get(), buffer, sizeof(buffer), 0);
    if (n <= 0) return false;
    into.append(buffer, static_cast<size_t>(n));
    return true;
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
