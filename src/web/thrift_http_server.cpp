#include "web/thrift_http_server.h"

#include <strings.h>
#include <sys/socket.h>
#include <thrift/TConfiguration.h>
#include <thrift/transport/TSocket.h>
#include <thrift/transport/TTransportException.h>
#include <thrift/transport/TVirtualTransport.h>

#include <algorithm>
#include <charconv>
#include <climits>
#include <cstring>
#include <functional>
#include <optional>
#include <utility>

#include <nlohmann/json.hpp>

#include "platform/ascii_text.h"
#include "web/web_content.h"

namespace tarn {
namespace {

using apache::thrift::TConfiguration;
using apache::thrift::transport::TSocket;
using apache::thrift::transport::TTransport;
using apache::thrift::transport::TTransportException;
using apache::thrift::transport::TVirtualTransport;

constexpr uint64_t kHeadAllowance = 1024 * 1024;  // request line, headers, chunk framing

// The accepted socket as the HTTP transport reads it. It holds each request to a byte budget
// and, once the first bytes of a request are in, to a receive time-out; the wait for the next
// request of a kept-alive connection stays unbounded, as before. Both are kept here because
// every byte of a request, whether line, header, body or chunk, comes through read().
class request_reader : public TVirtualTransport<request_reader> {
 public:
  // `between_requests` tells whether the HTTP transport has nothing of a request buffered.
  request_reader(std::shared_ptr<TTransport> socket, std::function<bool()> between_requests,
                 const http_request_limits& limits)
      : socket_(std::move(socket)),
        tsocket_(dynamic_cast<TSocket*>(socket_.get())),
        between_requests_(std::move(between_requests)),
        budget_(uint64_t{limits.max_body_bytes} + kHeadAllowance),
        timeout_ms_(static_cast<int>(
            std::clamp<std::chrono::milliseconds::rep>(limits.read_timeout.count(), 1, INT_MAX))) {}

  void begin_request() { used_ = 0; }

  uint32_t read(uint8_t* buf, uint32_t len) {
    // Only the very first read of a connection comes before the transport has any state.
    const bool idle = !started_ || between_requests_();
    started_ = true;
    uint32_t got = 0;
    if (idle) {
      used_ = 0;
      if (armed_) set_receive_timeout(0);
      armed_ = false;
      got = socket_->read(buf, len);
    } else if (!take_ready(buf, len, &got)) {
      if (!armed_) set_receive_timeout(timeout_ms_);
      armed_ = true;
      got = socket_->read(buf, len);
    }
    used_ += got;
    if (used_ > budget_) {
      throw TTransportException(TTransportException::CORRUPTED_DATA,
                                "request larger than " + std::to_string(budget_) + " bytes");
    }
    return got;
  }

  void write(const uint8_t* buf, uint32_t len) { socket_->write(buf, len); }
  void flush() override { socket_->flush(); }
  bool isOpen() const override { return socket_->isOpen(); }
  bool peek() override { return socket_->peek(); }
  void open() override { socket_->open(); }
  void close() override { socket_->close(); }
  const std::string getOrigin() const override { return socket_->getOrigin(); }

 private:
  // Takes what the socket already holds without waiting, so that a request whose rest is in
  // costs no time-out changes; false when the read has to wait (or fails: TSocket handles it).
  bool take_ready(uint8_t* buf, uint32_t len, uint32_t* got) {
    if (tsocket_ == nullptr) return false;
    const ssize_t n = ::recv(tsocket_->getSocketFD(), buf, len, MSG_DONTWAIT);
    if (n < 0) return false;
    *got = static_cast<uint32_t>(n);
    return true;
  }

  void set_receive_timeout(int ms) {
    if (tsocket_ != nullptr) tsocket_->setRecvTimeout(ms);
  }

  const std::shared_ptr<TTransport> socket_;
  TSocket* const tsocket_;  // socket_ when it is a TSocket, for its receive time-out
  const std::function<bool()> between_requests_;
  const uint64_t budget_;
  const int timeout_ms_;
  uint64_t used_ = 0;
  bool started_ = false;
  bool armed_ = false;
};

request_reader& reader_of(const std::shared_ptr<TTransport>& transport) {
  return static_cast<request_reader&>(*transport);
}

// A Content-Length value: digits only, with blanks or tabs around them, at most `limit`.
uint32_t parse_content_length(const char* value, uint32_t limit) {
  std::string_view text(value);
  const std::string_view digits = trim(text, " \t");
  uint64_t length = 0;
  auto [end, ec] = std::from_chars(digits.data(), digits.data() + digits.size(), length);
  if (digits.empty() || ec != std::errc() || end != digits.data() + digits.size()) {
    throw TTransportException("bad Content-Length:" + std::string(text));
  }
  if (length > limit) {
    throw TTransportException("Content-Length over " + std::to_string(limit) +
                              " bytes:" + std::string(text));
  }
  return static_cast<uint32_t>(length);
}

std::string head_200(const char* type, size_t length, const std::string& date) {
  std::string head = "HTTP/1.1 200 OK\r\nContent-Type: ";
  head += type;
  head += "\r\nContent-Length: ";
  head += std::to_string(length);
  head += "\r\nAccess-Control-Allow-Origin: *\r\nDate: ";
  head += date;
  head += "\r\n\r\n";
  return head;
}

}  // namespace

thrift_http_server::thrift_http_server(std::shared_ptr<TTransport> transport,
                                       const std::string& default_document,
                                       std::shared_ptr<dynamic_uri_handler> dynamic,
                                       const http_request_limits& limits)
    : THttpServer(
          std::make_shared<request_reader>(
              std::move(transport),
              // Nothing of a request is buffered: the last one was read whole (or this
              // is the start), and no byte of the next is in yet.
              [this] { return readHeaders_ && httpPos_ == httpBufLen_ && httpBufLen_ != 0; },
              limits),
          std::make_shared<TConfiguration>(
              static_cast<int>(std::min<uint32_t>(limits.max_body_bytes, INT_MAX)))),
      default_uri_("/" + default_document),
      dynamic_(std::move(dynamic)) {}

thrift_http_server::~thrift_http_server() = default;

uint32_t thrift_http_server::read_virt(uint8_t* buf, uint32_t len) {
  if (readBuffer_.available_read() == 0 && !take_body()) return 0;
  return THttpServer::read(buf, len);
}

uint32_t thrift_http_server::readAll_virt(uint8_t* buf, uint32_t len) {
  uint32_t have = 0;
  while (have < len) {
    const uint32_t got = read_virt(buf + have, len - have);
    if (got == 0)
      throw TTransportException(TTransportException::END_OF_FILE, "No more data to read.");
    have += got;
  }
  return have;
}

bool thrift_http_server::take_body() {
  readBuffer_.resetBuffer();
  if (readMoreData() == 0) return false;
  while (chunked_ && !chunkedDone_) readChunked();
  uint8_t* body = nullptr;
  uint32_t size = 0;
  readBuffer_.getBuffer(&body, &size);
  if (!nlohmann::json::accept(body, body + size)) {
    throw TTransportException(TTransportException::CORRUPTED_DATA, "request body isn't JSON");
  }
  return true;
}

uint32_t thrift_http_server::readEnd() {
  const uint32_t read = THttpServer::readEnd();
  if (chunked_ && chunkedDone_) readHeaders_ = true;
  return read;
}

bool thrift_http_server::parseStatusLine(char* status) {
  reader_of(transport_).begin_request();

  char* method = status;
  char* uri = std::strchr(method, ' ');
  if (uri == nullptr) throw TTransportException(std::string("bad status: ") + status);
  *uri = '\0';
  while (*(++uri) == ' ') {
  }
  char* version = std::strchr(uri, ' ');
  // `status` holds the method alone by now.
  if (version == nullptr) throw TTransportException(std::string("bad status: ") + status);
  *version = '\0';

  if (std::strcmp(method, "POST") == 0) return true;
  if (std::strcmp(method, "GET") == 0) {
    serve_get(uri);
    return true;
  }
  if (std::strcmp(method, "OPTIONS") == 0) {
    send_reply("HTTP/1.1 200 OK\r\nDate: " + getTimeRFC1123() +
               "\r\nAccess-Control-Allow-Origin: *\r\n"
               "Access-Control-Allow-Methods: GET, POST, OPTIONS\r\n"
               "Access-Control-Allow-Headers: Content-Type\r\n\r\n");
    return true;
  }
  throw TTransportException(std::string("Bad Status (unsupported method): ") + method);
}

void thrift_http_server::parseHeader(char* header) {
  const char* colon = std::strchr(header, ':');
  if (colon != nullptr) {
    // THttpServer matches a name by as many bytes as the received name has, Transfer-Encoding
    // first; the same rule picks the line whose number is read here.
    const size_t name_length = static_cast<size_t>(colon - header);
    if (strncasecmp(header, "Transfer-Encoding", name_length) != 0 &&
        strncasecmp(header, "Content-length", name_length) == 0) {
      contentLength_ = parse_content_length(colon + 1, static_cast<uint32_t>(getMaxMessageSize()));
      chunked_ = false;
      return;
    }
  }
  THttpServer::parseHeader(header);
}

void thrift_http_server::serve_get(const std::string& uri) {
  if (uri.empty() || uri[0] != '/' || uri.find("..") != std::string::npos) {
    throw TTransportException("bad uri");
  }
  const std::string root = web_root();
  const std::string path = file_path_of_uri(root, uri, default_uri_);

  std::optional<std::string> page;
  if (dynamic_) page = dynamic_->lookup(uri);
  if (page) {
    // The length leaves out the CR LF behind the body, as it always has for these pages.
    send_reply(head_200(content_type_of(path), page->size(), getTimeRFC1123()) + *page + "\r\n");
    return;
  }
  if (auto file = read_web_file(root, path)) {
    send_reply(head_200(content_type_of(path), file->size() + 2, getTimeRFC1123()) + *file +
               "\r\n");
    return;
  }
  send_reply("HTTP/1.1 404 Not Found\r\nContent-Type: text/html\r\nContent-Length: 9\r\nDate: " +
             getTimeRFC1123() + "\r\n\r\nNot Found\r\n");
}

void thrift_http_server::send_reply(const std::string& reply) {
  uint8_t* pending = nullptr;
  uint32_t pending_length = 0;
  writeBuffer_.getBuffer(&pending, &pending_length);

  // The whole text in one write; only a file beyond 4 GiB would need more than one.
  constexpr size_t kPiece = size_t{1} << 30;
  const auto* bytes = reinterpret_cast<const uint8_t*>(reply.data());
  for (size_t done = 0; done < reply.size();) {
    const size_t piece = std::min(kPiece, reply.size() - done);
    transport_->write(bytes + done, static_cast<uint32_t>(piece));
    done += piece;
  }
  transport_->write(pending, pending_length);
  transport_->flush();

  writeBuffer_.resetBuffer();
  readHeaders_ = true;
}

thrift_http_server_factory::thrift_http_server_factory(const std::string& default_document,
                                                       std::shared_ptr<dynamic_uri_handler> dynamic,
                                                       const http_request_limits& limits)
    : default_document_(default_document), dynamic_(std::move(dynamic)), limits_(limits) {}

thrift_http_server_factory::~thrift_http_server_factory() = default;

std::shared_ptr<TTransport> thrift_http_server_factory::getTransport(
    std::shared_ptr<TTransport> transport) {
  return std::make_shared<thrift_http_server>(std::move(transport), default_document_, dynamic_,
                                              limits_);
}

}  // namespace tarn
