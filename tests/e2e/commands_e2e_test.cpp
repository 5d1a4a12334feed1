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
using ::testing::UnorderedElementsAreArray;

using commands_e2e_test = workstation_test;

TEST_F(commands_e2e_test, SeveralDocumentsMergedInTheChosenOrderBecomeOneRelatedDocument) {
  std::map<std::string, std::string> name_of;  // by reference: as the dialog lists them
  std::vector<std::string> rows;
  for (const std::string name : {"alpha.rtf", "bravo.rtf", "charlie.txt"})
    name_of[w_->import({w_->make_document(name, name + "word")}, "Merged").at(0)] = name;
  for (const auto& [ref, name] : name_of) rows.push_back(ref);
  w_->remember({{"do_merge", 0}, {"how_to_save", 0}, {"saver_new_related", 1}});
  std::set<int> before;
  for (const auto& d : w_->dms({"list"})) before.insert(d.at("number").get<int>());
  const auto new_documents = [&] {
    std::map<std::string, nlohmann::json> added;
    for (const auto& d : w_->dms({"list"}))
      if (!before.count(d.at("number").get<int>())) added[d.at("ref")] = d;
    return added;
  };

  // Combine, then take the last row to the top: rows a b c become c a b.
  x_display::answer user(
      w_->x(), "Merge items to one PDF",
      {"alt+o", "Tab", "Tab", "Tab", "Down", "Down", "alt+u", "alt+u", "Return"});
  w_->send_command(kCreatePdf, rows);
  ASSERT_TRUE(user.answered());
  // Done once the merged document is stored, every item closed and its PDFs deleted.
  ASSERT_TRUE(eventually([&] { return new_documents().size() == 1 && w_->temp_files().empty(); }))
      << "temp: " << ::testing::PrintToString(w_->temp_files()) << "\n"
      << w_->trace();

  // The merged PDF takes the name and folder of the first document in the chosen order, and
  // "combine" always saves a new document, related to it since the box is ticked.
  const auto added = new_documents();
  const auto& [merged_ref, merged] = *added.begin();
  EXPECT_EQ(merged.at("name"), std::filesystem::path(name_of[rows[2]]).stem().string());
  EXPECT_EQ(merged.at("extension"), "pdf");
  EXPECT_EQ(merged.at("folder"), "Merged");
  EXPECT_THAT(w_->dms({"related", rows[2]}).dump(), HasSubstr("\"" + merged_ref + "\""));
  const std::string pdf = w_->exported(merged_ref);
  EXPECT_EQ(std::count(pdf.begin(), pdf.end(), '\f'), 3) << "pdftotext ends each page so";
  size_t at = 0;  // the pages in the chosen order, the sources untouched
  for (const auto& ref : {rows[2], rows[0], rows[1]}) {
    const size_t found = pdf.find(name_of[ref] + "word");
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
      {"hotel.rtf", "Hotelword"}, {"india notes.txt", "Indiaword"}, {"Grüße.rtf", "Juliettword"}};
  std::map<std::string, std::string> name_of;  // by reference: in the order of the list
  std::vector<std::string> refs = {"999999.1"};
  for (const auto& [name, text] : documents) {
    refs.push_back(w_->import({w_->make_document(name, text)}).at(0));
    name_of[refs.back()] = name;
  }
  w_->send_command(kConvertWithAssistant, refs);

  // The assistant deletes the copies and the list once each PDF is in place.
  const auto out = w_->env().home() / "Documents" / "Tarn PDF";
  const auto pdf_of = [&](std::filesystem::path name) {
    return out / name.replace_extension("pdf");
  };
  ASSERT_TRUE(eventually([&] {
    for (const auto& [name, text] : documents)
      if (!std::filesystem::exists(pdf_of(name))) return false;
    return w_->temp_files().empty();
  })) << "temp: "
      << ::testing::PrintToString(w_->temp_files()) << "\n"
      << w_->trace();
  for (const auto& [name, text] : documents) EXPECT_THAT(pdf_text(pdf_of(name)), HasSubstr(text));

  // dunst records each update when its script runs, in any order. Only the end offers to open
  // the folder, so the click below fails should a late update have replaced it.
  ASSERT_TRUE(shown_count(4)) << w_->trace();
  const auto seen = shown();
  auto summary = [](const std::string& text) { return Field(&shown_notification::summary, text); };
  std::vector<::testing::Matcher<shown_notification>> expected;
  for (const auto& [ref, name] : name_of)
    expected.push_back(
        summary("Converting " + std::to_string(expected.size() + 1) + " of 3: " + name));
  expected.push_back(
      AllOf(summary("Conversion done"),
            Field(&shown_notification::body, "3 of 3 PDFs made, in " + out.string())));
  EXPECT_THAT(seen, UnorderedElementsAreArray(expected));
  for (const auto& n : seen) EXPECT_EQ(n.id, seen[0].id) << "updated in place";
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
  for (int i = 0; i < kCommands; ++i)
    ASSERT_TRUE(clients.emplace_back(std::make_unique<raw_http_client>(kPort))
                    ->send(post_request(
                        send_command_message(i % 2 ? kConvertWithAssistant : kCreatePdf, "", "",
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
  EXPECT_THAT(w_->temp_files(), IsEmpty());
}

}  // namespace
}  // namespace tarn::test
