#include "dialogs/MergeSortDlg.h"

#include <gmock/gmock.h>

#include <QRadioButton>

#include "dialog_test_support.h"
#include "dialogs/doc_table.h"

namespace tarn {
namespace {

class MergeSortDlg_test : public test::sandboxed_test {
 protected:
  static doc_table* files(QWidget* dialog) { return test::child<doc_table>(dialog, "files"); }

  static void select(QWidget* dialog, int row) {
    doc_table* table = files(dialog);
    table->scrollToItem(table->item(row, 0));
    test::click(table->viewport(), table->visualItemRect(table->item(row, 0)).center());
  }

  // Enabled (1) or not, for Up, Down, the list and the save group; then the save choice.
  static std::string state(QWidget* dlg) {
    std::string text;
    for (const char* name : {"up", "down", "files", "save_group"})
      text += test::child(dlg, name)->isEnabled() ? "1" : "0";
    return text +
           (test::child<QRadioButton>(dlg, "save_new_document")->isChecked() ? " new" : " version");
  }

  static std::string order(const merge_sort_answer& answer) {
    std::string text;
    for (const auto& d : answer.result) text += d->doc_number + " ";
    return text;
  }
};

// Short names and long ones at one size; OK gives the rows in their new order.
TEST_F(MergeSortDlg_test, CombineMoveAndOkWithTheMouse) {
  const std::string long_name =
      "Квартальный отчёт — Zoë Ångström — Περίληψη συνεδρίασης — " + std::string(200, 'x');
  const test::docs long_names = {test::doc(long_name, "4711"), test::doc("", "4712"),
                                 test::doc("Überblick", "4713")};
  const struct {
    test::docs documents;
    int selected, ups, selected_after;
    const char* order_end;
    const char* picture;
  } cases[] = {
      // The third Up at the top does nothing.
      {test::numbered_docs(4), 2, 3, 0, "1003 1001 1002 1004 ", "merge_sort"},
      {long_names, 2, 1, 1, "4711 4713 4712 ", "merge_sort_long_names"},
  };
  std::optional<QSize> opening;
  for (const auto& c : cases) {
    SCOPED_TRACE(c.documents.size());
    test::scoped_test_env fresh;
    merge_sort_model model(c.documents, true);
    MergeSortDlg dialog(model);
    if (!opening) opening = dialog.size();
    EXPECT_EQ(dialog.size(), *opening);
    test::as_user([&](QWidget* dlg) {
      EXPECT_TRUE(dlg->windowFlags() & Qt::WindowStaysOnTopHint);
      EXPECT_EQ(state(dlg), "0001 version");
      if (&c == cases) test::save_picture(dlg, "merge_sort_each");
      test::click(test::child(dlg, "one_pdf"));
      EXPECT_EQ(state(dlg), "1110 new");
      test::click(test::child(dlg, "each_pdf"));
      EXPECT_EQ(state(dlg), "0001 new");  // the forced choice stays
      test::click(test::child(dlg, "one_pdf"));
      EXPECT_EQ(files(dlg)->rowCount(), static_cast<int>(c.documents.size()));
      select(dlg, c.selected);
      for (int i = 0; i < c.ups; ++i) test::click(test::child(dlg, "up"));
      EXPECT_EQ(files(dlg)->selected_row(), c.selected_after);
      if (c.documents == long_names) {
        EXPECT_TRUE(files(dlg)->cell_elided(0, 0));
        EXPECT_FALSE(files(dlg)->cell_elided(1, 0));
      }
      if (c.picture) test::save_picture(dlg, c.picture);
      test::click(test::child(dlg, "ok"));
    });
    ASSERT_EQ(dialog.exec(), QDialog::Accepted);
    EXPECT_THAT(order(dialog.answer()), ::testing::EndsWith(c.order_end));
  }
}

TEST_F(MergeSortDlg_test, WorksFromTheKeyboardAlone) {
  merge_sort_model model(test::numbered_docs(3), true);
  MergeSortDlg dialog(model);
  test::as_user([](QWidget* dlg) {
    test::type(dlg, Qt::Key_O, Qt::AltModifier);  // "Combine files into &one PDF document"
    for (int i = 0; i < 3; ++i) test::type(dlg, Qt::Key_Tab);  // Up, Down, the list
    test::type(dlg, Qt::Key_Down);
    test::type(dlg, Qt::Key_Down);
    test::type(dlg, Qt::Key_U, Qt::AltModifier);         // the third row to place 2
    test::type(dlg, Qt::Key_Up, Qt::ControlModifier);    // on to place 1
    test::type(dlg, Qt::Key_Down, Qt::ControlModifier);  // and back to place 2
    test::type(dlg, Qt::Key_Return);
  });
  ASSERT_EQ(dialog.exec(), QDialog::Accepted);
  EXPECT_EQ(order(dialog.answer()), "1001 1003 1002 ");
}

// The list takes a window's growth; the next dialog opens at the size the last one left.
TEST_F(MergeSortDlg_test, CancelEscapeAndCloseForgetTheChoicesButKeepTheSize) {
  const std::pair<const char*, std::function<void(QWidget*)>> cases[] = {
      {"Cancel", [](QWidget* dlg) { test::click(test::child(dlg, "cancel")); }},
      {"Escape", [](QWidget* dlg) { test::type(dlg, Qt::Key_Escape); }},
      {"window frame", [](QWidget* dlg) { dlg->close(); }},
  };
  for (const auto& [how, end] : cases) {
    SCOPED_TRACE(how);
    test::scoped_test_env fresh;
    merge_sort_model model(test::numbered_docs(3), true);
    QSize minimum, last;
    {
      MergeSortDlg dialog(model);
      minimum = dialog.minimumSize();
      EXPECT_EQ(dialog.size(), minimum);
      test::as_user([&, end = end](QWidget* dlg) {
        test::click(test::child(dlg, "one_pdf"));
        QWidget* ok = test::child(dlg, "ok");
        const QPoint ok_to_corner = QPoint(dlg->width(), dlg->height()) - ok->pos();
        const QSize list = files(dlg)->size();
        const QPoint up = test::child(dlg, "up")->pos();
        dlg->resize(dlg->size() + QSize(120, 90));
        QApplication::processEvents();
        EXPECT_EQ(QPoint(dlg->width(), dlg->height()) - ok->pos(), ok_to_corner);
        EXPECT_EQ(files(dlg)->size(), list + QSize(120, 90));
        EXPECT_EQ(test::child(dlg, "up")->pos(), up);
        last = dlg->size();
        end(dlg);
      });
      EXPECT_EQ(dialog.exec(), QDialog::Rejected);
    }
    EXPECT_FALSE(test::stored("do_merge"));
    EXPECT_EQ(test::stored("merge_dialog_size"), pack_frame_size({last.width(), last.height()}));
    // Fitting a stored size to the screen: resizable_frame_test.
    MergeSortDlg next(model);
    EXPECT_EQ(next.size(), last);
    EXPECT_EQ(next.minimumSize(), minimum);
  }
}

// From the stored values, through mode clicks, to the choices.
TEST_F(MergeSortDlg_test, OpensWithTheRememberedChoicesAndCombineForcesANewDocument) {
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
  }
}

TEST_F(MergeSortDlg_test, MovesTheSelectedRowButNotPastAnEdgeNorANamelessOne) {
  const struct {
    const char* what;
    int selected, step, selected_after;
    const char* order;
  } cases[] = {
      {"up", 1, -1, 0, "b a _ c "},
      {"down", 0, 1, 1, "b a _ c "},
      {"first up", 0, -1, 0, "a b _ c "},
      {"last down", 3, 1, 3, "a b _ c "},
      {"no selection", merge_sort_model::kNoRow, 1, merge_sort_model::kNoRow, "a b _ c "},
      {"past the end", 9, -1, 9, "a b _ c "},
      {"nameless stays", 2, -1, 2, "a b _ c "},
      {"over a nameless one", 3, -1, 2, "a b c _ "},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.what);
    merge_sort_model model(
        {test::doc("a", "1"), test::doc("b", "2"), test::doc("", "3"), test::doc("c", "4")}, true);
    model.init();
    EXPECT_EQ(c.step < 0 ? model.move_up(c.selected) : model.move_down(c.selected),
              c.selected_after);
    std::string order;
    for (const auto& row : model.rows()) order += (row.name.empty() ? "_" : row.name) + " ";
    EXPECT_EQ(order, c.order);
  }
}

TEST_F(MergeSortDlg_test, OkGivesTheSameRecordsInRowOrderAndRemembersTheChoices) {
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

TEST_F(MergeSortDlg_test, TakesOverOnlyAReorderingOfItsRows) {
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

}  // namespace
}  // namespace tarn
