// The real tarngateway on port 9090: what only the whole process decides (its log, the flag read
// at start, refusals and their exit codes, signals, a second instance, the installed folder).
#include <gmock/gmock.h>
#include <signal.h>

#include <regex>
#include <thread>

#include "e2e_fixture.h"
#include "support/run_program.h"

namespace tarn::test {
namespace {

using namespace std::chrono_literals;
using ::testing::HasSubstr;
using ::testing::Not;

using gateway_e2e_test = e2e_test;
constexpr const char* kFlag = "Tarn_GateWay_fetatures";

// The port is the first gateway's: a second instance gives up (main() refuses; that it starts
// nothing is the app's test), and the first serves and logs what came. Then another program
// holds the port: the next start ends from the event loop, with a code of its own.
TEST_F(gateway_e2e_test, ServesAndLogsWhatCameAndAPortTakenEndsTheNextStartWithItsCode) {
  set_dword(kFlag, 4);
  auto gateway = start_listening("gateway");
  gateway_process second(env_.root(), "second");
  EXPECT_EQ(second.wait_exit(30s), std::optional<int>(3));
  EXPECT_THAT(second.error_output(), HasSubstr(": TarnGateWay.exe already run, it can't serve"));

  // Control bytes must not forge log lines; "\/" is JSON for "/".
  EXPECT_EQ(call(R"([1,"send_command",1,7,{"1":{"i32":0},"2":{"str":"c\r\n<0>forged\u001b"},)"
                 R"("3":{"str":"Offers\/2026"},"4":{"set":["str",2,"doc-1","doc-2"]}}])"),
            R"([1,"send_command",2,7,{}])");
  const std::string logs = body_of(get("/logs"));
  EXPECT_THAT(logs, HasSubstr(", Vantu Tarn (version 5.0) GateWay started\n"));
  EXPECT_THAT(logs, HasSubstr(R"(send_command(CREATE_PDF, "c\r\n<0>forged\x1b", )"
                              R"("Offers/2026", "doc-2"))"));
  stop(*gateway);
  EXPECT_THAT(gateway->error_output(), HasSubstr(R"("c\r\n<0>forged\x1b")"));
  EXPECT_THAT(gateway->error_output(), Not(HasSubstr("\n<0>")));

  canned_http_server foreign(canned_http_server::reply("404 Not Found", "text/html", ""), kPort);
  gateway_process refused(env_.root(), "refused");
  EXPECT_EQ(refused.wait_exit(30s), std::optional<int>(5));
  EXPECT_THAT(refused.error_output(), HasSubstr("tarngateway: can't listen on port 9090: "));
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
    if (c.flag) set_dword(kFlag, *c.flag);
    auto gateway = start_listening("flag");
    const std::string status = c.page ? "HTTP/1.1 200 OK\r\n" : "HTTP/1.1 404 Not Found\r\n";
    EXPECT_TRUE(get("/logs").starts_with(status));
    set_dword(kFlag, c.page ? 0 : 4);  // read at start only: turning it over changes nothing
    EXPECT_TRUE(get("/logs").starts_with(status));
    stop(*gateway);
  }
}

// With the default deadlines, none of which would end it, a client that never reads its
// replies holds a connection thread in a send. Which signals stop the gateway is the watcher's
// test, and a half-sent request at the exit the app's.
TEST_F(gateway_e2e_test, SigtermEndsTheGatewayInTimeWhileAClientNeverReads) {
  auto gateway = start_listening("signal");
  raw_http_client never_reads(kPort);
  std::thread flooding([&] { never_reads.send(version_calls(200'000)); });
  std::this_thread::sleep_for(1s);
  gateway->send_signal(SIGTERM);
  const auto code = gateway->wait_exit(5s);
  if (!code) gateway->send_signal(SIGKILL);  // else the flooding thread would never end
  flooding.join();
  EXPECT_EQ(code, std::optional<int>(0)) << gateway->error_output();
  EXPECT_FALSE(port_answers());
}

// The value of `key=` in an ini-style file; empty when absent.
std::string value_of(const std::filesystem::path& file, const std::string& key) {
  std::smatch value;
  const std::string text = read_file(file);
  return std::regex_search(text, value, std::regex("\n" + key + "=(.*)")) ? value[1].str() : "";
}

// `cmake --install` into a private prefix: the flat folder runs from there, and the systemd
// user unit and the autostart entry name the installed gateway and pass their validators.
TEST_F(gateway_e2e_test, InstalledFolderRunsAndTheSessionFilesNameIt) {
  const auto prefix = env_.root() / "prefix";
  const program_result install = run_program(
      {TARN_CMAKE_COMMAND, "--install", TARN_BINARY_DIR, "--prefix", prefix.string()}, "", 120s);
  ASSERT_EQ(install.exit_code, 0) << install.out << install.err;
  const auto unit = prefix / "lib/systemd/user/tarngateway.service";
  const auto entry = prefix / "etc/xdg/autostart/tarngateway.desktop";
  const std::string gateway = value_of(unit, "ExecStart");
  EXPECT_TRUE(gateway.starts_with(prefix.string() + "/")) << gateway;
  EXPECT_EQ(value_of(entry, "Exec"), gateway);
  for (const auto& check : {std::vector<std::string>{"/usr/bin/env", "systemd-analyze", "--user",
                                                     "verify", "--man=no", unit.string()},
                            {"/usr/bin/env", "desktop-file-validate", entry.string()}}) {
    const program_result r = run_program(check);
    EXPECT_EQ(r.exit_code, 0) << check[1] << ": " << r.out << r.err;
    EXPECT_EQ(r.out + r.err, "") << check[1];
  }

  auto installed = start_listening("installed", gateway);
  const std::string page = get("/");
  EXPECT_TRUE(page.starts_with("HTTP/1.1 200 OK\r\nContent-Type: text/html\r\n")) << page;
  EXPECT_THAT(page, HasSubstr(read_file(prefix / "lib/vantu-tarn/www-data/index.html")));
  stop(*installed);
}

}  // namespace
}  // namespace tarn::test
