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
using ::testing::HasSubstr;
using Lines = std::vector<std::string>;

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

// A page's Content-Length leaves out the CR LF behind it, a file's counts it.
std::string get_reply(const std::string& type, const std::string& body, size_t crlf = 2) {
  return "HTTP/1.1 200 OK\r\nContent-Type: " + type +
         "\r\nContent-Length: " + std::to_string(body.size() + crlf) +
         "\r\nAccess-Control-Allow-Origin: *\r\nDate: <date>\r\n\r\n" + body + "\r\n";
}

const std::string kNotFound =
    "HTTP/1.1 404 Not Found\r\nContent-Type: text/html\r\nContent-Length: 9\r\n"
    "Date: <date>\r\n\r\nNot Found\r\n";

std::string mask_dates(const std::string& reply) {
  static const std::regex kDate(
      "Date: [A-Z][a-z]{2}, [0-9]{1,2} [A-Z][a-z]{2} 20[0-9]{2} [0-9:]+ GMT");
  return std::regex_replace(reply, kDate, "Date: <date>");
}

// What Thrift's connection loop reports when it ends a connection.
std::mutex output_mu;
Lines output_lines;
Lines take_output() {
  std::lock_guard lock(output_mu);
  return std::exchange(output_lines, {});
}

class thrift_http_server_test : public test::sandboxed_test {
 protected:
  void SetUp() override {
    take_output();
    apache::thrift::GlobalOutput.setOutputFunction([](const char* line) {
      std::lock_guard lock(output_mu);
      output_lines.push_back(line);
    });
    root_ = env_.root() / "www-data";
    const std::pair<std::string, std::string> files[] = {
        {"style.css", "p{color:0}\n"},
        {"index.html", "<p>Vantu</p>"},
        {"sub/page.css", "b{}"},
        {"logs", "a file named logs"},
        {"image.png", std::string("\x89PNG\r\n\0\x1a\n", 9)},
        {"../secret.txt", "outside"}};
    for (const auto& [name, bytes] : files) test::write_file(root_ / name, bytes);
    fs::create_symlink(env_.root() / "secret.txt", root_ / "outside.txt");
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
    apache::thrift::GlobalOutput.setOutputFunction([](const char*) {});
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

  // Each request ends its own connection without a reply, for the reason Thrift reports.
  void expect_refused(const std::vector<std::pair<std::string, std::string>>& cases) {
    for (const auto& [request, reported] : cases) {
      SCOPED_TRACE(request.substr(0, 60));
      raw_http_client client(server_->port());
      client.send(request);
      EXPECT_TRUE(client.closed_by_server());
      EXPECT_THAT(take_output(), ElementsAre(HasSubstr(reported)));
    }
  }

  static void expect_served(raw_http_client& client, const std::string& call = post(kGetVersion)) {
    client.send(call);
    EXPECT_EQ(mask_dates(client.read_reply()), post_reply(kVersionReply));
  }

  fs::path root_;
  std::shared_ptr<simple_log> log_;
  std::unique_ptr<test::in_process_server> server_;
};

TEST_F(thrift_http_server_test, PostKeepsTheConnectionForTheNextCall) {
  raw_http_client client(server_->port());
  // In one write: a GET whose body is then taken as a call, two calls, an unknown method, and
  // a chunked call then one more, which THttpTransport alone would swallow.
  client.send("GET /nothing HTTP/1.1\r\nContent-Length: 24\r\n\r\n" + kGetVersion +
              post(kGetVersion, "/anything/../at/all") + post(R"([1,"nope",1,3,{}])") +
              "POST / HTTP/1.1\r\nTransfer-Encoding: chunked\r\n\r\n"
              "4;ext=1\r\n[1,\"\r\n14\r\nget_version\",1,0,{}]\r\n0\r\nTrailer: x\r\n\r\n" +
              post(kGetVersion));
  const std::string version = post_reply(kVersionReply);
  for (const auto& expected :
       {kNotFound.substr(0, kNotFound.size() - 2), "\r\n" + version, version,
        post_reply(R"([1,"nope",3,3,{"1":{"str":"Invalid method name: 'nope'"},"2":{"i32":1}}])"),
        version, version})
    EXPECT_EQ(mask_dates(client.read_reply()), expected);
}

TEST_F(thrift_http_server_test, GetAndOptionsAnswerThenClose) {
  const std::string options =
      "HTTP/1.1 200 OK\r\nDate: <date>\r\nAccess-Control-Allow-Origin: *\r\n"
      "Access-Control-Allow-Methods: GET, POST, OPTIONS\r\n"
      "Access-Control-Allow-Headers: Content-Type\r\n\r\n";
  const std::string css = get_reply("text/css", "p{color:0}\n");
  const std::string index = get_reply("text/html", "<p>Vantu</p>");
  const std::pair<std::string, std::string> cases[] = {
      {"GET /style.css HTTP/1.1\r\n\r\n", css},
      {"OPTIONS /any HTTP/1.0\r\nOrigin: x\r\n\r\n", options},
      {"GET / \r\n\r\n", index},
      {"\r\n\r\nGET   /index.html   HTTP/1.1\r\nHost: h\r\n\r\n", index},
      {"GET /sub/page.css HTTP/1.1\r\n\r\n", get_reply("text/css", "b{}")},
      {"GET /image.png HTTP/1.1\r\n\r\n",
       get_reply("image/png", std::string("\x89PNG\r\n\0\x1a\n", 9))},
      {"GET //style.css HTTP/1.1\r\n\r\n", css},
      // Nothing outside the web folder, whatever a link inside it says; links within it work.
      {"GET /outside.txt HTTP/1.1\r\n\r\n", kNotFound},
      {"GET /up/secret.txt HTTP/1.1\r\n\r\n", kNotFound},
      {"GET /inside.css HTTP/1.1\r\n\r\n", css},
      {"GET /pipe.html HTTP/1.1\r\n\r\n", kNotFound},
      {"GET /logs/ HTTP/1.1\r\n\r\n", kNotFound},
      {"GET /logs HTTP/1.1\r\n\r\n", get_reply("text/plain", log_->render(), 0)},
  };
  for (const auto& [request, reply] : cases) {
    SCOPED_TRACE(request);
    EXPECT_EQ(exchange(request), reply);
  }
  EXPECT_EQ(take_output(), Lines());

  // Without the page, "/logs" is a file like any other.
  server_ = start(nullptr);
  EXPECT_EQ(exchange("GET /logs HTTP/1.1\r\n\r\n"), get_reply("text/plain", "a file named logs"));
}

TEST_F(thrift_http_server_test, BadRequestEndsOnlyItsConnectionWithoutAReply) {
  raw_http_client slow(server_->port());
  slow.send("POST / HTTP/1.1\r\nContent-Len");
  expect_refused({
      {"GET /\r\n\r\n", "bad status: GET"},
      {"NOBLANK\r\n\r\n", "bad status: NOBLANK"},
      {"HEAD / HTTP/1.1\r\n\r\n", "Bad Status (unsupported method): HEAD"},
      {"GET http://localhost:9090/ HTTP/1.1\r\n\r\n", "bad uri"},
      {"GET /../etc/passwd HTTP/1.1\r\n\r\n", "bad uri"},
      // Thrift's line search stops at a NUL: it would wait for the request deadline.
      {std::string("GET /\0 HTTP/1.1\r\n\r\n", 20), "NUL byte in the request"},
      {"POST / HTTP/1.1\r\nContent-Length: 2x\r\n\r\n", "bad Content-Length: 2x"},
      {"POST / HTTP/1.1\r\nContent-Length: -1\r\n\r\n", "bad Content-Length: -1"},
      {"POST / HTTP/1.1\r\nContent-length:\r\n\r\n", "bad Content-Length:"},
      {"POST / HTTP/1.1\r\nContent-Length: 4294967320\r\n\r\n",
       "Content-Length over 2097152 bytes: 4294967320"},
      // TJSONProtocol alone would run these with a made-up command number.
      {post(R"([1,"send_command",1,5,{"1":{"i32":-}}])"), "request body isn't JSON"},
      {post(kGetVersion + "[]"), "request body isn't JSON"},
  });
  expect_served(slow, "gth: 24\r\n\r\n" + kGetVersion);
}

TEST_F(thrift_http_server_test, RequestOverItsLimitsEndsOnlyItsConnection) {
  http_request_limits limits;
  limits.max_body_bytes = 1000;
  limits.read_timeout = std::chrono::milliseconds(300);
  server_ = start(nullptr, limits);
  const std::string kTooLarge = "request larger than 66536 bytes";
  // Over the budget (body and head limits) even without the first read's bytes.
  const std::string over(64 * 1024 + 8000, 'x');
  // The body starts a JSON string that its chunks go on filling.
  std::string chunks = "4\r\n[1,\"\r\n";
  while (chunks.size() < over.size()) chunks += "1000\r\n" + std::string(0x1000, 'a') + "\r\n";

  raw_http_client idle(server_->port());
  expect_served(idle);
  expect_refused({
      {"POST / HTTP/1.1\r\nContent-Length: 1001\r\n\r\n", "Content-Length over 1000 bytes: 1001"},
      {"POST / HTTP/1.1\r\nTransfer-Encoding: chunked\r\n\r\n" + chunks, kTooLarge},
      {"POST / HTTP/1.1\r\nX: " + over, kTooLarge},
      // Silence within a request ends it as a time-out, which TSocket reports itself.
      {"POST / HTTP/1.1\r\nContent-Length: 24\r\n\r\n[1,",
       "TSocket::read() THRIFT_EAGAIN (timed out)"},
  });
  // The kept-alive connection waited longer than the time-out and still serves.
  expect_served(idle);
}

}  // namespace
}  // namespace tarn
