#include "dialogs/scripted_user_questions.h"

#include "dialog_test_support.h"

namespace tarn {
namespace {

class scripted_user_questions_test : public test::sandboxed_test {};

TEST_F(scripted_user_questions_test, ScriptsPlayTheUserOnTheRealDialogLogic) {
  auto documents = test::numbered_docs(3);
  scripted_user_questions questions;
  questions.then_merge_sort([](merge_sort_model& dialog) {
    dialog.choose_merge();
    dialog.move_down(0);
    return true;
  });
  questions.then_merge_sort([](merge_sort_model&) { return false; });
  questions.then_how_to_save([](how_to_save_model& dialog) {
    dialog.choose(kHowNewVersion);
    return true;
  });

  EXPECT_EQ(questions.ask_merge_sort(documents)->result,
            (test::docs{documents[1], documents[0], documents[2]}));
  EXPECT_FALSE(questions.ask_merge_sort(documents));
  EXPECT_EQ(questions.ask_how_to_save(*documents[0])->chosen_save_mode(), kSaveNewVersion);
  // With no script left the user presses OK, on what the earlier answers left behind.
  EXPECT_EQ(questions.ask_how_to_save(*documents[0])->chosen_save_mode(), kSaveNewVersion);
  EXPECT_TRUE(questions.ask_merge_sort(documents)->merge_documents_);
  ASSERT_EQ(questions.asked().size(), 5u);
  EXPECT_EQ(questions.asked()[2].prompt,
            "The 'Document 1.docx' has been converted to a PDF file.\n"
            "How do you want to save the 'Document 1.pdf' ?");
}

}  // namespace
}  // namespace tarn
