// CREATE_PDF through the whole product: posted over HTTP as a browser does, the real dialogs
// answered on a private X display, the PDFs made by the real print helper and office, and the
// result read back from the document store.
#include <gmock/gmock.h>

#include <algorithm>

#include "workstation.h"

namespace tarn::test {
namespace {

using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;

class create_pdf_e2e_test : public workstation_test {
 protected:
  // The documents of the store that aren't in `before` (new versions don't count), by
  // reference.
  std::map<std::string, nlohmann::json> added_since(const nlohmann::json& before) {
    std::set<int> old;
    for (const auto& d : before) old.insert(d.at("number").get<int>());
    std::map<std::string, nlohmann::json> added;
    for (const auto& d : w_->list())
      if (!old.count(d.at("number").get<int>())) added[d.at("ref")] = d;
    return added;
  }

  // True once the store holds `count` new documents and the task has closed every item and
  // deleted every PDF it made.
  bool finished_with(const nlohmann::json& before, size_t count) {
    return eventually([&] {
      return added_since(before).size() == count && w_->temp_files().empty();
    });
  }

  // The references as the dialog lists them: ascending byte order, as the command's set has it.
  static std::vector<std::string> rows_of(std::vector<std::string> refs) {
    std::sort(refs.begin(), refs.end());
    return refs;
  }

};

TEST_F(create_pdf_e2e_test, SeveralDocumentsMergedInTheChosenOrderBecomeOneRelatedDocument) {
  const auto refs = w_->import({w_->make_document("alpha.docx", "Alphaword"),
                                w_->make_document("bravo.docx", "Bravoword"),
                                w_->make_document("charlie.txt", "Charlieword")},
                               "Merged");
  ASSERT_EQ(refs.size(), 3u);
  std::map<std::string, std::string> name_of = {
      {refs[0], "alpha"}, {refs[1], "bravo"}, {refs[2], "charlie"}};
  std::map<std::string, std::string> text_of = {
      {refs[0], "Alphaword"}, {refs[1], "Bravoword"}, {refs[2], "Charlieword"}};
  w_->remember("do_merge", 0);
  w_->remember("how_to_save", 0);
  w_->remember("saver_new_related", 1);
  const nlohmann::json before = w_->list();

  // Combine, then take the last row to the top: rows a b c become c a b.
  const auto rows = rows_of(refs);
  x_display::answer user(w_->x(), "Merge items to one PDF",
                         {"alt+o", "Tab", "Tab", "Tab", "Down", "Down", "alt+u", "alt+u", "Return"});
  w_->send_command(kCreatePdf, {refs[2], refs[0], refs[1]});
  ASSERT_TRUE(user.answered());
  ASSERT_TRUE(finished_with(before, 1)) << "temp: " << ::testing::PrintToString(w_->temp_files())
                                        << "\n" << w_->trace();

  // The merged PDF takes the name and folder of the first document in the chosen order, and
  // "combine" always saves a new document, related to it since the box is ticked.
  const auto added = added_since(before);
  const auto& [merged_ref, merged] = *added.begin();
  EXPECT_EQ(merged.at("name"), name_of[rows[2]]);
  EXPECT_EQ(merged.at("extension"), "pdf");
  EXPECT_EQ(merged.at("folder"), "Merged");
  EXPECT_THAT(w_->dms({"related", rows[2]}).dump(), HasSubstr("\"" + merged_ref + "\""));
  const auto pdf = w_->exported(merged_ref);
  EXPECT_EQ(pdf.pages, 3);
  size_t at = 0;  // the pages in the chosen order, the sources untouched
  for (const auto& ref : {rows[2], rows[0], rows[1]}) {
    const size_t found = pdf.text.find(text_of[ref]);
    EXPECT_TRUE(found != std::string::npos && found >= at) << pdf.text;
    at = found;
    EXPECT_EQ(w_->dms({"show", ref}).at("versions"), 1) << ref;
  }
}

TEST_F(create_pdf_e2e_test, EachDocumentBecomesANewVersionOfItself) {
  const auto refs = w_->import({w_->make_document("delta.docx", "Deltaword"),
                                w_->make_document("echo.txt", "Echoword")});
  ASSERT_EQ(refs.size(), 2u);
  // The dialog opens on "combine" and "new document", as a user left it last time.
  w_->remember("do_merge", 1);
  w_->remember("how_to_save", 1);
  w_->remember("saver_new_related", 1);
  const nlohmann::json before = w_->list();

  x_display::answer user(w_->x(), "Merge items to one PDF", {"alt+e", "alt+s", "Right", "Return"});
  w_->send_command(kCreatePdf, refs);
  ASSERT_TRUE(user.answered());
  ASSERT_TRUE(eventually([&] {
    return w_->dms({"show", refs[0]}).at("versions") == 2 &&
           w_->dms({"show", refs[1]}).at("versions") == 2 && w_->temp_files().empty();
  })) << w_->trace();

  EXPECT_THAT(added_since(before), IsEmpty()) << "new versions, not new documents";
  const std::pair<std::string, std::string> expected[] = {{"delta", "Deltaword"},
                                                          {"echo", "Echoword"}};
  for (size_t i = 0; i < refs.size(); ++i) {
    SCOPED_TRACE(refs[i]);
    const std::string latest = std::to_string(std::stoi(refs[i])) + ".2";
    const nlohmann::json shown = w_->dms({"show", latest});
    EXPECT_EQ(shown.at("name"), expected[i].first);
    EXPECT_EQ(shown.at("extension"), "pdf");
    const auto pdf = w_->exported(latest);
    EXPECT_EQ(pdf.pages, 1);
    EXPECT_THAT(pdf.text, HasSubstr(expected[i].second));
  }
}

TEST_F(create_pdf_e2e_test, OneDocumentIsConvertedThenSavedAsTheUserSays) {
  const auto refs = w_->import({w_->make_document("foxtrot.docx", "Foxtrotword"),
                                w_->make_document("golf.txt", "Golfword")});
  ASSERT_EQ(refs.size(), 2u);
  w_->remember("how_to_save", 0);
  w_->remember("saver_new_related", 1);
  nlohmann::json before = w_->list();

  {
    SCOPED_TRACE("Save As: a new document related to its source");
    x_display::answer user(w_->x(), "Save As", {"Return"});
    w_->send_command(kCreatePdf, {refs[0]});
    ASSERT_TRUE(user.answered());
    ASSERT_TRUE(finished_with(before, 1)) << w_->trace();
    const auto added = added_since(before);
    EXPECT_EQ(added.begin()->second.at("name"), "foxtrot");
    EXPECT_THAT(w_->dms({"related", refs[0]}).dump(), HasSubstr("\"" + added.begin()->first + "\""));
    EXPECT_THAT(w_->exported(added.begin()->first).text, HasSubstr("Foxtrotword"));
  }

  before = w_->list();
  {
    SCOPED_TRACE("Save As: Cancel stores nothing, and the PDF made before the question is gone");
    const size_t from = w_->trace().size();
    x_display::answer user(w_->x(), "Save As", {"Escape"});
    w_->send_command(kCreatePdf, {refs[1]});
    ASSERT_TRUE(user.answered());
    ASSERT_TRUE(w_->after_the_running_task());
    const std::string road = w_->trace().substr(from);
    EXPECT_THAT(road, HasSubstr("DMS_connector_handler::get_localfilename() -> "));
    EXPECT_THAT(road, ::testing::Not(HasSubstr("save_file_to_DMS(")));
    EXPECT_THAT(road, HasSubstr("DMS_connector_handler::close_dms_file() -> S_OK"));
  }
  {
    SCOPED_TRACE("Merge items: Cancel fetches nothing");
    const size_t from = w_->trace().size();
    x_display::answer user(w_->x(), "Merge items to one PDF", {"Escape"});
    w_->send_command(kCreatePdf, refs);
    ASSERT_TRUE(user.answered());
    ASSERT_TRUE(w_->after_the_running_task());
    EXPECT_THAT(w_->trace().substr(from), ::testing::Not(HasSubstr("download_file(")));
  }
  EXPECT_THAT(added_since(before), IsEmpty());
  EXPECT_THAT(w_->temp_files(), IsEmpty());
}

}  // namespace
}  // namespace tarn::test
