#include "office_protocol.h"

#include <poll.h>
#include <sys/socket.h>

#include <cerrno>

namespace tarn {

bool send_message(int fd, const nlohmann::json& message) {
  std::string text;
  try {
    text = message.dump() + "\n";
  } catch (const nlohmann::json::exception&) {
    return false;  // text that isn't UTF-8
  }
  size_t done = 0;
  while (done < text.size()) {
    ssize_t n = ::send(fd, text.data() + done, text.size() - done, MSG_NOSIGNAL);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) return false;
    done += static_cast<size_t>(n);
  }
  return true;
}

line_reader::status line_reader::read(int fd, std::chrono::steady_clock::time_point deadline,
                                      std::string* line) {
  for (;;) {
    if (auto end = buffer_.find('\n'); end != std::string::npos) {
      *line = buffer_.substr(0, end);
      buffer_.erase(0, end + 1);
      return status::line;
    }
    if (buffer_.size() > kMaxOfficeLine) return status::too_long;
    const auto left =
        std::chrono::ceil<std::chrono::milliseconds>(deadline - std::chrono::steady_clock::now());
    if (left.count() <= 0) return status::timeout;
    pollfd p{fd, POLLIN, 0};
    int ready = ::poll(&p, 1, static_cast<int>(std::min<long long>(left.count(), 1 << 30)));
    if (ready < 0 && errno == EINTR) continue;
    if (ready < 0) return status::error;
    if (ready == 0) return status::timeout;
    char chunk[4096];
    ssize_t n = ::recv(fd, chunk, sizeof chunk, 0);
    if (n < 0 && errno == EINTR) continue;
    if (n < 0) return errno == ECONNRESET ? status::eof : status::error;
    if (n == 0) return status::eof;
    buffer_.append(chunk, static_cast<size_t>(n));
  }
}

nlohmann::json parse_message(const std::string& line) {
  auto value = nlohmann::json::parse(line, nullptr, /*allow_exceptions=*/false);
  return value.is_object() ? value : nlohmann::json(nlohmann::json::value_t::discarded);
}

}  // namespace tarn
