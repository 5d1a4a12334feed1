// The real tarngateway on port 9090: what only the whole process decides (its web folder, its
// log, the flag read at start, refusals and their exit codes, signals, a second instance). The
// wire format belongs to the in-process server tests.
#include <signal.h>

#include <algorithm>
#include <regex>
#include <sstream>
#include <thread>

#include "canned_http_server.h"
#include "convutils/CConvRegKey.h"
#include "e2e_fixture.h"
#include "support/run_program.h"
#include "web/raw_http_client.h"

namespace tarn::test {
namespace {

using namespace std::chrono_literals;

const std::string kVersionCall = R"([1,"get_version",1,0,{}])";
const std::string kVersionReply =
    R"json([1,"get_version",2,0,{"0":{"str":"Vantu Tarn (version 5.0)"}}])json";
const std::string kAlreadyRunning =
    "TarnGateWay.exe already run, it can't serve more than one Windows user, stop this instance.";

std::string body_of(const std::string& reply) {
  const size_t head_end = reply.find("\r\n\r\n");
  return head_end == std::string::npos ? "" : reply.substr(head_end + 4);
}

// The whole reply to a GET on a new connection, which the server then closes.
std::string get(const std::string& uri) {
  raw_http_client client(kPort);
  client.send("GET " + uri + " HTTP/1.1\r\n\r\n");
  return client.read_to_close();
}

std::string call(raw_http_client& client, const std::string& message) {
  EXPECT_TRUE(client.send(post_request(message)));
  return body_of(client.read_reply());
}

class gateway_e2e_test : public e2e_test {
 protected:
  void set_feature_flag(DWORD value) {
    CConvRegKey flag(reg_root::current_user, "Software\\Vantu\\PDF\\V1\\TarnGateWay",
                     "Tarn_GateWay_fetatures", DWORD{0});
    ASSERT_EQ(flag.write_number(value), kErrorSuccess);
  }

  void expect_serving() {
    raw_http_client client(kPort);
    EXPECT_EQ(call(client, kVersionCall), kVersionReply);
  }
};

TEST_F(gateway_e2e_test, ServesCallsItsWebFolderAndALogOfWhatCame) {
  set_feature_flag(4);
  auto gateway = start_listening("gateway");
  raw_http_client client(kPort);
  EXPECT_EQ(call(client, kVersionCall), kVersionReply);
  EXPECT_EQ(call(client, R"([1,"send_command",1,7,{"1":{"i32":0},"2":{"str":"ctx-a"},)"
                         R"("3":{"str":"ctx-b"},"4":{"set":["str",2,"doc-1","doc-2"]}}])"),
            R"([1,"send_command",2,7,{}])");
  const std::string css = read_file(dist_program("www-data/style.css"));
  ASSERT_FALSE(css.empty());
  EXPECT_EQ(body_of(get("/style.css")), css + "\r\n");

  const std::string time = "[A-Z][a-z]{2} [A-Z][a-z]{2} [ 1-3][0-9] [0-9:]{8} [0-9]{4}";
  const std::string expected[] = {
      time + ", Vantu Tarn \\(version 5\\.0\\) GateWay started",
      std::string(54, '-'),
      "\\[\\.\\.\\.\\] " + time + ", DMS_connector_handler::DMS_connector_handler",
      "\\[\\.\\.\\.\\] " + time + ", TarnGateWayHandler\\(\\)",
      "\\[0\\] " + time + R"(, send_command\(CREATE_PDF, "ctx-a", "ctx-b", "doc-1"\))",
      "\\[0\\] " + time + R"(, send_command\(CREATE_PDF, "ctx-a", "ctx-b", "doc-2"\))",
  };
  std::istringstream logs(body_of(get("/logs")));
  std::string line;
  for (const auto& pattern : expected) {
    ASSERT_TRUE(std::getline(logs, line)) << "the log ends before " << pattern;
    EXPECT_TRUE(std::regex_match(line, std::regex(pattern))) << line;
  }
  stop(*gateway);
}

TEST_F(gateway_e2e_test, LogsPageFollowsTheFlagBitOfValueFourReadAtStart) {
  const struct {
    std::optional<DWORD> flag;
    bool page;
  } cases[] = {{std::nullopt, false}, {3, false}, {8, false}, {12, true}};
  for (const auto& c : cases) {
    SCOPED_TRACE(c.flag ? std::to_string(*c.flag) : "absent");
    if (c.flag) set_feature_flag(*c.flag);
    auto gateway = start_listening("flag");
    const std::string status = c.page ? "HTTP/1.1 200 OK\r\n" : "HTTP/1.1 404 Not Found\r\n";
    EXPECT_TRUE(get("/logs").starts_with(status));
    set_feature_flag(c.page ? 0 : 4);  // read at start only: turning it over changes nothing
    EXPECT_TRUE(get("/logs").starts_with(status));
    stop(*gateway);
  }
}

TEST_F(gateway_e2e_test, ASecondInstanceGivesUpWhileTheFirstGoesOn) {
  set_feature_flag(4);
  auto first = start_listening("first");
  const std::string log_before = body_of(get("/logs"));
  gateway_process second(env_.root(), "second");
  EXPECT_EQ(second.wait_exit(30s), std::optional<int>(3));
  const std::string err = second.error_output();
  EXPECT_TRUE(has_trace_line(err, kAlreadyRunning)) << err;
  EXPECT_FALSE(has_trace_line(err, "TarnGateWay started.")) << err;
  expect_serving();
  EXPECT_EQ(body_of(get("/logs")), log_before);
  stop(*first);
}

TEST_F(gateway_e2e_test, RefusalsEndTheProcessWithTheirCodeAndSayWhy) {
  const struct {
    const char* chassis;
    bool port_taken;
    int code;
    std::string message;
  } cases[] = {
      {"server", false, 4, ": TarnGateWay.exe can't run on Windows Server version.\n"},
      {"desktop", true, 5, "tarngateway: can't listen on port 9090: "},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.message);
    write_file(env_.root() / "machine-info", std::string("CHASSIS=") + c.chassis + "\n");
    std::optional<canned_http_server> foreign;
    if (c.port_taken) foreign.emplace(canned_http_server::reply("404 Not Found", "text/html", ""), kPort);
    gateway_process gateway(env_.root(), "refused");
    EXPECT_EQ(gateway.wait_exit(30s), std::optional<int>(c.code));
    EXPECT_NE(gateway.error_output().find(c.message), std::string::npos) << gateway.error_output();
  }
}

TEST_F(gateway_e2e_test, ADisplayWhoseServerIsGoneLeavesTheGatewayServing) {
  // A number with neither a socket nor a lock file: no X server answers there.
  int number = 100;
  while (std::filesystem::exists("/tmp/.X11-unix/X" + std::to_string(number)) ||
         std::filesystem::exists("/tmp/.X" + std::to_string(number) + "-lock"))
    ++number;
  env_.set_env("DISPLAY", ":" + std::to_string(number));
  auto gateway = start_listening("dead-display");
  expect_serving();
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
  // Before the handler is installed the default action ends it: 128 + 15.
  EXPECT_TRUE(*code == 0 || *code == 128 + SIGTERM) << *code;
  EXPECT_FALSE(port_answers());
}

// A command any web page can post stores nothing when nobody can be asked: neither one
// document (not even converted) nor several.
TEST_F(gateway_e2e_test, WithoutADisplayNobodyAnswersAndNothingIsStored) {
  auto tarnctl = [](std::vector<std::string> args) {
    args.insert(args.begin(), dist_program("tarnctl"));
    const program_result r = run_program(args);
    EXPECT_EQ(r.exit_code, 0) << r.err;
    return r.out;
  };
  tarnctl({"setup"});
  write_file(env_.root() / "a.txt", "alpha\n");
  write_file(env_.root() / "b.txt", "bravo\n");
  tarnctl({"dms", "import", (env_.root() / "a.txt").string(), (env_.root() / "b.txt").string()});
  // Had the remembered choices answered, each document would get a new version.
  CConvRegKey(reg_root::current_user, "Software\\Vantu\\PDF\\V1\\iManage", "how_to_save", DWORD{0})
      .write_number(1);
  set_feature_flag(4);
  auto gateway = start_listening("no-display");
  raw_http_client client(kPort);
  const std::string nobody[] = {
      "HowToSaveDlg: no display to ask on; \"1.1\" is not converted, nothing is stored",
      "MergeSortDlg: no display to ask on; taken as Cancel, nothing is stored"};
  const char* refs[] = {R"("str",1,"1.1")", R"("str",2,"1.1","2.1")"};
  std::string logs;
  // One at a time: a command posted while another waits to start is dropped by design.
  for (int i = 0; i < 2; ++i) {
    EXPECT_EQ(call(client, std::string(R"([1,"send_command",1,1,{"1":{"i32":0},"2":{"str":""},)") +
                               R"("3":{"str":""},"4":{"set":[)" + refs[i] + "]}}]"),
              R"([1,"send_command",2,1,{}])");
    const auto deadline = std::chrono::steady_clock::now() + 30s;
    while (std::chrono::steady_clock::now() < deadline &&
           logs.find(nobody[i]) == std::string::npos) {
      std::this_thread::sleep_for(50ms);
      logs = body_of(get("/logs"));
    }
  }
  for (const auto& line : nobody) EXPECT_NE(logs.find(line), std::string::npos) << logs;
  EXPECT_EQ(gateway->error_output().find("TarnPrintHelper"), std::string::npos)
      << "nothing converted";
  stop(*gateway);
  const std::string stored = tarnctl({"dms", "list", "--json"});
  EXPECT_EQ(std::count(stored.begin(), stored.end(), '{'), 2) << stored;
  EXPECT_EQ(stored.find("\"versions\": 2"), std::string::npos) << stored;
}

}  // namespace
}  // namespace tarn::test
