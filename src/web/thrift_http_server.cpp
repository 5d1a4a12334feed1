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
#include <cstdlib>
#include <cstring>
#include <optional>
#include <utility>

#include <nlohmann/json.hpp>

#include "log/trace.h"
#include "platform/ascii_text.h"
#include "web/access_rules.h"
#include "web/web_content.h"

namespace tarn {
namespace {

using apache::thrift::TConfiguration;
using apache::thrift::transport::TSocket;
using apache::thrift::transport::TTransport;
using apache::thrift::transport::TTransportException;
using apache::thrift::transport::TVirtualTransport;

// Up to this much of a request counts against no shared budget, and a connection's buffers
// shrink back to it after a bigger request.
constexpr uint32_t kSmallRequest = 64 * 1024;
constexpr uint32_t kStartBuffer = 16 * 1024;

int clamp_ms(std::chrono::milliseconds ms) {
  return static_cast<int>(std::clamp<std::chrono::milliseconds::rep>(ms.count(), 1, INT_MAX));
}

// The accepted socket as the HTTP transport reads it. It holds each request to a byte budget
// and to its time limits: the wait for a request to begin (idle), the silence within one,
// and the whole request from its first byte. Both are kept here because every byte of a
// request, whether line, header, body or chunk, comes through read().
class request_reader : public TVirtualTransport<request_reader> {
 public:
  using clock = std::chrono::steady_clock;

  request_reader(std::shared_ptr<TTransport> socket, const http_request_limits& limits,
                 std::shared_ptr<http_connections> connections)
      : socket_(std::move(socket)),
        tsocket_(dynamic_cast<TSocket*>(socket_.get())),
        connections_(std::move(connections)),
        budget_(uint64_t{limits.max_body_bytes} + limits.max_head_bytes),
        read_timeout_(limits.read_timeout),
        request_timeout_(limits.request_timeout),
        idle_ms_(clamp_ms(limits.idle_timeout)) {
    if (connections_ && tsocket_ != nullptr) connections_->add(this, tsocket_->getSocketFD());
  }

  ~request_reader() override {
    release_shared();
    if (connections_) connections_->remove(this);
  }

  // The transport is about to read a new request; `begun` when its first bytes are buffered.
  void begin_request(bool begun) {
    release_shared();
    used_ = 0;
    waiting_ = !begun;
    if (begun) deadline_ = clock::now() + request_timeout_;
  }

  uint32_t read(uint8_t* buf, uint32_t len) {
    uint32_t got = 0;
    if (waiting_) {
      set_receive_timeout(idle_ms_);
      got = socket_->read(buf, len);
      waiting_ = false;
      deadline_ = clock::now() + request_timeout_;
    } else if (!take_ready(buf, len, &got)) {
      const auto left = std::chrono::ceil<std::chrono::milliseconds>(deadline_ - clock::now());
      if (left.count() <= 0) {
        throw TTransportException(
            TTransportException::TIMED_OUT,
            "request not complete within " + std::to_string(request_timeout_.count()) + " ms");
      }
      set_receive_timeout(clamp_ms(std::min(read_timeout_, left)));
      got = socket_->read(buf, len);
    }
    // No line, header or JSON body holds one, and Thrift's line search would stop at it and
    // wait for a line end that it can never see.
    if (std::memchr(buf, '\0', got) != nullptr) {
      throw TTransportException(TTransportException::CORRUPTED_DATA, "NUL byte in the request");
    }
    charge(got);
    return got;
  }

  void write(const uint8_t* buf, uint32_t len) { socket_->write(buf, len); }
  void flush() override { socket_->flush(); }
  bool isOpen() const override { return socket_->isOpen(); }
  bool peek() override { return socket_->peek(); }
  void open() override { socket_->open(); }
  void close() override {
    // Off the list first: the number may belong to another connection once closed.
    if (connections_) connections_->remove(this);
    socket_->close();
  }
  const std::string getOrigin() const override { return socket_->getOrigin(); }

 private:
  void charge(uint32_t got) {
    used_ += got;
    if (used_ > budget_) {
      throw TTransportException(TTransportException::CORRUPTED_DATA,
                                "request larger than " + std::to_string(budget_) + " bytes");
    }
    if (connections_ && used_ > kSmallRequest + shared_) {
      const uint64_t more = used_ - kSmallRequest - shared_;
      if (!connections_->take_budget(more)) {
        throw TTransportException(TTransportException::CORRUPTED_DATA,
                                  "no room for another big request now");
      }
      shared_ += more;
    }
  }

  void release_shared() {
    if (connections_ && shared_ != 0) connections_->give_budget(shared_);
    shared_ = 0;
  }

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
    if (tsocket_ != nullptr && ms != timeout_ms_) tsocket_->setRecvTimeout(ms);
    timeout_ms_ = ms;
  }

  const std::shared_ptr<TTransport> socket_;
  TSocket* const tsocket_;  // socket_ when it is a TSocket, for its time-outs
  const std::shared_ptr<http_connections> connections_;
  const uint64_t budget_;
  const std::chrono::milliseconds read_timeout_;
  const std::chrono::milliseconds request_timeout_;
  const int idle_ms_;
  uint64_t used_ = 0;
  uint64_t shared_ = 0;  // taken from the shared budget for this request
  bool waiting_ = true;
  clock::time_point deadline_{};
  int timeout_ms_ = 0;
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

// Valid JSON only: a backslash there always begins an escape, so one pass finds them all.
std::string without_escaped_slashes(std::string_view json) {
  std::string out;
  out.reserve(json.size());
  for (size_t i = 0; i < json.size(); ++i) {
    if (json[i] == '\\' && i + 1 < json.size()) {
      if (json[i + 1] != '/') out += '\\';
      out += json[++i];
    } else {
      out += json[i];
    }
  }
  return out;
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
                                       const http_request_limits& limits,
                                       std::shared_ptr<const http_access_rules> rules,
                                       std::shared_ptr<http_connections> connections)
    : THttpServer(
          std::make_shared<request_reader>(std::move(transport), limits, std::move(connections)),
          std::make_shared<TConfiguration>(
              static_cast<int>(std::min<uint32_t>(limits.max_body_bytes, INT_MAX)))),
      default_uri_("/" + default_document),
      dynamic_(std::move(dynamic)),
      rules_(std::move(rules)) {
  // Thrift starts with 1 KiB: a client that pipelines small calls would cost a read each.
  if (auto* larger = static_cast<char*>(std::realloc(httpBuf_, kStartBuffer + 1))) {
    httpBuf_ = larger;
    httpBufSize_ = kStartBuffer;
  }
}

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
  compact_buffers();
  reader_of(transport_).begin_request(httpPos_ < httpBufLen_);
  method_ = method::post;
  const uint32_t first = readMoreData();
  if (method_ != method::post) {
    if (method_ == method::get) {
      serve_get(uri_);
    } else {
      send_reply("HTTP/1.1 200 OK\r\nDate: " + getTimeRFC1123() +
                 "\r\nAccess-Control-Allow-Origin: *\r\n"
                 "Access-Control-Allow-Methods: GET, POST, OPTIONS\r\n"
                 "Access-Control-Allow-Headers: Content-Type\r\n\r\n");
    }
  }
  if (first == 0) return false;
  while (chunked_ && !chunkedDone_) readChunked();
  uint8_t* body = nullptr;
  uint32_t size = 0;
  readBuffer_.getBuffer(&body, &size);
  if (!nlohmann::json::accept(body, body + size)) {
    throw TTransportException(TTransportException::CORRUPTED_DATA, "request body isn't JSON");
  }
  // TJSONProtocol knows every JSON escape but "\/"; JSON writers may put it before any "/".
  const std::string_view text(reinterpret_cast<const char*>(body), size);
  if (text.find("\\/") != std::string_view::npos) {
    const std::string plain = without_escaped_slashes(text);
    readBuffer_.resetBuffer();
    readBuffer_.write(reinterpret_cast<const uint8_t*>(plain.data()),
                      static_cast<uint32_t>(plain.size()));
  }
  return true;
}

uint32_t thrift_http_server::readEnd() {
  const uint32_t read = THttpServer::readEnd();
  if (chunked_ && chunkedDone_) readHeaders_ = true;
  // The body has been taken: a big one leaves no big buffer behind on an idle connection.
  if (readBuffer_.available_read() == 0 && readBuffer_.available_write() > kSmallRequest)
    readBuffer_.resetBuffer(1024);
  return read;
}

void thrift_http_server::compact_buffers() {
  readBuffer_.resetBuffer();
  if (httpPos_ == httpBufLen_) {
    httpPos_ = httpBufLen_ = 0;
    httpBuf_[0] = '\0';
  } else if (httpPos_ > httpBufLen_ / 2) {
    // Moving no more than was consumed keeps pipelined requests linear.
    shift();
  }
  // Thrift doubles the buffer and never shrinks it; its size would wrap at 4 GiB.
  if (httpBufSize_ > kSmallRequest && httpBufLen_ - httpPos_ <= kSmallRequest / 2) {
    shift();
    auto* smaller = static_cast<char*>(std::realloc(httpBuf_, kSmallRequest + 1));
    if (smaller != nullptr) {
      httpBuf_ = smaller;
      httpBufSize_ = kSmallRequest;
    }
  }
}

void thrift_http_server::refuse(const std::string& why) {
  TARN_TRACE(kTraceWarning, "Request refused: %s", why.c_str());
  // The line above says why; the connection loop ends the connection without another.
  throw TTransportException(TTransportException::END_OF_FILE, "refused: " + why);
}

bool thrift_http_server::parseStatusLine(char* status) {
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

  // GET and OPTIONS are answered once the headers have been read and checked.
  if (std::strcmp(method, "POST") == 0) return true;
  if (std::strcmp(method, "GET") == 0) {
    if (*uri != '/' || std::strstr(uri, "..") != nullptr) throw TTransportException("bad uri");
    method_ = method::get;
    uri_ = uri;
    return true;
  }
  if (std::strcmp(method, "OPTIONS") == 0) {
    method_ = method::options;
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
    const std::string_view name(header, name_length);
    const std::string_view value(colon + 1);
    if (rules_ && rules_->check_host && ascii_iequals(name, "Host") &&
        !host_allowed(value, rules_->own_names)) {
      refuse("Host \"" + std::string(trim(value, " \t")) + "\" names another machine");
    }
    if (rules_ && method_ == method::post && ascii_iequals(name, "Origin") &&
        !origin_allowed(value, rules_->origins)) {
      refuse("Origin \"" + std::string(trim(value, " \t")) + "\" is not allowed");
    }
  }
  THttpServer::parseHeader(header);
}

void thrift_http_server::serve_get(const std::string& uri) {
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

thrift_http_server_factory::thrift_http_server_factory(
    const std::string& default_document, std::shared_ptr<dynamic_uri_handler> dynamic,
    const http_request_limits& limits, std::shared_ptr<const http_access_rules> rules)
    : default_document_(default_document),
      dynamic_(std::move(dynamic)),
      limits_(limits),
      rules_(std::move(rules)),
      connections_(std::make_shared<http_connections>(limits.shared_body_bytes)) {}

thrift_http_server_factory::~thrift_http_server_factory() = default;

std::shared_ptr<TTransport> thrift_http_server_factory::getTransport(
    std::shared_ptr<TTransport> transport) {
  return std::make_shared<thrift_http_server>(std::move(transport), default_document_, dynamic_,
                                              limits_, rules_, connections_);
}

bool http_connections::take_budget(uint64_t bytes) {
  uint64_t left = budget_.load();
  do {
    if (left < bytes) return false;
  } while (!budget_.compare_exchange_weak(left, left - bytes));
  return true;
}

void http_connections::give_budget(uint64_t bytes) { budget_ += bytes; }

void http_connections::add(const void* owner, int fd) {
  MutexLock lock(mu_);
  sockets_[owner] = fd;
}

void http_connections::remove(const void* owner) {
  MutexLock lock(mu_);
  sockets_.erase(owner);
}

void http_connections::shut_down_all() {
  MutexLock lock(mu_);
  for (const auto& [owner, fd] : sockets_) ::shutdown(fd, SHUT_RDWR);
}

}  // namespace tarn
