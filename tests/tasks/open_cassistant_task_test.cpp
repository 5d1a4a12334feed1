#include "tasks/open_cassistant_task.h"

#include <sys/stat.h>

#include "task_fixture.h"

namespace tarn {
namespace {

namespace fs = std::filesystem;
using Lines = std::vector<std::string>;

class open_cassistant_task_test : public test::task_fixture {
 protected:
  void SetUp() override {
    task_fixture::SetUp();
    // The stand-in assistant writes its arguments here; reading waits for it to start.
    ASSERT_EQ(mkfifo(record_.c_str(), 0600), 0);
    env_.set_env("TARN_FAKE_RECORD", record_.string());
  }
  void run(std::set<std::string> doc_refs, const std::string& connection = "") {
    open_cassistant_task(log_, dms_, connection, "l", std::move(doc_refs)).do_work();
  }
  // The list that the started assistant was given, and its bytes.
  std::string started_list(fs::path* list) {
    // The start is over when the task returns; without one, reading the record would wait.
    const Lines not_started = log_texts("ERROR: open_cassistant_task::do_work() can't start");
    EXPECT_EQ(not_started, Lines{});
    if (!not_started.empty()) return "";
    const std::string args = test::read_file(record_);
    *list = args.substr(0, args.find('\n'));
    return test::read_file(*list);
  }

  const fs::path record_ = env_.root() / "record";
};

// A document that couldn't be fetched keeps its place as an empty row. The copies lie in a
// folder of their own: a file of the user's with a copy's name is not replaced.
TEST_F(open_cassistant_task_test, ListLeadsTheAssistantToEveryCopy) {
  const std::string names[] = {"lost", "Gr\u00fc\u00dfe", "\u65e5\u672c report"};
  for (const auto& name : names) add_document(name, "pdf", name == names[0] ? "gone" : "P");
  const fs::path users = env_.tmp() / (names[2] + ".pdf");
  test::write_file(users, "the user's own");
  run({"3.1", "1.1", "2.1"});

  fs::path list;
  const std::string text = started_list(&list);
  fs::path copies;
  for (const auto& name : test::names_in(env_.tmp()))
    if (name.starts_with("tarnassist-")) copies = env_.tmp() / name;
  ASSERT_FALSE(copies.empty()) << text;
  EXPECT_EQ(text,
            assistant_list_text({"", copies / (names[1] + ".pdf"), copies / (names[2] + ".pdf")}));
  EXPECT_EQ(fs::status(copies).permissions(), fs::perms::owner_all);
  EXPECT_EQ(list.parent_path(), env_.tmp());
  EXPECT_EQ(log_texts("ERROR:"),
            Lines{"ERROR: open_cassistant_task::do_work() can't download file: \"1.1\""});

  EXPECT_EQ(test::read_file(users), "the user's own");
}

TEST_F(open_cassistant_task_test, ListRowsAreLatin1OrTheirOwnBytes) {
  EXPECT_EQ(assistant_list_text({"/t/caf\xc3\xa9", "", "/t/\xe2\x82\xac", "/t/bad\xff"}),
            "[FILES]\r\nCount=4\r\nDelete=1\r\n1=\"/t/caf\xe9\"\r\n2=\"\"\r\n"
            "3=\"/t/\xe2\x82\xac\"\r\n4=\"/t/bad\xff\"\r\n");
}

// Without a list nothing is started; copies that no assistant will take are deleted again.
TEST_F(open_cassistant_task_test, WhatTheAssistantCantTakeIsTakenBack) {
  const std::string one = add_document("one", "txt", "1");
  const std::string two = add_document("two", "txt", "2");
  // The store's cache folder stays writable; the temporary folder itself doesn't.
  fs::create_directory(env_.tmp() / "dms_local");
  fs::permissions(env_.tmp(), fs::perms::owner_read | fs::perms::owner_exec);
  run({one, two});
  fs::permissions(env_.tmp(), fs::perms::owner_all);
  const Lines lines = log_texts("ERROR:");
  ASSERT_EQ(lines.size(), 3u) << ::testing::PrintToString(lines);
  EXPECT_TRUE(
      lines[0].starts_with("ERROR: open_cassistant_task::do_work() failed for \"1.1\": mkdtemp "))
      << lines[0];
  EXPECT_EQ(lines[2],
            "ERROR: open_cassistant_task::do_work() can't name the list file in the "
            "temporary folder");
  EXPECT_EQ(files_in_temp(), Lines{});

  fs::remove(install_ / "tarnassist");
  run({one, two});
  EXPECT_EQ(log_texts("ERROR:").back(),
            "ERROR: open_cassistant_task::do_work() can't start the assistant");
  EXPECT_EQ(files_in_temp(), Lines{});
  for (const auto& name : test::names_in(env_.tmp()))
    EXPECT_FALSE(name.starts_with("tarnassist-")) << "the copies' folder stays";
}

TEST_F(open_cassistant_task_test, EveryFetchedItemIsClosedBeforeTheNext) {
  use_fault_connector();
  const struct {
    const char* fault;
    std::vector<fs::path> copies;
  } cases[] = {
      {"", {env_.tmp() / "item1.docx", env_.tmp() / "item2.docx"}},
      {"DocGetLocalFile", {"", ""}},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.fault);
    env_.set_env("TARN_FAULT", c.fault);
    test::fault_connector_probe connector;
    run({"d2", "d1"}, "c");
    fs::path list;
    EXPECT_EQ(started_list(&list), assistant_list_text(c.copies));
    EXPECT_EQ(connector.calls(),
              "DocGetProperties(c, l, d1)\nDocGetProperties(c, l, d2)\n"
              "SelectDocItem(c, l, d1)\nDocOpen(c, item1, 2)\nDocGetLocalFile(c, item1)\n"
              "DocClose(c, item1, 0)\nSelectDocItem(c, l, d2)\nDocOpen(c, item2, 2)\n"
              "DocGetLocalFile(c, item2)\nDocClose(c, item2, 0)\n");
    fs::remove(list);
  }
}

}  // namespace
}  // namespace tarn
