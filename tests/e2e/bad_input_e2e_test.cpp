// What the gateway does with commands that can't be carried out, with a command that arrives
// while a question is open, and with many commands at once: it stays up and loses nothing.
#include <gmock/gmock.h>

#include <fstream>

#include "e2e_fixture.h"
#include "web/raw_http_client.h"
#include "workstation.h"

namespace tarn::test {
namespace {

using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::Not;

namespace fs = std::filesystem;

const std::string kCreateIdle = "ERROR: create_pdf_task::do_work() nothing to do.";
const std::string kAssistIdle = "ERROR: open_cassistant_task::do_work() nothing to do.";
const std::string kVersionCall = R"([1,"get_version",1,0,{}])";
const std::string kVersionReply =
    R"json([1,"get_version",2,0,{"0":{"str":"Vantu Tarn (version 5.0)"}}])json";

// Every path under `root` but those the gateway's own run writes anyway.
std::set<std::string> sandbox_paths(const fs::path& root) {
  std::set<std::string> paths;
  for (const auto& entry : fs::recursive_directory_iterator(root)) {
    const std::string rel = fs::relative(entry.path(), root).string();
    if (!rel.starts_with("gateway.err") && !rel.starts_with("exports") &&
        !rel.starts_with("tmp/tarnoffice") && !rel.starts_with("tmp/dms_local") &&
        rel.find("registry.sqlite") == std::string::npos &&
        rel.find("usage.jsonl") == std::string::npos)
      paths.insert(rel);
  }
  return paths;
}

class bad_input_e2e_test : public workstation_test {
 protected:
  // Posts one command with no question to answer and waits for the line that ends its task.
  void run_to_line(int cmd, const std::vector<std::string>& refs, const std::string& line,
                   const std::string& connection = "", const std::string& location = "") {
    const size_t before = w_->trace_count(line);
    w_->send_command(cmd, refs, connection, location);
    EXPECT_TRUE(eventually([&] { return w_->trace_count(line) > before; })) << line;
  }
};

TEST_F(bad_input_e2e_test, ReferencesThatNameNoDocumentAreLoggedAndTouchNothing) {
  const auto real = w_->import({w_->make_document("kilo.txt", "Kiloword")});
  ASSERT_EQ(real.size(), 1u);
  const std::vector<std::string> refs = {
      "\"quoted\" 'too'", "../../../etc/passwd", "a/b\\c", "..", std::string(98, '7') + ".1",
      "Grüße-日本.1", "999999.1", "1.1 OR 1=1", "default:0.1"};
  const nlohmann::json store_before = w_->list();
  const auto paths_before = sandbox_paths(w_->env().root());

  run_to_line(kCreatePdf, refs, kCreateIdle);
  run_to_line(kConvertWithAssistant, refs, kAssistIdle);
  // A connection that isn't a library name refuses even a real document.
  run_to_line(kCreatePdf, real, kCreateIdle, "../evil", "\"/tmp\"");
  run_to_line(kCreatePdf, real, kCreateIdle, "default\"; --", "");

  const std::string trace = w_->trace();
  for (const auto& ref : refs)
    EXPECT_THAT(trace, HasSubstr("pDMSHelper->DocGetProperties(\"\", \"\", \"" + ref + "\") -> "))
        << ref.substr(0, 40);
  EXPECT_EQ(w_->list(), store_before);
  EXPECT_EQ(sandbox_paths(w_->env().root()), paths_before);
  EXPECT_THAT(w_->temp_files(), IsEmpty());
}

TEST_F(bad_input_e2e_test, ACommandPostedWhileAQuestionIsOpenWaitsAndThenRuns) {
  const auto refs = w_->import({w_->make_document("lima.txt", "Limaword"),
                                w_->make_document("mike.txt", "Mikeword")});
  ASSERT_EQ(refs.size(), 2u);
  x_display::answer seen(w_->x(), "Merge items to one PDF", {});
  w_->send_command(kCreatePdf, refs);
  ASSERT_TRUE(seen.answered());

  // The second command is read and logged at once, but its reply waits for the slot.
  const std::string late = "888888.1";
  raw_http_client second(kPort);
  ASSERT_TRUE(second.send(post_request(send_command_message(kCreatePdf, "", "", {late}, 42))));
  ASSERT_TRUE(eventually([&] { return w_->trace().find("\"" + late + "\")") != std::string::npos; }));
  EXPECT_EQ(w_->post(kVersionCall), kVersionReply) << "other calls are served meanwhile";
  EXPECT_FALSE(second.has_data()) << "the reply came while the question was open";
  EXPECT_THAT(w_->trace(), Not(HasSubstr("get_file_info(\"\", \"\", \"" + late)));

  const size_t from = w_->trace().size();
  x_display::answer user(w_->x(), "Merge items to one PDF", {"Escape"});
  ASSERT_TRUE(user.answered());
  EXPECT_TRUE(second.read_reply().ends_with(R"([1,"send_command",2,42,{}])"));
  ASSERT_TRUE(eventually([&] { return w_->trace().find(kCreateIdle, from) != std::string::npos; }));
  const std::string after = w_->trace().substr(from);
  EXPECT_THAT(after, HasSubstr("get_file_info(\"\", \"\", \"" + late + "\")"));
  EXPECT_THAT(after, Not(HasSubstr("download_file(")));
  EXPECT_THAT(w_->temp_files(), IsEmpty());
}

TEST_F(bad_input_e2e_test, FiftyCommandsAtOnceLeaveTheGatewayAsItWas) {
  constexpr int kCommands = 50;
  const pid_t pid = w_->gateway().pid();
  const process_facts before = facts_of(pid);
  const size_t trace_from = w_->trace().size();

  std::vector<std::unique_ptr<raw_http_client>> clients;
  for (int i = 0; i < kCommands; ++i) clients.push_back(std::make_unique<raw_http_client>(kPort));
  for (int i = 0; i < kCommands; ++i)
    ASSERT_TRUE(clients[i]->send(post_request(send_command_message(
        i % 2 ? kConvertWithAssistant : kCreatePdf, "", "", {"burst-" + std::to_string(i)}, 1000 + i))));
  for (int i = 0; i < kCommands; ++i)
    EXPECT_TRUE(clients[i]->read_reply().ends_with("[1,\"send_command\",2," + std::to_string(1000 + i) + ",{}]")) << i;
  clients.clear();

  // At most one command still waits in the slot; a barrier runs after it, or is dropped while
  // that one waits, and the next barrier goes.
  bool barrier_ran = false;
  for (int k = 0; k < 3 && !barrier_ran; ++k) {
    const std::string barrier = "barrier-" + std::to_string(k);
    w_->send_command(kCreatePdf, {barrier});
    barrier_ran = eventually(
        [&] { return w_->trace().find("get_file_info(\"\", \"\", \"" + barrier + "\")") != std::string::npos; }, 10s);
  }
  ASSERT_TRUE(barrier_ran);
  const std::string trace = w_->trace().substr(trace_from);
  for (int i = 0; i < kCommands; ++i)
    EXPECT_THAT(trace, HasSubstr("\"burst-" + std::to_string(i) + "\")")) << "each is logged as it arrives";

  // Connection threads end after their replies; give them their deadline, then compare.
  process_facts after;
  EXPECT_TRUE(eventually([&] {
    after = facts_of(pid);
    return after.fds <= before.fds && after.threads <= before.threads;
  })) << "descriptors " << before.fds << " -> " << after.fds << ", threads " << before.threads
      << " -> " << after.threads;
  EXPECT_LT(after.rss_kib, before.rss_kib + 16 * 1024)
      << "resident memory " << before.rss_kib << " KiB -> " << after.rss_kib << " KiB";
  EXPECT_EQ(w_->post(kVersionCall), kVersionReply);
  EXPECT_THAT(w_->temp_files(), IsEmpty());
}

}  // namespace
}  // namespace tarn::test
