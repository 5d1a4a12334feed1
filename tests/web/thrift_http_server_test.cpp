#include "web/thrift_http_server.h"

#include <gmock/gmock.h>
#include <sys/stat.h>
#include <thrift/Thrift.h>

#include <filesystem>
#include <memory>
#include <mutex>
#include <regex>
#include <string>
#include <vector>

#include "log/simple_log.h"
#include "support/test_env.h"
#include "tasks/TarnGateWayHandler.h"
#include "web/in_process_server.h"
#include "web/raw_http_client.h"
#include "web/web_content.h"

namespace tarn {
namespace {

namespace fs = std::filesystem;
using test::raw_http_client;
using ::testing::ElementsAre;
using ::testing::StartsWith;

const std::string kGetVersion = R"([1,"get_version",1,0,{}])";
const std::string kVersionReply =
    R"j([1,"get_version",2,0,{"0":{"str":"Vantu Tarn (version 5.0)"}}])j";

std::string post(const std::string& body, const std::string& uri = "/") {
  return "POST " + uri + " HTTP/1.1\r\nContent-Length: " + std::to_string(body.size()) +
         "\r\n\r\n" + body;
}

std::string post_reply(const std::string& body) {
  return "HTTP/1.1 200 OK\r\nDate: <date>\r\nServer: Thrift/" THRIFT_VERSION_TEXT
         "\r\nAccess-Control-Allow-Origin: *\r\nContent-Type: application/x-thrift\r\n"
         "Content-Length: " +
         std::to_string(body.size()) + "\r\nConnection: Keep-Alive\r\n\r\n" + body;
}

std::string file_reply(const std::string& type, const std::string& body) {
  return "HTTP/1.1 200 OK\r\nContent-Type: " + type +
         "\r\nContent-Length: " + std::to_string(body.size() + 2) +
         "\r\nAccess-Control-Allow-Origin: *\r\nDate: <date>\r\n\r\n" + body + "\r\n";
}

const std::string kNotFound =
    "HTTP/1.1 404 Not Found\r\nContent-Type: text/html\r\nContent-Length: 9\r\n"
    "Date: <date>\r\n\r\nNot Found\r\n";

// Replaces each Date value by "<date>" after checking its form: English names, numbers
// without leading zeros.
std::string mask_dates(const std::string& reply) {
  static const std::regex kDate(
      "Date: (Sun|Mon|Tue|Wed|Thu|Fri|Sat), ([1-9]|[12][0-9]|3[01]) "
      "(Jan|Feb|Mar|Apr|May|Jun|Jul|Aug|Sep|Oct|Nov|Dec) 20[0-9][0-9] "
      "([0-9]|1[0-9]|2[0-3]):([0-9]|[1-5][0-9]):([0-9]|[1-5][0-9]|60) GMT\r\n");
  const std::string masked = std::regex_replace(reply, kDate, "Date: <date>\r\n");
  const auto count = [](const std::string& text, const std::string& what) {
    size_t n = 0;
    for (size_t at = text.find(what); at != std::string::npos; at = text.find(what, at + 1)) ++n;
    return n;
  };
  EXPECT_EQ(count(masked, "<date>"), count(reply, "Date: ")) << "a Date out of form: " << reply;
  return masked;
}

// What Thrift's connection loop reports when it ends a connection.
class global_output {
 public:
  global_output() {
    take();
    apache::thrift::GlobalOutput.setOutputFunction(&record);
  }
  ~global_output() { apache::thrift::GlobalOutput.setOutputFunction(&ignore); }
  static std::vector<std::string> take() {
    std::lock_guard lock(mu_);
    return std::exchange(lines_, {});
  }

 private:
  static void record(const char* line) {
    std::lock_guard lock(mu_);
    lines_.push_back(line);
  }
  static void ignore(const char*) {}
  static inline std::mutex mu_;
  static inline std::vector<std::string> lines_;
};

class thrift_http_server_test : public test::sandboxed_test {
 protected:
  void SetUp() override {
    root_ = env_.root() / "www-data";
    fs::create_directories(root_ / "sub");
    const std::vector<std::pair<std::string, std::string>> files = {
        {"style.css", "p{color:0}\n"}, {"index.html", "<p>Vantu</p>"},       {"sub/page.css", "b{}"},
        {"a b.html", "blank"},         {"empty.txt", ""},                    {"logs", "a file named logs"},
        {"image.png", std::string("\x89PNG\r\n\0\x1a\n", 9)},
    };
    for (const auto& [name, bytes] : files) test::write_file(root_ / name, bytes);
    test::write_file(env_.root() / "secret.txt", "outside");
    fs::create_symlink(env_.root() / "secret.txt", root_ / "outside.txt");
    fs::create_symlink("../secret.txt", root_ / "relative.txt");
    fs::create_directory_symlink("..", root_ / "up");
    fs::create_symlink("style.css", root_ / "inside.css");
    ASSERT_EQ(::mkfifo((root_ / "pipe.html").c_str(), 0600), 0);
    set_web_root_for_testing(root_.string());

    log_ = std::make_shared<simple_log>("Vantu Tarn (version 5.0) GateWay started");
    auto pages = std::make_shared<dynamic_uri_handler>();
    pages->add_page("/logs", [log = log_] { return log->render(); });
    server_ = start(pages);
  }
  void TearDown() override {
    server_.reset();
    set_web_root_for_testing("");
  }

  std::unique_ptr<test::in_process_server> start(std::shared_ptr<dynamic_uri_handler> pages,
                                                 const http_request_limits& limits = {}) {
    auto handler =
        std::make_shared<TarnGateWayHandler>(log_, std::make_shared<TaskWorker>(nullptr));
    return std::make_unique<test::in_process_server>(
        std::make_shared<thrift_http_server_factory>("index.html", pages, limits), handler);
  }

  // The whole answer to `request` on a fresh connection that the server then closes.
  std::string exchange(const std::string& request) {
    raw_http_client client(server_->port());
    client.send(request);
    return mask_dates(client.read_to_close());
  }

  global_output output_;
  fs::path root_;
  std::shared_ptr<simple_log> log_;
  std::unique_ptr<test::in_process_server> server_;
};

TEST_F(thrift_http_server_test, PostKeepsTheConnectionForTheNextCall) {
  raw_http_client client(server_->port());
  for (const auto& uri : {"/", "/anything/../at/all"}) {
    SCOPED_TRACE(uri);
    ASSERT_TRUE(client.send(post(kGetVersion, uri)));
    EXPECT_EQ(mask_dates(client.read_reply()), post_reply(kVersionReply));
  }
  // Two calls in one write, and an unknown method, on the same connection.
  client.send(post(kGetVersion) + post(R"([1,"nope",1,3,{}])"));
  EXPECT_EQ(mask_dates(client.read_reply()), post_reply(kVersionReply));
  EXPECT_EQ(
      mask_dates(client.read_reply()),
      post_reply(R"([1,"nope",3,3,{"1":{"str":"Invalid method name: 'nope'"},"2":{"i32":1}}])"));
  // A chunked call, then one more: THttpTransport alone would swallow the second.
  client.send(
      "POST / HTTP/1.1\r\nTransfer-Encoding: chunked\r\n\r\n"
      "4;ext=1\r\n[1,\"\r\n14\r\nget_version\",1,0,{}]\r\n0\r\nTrailer: x\r\n\r\n" +
      post(kGetVersion));
  EXPECT_EQ(mask_dates(client.read_reply()), post_reply(kVersionReply));
  EXPECT_EQ(mask_dates(client.read_reply()), post_reply(kVersionReply));
}

TEST_F(thrift_http_server_test, GetAndOptionsAnswerThenClose) {
  const std::string options =
      "HTTP/1.1 200 OK\r\nDate: <date>\r\nAccess-Control-Allow-Origin: *\r\n"
      "Access-Control-Allow-Methods: GET, POST, OPTIONS\r\n"
      "Access-Control-Allow-Headers: Content-Type\r\n\r\n";
  const struct {
    std::string request;
    std::string reply;
  } cases[] = {
      {"GET /style.css HTTP/1.1\r\n\r\n", file_reply("text/css", "p{color:0}\n")},
      {"GET /nothing.html HTTP/1.1\r\n\r\n", kNotFound},
      {"OPTIONS / HTTP/1.1\r\n\r\n", options},
      {"OPTIONS /any HTTP/1.0\r\nOrigin: x\r\n\r\n", options},
      {"GET / HTTP/1.1\r\n\r\n", file_reply("text/html", "<p>Vantu</p>")},
      {"GET / \r\n\r\n", file_reply("text/html", "<p>Vantu</p>")},
      {"\r\n\r\nGET   /index.html   HTTP/1.1\r\nHost: h\r\n\r\n",
       file_reply("text/html", "<p>Vantu</p>")},
      {"GET /sub HTTP/1.1\r\n\r\n", kNotFound},
      {"GET /sub/ HTTP/1.1\r\n\r\n", kNotFound},
      {"GET /sub/page.css HTTP/1.1\r\n\r\n", file_reply("text/css", "b{}")},
      {"GET /a%20b.html HTTP/1.1\r\n\r\n", kNotFound},
      {"GET /index.html?x=1 HTTP/1.1\r\n\r\n", kNotFound},
      {"GET /empty.txt HTTP/1.1\r\n\r\n", file_reply("text/plain", "")},
      {"GET /image.png HTTP/1.1\r\n\r\n",
       file_reply("image/png", std::string("\x89PNG\r\n\0\x1a\n", 9))},
      {"GET //style.css HTTP/1.1\r\n\r\n", file_reply("text/css", "p{color:0}\n")},
      // Nothing outside the web folder, whatever a link inside it says; links within it work.
      {"GET /outside.txt HTTP/1.1\r\n\r\n", kNotFound},
      {"GET /relative.txt HTTP/1.1\r\n\r\n", kNotFound},
      {"GET /up/secret.txt HTTP/1.1\r\n\r\n", kNotFound},
      {"GET /inside.css HTTP/1.1\r\n\r\n", file_reply("text/css", "p{color:0}\n")},
      {"GET /pipe.html HTTP/1.1\r\n\r\n", kNotFound},
      {"GET /logs/ HTTP/1.1\r\n\r\n", kNotFound},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.request);
    EXPECT_EQ(exchange(c.request), c.reply);
  }
  EXPECT_EQ(output_.take(), std::vector<std::string>());
}

TEST_F(thrift_http_server_test, DynamicPageComesBeforeAFileOfTheSameName) {
  const std::string page = log_->render();
  EXPECT_EQ(exchange("GET /logs HTTP/1.1\r\n\r\n"),
            "HTTP/1.1 200 OK\r\nContent-Type: text/plain\r\nContent-Length: " +
                std::to_string(page.size()) +
                "\r\nAccess-Control-Allow-Origin: *\r\nDate: <date>\r\n\r\n" + page + "\r\n");

  // Without the page, "/logs" is a file like any other.
  server_ = start(std::make_shared<dynamic_uri_handler>());
  EXPECT_EQ(exchange("GET /logs HTTP/1.1\r\n\r\n"), file_reply("text/plain", "a file named logs"));
  server_ = start(nullptr);
  EXPECT_EQ(exchange("GET /logs HTTP/1.1\r\n\r\n"), file_reply("text/plain", "a file named logs"));
}

TEST_F(thrift_http_server_test, GetWithABodyAnswersFirstThenTakesTheBodyAsACall) {
  raw_http_client client(server_->port());
  client.send("GET /nothing HTTP/1.1\r\nContent-Length: 24\r\n\r\n" + kGetVersion);
  EXPECT_EQ(mask_dates(client.read_reply()), kNotFound.substr(0, kNotFound.size() - 2));
  EXPECT_EQ(mask_dates(client.read_reply()), "\r\n" + post_reply(kVersionReply));
}

TEST_F(thrift_http_server_test, BadRequestEndsItsConnectionWithoutAReply) {
  const struct {
    std::string request;
    std::string reported;  // by Thrift's connection loop
  } cases[] = {
      {"GET /\r\n\r\n", "bad status: GET"},
      {"NOBLANK\r\n\r\n", "bad status: NOBLANK"},
      {"GET\t/ HTTP/1.1\r\n\r\n", "bad status: GET\t/"},
      {"get / HTTP/1.1\r\n\r\n", "Bad Status (unsupported method): get"},
      {"HEAD / HTTP/1.1\r\n\r\n", "Bad Status (unsupported method): HEAD"},
      {"DELETE /x HTTP/1.1\r\n\r\n", "Bad Status (unsupported method): DELETE"},
      {"GET http://localhost:9090/ HTTP/1.1\r\n\r\n", "bad uri"},
      {"GET /a/../b HTTP/1.1\r\n\r\n", "bad uri"},
      {"GET /.. HTTP/1.1\r\n\r\n", "bad uri"},
      {"GET /a..b.html HTTP/1.1\r\n\r\n", "bad uri"},
      {"POST / HTTP/1.1\r\nContent-Length: 2x\r\n\r\n", "bad Content-Length: 2x"},
      {"POST / HTTP/1.1\r\nContent-Length: -1\r\n\r\n", "bad Content-Length: -1"},
      {"POST / HTTP/1.1\r\nContent-length:\r\n\r\n", "bad Content-Length:"},
      {"POST / HTTP/1.1\r\nContent-Length: 4294967320\r\n\r\n",
       "Content-Length over 2097152 bytes: 4294967320"},
      // TJSONProtocol alone would run these with a made-up command number.
      {post(R"([1,"send_command",1,5,{"1":{"i32":}}])"), "request body isn't JSON"},
      {post(R"([1,"send_command",1,5,{"1":{"i32":-}}])"), "request body isn't JSON"},
      {post(kGetVersion + "[]"), "request body isn't JSON"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.request);
    raw_http_client client(server_->port());
    client.send(c.request);
    EXPECT_TRUE(client.closed_by_server());
    EXPECT_EQ(output_.take(), std::vector<std::string>{"TConnectedClient died: " + c.reported});
  }
}

TEST_F(thrift_http_server_test, BadRequestLeavesOtherConnectionsServed) {
  raw_http_client slow(server_->port());
  slow.send("POST / HTTP/1.1\r\nContent-Len");
  raw_http_client bad(server_->port());
  bad.send("GET /../etc/passwd HTTP/1.1\r\n\r\n");
  EXPECT_TRUE(bad.closed_by_server());

  raw_http_client other(server_->port());
  other.send(post(kGetVersion));
  EXPECT_EQ(mask_dates(other.read_reply()), post_reply(kVersionReply));
  slow.send("gth: 24\r\n\r\n" + kGetVersion);
  EXPECT_EQ(mask_dates(slow.read_reply()), post_reply(kVersionReply));
}

TEST_F(thrift_http_server_test, RequestOverItsLimitsEndsOnlyItsConnection) {
  http_request_limits limits;
  limits.max_body_bytes = 1000;
  limits.read_timeout = std::chrono::milliseconds(300);
  server_ = start(nullptr, limits);
  const std::string kTimedOut = "TSocket::read() THRIFT_EAGAIN (timed out)";
  // Over the budget (body and head limits) even without the first read's bytes.
  const std::string over(64 * 1024 + 8000, 'x');
  // The body starts a JSON string that its chunks go on filling.
  const std::string chunk = "1000\r\n" + std::string(0x1000, 'a') + "\r\n";
  std::string chunks = "4\r\n[1,\"\r\n";
  while (chunks.size() < over.size()) chunks += chunk;

  raw_http_client idle(server_->port());
  idle.send(post(kGetVersion));
  EXPECT_EQ(mask_dates(idle.read_reply()), post_reply(kVersionReply));

  const struct {
    std::string label;
    std::string request;
    std::string reported;
  } cases[] = {
      {"content length", "POST / HTTP/1.1\r\nContent-Length: 1001\r\n\r\n",
       "TConnectedClient died: Content-Length over 1000 bytes: 1001"},
      {"chunks", "POST / HTTP/1.1\r\nTransfer-Encoding: chunked\r\n\r\n" + chunks,
       "TConnectedClient died: request larger than 66536 bytes"},
      {"endless header", "POST / HTTP/1.1\r\nX: " + over,
       "TConnectedClient died: request larger than 66536 bytes"},
      {"endless request line", "GET /" + over,
       "TConnectedClient died: request larger than 66536 bytes"},
      // Silence within a request ends it as a time-out, which TSocket reports itself.
      {"stalled body", "POST / HTTP/1.1\r\nContent-Length: 24\r\n\r\n[1,", kTimedOut},
      {"stalled headers", "POST / HTTP/1.1\r\n", kTimedOut},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.label);
    raw_http_client client(server_->port());
    client.send(c.request);
    EXPECT_TRUE(client.closed_by_server());
    EXPECT_THAT(output_.take(), ElementsAre(StartsWith(c.reported)));
  }
  // The kept-alive connection waited longer than the time-out and still serves.
  idle.send(post(kGetVersion));
  EXPECT_EQ(mask_dates(idle.read_reply()), post_reply(kVersionReply));
}

}  // namespace
}  // namespace tarn
