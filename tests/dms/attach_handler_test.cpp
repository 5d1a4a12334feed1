#include "dms/attach_handler.h"

#include <map>

#include "components/pdf_attach/pdf_attach_fixture.h"
#include "dms/fault_connector/fault_connector_probe.h"

namespace tarn {
namespace {

using labels = std::vector<std::string>;

using attach_handler_test = test::pdf_attach_fixture;

TEST_F(attach_handler_test, JoinsTheSeriesInOrderIntoTheFirstFileThatOpens) {
  const struct {
    const char* name;
    std::vector<std::pair<std::string, int>> files;  // pages; 0 a corrupt file
    const char* attached;                            // 1 for each file taken
    std::string result_file;                         // "" when none opens
    labels result;
  } cases[] = {
      // clang-format off
      {"three files", {{"a", 2}, {"b", 1}, {"c", 3}}, "111", "a",
       {"a.1", "a.2", "b.1", "c.1", "c.2", "c.3"}},
      {"corrupt in the middle", {{"a", 1}, {"bad", 0}, {"c", 2}}, "101", "a", {"a.1", "c.1", "c.2"}},
      {"corrupt first", {{"bad", 0}, {"b", 1}, {"c", 1}}, "011", "b", {"b.1", "c.1"}},
      {"every file corrupt", {{"x", 0}, {"y", 0}}, "00", "", {}},
      {"same file twice", {{"a", 1}, {"b", 1}, {"b", 1}}, "111", "a", {"a.1", "b.1", "b.1"}},
      // clang-format on
  };
  int row = 0;
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    folder_ = env_.tmp() / std::to_string(++row);
    std::filesystem::create_directory(folder_);
    std::vector<std::filesystem::path> paths;
    std::map<std::string, std::string> bytes_before;
    for (const auto& [label, pages] : c.files) {
      paths.push_back(folder_ / (label + ".pdf"));
      if (pages > 0) pdf(label, pages);
      if (pages == 0) test::write_file(paths.back(), "%PDF-1.4\nthis is no PDF at all\n");
      bytes_before[label] = test::read_file(paths.back());
    }
    {
      attach_handler attach;
      for (size_t i = 0; i < paths.size(); ++i)
        EXPECT_EQ(attach.attach_file(paths[i]), c.attached[i] == '1') << paths[i];
      // Nothing is written before the handler ends.
      if (!c.result_file.empty()) {
        EXPECT_EQ(test::read_file(folder_ / (c.result_file + ".pdf")), bytes_before[c.result_file]);
      }
    }
    EXPECT_EQ(test::pdf_page_labels(folder_ / (c.result_file + ".pdf")), c.result);
    std::set<std::string> names;
    for (const auto& [label, bytes] : bytes_before) {
      names.insert(label + ".pdf");
      if (label != c.result_file) {
        EXPECT_EQ(test::read_file(folder_ / (label + ".pdf")), bytes) << label;
      }
    }
    EXPECT_EQ(test::names_in(folder_), names);
  }
}

// The fault connector counts every call of its entry point, whatever class is asked for.
TEST_F(attach_handler_test, CreatesTheComponentOnlyForAFileAndRetriesAFailedCreation) {
  test::register_component(reg_root::local_machine, kClsidPdfAttach, FAULT_CONNECTOR);
  test::fault_connector_probe connector;
  { attach_handler attach; }
  EXPECT_EQ(connector.created(), 0);
  {
    attach_handler attach;
    EXPECT_FALSE(attach.attach_file(pdf("a", 1)));
    EXPECT_FALSE(attach.attach_file(pdf("b", 1)));
  }
  EXPECT_EQ(connector.created(), 2);
  EXPECT_EQ(test::pdf_page_labels(env_.tmp() / "a.pdf"), labels{"a.1"});
}

}  // namespace
}  // namespace tarn
