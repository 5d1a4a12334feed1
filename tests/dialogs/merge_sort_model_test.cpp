#include "dialogs/merge_sort_model.h"

#include "dialog_test_support.h"

namespace tarn {
namespace {

class merge_sort_model_test : public test::sandboxed_test {};

// From the stored values, through mode clicks, to the choices.
TEST_F(merge_sort_model_test, OpensWithTheRememberedChoicesAndCombineForcesANewDocument) {
  const struct {
    const char* what;
    std::optional<uint32_t> do_merge, how_to_save, related;
    bool extended;
    const char* clicks;  // m: combine, s: one each
    merge_sort_choices expected;
  } cases[] = {
      {"nothing stored", {}, {}, {}, true, "", {false, 0, true}},
      {"all stored", 1, 1, 0, true, "", {true, 1, false}},
      {"a stored merge keeps a new version", 1, 0, 1, true, "", {true, 0, true}},
      {"any non-zero counts", 7, 2, 9, true, "", {true, 1, true}},
      {"combine", {}, {}, {}, true, "m", {true, 1, true}},
      {"combine, then one each", {}, {}, {}, true, "ms", {false, 1, true}},
      {"combine without the save group", {}, {}, {}, false, "m", {true, 0, true}},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.what);
    test::scoped_test_env fresh;
    if (c.do_merge) test::store("do_merge", *c.do_merge);
    if (c.how_to_save) test::store("how_to_save", *c.how_to_save);
    if (c.related) test::store("saver_new_related", *c.related);
    merge_sort_model model(test::numbered_docs(2), c.extended);
    model.init();
    for (const char* click = c.clicks; *click; ++click)
      *click == 'm' ? model.choose_merge() : model.choose_single();
    EXPECT_EQ(model.choices(), c.expected);
    EXPECT_EQ(model.list_enabled(), c.expected.merge_documents_);
    EXPECT_EQ(model.save_group_enabled(), !c.expected.merge_documents_);
  }
}

TEST_F(merge_sort_model_test, MovesTheSelectedRowButNotPastAnEdgeNorANamelessOne) {
  const struct {
    const char* what;
    int selected, step, selected_after;
    const char* order;
  } cases[] = {
      {"up", 2, -1, 1, "a c b _ "},
      {"down", 0, 1, 1, "b a c _ "},
      {"first up", 0, -1, 0, "a b c _ "},
      {"last down", 3, 1, 3, "a b c _ "},
      {"no selection", merge_sort_model::kNoRow, 1, merge_sort_model::kNoRow, "a b c _ "},
      {"past the end", 9, -1, 9, "a b c _ "},
      {"nameless stays", 3, -1, 3, "a b c _ "},
      {"over a nameless one", 2, 1, 3, "a b _ c "},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.what);
    merge_sort_model model(
        {test::doc("a", "1"), test::doc("b", "2"), test::doc("c", "3"), test::doc("", "4")}, true);
    model.init();
    EXPECT_EQ(c.step < 0 ? model.move_up(c.selected) : model.move_down(c.selected),
              c.selected_after);
    std::string order;
    for (const auto& row : model.rows()) order += (row.name.empty() ? "_" : row.name) + " ";
    EXPECT_EQ(order, c.order);
  }
}

TEST_F(merge_sort_model_test, OkGivesTheSameRecordsInRowOrderAndRemembersTheChoices) {
  auto documents = test::numbered_docs(3);
  documents.push_back(nullptr);  // a record the store gave nothing for still has its row
  merge_sort_model model(documents, true);
  model.init();
  EXPECT_EQ(model.rows()[3], (merge_sort_row{"", "", "", 3}));
  EXPECT_EQ(model.remembered_answer().result, documents);
  model.choose_merge();
  model.set_save_new_related(false);
  model.move_up(model.move_up(2));
  EXPECT_FALSE(test::stored("do_merge")) << "only OK writes";

  merge_sort_answer answer = model.accept();
  EXPECT_EQ(answer.result, (test::docs{documents[2], documents[0], documents[1], nullptr}));
  EXPECT_EQ(answer.chosen_save_mode(), kSaveNewDocument);
  EXPECT_EQ(test::stored("do_merge"), 1u);
  EXPECT_EQ(test::stored("how_to_save"), 1u);
  EXPECT_EQ(test::stored("saver_new_related"), 0u);
}

TEST_F(merge_sort_model_test, TakesOverOnlyAReorderingOfItsRows) {
  const std::pair<std::vector<int32_t>, bool> cases[] = {
      {{2, 0, 1}, true}, {{0, 1}, false}, {{0, 1, 1}, false}, {{0, 1, 5}, false}};
  for (const auto& [order, taken] : cases) {
    SCOPED_TRACE(testing::PrintToString(order));
    merge_sort_model model(test::numbered_docs(3), true);
    model.init();
    EXPECT_EQ(model.take_over({true, 1, false}, order), taken);
    EXPECT_EQ(model.choices().merge_documents_, taken);
    EXPECT_EQ(model.rows()[0].item_data, taken ? 2 : 0);
  }
}

// The two answers count in opposite senses; both must come out on the one save_mode scale.
TEST_F(merge_sort_model_test, BothAnswersGiveTheSaveMode) {
  EXPECT_EQ((merge_sort_answer{{}, true, 1, false}.chosen_save_mode()), kSaveNewDocument);
  EXPECT_EQ((merge_sort_answer{{}, true, 1, true}.chosen_save_mode()), kSaveNewRelatedDocument);
  EXPECT_EQ((merge_sort_answer{{}, true, 0, true}.chosen_save_mode()), kSaveNewVersion);
  // How-to-save's other numbers: how_to_save_model_test.
  EXPECT_EQ((how_to_save_answer{-1, true}.chosen_save_mode()), kSaveNewVersion);
}

}  // namespace
}  // namespace tarn
