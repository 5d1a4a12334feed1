#include <memory>
#include <string>
#include <vector>

#include "log/simple_log.h"
#include "support/run_program.h"
#include "support/test_env.h"
#include "tasks/TarnGateWayHandler.h"
#include "web/in_process_server.h"
#include "web/thrift_http_server.h"

namespace tarn {
namespace {

class tarnctl_call_test : public test::sandboxed_test {
 protected:
  test::program_result tarnctl(std::vector<std::string> args) {
    args.insert(args.begin(), test::dist_program("tarnctl"));
    return test::run_program(args);
  }
  std::string port() const { return std::to_string(server_.port()); }

  std::shared_ptr<simple_log> log_ = std::make_shared<simple_log>("start");
  test::in_process_server server_{
      std::make_shared<thrift_http_server_factory>("index.html", nullptr),
      std::make_shared<TarnGateWayHandler>(log_, std::make_shared<TaskWorker>(nullptr))};
};

TEST_F(tarnctl_call_test, CallsTheGatewayThroughItsHttpTransport) {
  auto r = tarnctl({"call", "get_version", "--host", "127.0.0.1", "--port", port()});
  EXPECT_EQ(r.exit_code, 0) << r.err;
  EXPECT_EQ(r.out, "Vantu Tarn (version 5.0)\n");

  r = tarnctl({"call", "--host=127.0.0.1", "--port", port(), "send_command", "--cmd",
               "CONVERT_WITH_ASSISTANT", "--connection", "c \"x\"", "--location", "l", "--", "d2",
               "-d1"});
  EXPECT_EQ(r.exit_code, 0) << r.err;
  EXPECT_EQ(r.out, "The gateway took CONVERT_WITH_ASSISTANT with 2 document(s).\n");
  r = tarnctl({"call", "send_command", "--cmd", "-3", "--host=127.0.0.1", "--port", port()});
  EXPECT_EQ(r.exit_code, 0) << r.err;

  const std::string log = log_->render();
  for (const char* line : {"[0] ", R"(, send_command(CONVERT_WITH_ASSISTANT, "c "x"", "l", "-d1"))",
                           R"(, send_command(CONVERT_WITH_ASSISTANT, "c "x"", "l", "d2"))"}) {
    EXPECT_NE(log.find(line), std::string::npos) << line << " in\n" << log;
  }
}

TEST_F(tarnctl_call_test, FailsWithTheValueAtFault) {
  // Nothing listens on the privileged port 1 of a test machine.
  const std::string refused = "1";
  const struct {
    std::vector<std::string> args;
    int exit_code;
    std::string err_part;
  } cases[] = {
      {{"call", "get_version", "--host", "127.0.0.1", "--port", refused},
       1,
       "can't connect to the gateway at 127.0.0.1:" + refused},
      {{"call", "send_command", "--cmd", "MERGE", "--port", port()}, 2, "'MERGE' is neither"},
      {{"call", "send_command", "--port", port()}, 2, "--cmd is required"},
      {{"call", "get_version", "--port", "0"}, 2, "--port"},
      {{"call"}, 2, "A subcommand is required"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.args.back());
    const auto r = tarnctl(c.args);
    EXPECT_EQ(r.exit_code, c.exit_code);
    EXPECT_NE(r.err.find(c.err_part), std::string::npos) << r.err;
  }
}

}  // namespace
}  // namespace tarn
