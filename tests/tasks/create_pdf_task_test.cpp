#include "tasks/create_pdf_task.h"

#include "convutils/CConvRegKey.h"
#include "convutils/ConvUtils.h"
#include "task_fixture.h"

namespace tarn {
namespace {

namespace fs = std::filesystem;
using Lines = std::vector<std::string>;
using merge_script = scripted_user_questions::merge_sort_script;
using save_script = scripted_user_questions::how_to_save_script;

struct source {
  std::string name, extension;
  // For the stand-in helper "FAIL", "HANG" or other text; "pdf LABEL PAGES", "xps TEXT" or
  // "oxps TEXT" for a real file; "gone" for a document whose content is lost.
  std::string content;
};

struct scenario {
  const char* what;
  std::vector<source> documents;  // stored as 1.1, 2.1, ...
  std::set<std::string> refs;
  merge_script merge;  // the user on MergeSortDlg; none: OK as it opens
  save_script save;    // the user on HowToSaveDlg
  Lines lines;         // the task's own log lines
  Lines store;         // the store afterwards
  Lines asked;         // the questions, with their rows or prompt
  bool fetches = true;
  bool real_helper = false;
  bool nobody = false;  // no display, no unattended answers
};
void PrintTo(const scenario& s, std::ostream* out) { *out << s.what; }

// One PDF of all, or one each stored as new versions; related to the source or not.
merge_script merge(bool combine, bool related = true) {
  return [=](merge_sort_model& d) {
    combine ? d.choose_merge() : d.choose_single();
    d.set_save_new(combine);
    d.set_save_new_related(related);
    return true;
  };
}
merge_script b_c_a = [](merge_sort_model& d) {
  d.choose_merge();
  return d.move_down(0) == 1 && d.move_up(2) == 1;  // a, b, c -> b, a, c -> b, c, a
};
save_script save_as(how_to_save_choice choice, bool related) {
  return [=](how_to_save_model& d) {
    d.choose(choice);
    d.set_relate(related);
    return true;
  };
}
const auto cancel = [](auto&) { return false; };
const std::string kFail = "ERROR: create_pdf_task::do_work() ";

scenario one_document(const char* what, save_script save, Lines store) {
  scenario s{what, {{"report", "docx", "text"}}, {"1.1"}, {}, std::move(save)};
  s.store = std::move(store);
  s.asked = {
      "HowToSaveDlg The 'report.docx' has been converted to a PDF file.\n"
      "How do you want to save the 'report.pdf' ?"};
  return s;
}
const std::string kReport = "1.1 report.docx in report";
const std::string kPrinted = " report.pdf in report: printed report.docx";
const std::string kDerived = "2.1 report.pdf in report [source 1]: printed report.docx";

// One row a command: its documents, references, the user's answers, and what it leaves.
// clang-format off
const scenario kScenarios[] = {
    one_document("AsNewDocument", save_as(kHowNewDocument, false), {kReport, "2.1" + kPrinted}),
    one_document("AsNewVersion", save_as(kHowNewVersion, true), {kReport, "1.2" + kPrinted}),
    one_document("SaveCancelled", cancel, {kReport}),
    // A failing helper would log its failure: nothing tried to convert.
    {"NobodyToAskConvertsNothing", {{"report", "docx", "FAIL"}}, {"1.1"}, {}, {}, {}, {kReport},
     {}, true, false, true},
    {"EachDocumentByItsKind",
     {{"b", "txt", "b"}, {"x", "xps", "xps Xps"}, {"o", "oxps", "oxps Open"}, {"c", "XPS", ""}},
     {"1.1", "2.1", "3.1", "4.1"}, merge(false), {}, {},
     {"1.1 b.txt in b", "1.2 b.pdf in b: printed b.txt", "2.1 x.xps in x", "2.2 x.pdf in x: Xps",
      "3.1 o.oxps in o", "3.2 o.pdf in o: Open", "4.1 c.XPS in c", "4.2 c.pdf in c: printed c.XPS"},
     {"MergeSortDlg b x o c"}},
    {"FailuresPassOverTheirDocumentOnly",
     {{"a", "txt", "a"}, {"b", "txt", "FAIL"}, {"c", "txt", "gone"}, {"d", "txt", "HANG"}},
     {"1.1", "2.1", "3.1", "4.1"}, merge(false), {},
     {kFail + "can't download file: \"3.1\"", kFail + "can't convert file: \"2.1\"",
      kFail + "can't convert file: \"4.1\""},
     {"1.1 a.txt in a", "1.2 a.pdf in a: printed a.txt", "2.1 b.txt in b", "3.1 c.txt in c",
      "4.1 d.txt in d"},
     {"MergeSortDlg a b c d"}},
    {"MergeJoinsInTheDialogsOrder",
     {{"a", "pdf", "pdf A 2"}, {"b", "pdf", "pdf B 1"}, {"c", "pdf", "pdf C 1"}},
     {"1.1", "2.1", "3.1"}, b_c_a, {}, {},
     {"1.1 a.pdf in a: A.1 A.2", "2.1 b.pdf in b [derived 4]: B.1", "3.1 c.pdf in c: C.1",
      "4.1 b.pdf in b [source 2]: B.1 C.1 A.1 A.2"},
     {"MergeSortDlg a b c"}, true, true},
    {"MergeLentByTheFirstJoinedNotTheFirstConverted",
     {{"a", "txt", "a"}, {"x", "xps", "xps X"}, {"y", "xps", "xps Y"}},
     {"1.1", "2.1", "3.1"}, merge(true), {}, {},
     {"1.1 a.txt in a", "2.1 x.xps in x [derived 4]", "3.1 y.xps in y",
      "4.1 x.pdf in x [source 2]: X Y"},
     {"MergeSortDlg a x y"}},
    {"MergeOfSameNamedFilesKeepsBoth", {{"t", "pdf", "pdf T 1"}, {"t", "pdf", "pdf U 1"}},
     {"1.1", "2.1"}, merge(true, false), {}, {},
     {"1.1 t.pdf in t: T.1", "2.1 t.pdf in t: U.1", "3.1 t.pdf in t: T.1 U.1"},
     {"MergeSortDlg t t"}, true, true},
    {"RefusedReferenceStillBringsUpTheMergeDialog", {{"report", "docx", "text"}},
     {"1.1", "999.1"}, merge(true), {}, {}, {kReport + " [derived 2]", kDerived},
     {"MergeSortDlg report"}},
    {"MergeCancelledFetchesNothing", {{"a", "txt", "a"}, {"b", "txt", "b"}}, {"1.1", "2.1"},
     cancel, {}, {}, {"1.1 a.txt in a", "2.1 b.txt in b"}, {"MergeSortDlg a b"}, false},
    {"OnlyUnknownReferences", {}, {"999.1", "x/../1"}, {}, {}, {kFail + "nothing to do."}, {}, {},
     false},
};
// clang-format on

class create_pdf_task_test : public test::task_fixture {
 protected:
  void SetUp() override {
    task_fixture::SetUp();
    // A hanging helper is ended after a second.
    CConvRegKey(reg_root::current_user, kGatewayKey, "print_helper_timeout", DWORD{0})
        .write_number(1);
  }
  void run(std::set<std::string> doc_refs, const std::string& connection = "c") {
    create_pdf_task(log_, dms_, std::make_unique<attach_handler>(), questions_, connection, "l",
                    std::move(doc_refs))
        .do_work();
  }
  Lines asked() const {
    Lines lines;
    for (const auto& q : questions_->asked()) {
      lines.push_back(q.dialog + " " + q.prompt);
      for (const auto& row : q.rows) lines.back() += (&row == &q.rows[0] ? "" : " ") + row.name;
    }
    return lines;
  }
};

class create_pdf_scenario_test : public create_pdf_task_test,
                                 public ::testing::WithParamInterface<scenario> {};

TEST_P(create_pdf_scenario_test, StoresWhatTheUserChoseAndLeavesNothingBehind) {
  const scenario& s = GetParam();
  if (s.real_helper) install_helpers(helper::real);
  for (const auto& doc : s.documents) add_document(doc.name, doc.extension, doc.content);
  if (s.merge) questions_->then_merge_sort(s.merge);
  if (s.save) questions_->then_how_to_save(s.save);
  if (s.nobody) questions_->nobody_answers();
  run(s.refs, "");
  EXPECT_EQ(log_texts("ERROR:"), s.lines);
  EXPECT_EQ(store_summary(), s.store);
  EXPECT_EQ(asked(), s.asked);
  // A closed item's copy is gone, and so is every PDF.
  EXPECT_EQ(files_in_temp(), Lines{});
  EXPECT_EQ(log_texts("DMS_connector_handler::download_file(").empty(), !s.fetches);
}

INSTANTIATE_TEST_SUITE_P(, create_pdf_scenario_test, ::testing::ValuesIn(kScenarios),
                         [](const auto& info) { return info.param.what; });

// Every item opened is closed, also when the connector fails midway; three documents joined
// make one store call, with the first's PDF, and the stored item is closed right after the
// first. A PDF path that is taken gets a free name; without a usable temporary folder for one
// the document is passed over. The connector's own copies stay: it never deletes them.
TEST_F(create_pdf_task_test, ConnectorSeesEveryItemClosedAndNoFileWrittenOver) {
  use_fault_connector();
  auto fetch = [](const char* n) {
    return std::string("SelectDocItem(c, l, d") + n + ")\nDocOpen(c, item" + n +
           ", 2)\nDocGetLocalFile(c, item" + n + ")\n";
  };
  auto save = [&](int mode, const char* pdf) {
    return "SaveDocItem(" + std::to_string(mode) + ", " + (env_.tmp() / pdf).string() +
           ", c, l, Reports, Bericht \xc3\xbc.pdf, d1, 0)\n";
  };
  const std::string props = "DocGetProperties(c, l, d1)\n", close = "DocClose(c, item1, 0)\n";
  const struct {
    const char* fault;
    std::set<std::string> refs;
    how_to_save_choice how;
    bool taken, no_temp;  // item1.pdf is there already; no private folder can be made
    std::string calls;
    Lines in_temp;
    std::string error;  // the start of the one error logged
  } cases[] = {
      // clang-format off
      {"DocGetLocalFile", {"d1"}, kHowNewDocument, false, false, props + fetch("1") + close,
       {"item1.docx"}, ""},
      {"", {"d1", "d2", "d3"}, kHowNewDocument, false, false,
       props + "DocGetProperties(c, l, d2)\nDocGetProperties(c, l, d3)\n" + fetch("1") +
           fetch("2") + fetch("3") + save(1, "item1.pdf") + close +
           "DocClose(c, saved4, 0)\nDocClose(c, item2, 0)\nDocClose(c, item3, 0)\n",
       {"item1.docx", "item2.docx", "item3.docx"}, ""},
      {"", {"d1"}, kHowNewVersion, true, false,
       props + fetch("1") + save(2, "item1 (2).pdf") + close + "DocClose(c, saved2, 0)\n",
       {"item1.docx", "item1.pdf", "item2.docx", "item3.docx"}, ""},
      {"", {"d1"}, kHowNewVersion, true, true, props + fetch("1") + close,
       {"item1.docx", "item1.pdf", "item2.docx", "item3.docx"},
       kFail + "failed for \"d1\": no temporary folder: "},
      // clang-format on
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.calls);
    env_.set_env("TARN_FAULT", c.fault);
    if (c.taken) test::write_file(env_.tmp() / "item1.pdf", "older");
    if (c.no_temp) {
      // The temporary folder is open to others and can't take another, and the cache is no
      // folder.
      test::write_file(env_.root() / "no-cache", "");
      env_.set_env("XDG_CACHE_HOME", (env_.root() / "no-cache").string());
      fs::permissions(env_.tmp(), fs::perms::owner_read | fs::perms::owner_exec |
                                      fs::perms::others_read | fs::perms::others_exec);
    }
    test::fault_connector_probe connector;
    questions_ = std::make_shared<scripted_user_questions>();
    questions_->then_merge_sort(merge(true));
    questions_->then_how_to_save(save_as(c.how, false));
    const size_t errors = log_texts("ERROR:").size();
    run(c.refs);
    fs::permissions(env_.tmp(), fs::perms::owner_all);
    EXPECT_EQ(connector.calls(), c.calls);
    EXPECT_EQ(files_in_temp(), c.in_temp);
    EXPECT_EQ(test::read_file(env_.tmp() / "item1.pdf") == "older", c.taken);
    const Lines lines = log_texts("ERROR:");
    ASSERT_EQ(lines.size(), errors + (c.error.empty() ? 0 : 1));
    EXPECT_TRUE(c.error.empty() || lines.back().starts_with(c.error)) << lines.back();
  }
}

}  // namespace
}  // namespace tarn
