#include "dialogs/MergeSortDlg.h"

#include <gmock/gmock.h>

#include <QRadioButton>
#include <QScreen>

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

TEST_F(MergeSortDlg_test, CombineMoveAndOkWithTheMouse) {
  merge_sort_model model(test::numbered_docs(4), true);
  MergeSortDlg dialog(model);
  test::as_user([](QWidget* dlg) {
    EXPECT_EQ(dlg->windowTitle(), "Merge items to one PDF");
    EXPECT_TRUE(dlg->windowFlags() & Qt::WindowStaysOnTopHint);
    EXPECT_EQ(state(dlg), "0001 version");
    test::save_picture(dlg, "merge_sort_each");
    test::click(test::child(dlg, "one_pdf"));
    EXPECT_EQ(state(dlg), "1110 new");
    test::click(test::child(dlg, "each_pdf"));
    EXPECT_EQ(state(dlg), "0001 new");  // the forced choice stays
    test::click(test::child(dlg, "one_pdf"));
    select(dlg, 2);
    for (int i = 0; i < 3; ++i) test::click(test::child(dlg, "up"));  // the third does nothing
    EXPECT_EQ(files(dlg)->selected_row(), 0);
    test::save_picture(dlg, "merge_sort");
    test::click(test::child(dlg, "ok"));
  });
  ASSERT_EQ(dialog.exec(), QDialog::Accepted);
  EXPECT_EQ(order(dialog.answer()), "1003 1001 1002 1004 ");
  EXPECT_TRUE(dialog.answer().merge_documents_);
  EXPECT_EQ(dialog.answer().chosen_save_mode(), kSaveNewRelatedDocument);
  EXPECT_EQ(test::stored("do_merge"), 1u);
  EXPECT_EQ(test::stored("how_to_save"), 1u);
}

TEST_F(MergeSortDlg_test, WorksFromTheKeyboardAlone) {
  merge_sort_model model(test::numbered_docs(3), true);
  MergeSortDlg dialog(model);
  test::as_user([](QWidget* dlg) {
    test::type(dlg, Qt::Key_O, Qt::AltModifier);  // "Combine files into &one PDF document"
    for (int i = 0; i < 3; ++i) test::type(dlg, Qt::Key_Tab);  // Up, Down, the list
    EXPECT_EQ(QApplication::focusWidget(), files(dlg));
    test::type(dlg, Qt::Key_Down);
    test::type(dlg, Qt::Key_Down);
    test::type(dlg, Qt::Key_U, Qt::AltModifier);         // the third row to place 2
    test::type(dlg, Qt::Key_Up, Qt::ControlModifier);    // on to place 1
    test::type(dlg, Qt::Key_Down, Qt::ControlModifier);  // and back to place 2
    test::type(dlg, Qt::Key_Return);
  });
  ASSERT_EQ(dialog.exec(), QDialog::Accepted);
  EXPECT_EQ(order(dialog.answer()), "1001 1003 1002 ");
  EXPECT_TRUE(dialog.answer().merge_documents_);
}

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
    QSize last;
    {
      MergeSortDlg dialog(model);
      test::as_user([&, end = end](QWidget* dlg) {
        test::click(test::child(dlg, "one_pdf"));
        select(dlg, 1);
        test::click(test::child(dlg, "down"));
        dlg->resize(dlg->size() + QSize(40, 30));
        last = dlg->size();
        end(dlg);
      });
      EXPECT_EQ(dialog.exec(), QDialog::Rejected);
    }
    EXPECT_FALSE(test::stored("do_merge"));
    EXPECT_EQ(test::stored("merge_dialog_size"), pack_frame_size({last.width(), last.height()}));
  }
}

TEST_F(MergeSortDlg_test, OpensAtItsMinimumThenAtTheStoredSizeWithinTheScreen) {
  merge_sort_model first_model(test::numbered_docs(3), true);
  auto first = std::make_unique<MergeSortDlg>(first_model);
  const QSize minimum = first->minimumSize();
  EXPECT_EQ(first->size(), minimum);
  test::as_user([](QWidget* dlg) {
    dlg->resize(10, 10);
    EXPECT_EQ(dlg->size(), dlg->minimumSize());
    // Controls at the right and bottom follow the window; the list takes the growth.
    QWidget* ok = test::child(dlg, "ok");
    const QPoint ok_to_corner = QPoint(dlg->width(), dlg->height()) - ok->pos();
    const QSize list = files(dlg)->size();
    const QPoint up = test::child(dlg, "up")->pos();
    dlg->resize(dlg->size() + QSize(120, 90));
    QApplication::processEvents();
    EXPECT_EQ(QPoint(dlg->width(), dlg->height()) - ok->pos(), ok_to_corner);
    EXPECT_EQ(files(dlg)->size(), list + QSize(120, 90));
    EXPECT_EQ(test::child(dlg, "up")->pos(), up);
    dlg->close();
  });
  first->exec();
  first.reset();
  EXPECT_EQ(test::stored("merge_dialog_size"),
            pack_frame_size({minimum.width() + 120, minimum.height() + 90}));

  const QSize screen = QApplication::primaryScreen()->availableSize();
  const struct {
    const char* what;
    QSize stored, shown;
  } cases[] = {
      {"larger", minimum + QSize(50, 20), minimum + QSize(50, 20)},
      {"smaller", minimum - QSize(50, 20), minimum},
      {"larger than the screen", QSize(5000, 4000), screen},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.what);
    test::store("merge_dialog_size", pack_frame_size({c.stored.width(), c.stored.height()}));
    merge_sort_model model(test::numbered_docs(2), true);
    MergeSortDlg dialog(model);
    EXPECT_EQ(dialog.size(), c.shown);
    EXPECT_EQ(dialog.minimumSize(), minimum);
  }
}

TEST_F(MergeSortDlg_test, ShowsAnyNumberOfDocumentsAndLongNamesAtTheSameSize) {
  const std::string long_name =
      "Квартальный отчёт — Zoë Ångström — Περίληψη συνεδρίασης — " + std::string(200, 'x');
  const struct {
    const char* what;
    test::docs documents;
    const char* order;  // its end
  } cases[] = {
      {"none", {}, ""},
      {"long names",
       {test::doc(long_name, "4711"), test::doc("", "4712"), test::doc("Überblick", "4713")},
       "4711 4713 4712 "},
      {"200", test::numbered_docs(200), " 1198 1200 1199 "},
  };
  std::optional<QSize> opening;
  for (const auto& c : cases) {
    SCOPED_TRACE(c.what);
    test::scoped_test_env fresh;
    merge_sort_model model(c.documents, true);
    MergeSortDlg dialog(model);
    if (!opening) opening = dialog.size();
    EXPECT_EQ(dialog.size(), *opening);
    const int count = static_cast<int>(c.documents.size());
    test::as_user([&](QWidget* dlg) {
      test::click(test::child(dlg, "one_pdf"));
      EXPECT_EQ(files(dlg)->rowCount(), count);
      if (count > 0) select(dlg, count - 1);
      test::click(test::child(dlg, "up"));
      if (count == 3) {
        EXPECT_EQ(files(dlg)->item(0, 0)->text().toStdString(), long_name);
        EXPECT_TRUE(files(dlg)->cell_elided(0, 0));
        EXPECT_FALSE(files(dlg)->cell_elided(1, 0));
        test::save_picture(dlg, "merge_sort_long_names");
      }
      test::click(test::child(dlg, "ok"));
    });
    ASSERT_EQ(dialog.exec(), QDialog::Accepted);
    ASSERT_EQ(dialog.answer().result.size(), c.documents.size());
    EXPECT_THAT(order(dialog.answer()), ::testing::EndsWith(c.order));
  }
}

}  // namespace
}  // namespace tarn
