#include "dialogs/how_to_save_model.h"

#include "dialog_test_support.h"

namespace tarn {
namespace {

class how_to_save_model_test : public test::sandboxed_test {};

// From the stored values to the opened dialog, and what a Cancel after some clicks writes.
TEST_F(how_to_save_model_test, OpensWithTheRememberedChoiceAndCancelWritesItBack) {
  const struct {
    const char* what;
    bool local_save;
    std::optional<uint32_t> how_to_save, related;
    int32_t checked;
    bool relate_checked, relate_enabled;
    uint32_t written_how, written_related;
  } cases[] = {
      {"nothing stored", false, {}, {}, kHowNewDocument, true, true, 0, 1},
      {"new version", false, 1, 0, kHowNewVersion, false, false, 1, 0},
      {"local save not allowed", false, 2, 1, kHowNewDocument, true, true, 0, 1},
      {"local save allowed", true, 2, 1, kHowLocalSave, true, false, 2, 1},
      {"unknown number", false, 0xFFFFFFFF, 1, -1, true, false, 0xFFFFFFFF, 1},
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
    EXPECT_EQ(model.relate_enabled(), c.relate_enabled);
    model.choose(kHowNewVersion);
    model.set_relate(!c.relate_checked);
    model.store_settings();
    EXPECT_EQ(test::stored("how_to_save"), c.written_how);
    EXPECT_EQ(test::stored("saver_new_related"), c.written_related);
  }
}

TEST_F(how_to_save_model_test, OkTakesTheCheckedChoiceAndTheBoxEvenWhenDisabled) {
  const struct {
    how_to_save_choice choice;
    bool relate, relate_enabled;
    save_mode mode;
  } cases[] = {
      {kHowNewDocument, true, true, kSaveNewRelatedDocument},
      {kHowNewDocument, false, true, kSaveNewDocument},
      {kHowNewVersion, true, false, kSaveNewVersion},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(std::to_string(c.choice) + (c.relate ? " related" : ""));
    how_to_save_model model("prompt", false);
    model.init();
    model.set_relate(c.relate);
    model.choose(c.choice);
    EXPECT_EQ(model.relate_enabled(), c.relate_enabled);
    how_to_save_answer answer = model.accept();
    EXPECT_EQ(answer.how_to_save, c.choice);
    EXPECT_EQ(answer.save_new_related, c.relate);
    EXPECT_EQ(answer.chosen_save_mode(), c.mode);
  }
  // Names are text, never a format.
  EXPECT_EQ(how_to_save_prompt("100%s.xps", "Zoë 東京.pdf"),
            "The '100%s.xps' has been converted to a PDF file.\n"
            "How do you want to save the 'Zoë 東京.pdf' ?");
}

}  // namespace
}  // namespace tarn
