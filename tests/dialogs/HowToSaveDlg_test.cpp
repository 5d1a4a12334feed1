#include "dialogs/HowToSaveDlg.h"

#include <QCheckBox>
#include <QLabel>
#include <QRadioButton>

#include "dialog_test_support.h"

namespace tarn {
namespace {

class HowToSaveDlg_test : public test::sandboxed_test {
 protected:
  // x checked, o not, - hidden; then the check box.
  static std::string state(QWidget* dlg) {
    std::string text;
    for (const char* name : {"save_new_document", "save_new_version", "local_save"}) {
      auto* radio = test::child<QRadioButton>(dlg, name);
      text += !radio->isVisible() ? "-" : radio->isChecked() ? "x" : "o";
    }
    auto* relate = test::child<QCheckBox>(dlg, "relate");
    return text + (relate->isChecked() ? " checked" : " clear") +
           (relate->isEnabled() ? " enabled" : " disabled");
  }
};

TEST_F(HowToSaveDlg_test, TheCheckBoxServesANewDocumentAndKeepsItsCheck) {
  test::store("how_to_save", 1);
  // Names are text, never a format.
  how_to_save_model model(how_to_save_prompt("100%s report.xps", "Zoë 東京.pdf"), false);
  HowToSaveDlg dialog(model);
  test::as_user([](QWidget* dlg) {
    EXPECT_TRUE(dlg->windowFlags() & Qt::WindowStaysOnTopHint);
    EXPECT_EQ(test::child<QLabel>(dlg, "prompt")->text(),
              "The '100%s report.xps' has been converted to a PDF file.\n"
              "How do you want to save the 'Zoë 東京.pdf' ?");
    EXPECT_EQ(state(dlg), "ox- checked disabled");
    test::click(test::child(dlg, "save_new_document"));
    EXPECT_EQ(state(dlg), "xo- checked enabled");
    test::save_picture(dlg, "how_to_save");
    test::click(test::child(dlg, "relate"));
    test::click(test::child(dlg, "save_new_version"));
    EXPECT_EQ(state(dlg), "ox- clear disabled");
    test::click(test::child(dlg, "ok"));
  });
  ASSERT_EQ(dialog.exec(), QDialog::Accepted);
  EXPECT_EQ(dialog.answer().how_to_save, 1);
  EXPECT_FALSE(dialog.answer().save_new_related);
}

TEST_F(HowToSaveDlg_test, WorksFromTheKeyboardAndWritesBackHoweverItEnds) {
  using keys = std::vector<std::pair<Qt::Key, Qt::KeyboardModifiers>>;
  const struct {
    const char* what;
    keys typed;
    int result;
    uint32_t how_to_save, related;
  } cases[] = {
      {"arrow to new version, Enter", {{Qt::Key_Down, {}}, {Qt::Key_Return, {}}}, 1, 1, 1},
      {"untick, Alt+O", {{Qt::Key_R, Qt::AltModifier}, {Qt::Key_O, Qt::AltModifier}}, 1, 0, 0},
      {"Escape after a change", {{Qt::Key_Down, {}}, {Qt::Key_Escape, {}}}, 0, 0, 1},
      {"Alt+C", {{Qt::Key_C, Qt::AltModifier}}, 0, 0, 1},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.what);
    test::scoped_test_env fresh;
    how_to_save_model model("prompt", false);
    {
      HowToSaveDlg dialog(model);
      test::as_user([&](QWidget* dlg) {
        for (auto [key, modifiers] : c.typed) test::type(dlg, key, modifiers);
      });
      EXPECT_EQ(dialog.exec(), c.result);
    }
    EXPECT_EQ(test::stored("how_to_save"), c.how_to_save);
    EXPECT_EQ(test::stored("saver_new_related"), c.related);
  }
}

TEST_F(HowToSaveDlg_test, LongNamesWrapAndTheWidthStays) {
  how_to_save_model short_model(how_to_save_prompt("a.docx", "a.pdf"), false);
  HowToSaveDlg short_dialog(short_model);
  const std::pair<std::string, bool> cases[] = {
      // name, elided
      {"Minutes of the board meeting of 12 March 2026 on the purchase of Nordic Timber "
       "Holdings — Zoë Ångström's notes, final draft (signed)",
       false},
      {std::string(150, 'W'), false},
      {std::string(20000, 'n'), true},
  };
  for (const auto& [name, elided] : cases) {
    SCOPED_TRACE(name.substr(0, 20));
    how_to_save_model model(how_to_save_prompt(name + ".docx", name + ".pdf"), false);
    HowToSaveDlg dialog(model);
    test::as_user([&, elided = elided](QWidget* dlg) {
      auto* prompt = test::child<QLabel>(dlg, "prompt");
      EXPECT_EQ(dlg->width(), short_dialog.width());
      EXPECT_GE(prompt->height(), prompt->heightForWidth(prompt->width()));
      EXPECT_EQ(!prompt->toolTip().isEmpty(), elided);
      if (name.starts_with("Minutes")) test::save_picture(dlg, "how_to_save_long_name");
      test::type(dlg, Qt::Key_Escape);
    });
    dialog.exec();
  }
}

// From the stored values to the opened dialog; a Cancel after the clicks writes back what was
// stored, an OK gives the clicked choice and the box, even when disabled.
TEST_F(HowToSaveDlg_test, OpensWithTheRememberedChoiceAndAnswersWithTheClickedOne) {
  const struct {
    const char* what;
    bool local_save;
    std::optional<uint32_t> how_to_save, related;
    int32_t checked;
    bool relate_checked;
    uint32_t written_how, written_related;
    int32_t choose;  // -1: no click
    bool relate;
    save_mode mode;
  } cases[] = {
      // clang-format off
      {"nothing stored", false, {}, {}, kHowNewDocument, true, 0, 1,
       kHowNewDocument, true, kSaveNewRelatedDocument},
      {"new version", false, 1, 0, kHowNewVersion, false, 1, 0,
       kHowNewDocument, false, kSaveNewDocument},
      {"local save not allowed", false, 2, 1, kHowNewDocument, true, 0, 1,
       kHowNewVersion, true, kSaveNewVersion},
      {"local save allowed", true, 2, 1, kHowLocalSave, true, 2, 1,
       kHowNewVersion, false, kSaveNewVersion},
      {"unknown number", false, 0xFFFFFFFF, 1, -1, true, 0xFFFFFFFF, 1,
       -1, true, kSaveNewVersion},
      // clang-format on
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.what);
    test::scoped_test_env fresh;
    if (c.how_to_save) test::store("how_to_save", *c.how_to_save);
    if (c.related) test::store("saver_new_related", *c.related);
    how_to_save_model model("prompt", c.local_save);
    model.init();
    EXPECT_EQ(model.checked(), c.checked);
    EXPECT_EQ(model.relate_checked(), c.relate_checked);
    if (c.choose != -1) model.choose(static_cast<how_to_save_choice>(c.choose));
    model.set_relate(c.relate);
    model.store_settings();
    EXPECT_EQ(test::stored("how_to_save"), c.written_how);
    EXPECT_EQ(test::stored("saver_new_related"), c.written_related);
    EXPECT_EQ(model.accept().chosen_save_mode(), c.mode);
  }
}

}  // namespace
}  // namespace tarn
