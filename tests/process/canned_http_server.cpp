#include "canned_http_server.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <stdexcept>

namespace tarn::test {
namespace {

void write_all(int fd, const std::string& bytes) {
  size_t done = 0;
  while (done < bytes.size()) {
    ssize_t n = ::send(fd, bytes.data() + done, bytes.size() - done, MSG_NOSIGNAL);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) return;
    done += static_cast<size_t>(n);
  }
}

}  // namespace

canned_http_server::canned_http_server(std::string reply, int port) : reply_(std::move(reply)) {
  listener_.reset(::socket(AF_INET6, SOCK_STREAM | SOCK_CLOEXEC, 0));
  if (!listener_) throw std::runtime_error(std::string("socket: ") + std::strerror(errno));
  int zero = 0, one = 1;
  ::setsockopt(listener_.get(), IPPROTO_IPV6, IPV6_V6ONLY, &zero, sizeof zero);
  ::setsockopt(listener_.get(), SOL_SOCKET, SO_REUSEADDR, &one, sizeof one);
  sockaddr_in6 address{};
  address.sin6_family = AF_INET6;
  address.sin6_addr = in6addr_any;
  address.sin6_port = htons(static_cast<uint16_t>(port));
  if (::bind(listener_.get(), reinterpret_cast<sockaddr*>(&address), sizeof address) != 0 ||
      ::listen(listener_.get(), 16) != 0) {
    throw std::runtime_error("canned_http_server: can't listen on port " + std::to_string(port) +
                             ": " + std::strerror(errno));
  }
  socklen_t size = sizeof address;
  ::getsockname(listener_.get(), reinterpret_cast<sockaddr*>(&address), &size);
  port_ = ntohs(address.sin6_port);
  int wake[2];
  if (::pipe2(wake, O_CLOEXEC) != 0) throw std::runtime_error("pipe2 failed");
  wake_read_.reset(wake[0]);
  wake_write_.reset(wake[1]);
  thread_ = std::thread([this] { run(); });
}

canned_http_server::~canned_http_server() {
  (void)::write(wake_write_.get(), "x", 1);
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
    pollfd fds[2] = {{listener_.get(), POLLIN, 0}, {wake_read_.get(), POLLIN, 0}};
    if (::poll(fds, 2, -1) < 0) {
      if (errno == EINTR) continue;
      return;
    }
    if (fds[1].revents != 0) return;
    unique_fd client(::accept4(listener_.get(), nullptr, nullptr, SOCK_CLOEXEC));
    if (!client) continue;
    std::string head;
    char buffer[4096];
    while (head.find("\r\n\r\n") == std::string::npos) {
      pollfd in[2] = {{client.get(), POLLIN, 0}, {wake_read_.get(), POLLIN, 0}};
      if (::poll(in, 2, 5000) <= 0 || in[1].revents != 0) break;
      ssize_t n = ::recv(client.get(), buffer, sizeof buffer, 0);
      if (n <= 0) break;
      head.append(buffer, static_cast<size_t>(n));
    }
    const size_t end = head.find("\r\n\r\n");
    {
      std::lock_guard lock(mu_);
      requests_.push_back(end == std::string::npos ? head : head.substr(0, end));
    }
    write_all(client.get(), reply_);
    ::shutdown(client.get(), SHUT_RDWR);
  }
}

}  // namespace tarn::test
