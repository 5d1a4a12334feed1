// The real tarngateway on port 9090: what only the whole process decides (its log, the flag read
// at start, refusals and their exit codes, signals, a second instance).
#include <signal.h>

#include <regex>
#include <thread>

#include "canned_http_server.h"
#include "convutils/CConvRegKey.h"
#include "e2e_fixture.h"
#include "support/run_program.h"

namespace tarn::test {
namespace {

using namespace std::chrono_literals;

class gateway_e2e_test : public e2e_test {
 protected:
  void set_feature_flag(DWORD value) {
    CConvRegKey flag(reg_root::current_user, "Software\\Vantu\\PDF\\V1\\TarnGateWay",
                     "Tarn_GateWay_fetatures", DWORD{0});
    ASSERT_EQ(flag.write_number(value), kErrorSuccess);
  }
};

TEST_F(gateway_e2e_test, ServesCallsAndALogOfWhatCameWithoutForgedLines) {
  set_feature_flag(4);
  auto gateway = start_listening("gateway");
  EXPECT_EQ(call(kVersionCall), kVersionReply);
  // Control bytes must not forge log lines; "\/" is JSON for "/".
  EXPECT_EQ(call(R"([1,"send_command",1,7,{"1":{"i32":0},"2":{"str":"c\r\n<0>forged\u001b"},)"
                 R"("3":{"str":"Offers\/2026"},"4":{"set":["str",2,"doc-1","doc-2"]}}])"),
            R"([1,"send_command",2,7,{}])");

  // The start line, then the handlers' own entries, then one per document, each with its time.
  const std::string time = "[A-Z][a-z]{2} [A-Z][a-z]{2} [ 1-3][0-9] [0-9:]{8} [0-9]{4}";
  const std::string command =
      R"(\[0\] )" + time +
      R"(, send_command\(CREATE_PDF, "c\\r\\n<0>forged\\x1b", "Offers/2026", )";
  const std::string logs = body_of(get("/logs"));
  EXPECT_TRUE(std::regex_search(
      logs, std::regex("^" + time + R"(, Vantu Tarn \(version 5\.0\) GateWay started\n-{54}\n)" +
                       "(.*\n){2}" + command + R"("doc-1"\)\n)" + command + R"("doc-2"\)\n)")))
      << logs;
  stop(*gateway);
  const std::string err = gateway->error_output();
  EXPECT_NE(err.find(R"("c\r\n<0>forged\x1b")"), std::string::npos) << err;
  EXPECT_EQ(err.find("\n<0>"), std::string::npos) << err;
}

// Each gateway here also has a display whose X server is gone: it must serve all the same.
TEST_F(gateway_e2e_test, LogsPageFollowsTheFlagBitOfValueFourReadAtStart) {
  int number = 100;
  while (std::filesystem::exists("/tmp/.X11-unix/X" + std::to_string(number)) ||
         std::filesystem::exists("/tmp/.X" + std::to_string(number) + "-lock"))
    ++number;
  env_.set_env("DISPLAY", ":" + std::to_string(number));
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
    EXPECT_EQ(call(kVersionCall), kVersionReply);
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
  EXPECT_NE(err.find(": TarnGateWay.exe already run, it can't serve more than one Windows user, "
                     "stop this instance.\n"),
            std::string::npos)
      << err;
  EXPECT_EQ(err.find("TarnGateWay started."), std::string::npos) << err;
  EXPECT_EQ(call(kVersionCall), kVersionReply);
  EXPECT_EQ(body_of(get("/logs")), log_before);
  stop(*first);
}

// A refusal at start leaves main() as the second instance's does; this one comes later, from
// the event loop.
TEST_F(gateway_e2e_test, APortTakenByAnotherProgramEndsTheProcessWithItsCodeAndSaysWhy) {
  canned_http_server foreign(canned_http_server::reply("404 Not Found", "text/html", ""), kPort);
  gateway_process gateway(env_.root(), "refused");
  EXPECT_EQ(gateway.wait_exit(30s), std::optional<int>(5));
  EXPECT_NE(gateway.error_output().find("tarngateway: can't listen on port 9090: "),
            std::string::npos)
      << gateway.error_output();
}

// With the default deadlines, none of which would end them: a client that stopped halfway
// through a request, and for SIGTERM also one that never reads its replies.
TEST_F(gateway_e2e_test, EachStopSignalEndsTheGatewayInTimeWhileClientsHang) {
  for (int signo : {SIGTERM, SIGINT, SIGHUP}) {
    SCOPED_TRACE(strsignal(signo));
    auto gateway = start_listening("signal");
    raw_http_client held(kPort), never_reads(kPort);
    ASSERT_TRUE(held.send("POST / HTTP/1.1\r\nContent-Len"));
    std::thread flooding([&, flood = signo == SIGTERM] {
      if (flood) never_reads.send(version_calls(200'000));
    });
    if (signo == SIGTERM) std::this_thread::sleep_for(1s);
    gateway->send_signal(signo);
    const auto code = gateway->wait_exit(5s);
    if (!code) gateway->send_signal(SIGKILL);  // else the flooding thread would never end
    flooding.join();
    EXPECT_EQ(code, std::optional<int>(0)) << gateway->error_output();
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

}  // namespace
}  // namespace tarn::test
