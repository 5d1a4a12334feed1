// The two commands through the whole product: posted over HTTP, the real dialogs answered on a
// private X display, the PDFs made by the real print helper, office and assistant, the results
// read back from the store and the notifications shown.
#include <gmock/gmock.h>

#include <algorithm>

#include "support/conversion.h"
#include "workstation.h"

namespace tarn::test {
namespace {

using ::testing::AllOf;
using ::testing::Field;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::UnorderedElementsAre;

class commands_e2e_test : public workstation_test {
 protected:
  std::map<std::string, nlohmann::json> added_since(const nlohmann::json& before) {
    std::set<int> old;
    for (const auto& d : before) old.insert(d.at("number").get<int>());
    std::map<std::string, nlohmann::json> added;
    for (const auto& d : w_->dms({"list"}))
      if (!old.count(d.at("number").get<int>())) added[d.at("ref")] = d;
    return added;
  }

  // True once the task has stored `count` new documents, closed every item and deleted its PDFs.
  bool finished_with(const nlohmann::json& before, size_t count) {
    return eventually(
        [&] { return added_since(before).size() == count && w_->temp_files().empty(); });
  }
};

TEST_F(commands_e2e_test, SeveralDocumentsMergedInTheChosenOrderBecomeOneRelatedDocument) {
  const auto refs = w_->import(
      {w_->make_document("alpha.rtf", "Alphaword"), w_->make_document("bravo.rtf", "Bravoword"),
       w_->make_document("charlie.txt", "Charlieword")},
      "Merged");
  ASSERT_EQ(refs.size(), 3u);
  std::map<std::string, std::pair<std::string, std::string>> name_and_text = {
      {refs[0], {"alpha", "Alphaword"}},
      {refs[1], {"bravo", "Bravoword"}},
      {refs[2], {"charlie", "Charlieword"}}};
  w_->remember({{"do_merge", 0}, {"how_to_save", 0}, {"saver_new_related", 1}});
  const nlohmann::json before = w_->dms({"list"});

  // Combine, then take the last row to the top: rows a b c become c a b.
  auto rows = refs;  // as the dialog lists them: in ascending byte order
  std::sort(rows.begin(), rows.end());
  x_display::answer user(
      w_->x(), "Merge items to one PDF",
      {"alt+o", "Tab", "Tab", "Tab", "Down", "Down", "alt+u", "alt+u", "Return"});
  w_->send_command(kCreatePdf, {refs[2], refs[0], refs[1]});
  ASSERT_TRUE(user.answered());
  ASSERT_TRUE(finished_with(before, 1))
      << "temp: " << ::testing::PrintToString(w_->temp_files()) << "\n"
      << w_->trace();

  // The merged PDF takes the name and folder of the first document in the chosen order, and
  // "combine" always saves a new document, related to it since the box is ticked.
  const auto added = added_since(before);
  const auto& [merged_ref, merged] = *added.begin();
  EXPECT_EQ(merged.at("name"), name_and_text[rows[2]].first);
  EXPECT_EQ(merged.at("extension"), "pdf");
  EXPECT_EQ(merged.at("folder"), "Merged");
  EXPECT_THAT(w_->dms({"related", rows[2]}).dump(), HasSubstr("\"" + merged_ref + "\""));
  const std::string pdf = w_->exported(merged_ref);
  EXPECT_EQ(std::count(pdf.begin(), pdf.end(), '\f'), 3) << "pdftotext ends each page so";
  size_t at = 0;  // the pages in the chosen order, the sources untouched
  for (const auto& ref : {rows[2], rows[0], rows[1]}) {
    const size_t found = pdf.find(name_and_text[ref].second);
    EXPECT_TRUE(found != std::string::npos && found >= at) << pdf;
    at = found;
    EXPECT_EQ(w_->dms({"show", ref}).at("versions"), 1) << ref;
  }
}

// What the person is told at the end of a command: once, by a real notification service.
TEST_F(commands_e2e_test, TheEndIsToldOnceWithWhatWasStoredAndWhatWasLeftOut) {
  // A file the print helper refuses: neither a document nor an image.
  const auto junk = w_->env().root() / "documents" / "november.docx";
  write_file(junk, std::string("\x01\x02\x03\xff\xfe junk", 10));
  // The merge question opens on combining into a new document, not related.
  w_->remember({{"do_merge", 1}, {"how_to_save", 1}, {"saver_new_related", 0}});
  auto refs = w_->import({w_->make_document("mike.rtf", "Word"), junk});
  refs.push_back("999998.1");
  x_display::answer user(w_->x(), "Merge items to one PDF", {"Return"});
  w_->send_command(kCreatePdf, refs);
  ASSERT_TRUE(user.answered());
  ASSERT_TRUE(w_->after_the_running_task());
  ASSERT_TRUE(shown_count(1)) << w_->trace();
  EXPECT_EQ(shown()[0].app, "Vantu Tarn");
  EXPECT_EQ(shown()[0].summary, "Create PDF: done, some documents left out");
  EXPECT_EQ(shown()[0].body,
            "Stored 'mike.pdf' as a new document\n2 documents couldn't be converted: 999998.1 "
            "(not in the store), november.docx (damaged or unreadable)");
}

TEST_F(commands_e2e_test, EachFoundDocumentBecomesAPdfAndOneNotificationOpensTheirFolder) {
  // A blank and a Latin-1 letter in the names: the list holds one byte per character.
  const std::pair<std::string, std::string> documents[] = {
      {"hotel", "Hotelword"}, {"india notes", "Indiaword"}, {"Grüße", "Juliettword"}};
  auto refs = w_->import({w_->make_document("hotel.rtf", "Hotelword"),
                          w_->make_document("india notes.txt", "Indiaword"),
                          w_->make_document("Grüße.rtf", "Juliettword")});
  ASSERT_EQ(refs.size(), 3u);
  std::map<std::string, std::string> name_of = {
      {refs[0], "hotel.rtf"}, {refs[1], "india notes.txt"}, {refs[2], "Grüße.rtf"}};
  std::sort(refs.begin(), refs.end());  // the order of the list
  w_->send_command(kConvertWithAssistant, {refs[0], refs[1], refs[2], "999999.1"});

  // The assistant deletes the copies and the list once each PDF is in place.
  const auto out = w_->env().home() / "Documents" / "Tarn PDF";
  ASSERT_TRUE(eventually([&] {
    for (const auto& [name, text] : documents)
      if (!std::filesystem::exists(out / (name + ".pdf"))) return false;
    return w_->temp_files().empty();
  })) << "temp: "
      << ::testing::PrintToString(w_->temp_files()) << "\n"
      << w_->trace();
  for (const auto& [name, text] : documents)
    EXPECT_THAT(pdf_text(out / (name + ".pdf")), HasSubstr(text));

  // dunst records each update when its script runs, in any order. Only the end offers to open
  // the folder, so the click below fails should a late update have replaced it.
  ASSERT_TRUE(shown_count(4)) << w_->trace();
  const auto seen = shown();
  auto summary = [](const std::string& text) { return Field(&shown_notification::summary, text); };
  EXPECT_THAT(seen, UnorderedElementsAre(summary("Converting 1 of 3: " + name_of[refs[0]]),
                                         summary("Converting 2 of 3: " + name_of[refs[1]]),
                                         summary("Converting 3 of 3: " + name_of[refs[2]]),
                                         AllOf(summary("Conversion done"),
                                               Field(&shown_notification::body,
                                                     "3 of 3 PDFs made, in " + out.string()))));
  for (const auto& n : seen) {
    EXPECT_EQ(n.id, seen[0].id) << "updated in place";
    EXPECT_EQ(n.app, "Vantu Tarn assistant");
  }
  ASSERT_TRUE(w_->notes().click());
  const auto opened = w_->env().root() / "open-folder.log";
  ASSERT_TRUE(eventually([&] { return std::filesystem::exists(opened); }, 30s));
  EXPECT_EQ(read_file(opened), out.string() + "\n");
}

TEST_F(commands_e2e_test, FiftyCommandsAtOnceLeaveTheGatewayAsItWas) {
  constexpr int kCommands = 50;
  const pid_t pid = w_->gateway().pid();
  const process_facts before = facts_of(pid);
  const size_t trace_from = w_->trace().size();

  std::vector<std::unique_ptr<raw_http_client>> clients;
  for (int i = 0; i < kCommands; ++i) clients.push_back(std::make_unique<raw_http_client>(kPort));
  for (int i = 0; i < kCommands; ++i)
    ASSERT_TRUE(clients[i]->send(
        post_request(send_command_message(i % 2 ? kConvertWithAssistant : kCreatePdf, "", "",
                                          {"burst-" + std::to_string(i)}, 1000 + i))));
  for (int i = 0; i < kCommands; ++i)
    EXPECT_TRUE(clients[i]->read_reply().ends_with("[1,\"send_command\",2," +
                                                   std::to_string(1000 + i) + ",{}]"))
        << i;
  clients.clear();

  // At most one command still waits in the slot; a barrier runs after it, or is dropped while
  // that one waits, and the next barrier goes.
  bool barrier_ran = false;
  for (int k = 0; k < 3 && !barrier_ran; ++k) {
    const std::string barrier = "barrier-" + std::to_string(k);
    w_->send_command(kCreatePdf, {barrier});
    barrier_ran = eventually(
        [&] {
          return w_->trace().find("get_file_info(\"\", \"\", \"" + barrier + "\")") !=
                 std::string::npos;
        },
        10s);
  }
  ASSERT_TRUE(barrier_ran);
  const std::string trace = w_->trace().substr(trace_from);
  for (int i = 0; i < kCommands; ++i)
    EXPECT_THAT(trace, HasSubstr("\"burst-" + std::to_string(i) + "\")"))
        << "each is logged as it arrives";

  // Connection threads end after their replies; give them their deadline, then compare.
  process_facts after;
  EXPECT_TRUE(eventually([&] {
    after = facts_of(pid);
    return after.fds <= before.fds && after.threads <= before.threads;
  })) << "descriptors "
      << before.fds << " -> " << after.fds << ", threads " << before.threads << " -> "
      << after.threads;
  EXPECT_LT(after.rss_kib, before.rss_kib + 16 * 1024)
      << "resident memory " << before.rss_kib << " KiB -> " << after.rss_kib << " KiB";
  EXPECT_EQ(call(kVersionCall), kVersionReply);
  EXPECT_THAT(w_->temp_files(), IsEmpty());
}

}  // namespace
}  // namespace tarn::test
