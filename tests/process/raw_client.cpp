#include "raw_client.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/time.h>

#include <cerrno>
#include <charconv>

namespace tarn::test {

raw_client::raw_client(int port) {
  unique_fd fd(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
  if (!fd) return;
  timeval timeout{5, 0};
  ::setsockopt(fd.get(), SOL_SOCKET, SO_RCVTIMEO, &timeout, sizeof timeout);
  ::setsockopt(fd.get(), SOL_SOCKET, SO_SNDTIMEO, &timeout, sizeof timeout);
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_port = htons(static_cast<uint16_t>(port));
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  if (::connect(fd.get(), reinterpret_cast<sockaddr*>(&address), sizeof address) == 0)
    fd_ = std::move(fd);
}

bool raw_client::send(const std::string& bytes) {
  size_t done = 0;
  while (fd_ && done < bytes.size()) {
    ssize_t n = ::send(fd_.get(), bytes.data() + done, bytes.size() - done, MSG_NOSIGNAL);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) return false;
    done += static_cast<size_t>(n);
  }
  return static_cast<bool>(fd_);
}

bool raw_client::fill() {
  char chunk[8192];
  for (;;) {
    ssize_t n = ::recv(fd_.get(), chunk, sizeof chunk, 0);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) return false;
    buffer_.append(chunk, static_cast<size_t>(n));
    return true;
  }
}

std::string raw_client::read_response() {
  size_t head_end;
  while ((head_end = buffer_.find("\r\n\r\n")) == std::string::npos) {
    if (!fill()) return std::string();
  }
  size_t length = 0;
  const std::string head = buffer_.substr(0, head_end);
  const size_t at = head.find("\r\nContent-Length: ");
  if (at != std::string::npos) {
    const char* digits = head.data() + at + 18;
    std::from_chars(digits, head.data() + head.size(), length);
  }
  const size_t total = head_end + 4 + length;
  while (buffer_.size() < total) {
    if (!fill()) break;
  }
  std::string response = buffer_.substr(0, std::min(total, buffer_.size()));
  buffer_.erase(0, response.size());
  return response;
}

std::string raw_client::read_until_close(bool* closed) {
  char chunk[8192];
  bool ended = false;
  for (;;) {
    ssize_t n = ::recv(fd_.get(), chunk, sizeof chunk, 0);
    if (n < 0 && errno == EINTR) continue;
    if (n == 0 || (n < 0 && errno == ECONNRESET)) ended = true;
    if (n <= 0) break;
    buffer_.append(chunk, static_cast<size_t>(n));
  }
  if (closed != nullptr) *closed = ended;
  return std::exchange(buffer_, std::string());
}

std::string post_request(const std::string& body) {
  return "POST / HTTP/1.1\r\nHost: localhost:9090\r\nContent-Type: application/x-thrift\r\n"
         "Content-Length: " +
         std::to_string(body.size()) + "\r\n\r\n" + body;
}

}  // namespace tarn::test
