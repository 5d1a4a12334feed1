// The real tarngateway on port 9090, spoken to in raw bytes.
#include <signal.h>

#include <filesystem>
#include <regex>
#include <sstream>
#include <vector>

#include "canned_http_server.h"
#include "e2e_fixture.h"
#include "support/run_program.h"
#include "web/raw_http_client.h"

namespace tarn::test {
namespace {

using namespace std::chrono_literals;

const std::string kVersionCall = R"([1,"get_version",1,0,{}])";
const std::string kVersionReply =
    R"json([1,"get_version",2,0,{"0":{"str":"Vantu Tarn (version 5.0)"}}])json";
const std::string kSendCall =
    R"([1,"send_command",1,7,{"1":{"i32":0},"2":{"str":"ctx-a"},"3":{"str":"ctx-b"},"4":{"set":["str",2,"doc-1","doc-2"]}}])";
const std::string kSendReply = R"([1,"send_command",2,7,{}])";
const std::string kNopeCall = R"([1,"nope",1,3,{}])";
const std::string kNopeReply =
    R"([1,"nope",3,3,{"1":{"str":"Invalid method name: 'nope'"},"2":{"i32":1}}])";

const std::string kAlreadyRunning =
    "TarnGateWay.exe already run, it can't serve more than one Windows user, stop this instance.";
const std::string kServerEdition = "TarnGateWay.exe can't run on Windows Server version.";

// Puts "<date>" in place of the Date header's value once its form has been checked: UTC, no
// leading zeros, e.g. "Tue, 3 Mar 2026 8:5:9 GMT". A date of another form stays and shows.
std::string date_checked(const std::string& response) {
  static const std::regex date(
      "Date: (Sun|Mon|Tue|Wed|Thu|Fri|Sat), ([1-9]|[12][0-9]|3[01]) "
      "(Jan|Feb|Mar|Apr|May|Jun|Jul|Aug|Sep|Oct|Nov|Dec) [0-9]{4} ([0-9]|1[0-9]|2[0-3]):"
      "([0-9]|[1-5][0-9]):([0-9]|[1-5][0-9]|60) GMT\r\n");
  return std::regex_replace(response, date, "Date: <date>\r\n",
                            std::regex_constants::format_first_only);
}

std::string post_reply(const std::string& message) {
  return "HTTP/1.1 200 OK\r\nDate: <date>\r\nServer: Thrift/0.17.0\r\n"
         "Access-Control-Allow-Origin: *\r\nContent-Type: application/x-thrift\r\n"
         "Content-Length: " +
         std::to_string(message.size()) + "\r\nConnection: Keep-Alive\r\n\r\n" + message;
}

// One request on a new connection, and all the server sends until it closes.
std::string exchange(const std::string& request) {
  raw_http_client client(kPort);
  client.send(request);
  return client.read_to_close();
}

std::vector<std::string> lines_of(const std::string& text) {
  std::vector<std::string> lines;
  std::istringstream in(text);
  for (std::string line; std::getline(in, line);) lines.push_back(line);
  return lines;
}

class gateway_e2e_test : public e2e_test {};

TEST_F(gateway_e2e_test, WorkedMessagesAndExchangesAreByteExact) {
  set_feature_flag(4);
  auto gateway = start_listening("gateway");

  {
    SCOPED_TRACE("POST on one kept-alive connection");
    raw_http_client client(kPort);
    const struct {
      const std::string& call;
      const std::string& reply;
    } calls[] = {{kVersionCall, kVersionReply},
                 {kSendCall, kSendReply},
                 {kNopeCall, kNopeReply},
                 {kVersionCall, kVersionReply}};
    for (const auto& c : calls) {
      SCOPED_TRACE(c.call);
      ASSERT_TRUE(client.send(post_request(c.call)));
      EXPECT_EQ(date_checked(client.read_reply()), post_reply(c.reply));
    }
  }

  const std::string css = read_file(dist_program("www-data/style.css"));
  ASSERT_FALSE(css.empty());
  const struct {
    const char* label;
    std::string request;
    std::string reply;
  } exchanges[] = {
      {"file", "GET /style.css HTTP/1.1\r\n\r\n",
       "HTTP/1.1 200 OK\r\nContent-Type: text/css\r\nContent-Length: " +
           std::to_string(css.size() + 2) +
           "\r\nAccess-Control-Allow-Origin: *\r\nDate: <date>\r\n\r\n" + css + "\r\n"},
      {"missing file", "GET /nothing.html HTTP/1.1\r\n\r\n",
       "HTTP/1.1 404 Not Found\r\nContent-Type: text/html\r\nContent-Length: 9\r\n"
       "Date: <date>\r\n\r\nNot Found\r\n"},
      {"preflight", "OPTIONS / HTTP/1.1\r\n\r\n",
       "HTTP/1.1 200 OK\r\nDate: <date>\r\nAccess-Control-Allow-Origin: *\r\n"
       "Access-Control-Allow-Methods: GET, POST, OPTIONS\r\n"
       "Access-Control-Allow-Headers: Content-Type\r\n\r\n"},
      {"other method", "DELETE /x HTTP/1.1\r\n\r\n", ""},
  };
  for (const auto& e : exchanges) {
    SCOPED_TRACE(e.label);
    // read_to_close() fails the test when the server keeps the connection.
    EXPECT_EQ(date_checked(exchange(e.request)), e.reply);
  }

  SCOPED_TRACE("log page");
  const std::string logs = date_checked(exchange("GET /logs HTTP/1.1\r\n\r\n"));
  const size_t head_end = logs.find("\r\n\r\n");
  ASSERT_NE(head_end, std::string::npos) << logs;
  const std::string body = logs.substr(head_end + 4, logs.size() - head_end - 6);
  EXPECT_EQ(logs.substr(0, head_end + 4),
            "HTTP/1.1 200 OK\r\nContent-Type: text/plain\r\nContent-Length: " +
                std::to_string(body.size()) +
                "\r\nAccess-Control-Allow-Origin: *\r\nDate: <date>\r\n\r\n");
  EXPECT_TRUE(logs.ends_with("\n\r\n"));
  const std::string time =
      "[A-Z][a-z]{2} [A-Z][a-z]{2} [ 1-3][0-9] [0-9]{2}:[0-9]{2}:[0-9]{2} [0-9]{4}";
  const std::string expected[] = {
      time + ", Vantu Tarn \\(version 5\\.0\\) GateWay started",
      std::string(54, '-'),
      "\\[\\.\\.\\.\\] " + time + ", DMS_connector_handler::DMS_connector_handler",
      "\\[\\.\\.\\.\\] " + time + ", TarnGateWayHandler\\(\\)",
      "\\[0\\] " + time + R"(, send_command\(CREATE_PDF, "ctx-a", "ctx-b", "doc-1"\))",
      "\\[0\\] " + time + R"(, send_command\(CREATE_PDF, "ctx-a", "ctx-b", "doc-2"\))",
  };
  const auto lines = lines_of(body);
  ASSERT_GE(lines.size(), std::size(expected)) << body;
  for (size_t i = 0; i < std::size(expected); ++i)
    EXPECT_TRUE(std::regex_match(lines[i], std::regex(expected[i]))) << lines[i];

  stop(*gateway);
}

TEST_F(gateway_e2e_test, LogsPageFollowsTheFlagBitOfValueFourReadAtStart) {
  const struct {
    std::optional<DWORD> flag;
    bool page;
  } cases[] = {{std::nullopt, false}, {3, false}, {8, false}, {4, true}, {7, true}, {12, true}};
  for (const auto& c : cases) {
    SCOPED_TRACE(c.flag ? std::to_string(*c.flag) : "absent");
    if (c.flag) set_feature_flag(*c.flag);
    auto gateway = start_listening("flag");
    const std::string head =
        c.page ? "HTTP/1.1 200 OK\r\nContent-Type: text/plain\r\n" : "HTTP/1.1 404 Not Found\r\n";
    std::string reply = exchange("GET /logs HTTP/1.1\r\n\r\n");
    EXPECT_TRUE(reply.starts_with(head)) << reply;
    // The flag is read at start only: turning it over now changes nothing.
    set_feature_flag(c.page ? 0 : 4);
    reply = exchange("GET /logs HTTP/1.1\r\n\r\n");
    EXPECT_TRUE(reply.starts_with(head)) << reply;
    stop(*gateway);
  }
}

TEST_F(gateway_e2e_test, AClientHoldingItsConnectionDoesNotBlockAnother) {
  auto gateway = start_listening("gateway");
  raw_http_client slow(kPort);
  const std::string request = post_request(kVersionCall);
  ASSERT_TRUE(slow.send(request.substr(0, 20)));

  raw_http_client quick(kPort);
  ASSERT_TRUE(quick.send(request));
  EXPECT_EQ(date_checked(quick.read_reply()), post_reply(kVersionReply));

  ASSERT_TRUE(slow.send(request.substr(20)));
  EXPECT_EQ(date_checked(slow.read_reply()), post_reply(kVersionReply));
  stop(*gateway);
}

TEST_F(gateway_e2e_test, ASecondInstanceGivesUpAfterOneGetWhileTheFirstGoesOn) {
  {
    SCOPED_TRACE("a stand-in for the first instance counts the requests");
    canned_http_server first(
        canned_http_server::reply("200 OK", "text/html", "<title>Vantu Tarn gateway</title>"),
        kPort);
    gateway_process second(env_.root(), "second");
    EXPECT_EQ(second.wait_exit(30s), std::optional<int>(3));
    const auto requests = first.requests();
    ASSERT_EQ(requests.size(), 1u);
    EXPECT_TRUE(requests[0].starts_with("GET / HTTP/1.1\r\n")) << requests[0];
    EXPECT_TRUE(has_trace_line(second.error_output(), kAlreadyRunning)) << second.error_output();
  }

  SCOPED_TRACE("the real first instance");
  set_feature_flag(4);
  auto first = start_listening("first");
  const std::string log_before = exchange("GET /logs HTTP/1.1\r\n\r\n");
  gateway_process second(env_.root(), "second-real");
  EXPECT_EQ(second.wait_exit(30s), std::optional<int>(3));
  const std::string err = second.error_output();
  EXPECT_TRUE(has_trace_line(err, kAlreadyRunning)) << err;
  EXPECT_FALSE(has_trace_line(err, "TarnGateWay started.")) << err;

  raw_http_client client(kPort);
  ASSERT_TRUE(client.send(post_request(kVersionCall)));
  EXPECT_EQ(date_checked(client.read_reply()), post_reply(kVersionReply));
  EXPECT_EQ(date_checked(exchange("GET /logs HTTP/1.1\r\n\r\n")), date_checked(log_before));
  stop(*first);
}

TEST_F(gateway_e2e_test, AServerMachineNeverOpensThePortNorAsksIt) {
  write_file(env_.root() / "machine-info", "CHASSIS=server\n");
  canned_http_server other(
      canned_http_server::reply("200 OK", "text/html", "<title>Vantu Tarn gateway</title>"), kPort);
  gateway_process gateway(env_.root(), "server");
  EXPECT_EQ(gateway.wait_exit(30s), std::optional<int>(4));
  EXPECT_TRUE(other.requests().empty()) << "the probe ran on a server";
  const std::string err = gateway.error_output();
  EXPECT_TRUE(has_trace_line(err, kServerEdition)) << err;
  EXPECT_FALSE(has_trace_line(err, kAlreadyRunning)) << err;
  EXPECT_FALSE(has_trace_line(err, "TarnGateWay started.")) << err;
}

TEST_F(gateway_e2e_test, APortTakenByAForeignProgramEndsTheGatewayWithAMessage) {
  canned_http_server foreign(canned_http_server::reply("404 Not Found", "text/html", "nope"),
                             kPort);
  gateway_process gateway(env_.root(), "taken");
  EXPECT_EQ(gateway.wait_exit(30s), std::optional<int>(5));
  EXPECT_EQ(foreign.requests().size(), 1u);
  const std::string err = gateway.error_output();
  EXPECT_NE(err.find("tarngateway: can't listen on port 9090: "), std::string::npos) << err;
  EXPECT_NE(err.find("Address already in use"), std::string::npos) << err;
}

TEST_F(gateway_e2e_test, ADisplayWhoseServerIsGoneLeavesTheGatewayServing) {
  // A number with neither a socket nor a lock file: no X server answers there.
  int number = 100;
  while (std::filesystem::exists("/tmp/.X11-unix/X" + std::to_string(number)) ||
         std::filesystem::exists("/tmp/.X" + std::to_string(number) + "-lock"))
    ++number;
  env_.set_env("DISPLAY", ":" + std::to_string(number));
  auto gateway = start_listening("dead-display");
  raw_http_client client(kPort);
  ASSERT_TRUE(client.send(post_request(kVersionCall)));
  EXPECT_EQ(date_checked(client.read_reply()), post_reply(kVersionReply));
  stop(*gateway);
}

TEST_F(gateway_e2e_test, EachStopSignalEndsTheGatewayInTimeWithAClientConnected) {
  for (int signo : {SIGTERM, SIGINT, SIGHUP}) {
    SCOPED_TRACE(strsignal(signo));
    auto gateway = start_listening("signal");
    raw_http_client held(kPort);
    ASSERT_TRUE(held.send("POST / HTTP/1.1\r\nContent-Len"));
    ASSERT_TRUE(gateway->send_signal(signo));
    EXPECT_EQ(gateway->wait_exit(10s), std::optional<int>(0)) << gateway->error_output();
    EXPECT_TRUE(held.closed_by_server());
    EXPECT_FALSE(port_answers());
  }
  SCOPED_TRACE("SIGTERM before the port is open");
  gateway_process early(env_.root(), "early");
  ASSERT_TRUE(early.send_signal(SIGTERM));
  const auto code = early.wait_exit(10s);
  ASSERT_TRUE(code.has_value()) << "still running 10 s after SIGTERM";
  // Before QApplication installs the handler the default action ends it: 128 + 15.
  EXPECT_TRUE(*code == 0 || *code == 128 + SIGTERM) << *code;
  EXPECT_FALSE(port_answers());
}

}  // namespace
}  // namespace tarn::test
