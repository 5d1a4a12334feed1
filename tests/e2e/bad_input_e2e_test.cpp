// What the gateway does with commands that can't be carried out, with a command that arrives
// while a question is open, and with many commands at once: it stays up, loses nothing it
// holds, and its log tells what became of each command that ran.
#include <gmock/gmock.h>

#include <fstream>

#include "e2e_fixture.h"
#include "web/raw_http_client.h"
#include "workstation.h"

namespace tarn::test {
namespace {

using ::testing::HasSubstr;
using ::testing::IsEmpty;

namespace fs = std::filesystem;

const std::string kCreateIdle = "ERROR: create_pdf_task::do_work() nothing to do.";
const std::string kAssistIdle = "ERROR: open_cassistant_task::do_work() nothing to do.";

// What /proc says of a process.
struct process_facts {
  size_t fds = 0;
  size_t threads = 0;
  long rss_kib = 0;
};

process_facts facts_of(pid_t pid) {
  process_facts facts;
  const fs::path proc = "/proc/" + std::to_string(pid);
  std::error_code ec;
  for (auto it = fs::directory_iterator(proc / "fd", ec); !ec && it != fs::directory_iterator();
       it.increment(ec))
    ++facts.fds;
  std::ifstream status(proc / "status");
  for (std::string line; std::getline(status, line);) {
    if (line.starts_with("VmRSS:")) facts.rss_kib = std::stol(line.substr(6));
    if (line.starts_with("Threads:")) facts.threads = std::stoul(line.substr(8));
  }
  return facts;
}

class bad_input_e2e_test : public workstation_test {
 protected:
  // Posts one command with no question to answer and waits for the line that ends its task.
  void run_to_line(int cmd, const std::vector<std::string>& refs, const std::string& line,
                   const std::string& connection = "", const std::string& location = "") {
    const size_t before = w_->trace_count(line);
    w_->send_command(cmd, refs, connection, location);
    EXPECT_TRUE(eventually([&] { return w_->trace_count(line) > before; }))
        << "no \"" << line << "\"";
  }

  // Every file and folder under the sandbox, to tell that nothing appeared.
  std::set<std::string> sandbox_paths() {
    std::set<std::string> paths;
    const fs::path root = w_->env().root();
    for (auto it = fs::recursive_directory_iterator(root); it != fs::recursive_directory_iterator();
         ++it) {
      const fs::path rel = fs::relative(it->path(), root);
      // What the gateway's own run writes anyway: its output files, the office, the exports.
      const std::string top = rel.begin()->string();
      if (top == "gateway.err" || top == "gateway.out" || top == "exports" ||
          rel.string().starts_with("tmp/tarnoffice") || rel.string().starts_with("tmp/dms_local"))
        continue;
      if (rel.string().find("registry.sqlite") != std::string::npos ||
          rel.string().find("usage.jsonl") != std::string::npos)
        continue;
      paths.insert(rel.string());
    }
    return paths;
  }
};

TEST_F(bad_input_e2e_test, ReferencesThatNameNoDocumentAreLoggedAndTouchNothing) {
  const auto real = w_->import({w_->make_document("kilo.txt", "Kiloword")});
  ASSERT_EQ(real.size(), 1u);
  const std::vector<std::string> refs = {
      "\"quoted\" 'too'", "../../../etc/passwd", "a/b\\c", "..", std::string(5000, '7') + ".1",
      "Grüße-日本.1", "999999.1", "1.1 OR 1=1", "\t1.1", "default:0.1"};
  const nlohmann::json store_before = w_->list();
  const auto paths_before = sandbox_paths();

  run_to_line(kCreatePdf, refs, kCreateIdle);
  run_to_line(kConvertWithAssistant, refs, kAssistIdle);
  // A connection that isn't a library name refuses even a real document.
  run_to_line(kCreatePdf, real, kCreateIdle, "../evil", "\"/tmp\"");
  run_to_line(kCreatePdf, real, kCreateIdle, "default\"; --", "");

  const std::string trace = w_->trace();
  for (const auto& ref : refs) {
    SCOPED_TRACE(ref.substr(0, 40));
    // Written as it came: no escaping, the non-ASCII bytes as UTF-8.
    EXPECT_THAT(trace, HasSubstr("send_command(CREATE_PDF, \"\", \"\", \"" + ref + "\")"));
    EXPECT_THAT(trace, HasSubstr("send_command(CONVERT_WITH_ASSISTANT, \"\", \"\", \"" + ref +
                                 "\")"));
    EXPECT_THAT(trace, HasSubstr("pDMSHelper->DocGetProperties(\"\", \"\", \"" + ref + "\") -> "));
  }
  EXPECT_THAT(trace, HasSubstr("send_command(CREATE_PDF, \"../evil\", \"\"/tmp\"\", \"" + real[0] +
                               "\")"));
  EXPECT_EQ(w_->list(), store_before);
  EXPECT_EQ(sandbox_paths(), paths_before);
  EXPECT_THAT(w_->temp_files(), IsEmpty());

  SCOPED_TRACE("\\u escapes, a surrogate pair among them, arrive as UTF-8");
  const size_t before = w_->trace_count(kCreateIdle);
  EXPECT_EQ(w_->post(R"([1,"send_command",1,9,{"1":{"i32":0},"4":{"set":["str",1,)"
                     R"("Gr\u00fc\u00dfe \ud83d\ude00 \"q\" \\ \t.1"]}}])"),
            R"([1,"send_command",2,9,{}])");
  EXPECT_TRUE(eventually([&] { return w_->trace_count(kCreateIdle) > before; }));
  EXPECT_THAT(w_->trace(), HasSubstr("get_file_info(\"\", \"\", \"Grüße 😀 \"q\" \\ \t.1\")"));
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
  ASSERT_TRUE(eventually([&] {
    return w_->trace().find("send_command(CREATE_PDF, \"\", \"\", \"" + late + "\")") !=
           std::string::npos;
  }));
  EXPECT_EQ(w_->post(R"([1,"get_version",1,0,{}])"),
            R"json([1,"get_version",2,0,{"0":{"str":"Vantu Tarn (version 5.0)"}}])json")
      << "other calls are served meanwhile";
  EXPECT_FALSE(second.has_data()) << "the reply came while the question was open";
  EXPECT_THAT(w_->trace(), ::testing::Not(HasSubstr("get_file_info(\"\", \"\", \"" + late)));

  const size_t from = w_->trace().size();
  x_display::answer user(w_->x(), "Merge items to one PDF", {"Escape"});
  ASSERT_TRUE(user.answered());
  const std::string reply = second.read_reply();
  EXPECT_TRUE(reply.ends_with(R"([1,"send_command",2,42,{}])")) << reply;
  ASSERT_TRUE(eventually([&] {
    return w_->trace().find(kCreateIdle, from) != std::string::npos;
  }));
  const std::string after = w_->trace().substr(from);
  EXPECT_THAT(after, HasSubstr("get_file_info(\"\", \"\", \"" + late + "\")"));
  EXPECT_THAT(after, ::testing::Not(HasSubstr("download_file(")));
  EXPECT_THAT(w_->temp_files(), IsEmpty());
}

TEST_F(bad_input_e2e_test, FiftyCommandsAtOnceLeaveTheGatewayAsItWasAndTheLogTellsWhatRan) {
  constexpr int kCommands = 50;
  // Every fifth command hands a real document to the assistant; the others name none.
  std::vector<fs::path> files;
  for (int i = 4; i < kCommands; i += 5)
    files.push_back(w_->make_document("burst " + std::to_string(i) + ".txt",
                                      "Burstword" + std::to_string(i)));
  const auto real = w_->import(files);
  ASSERT_EQ(real.size(), files.size());
  std::vector<std::string> refs;
  for (int i = 0; i < kCommands; ++i)
    refs.push_back(i % 5 == 4 ? real[i / 5] : "9" + std::to_string(1000 + i) + ".1");

  const pid_t pid = w_->gateway().pid();
  const process_facts before = facts_of(pid);
  const size_t idle_before = w_->trace_count(kCreateIdle);
  const size_t trace_from = w_->trace().size();
  list_file_catcher lists(w_->temp());

  std::vector<std::unique_ptr<raw_http_client>> clients;
  for (int i = 0; i < kCommands; ++i) clients.push_back(std::make_unique<raw_http_client>(kPort));
  for (int i = 0; i < kCommands; ++i)
    ASSERT_TRUE(clients[i]->send(post_request(send_command_message(
        i % 5 == 4 ? kConvertWithAssistant : kCreatePdf, "", "", {refs[i]}, 1000 + i))));
  for (int i = 0; i < kCommands; ++i) {
    const std::string reply = clients[i]->read_reply();
    ASSERT_TRUE(reply.ends_with("[1,\"send_command\",2," + std::to_string(1000 + i) + ",{}]"))
        << i << ": " << reply;
  }
  clients.clear();

  // All were answered, so at most one of them still waits in the slot; a barrier command runs
  // after it. Should the barrier find that one still waiting it is dropped, and the next goes.
  bool barrier_ran = false;
  for (int k = 0; k < 3 && !barrier_ran; ++k) {
    const std::string barrier = "barrier-" + std::to_string(k);
    w_->send_command(kCreatePdf, {barrier});
    barrier_ran = eventually(
        [&] { return w_->trace().find("get_file_info(\"\", \"\", \"" + barrier + "\")") !=
                     std::string::npos; },
        10s);
  }
  ASSERT_TRUE(barrier_ran);

  const std::string trace = w_->trace().substr(trace_from);
  size_t ran_create = 0;
  std::vector<std::string> ran_assist;
  std::set<std::string> numbers;
  for (int i = 0; i < kCommands; ++i) {
    SCOPED_TRACE(refs[i]);
    const bool assist = i % 5 == 4;
    const std::string sent = std::string("send_command(") +
                             (assist ? "CONVERT_WITH_ASSISTANT" : "CREATE_PDF") + ", \"\", \"\", \"" +
                             refs[i] + "\")";
    EXPECT_THAT(trace, HasSubstr(sent)) << "every command is logged as it arrives";
    if (trace.find("get_file_info(\"\", \"\", \"" + refs[i] + "\")") == std::string::npos)
      continue;  // dropped: it found another command waiting in the slot
    if (assist) {
      ran_assist.push_back(refs[i]);
      EXPECT_THAT(trace, HasSubstr("DMS_connector_handler::download_file() -> " + refs[i] + "@"));
    } else {
      ++ran_create;
      EXPECT_THAT(trace, HasSubstr("pDMSHelper->DocGetProperties(\"\", \"\", \"" + refs[i] +
                                   "\") -> 0x80070002"));
    }
  }
  EXPECT_GE(ran_create + ran_assist.size(), 1u);
  const size_t barriers = w_->trace_count(kCreateIdle) - idle_before - ran_create;
  EXPECT_GE(barriers, 1u) << "each task of a missing document said it had nothing to do";
  EXPECT_LE(barriers, 3u);
  for (size_t i = 0; i < ran_assist.size(); ++i)
    EXPECT_TRUE(lists.next(10s)) << "a list for each assistant command that ran";
  EXPECT_FALSE(lists.next(0ms)) << "no list for a command that didn't run";

  // The assistants end on their own; each leaves one PDF and deletes its copy and list.
  ASSERT_TRUE(eventually([&] {
    size_t pdfs = 0;
    std::error_code ec;
    for (auto it = fs::directory_iterator(w_->assistant_output(), ec);
         !ec && it != fs::directory_iterator(); it.increment(ec))
      pdfs += it->path().filename().string().starts_with("burst ");
    return pdfs == ran_assist.size() && w_->temp_files().empty();
  })) << "temp: " << ::testing::PrintToString(w_->temp_files());

  // Connection threads end after their replies; give them their deadline, then compare.
  process_facts after;
  EXPECT_TRUE(eventually([&] {
    after = facts_of(pid);
    return after.fds <= before.fds && after.threads <= before.threads;
  })) << "descriptors " << before.fds << " -> " << after.fds << ", threads " << before.threads
      << " -> " << after.threads;
  EXPECT_LT(after.rss_kib, before.rss_kib + 16 * 1024)
      << "resident memory " << before.rss_kib << " KiB -> " << after.rss_kib << " KiB";
  std::cout << "[ burst    ] " << ran_create << " + " << ran_assist.size() << " of " << kCommands
            << " commands ran; descriptors " << before.fds << " -> " << after.fds
            << ", threads " << before.threads << " -> " << after.threads << ", RSS "
            << before.rss_kib << " -> " << after.rss_kib << " KiB\n";
  EXPECT_EQ(w_->post(R"([1,"get_version",1,0,{}])"),
            R"json([1,"get_version",2,0,{"0":{"str":"Vantu Tarn (version 5.0)"}}])json");
}

}  // namespace
}  // namespace tarn::test
