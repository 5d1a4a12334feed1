// How a command's end reaches the person at the machine: real notifications from the real
// gateway and assistant, shown by dunst on the workstation's private session bus.
#include <gmock/gmock.h>

#include <algorithm>
#include <map>

#include "workstation.h"

namespace tarn::test {
namespace {

using ::testing::ElementsAre;
using ::testing::UnorderedElementsAre;
using ::testing::Field;
using ::testing::HasSubstr;
using ::testing::IsEmpty;

constexpr const char* kGatewayApp = "Vantu Tarn";
constexpr const char* kAssistantApp = "Vantu Tarn assistant";

class notification_e2e_test : public workstation_test {
 protected:
  void SetUp() override {
    workstation_test::SetUp();
    from_ = w_->notes().shown().size();
  }
  // What was shown since the test began.
  std::vector<shown_notification> shown() const {
    auto all = w_->notes().shown();
    all.erase(all.begin(), all.begin() + static_cast<std::ptrdiff_t>(from_));
    return all;
  }
  bool shown_count(size_t count) const {
    return eventually([&] { return shown().size() >= count; }, 30s) && shown().size() == count;
  }
  size_t from_ = 0;
};

TEST_F(notification_e2e_test, ACreatePdfCommandSaysWhatItStoredAndWhatItLeftOutOnce) {
  // A file the print helper refuses: neither a document nor an image.
  const auto junk = w_->env().root() / "documents" / "november.docx";
  write_file(junk, std::string("\x01\x02\x03\xff\xfe junk", 10));
  const auto missing = "999998.1";
  struct row {
    const char* what;
    std::vector<std::filesystem::path> files;
    bool with_missing;
    uint32_t do_merge;
    std::vector<std::string> keys;
    std::string summary, body;
  } rows[] = {
      {"each a new document", {w_->make_document("kilo.docx", "Kiloword"),
                               w_->make_document("lima.txt", "Limaword")},
       false, 0, {"Return"}, "Create PDF: done", "2 PDFs stored as new documents"},
      {"one joined, two left out", {w_->make_document("mike.docx", "Mikeword"), junk}, true, 1,
       {"Return"}, "Create PDF: done, some documents left out",
       "Stored 'mike.pdf' as a new document\n2 documents couldn't be converted: 999998.1 (not in "
       "the store), november.docx (damaged or unreadable)"},
      {"cancelled", {w_->make_document("oscar.docx", "Oscarword")}, true, 1, {"Escape"}, "", ""},
  };
  // The merge question opens on "Save New Document", not related.
  w_->remember("how_to_save", 1);
  w_->remember("saver_new_related", 0);
  for (const row& r : rows) {
    SCOPED_TRACE(r.what);
    from_ = w_->notes().shown().size();
    auto refs = w_->import(r.files);
    if (r.with_missing) refs.push_back(missing);
    w_->remember("do_merge", r.do_merge);
    x_display::answer user(w_->x(), "Merge items to one PDF", r.keys);
    w_->send_command(kCreatePdf, refs);
    ASSERT_TRUE(user.answered());
    ASSERT_TRUE(w_->after_the_running_task());
    if (r.summary.empty()) {
      EXPECT_THAT(shown(), IsEmpty());
      continue;
    }
    ASSERT_TRUE(shown_count(1)) << w_->trace();
    EXPECT_EQ(shown()[0].app, kGatewayApp);
    EXPECT_EQ(shown()[0].summary, r.summary);
    EXPECT_EQ(shown()[0].body, r.body);
    const auto history = w_->notes().history();
    ASSERT_FALSE(history.empty());
    EXPECT_EQ(history.front().summary, r.summary);
  }
}

TEST_F(notification_e2e_test, TheAssistantUpdatesOneNotificationAndOpensItsFolderOnAClick) {
  auto refs = w_->import({w_->make_document("papa.docx", "Papaword"),
                          w_->make_document("quebec.txt", "Quebecword")});
  std::map<std::string, std::string> name_of = {{refs[0], "papa.docx"}, {refs[1], "quebec.txt"}};
  std::sort(refs.begin(), refs.end());  // the order of the list
  w_->send_command(kConvertWithAssistant, refs);
  const std::string out = w_->assistant_output().string();
  ASSERT_TRUE(shown_count(3)) << w_->trace();
  // dunst runs its recording script once per update, and those runs may finish in any order;
  // what the service holds in the end is what the user sees.
  const auto seen = shown();
  EXPECT_THAT(seen, UnorderedElementsAre(Field(&shown_notification::summary,
                                               "Converting 1 of 2: " + name_of[refs[0]]),
                                         Field(&shown_notification::summary,
                                               "Converting 2 of 2: " + name_of[refs[1]]),
                                         Field(&shown_notification::summary, "Conversion done")));
  for (const auto& n : seen) {
    EXPECT_EQ(n.id, seen[0].id) << "updated in place";
    EXPECT_EQ(n.app, kAssistantApp);
  }

  ASSERT_TRUE(w_->notes().click());
  const auto opened = w_->env().root() / "open-folder.log";
  ASSERT_TRUE(eventually([&] { return std::filesystem::exists(opened); }, 30s));
  EXPECT_EQ(read_file(opened), out + "\n");
  const auto history = w_->notes().history();
  ASSERT_FALSE(history.empty());
  EXPECT_EQ(history.front().summary, "Conversion done");
  EXPECT_EQ(history.front().body, "2 of 2 PDFs made, in " + out);
}

TEST_F(notification_e2e_test, AGatewayWithoutASessionBusDoesItsWorkAndSaysSoOnce) {
  ASSERT_TRUE(w_->restart_gateway(false)) << w_->trace();
  const auto refs = w_->import({w_->make_document("romeo.docx", "Romeoword"),
                                w_->make_document("sierra.txt", "Sierraword")});
  w_->remember("do_merge", 0);
  w_->remember("how_to_save", 0);  // new versions
  for (int run = 0; run < 2; ++run) {
    x_display::answer user(w_->x(), "Merge items to one PDF", {"Return"});
    w_->send_command(kCreatePdf, refs);
    ASSERT_TRUE(user.answered());
    ASSERT_TRUE(w_->after_the_running_task());
  }
  for (const auto& ref : refs) EXPECT_EQ(w_->dms({"show", ref}).at("versions"), 3) << ref;
  EXPECT_EQ(w_->trace_count("desktop notifications are off: no session bus "
                            "(DBUS_SESSION_BUS_ADDRESS is unset and there is no "
                            "$XDG_RUNTIME_DIR/bus)"),
            1u);
  EXPECT_THAT(shown(), IsEmpty());
  ASSERT_TRUE(w_->restart_gateway(true)) << w_->trace();
}

}  // namespace
}  // namespace tarn::test
