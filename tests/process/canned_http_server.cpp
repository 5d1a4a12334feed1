#include "canned_http_server.h"

#include <netinet/in.h>
#include <sys/socket.h>

#include <cerrno>
#include <cstring>
#include <stdexcept>

namespace tarn::test {

canned_http_server::canned_http_server(std::string reply, int port) : reply_(std::move(reply)) {
  listener_.reset(::socket(AF_INET6, SOCK_STREAM | SOCK_CLOEXEC, 0));
  int zero = 0, one = 1;
  ::setsockopt(listener_.get(), IPPROTO_IPV6, IPV6_V6ONLY, &zero, sizeof zero);
  ::setsockopt(listener_.get(), SOL_SOCKET, SO_REUSEADDR, &one, sizeof one);
  sockaddr_in6 address{};
  address.sin6_family = AF_INET6;
  address.sin6_addr = in6addr_any;
  address.sin6_port = htons(static_cast<uint16_t>(port));
  socklen_t size = sizeof address;
  if (::bind(listener_.get(), reinterpret_cast<sockaddr*>(&address), size) != 0 ||
      ::listen(listener_.get(), 16) != 0 ||
      ::getsockname(listener_.get(), reinterpret_cast<sockaddr*>(&address), &size) != 0)
    throw std::runtime_error("canned_http_server: can't listen on port " + std::to_string(port) +
                             ": " + std::strerror(errno));
  port_ = ntohs(address.sin6_port);
  thread_ = std::thread([this] { run(); });
}

canned_http_server::~canned_http_server() {
  ::shutdown(listener_.get(), SHUT_RDWR);  // wakes the blocked accept
  thread_.join();
}

std::vector<std::string> canned_http_server::requests() const {
  std::lock_guard lock(mu_);
  return requests_;
}

std::string canned_http_server::reply(const std::string& status, const std::string& type,
                                      const std::string& body) {
  return "HTTP/1.1 " + status + "\r\nContent-Type: " + type +
         "\r\nContent-Length: " + std::to_string(body.size()) + "\r\nConnection: close\r\n\r\n" +
         body;
}

void canned_http_server::run() {
  for (;;) {
    unique_fd client(::accept4(listener_.get(), nullptr, nullptr, SOCK_CLOEXEC));
    if (!client && errno == EINTR) continue;
    if (!client) return;
    const timeval limit{5, 0};
    ::setsockopt(client.get(), SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof limit);
    std::string head;
    char buffer[4096];
    ssize_t n;
    while (head.find("\r\n\r\n") == std::string::npos &&
           (n = ::recv(client.get(), buffer, sizeof buffer, 0)) > 0)
      head.append(buffer, static_cast<size_t>(n));
    {
      std::lock_guard lock(mu_);
      requests_.push_back(head.substr(0, head.find("\r\n\r\n")));
    }
    ::send(client.get(), reply_.data(), reply_.size(), MSG_NOSIGNAL);
    ::shutdown(client.get(), SHUT_RDWR);
  }
}

}  // namespace tarn::test
