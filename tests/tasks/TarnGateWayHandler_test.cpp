#include "tasks/TarnGateWayHandler.h"

#include <gtest/gtest.h>
#include <thrift/protocol/TJSONProtocol.h>
#include <thrift/transport/TBufferTransports.h>

#include <memory>
#include <string>
#include <vector>

#include "dms/log_lines.h"
#include "support/test_env.h"

namespace tarn {
namespace {

using apache::thrift::protocol::TJSONProtocol;
using apache::thrift::transport::TMemoryBuffer;
using Lines = std::vector<std::string>;

class TarnGateWayHandler_test : public ::testing::Test {
 protected:
  // Tasks of the test's own: each records the command it was made for.
  task_factory recording_factory() {
    return [this](const command_args& a, const std::shared_ptr<simple_log>&,
                  const std::shared_ptr<DMS_connector_handler>& dms) -> std::unique_ptr<task> {
      struct recorded : task {
        void do_work() override {}
      };
      EXPECT_NE(dms, nullptr);
      made_.push_back(std::to_string(a.cmd) + " " + a.dms_connection + "|" + a.dms_location);
      for (const auto& ref : a.doc_refs) made_.back() += "|" + ref;
      return std::make_unique<recorded>();
    };
  }

  // One call through the real processor and JSON protocol; the reply's bytes.
  std::string process(const std::string& call) {
    auto in = std::make_shared<TMemoryBuffer>();
    auto out = std::make_shared<TMemoryBuffer>();
    in->write(reinterpret_cast<const uint8_t*>(call.data()), static_cast<uint32_t>(call.size()));
    EXPECT_TRUE(processor_.process(std::make_shared<TJSONProtocol>(in),
                                   std::make_shared<TJSONProtocol>(out), nullptr));
    worker_->run_pending();
    return out->getBufferAsString();
  }

  std::shared_ptr<simple_log> log_ = std::make_shared<simple_log>("start");
  std::shared_ptr<TaskWorker> worker_ = std::make_shared<TaskWorker>(nullptr);
  Lines made_;
  std::shared_ptr<TarnGateWayHandler> handler_ =
      std::make_shared<TarnGateWayHandler>(log_, worker_, recording_factory());
  TarnWwySrv::TarnGateWayProcessor processor_{handler_};
};

TEST_F(TarnGateWayHandler_test, LogsEachDocumentUnderTheCallsNumberAndPostsOneTask) {
  const std::string kLongest(1024, 'c');
  std::set<std::string> too_many;
  for (int i = 0; i <= 1000; ++i) too_many.insert(std::to_string(i));
  const struct {
    int32_t cmd;
    std::string connection, location;
    std::set<std::string> doc_refs;
    Lines lines;
  } calls[] = {
      // clang-format off
      {0, "a", "b", {"d2", "d1"}, {R"([0] send_command(CREATE_PDF, "a", "b", "d1"))",
                                   R"([0] send_command(CREATE_PDF, "a", "b", "d2"))"}},
      {1, "c\"q", "", {"x"}, {R"([1] send_command(CONVERT_WITH_ASSISTANT, "c"q", "", "x"))"}},
      {2, "a", "b", {"x", "y"}, {R"([2] send_command(n/a, "a", "b", "x"))",
                                 R"([2] send_command(n/a, "a", "b", "y"))"}},
      {0, "a", "b", {}, {}},
      {-1, "a", "b", {"z"}, {R"([4] send_command(n/a, "a", "b", "z"))"}},
      // The log cuts an entry at 1 KiB.
      {0, kLongest, "b", {"x"},
       {R"([5] send_command(CREATE_PDF, ")" + kLongest.substr(0, 990) + "...(cut)"}},
      {1, kLongest + "c", "b", {"x"},
       {"[6] send_command(CONVERT_WITH_ASSISTANT) refused: dms_connection of 1025 bytes, more "
        "than 1024"}},
      {0, "a", "b", too_many,
       {"[7] send_command(CREATE_PDF) refused: 1001 references, more than 1000"}},
      {0, "a", "b", {std::string(101, '7')},
       {"[8] send_command(CREATE_PDF) refused: a reference of 101 bytes, more than 100"}},
      // clang-format on
  };
  Lines expected = {"[...] DMS_connector_handler::DMS_connector_handler",
                    "[...] TarnGateWayHandler()"};
  for (const auto& c : calls) {
    SCOPED_TRACE(c.cmd);
    handler_->send_command(static_cast<TarnWwySrv::command_type::type>(c.cmd), c.connection,
                           c.location, c.doc_refs);
    worker_->run_pending();
    expected.insert(expected.end(), c.lines.begin(), c.lines.end());
    EXPECT_EQ(test::log_lines(*log_), expected);
  }
  EXPECT_EQ(made_, (Lines{"0 a|b|d1|d2", "1 c\"q||x", "0 a|b", "0 " + kLongest + "|b|x"}));

  expected.push_back("[...] ~TarnGateWayHandler()");
  expected.push_back("[...] DMS_connector_handler::~DMS_connector_handler");
  processor_ = TarnWwySrv::TarnGateWayProcessor(nullptr);
  handler_.reset();
  EXPECT_EQ(test::log_lines(*log_), expected);
}

TEST_F(TarnGateWayHandler_test, DefaultFactoryMakesTheTaskOfEachCommand) {
  test::scoped_test_env env;  // the tasks read the registry and may start the reporter
  for (const auto& [cmd, task] : {std::pair{0, "create_pdf_task"}, {1, "open_cassistant_task"}}) {
    auto log = std::make_shared<simple_log>("start");
    auto work = default_task_factory()({cmd, "a", "b", {}}, log, nullptr);
    ASSERT_NE(work, nullptr);
    work->do_work();
    EXPECT_EQ(test::log_lines(*log),
              Lines{"[...] ERROR: " + std::string(task) + "::do_work() nothing to do."});
  }
  EXPECT_EQ(default_task_factory()({2, "a", "b", {"d1"}}, nullptr, nullptr), nullptr);
}

// The wire's bytes are the clients' contract; what Thrift decides alone isn't tried here, and
// the version call's reply is pinned by the HTTP server's tests through this same processor.
TEST_F(TarnGateWayHandler_test, ProcessorTakesEachFieldOfACommandFromItsPlace) {
  EXPECT_EQ(
      process(
          R"([1,"send_command",1,7,{"1":{"i32":0},"2":{"str":"ctx-a"},"3":{"str":"ctx-b"},"4":{"set":["str",2,"doc-1","doc-2"]}}])"),
      R"([1,"send_command",2,7,{}])");
  EXPECT_EQ(made_, (Lines{"0 ctx-a|ctx-b|doc-1|doc-2"}));
}

}  // namespace
}  // namespace tarn
