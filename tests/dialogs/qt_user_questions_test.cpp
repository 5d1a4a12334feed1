#include "dialogs/qt_user_questions.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <unistd.h>

#include "dialog_test_support.h"
#include "dialogs/resizable_frame.h"
#include "support/x_display.h"
#include "log/simple_log.h"
#include "support/run_program.h"

namespace tarn {
namespace {

using ::testing::HasSubstr;

class qt_user_questions_test : public test::sandboxed_test {
 protected:
  // What the systemd user environment says about displays; nothing else is looked at.
  static display_probe session_says(const std::string& env_lines) {
    display_probe::sources from;
    from.session_env = [env_lines] { return env_lines; };
    from.x11_socket_dir = "/tmp/.X11-unix";
    from.uid = getuid() + 1;  // no X socket of ours counts
    return display_probe(from);
  }

  qt_user_questions questions(std::string platform, const std::string& session = "",
                              std::filesystem::path tarnask = test::dist_program("tarnask")) {
    return qt_user_questions({log_, tarnask, session_says(session), platform});
  }

  std::shared_ptr<simple_log> log_ = std::make_shared<simple_log>("start");
};

TEST_F(qt_user_questions_test, OnADisplayAsksInThisProcess) {
  auto documents = test::numbered_docs(3);
  auto asker = questions("xcb");
  test::as_user([](QWidget* dlg) {
    test::click(test::child(dlg, "one_pdf"));
    test::click(test::child(dlg, "ok"));
  });
  auto merge = asker.ask_merge_sort(documents);
  ASSERT_TRUE(merge);
  EXPECT_EQ(merge->result, documents);
  EXPECT_TRUE(merge->merge_documents_);
  test::as_user([](QWidget* dlg) { test::type(dlg, Qt::Key_Escape); });
  EXPECT_FALSE(asker.ask_how_to_save(*documents[0]));
  EXPECT_THAT(log_->render(), ::testing::Not(HasSubstr("Dlg")));
}

TEST_F(qt_user_questions_test, WithoutADisplayTheRememberedChoicesAnswerAndTheLogSaysSo) {
  test::store("do_merge", 1);
  test::store("how_to_save", 2);
  test::store("saver_new_related", 0);
  QTimer guard;  // a question that did come up fails the test instead of hanging it
  QObject::connect(&guard, &QTimer::timeout, [] {
    if (QWidget* dialog = QApplication::activeModalWidget()) {
      ADD_FAILURE() << "a question was shown";
      dialog->close();
    }
  });
  guard.start(0);
  auto documents = test::numbered_docs(2);
  auto asker = questions("offscreen");

  auto merge = asker.ask_merge_sort(documents);
  ASSERT_TRUE(merge);
  EXPECT_EQ(merge->result, documents);
  EXPECT_TRUE(merge->merge_documents_);
  EXPECT_EQ(merge->chosen_save_mode(), kSaveNewDocument);
  EXPECT_EQ(asker.ask_how_to_save(*documents[1])->chosen_save_mode(), kSaveNewDocument);
  EXPECT_THAT(log_->render(),
              HasSubstr(", MergeSortDlg: no display to ask on; taking the remembered choices: one "
                        "PDF of all, saved as a new document, 2 files in the given order\n"));
  EXPECT_THAT(log_->render(),
              HasSubstr(", HowToSaveDlg: no display to ask on; taking the remembered choice for "
                        "'Document 2.docx': saved as a new document\n"));
  EXPECT_EQ(test::stored("how_to_save"), 2u) << "nobody answered: nothing is remembered anew";
  EXPECT_FALSE(test::stored("merge_dialog_size"));
}

TEST_F(qt_user_questions_test, AChildThatCannotShowTheQuestionLeavesTheRememberedChoices) {
  const std::filesystem::path fake = env_.root() / "tarnask";
  // A descriptor the gateway forgot to mark close-on-exec, as a listening socket might be.
  const int leaked = open("/dev/null", O_RDONLY);
  const std::pair<std::string, const char*> cases[] = {
      // its script, what the log says
      {"", "could not be started"},
      {"[ -e /proc/self/fd/" + std::to_string(leaked) + " ] && exit 5; exit 1",
       "(tarnask could not open the display)"},
      {"kill -SEGV $$", "(tarnask was ended by a signal)"},
      {"echo '{\"accepted\": tru'", "parse error"},
      {R"(echo '{"accepted":true,"merge_documents_":true,"save_new_":4294967296,)"
       R"("save_new_related_":true,"order":[0,1],"size":{"width":1,"height":1}}')",
       "out of range: 4294967296"},
      {R"(echo '{"accepted":true,"merge_documents_":true,"save_new_":1,)"
       R"("save_new_related_":true,"order":[0,7],"size":{"width":1,"height":1}}')",
       "(tarnask gave back rows that weren't asked about)"},
  };
  for (const auto& [script, why] : cases) {
    SCOPED_TRACE(script);
    std::filesystem::remove(fake);
    if (!script.empty()) {
      test::write_file(fake, "#!/bin/sh\ncat >/dev/null\n" + script + "\n");
      std::filesystem::permissions(fake, std::filesystem::perms::owner_all);
    }
    log_ = std::make_shared<simple_log>("start");
    // A name that isn't UTF-8 still makes a request: the bad bytes go as U+FFFD.
    auto merge = questions("offscreen", "DISPLAY=far.example:0\n", fake)
                     .ask_merge_sort({test::doc("bad \xff", "1"), test::doc("ok", "2")});
    ASSERT_TRUE(merge);
    EXPECT_FALSE(merge->merge_documents_);
    EXPECT_THAT(log_->render(), HasSubstr("MergeSortDlg: could not be shown at DISPLAY="
                                          "far.example:0 from the systemd user environment ("));
    EXPECT_THAT(log_->render(), HasSubstr(why));
    EXPECT_FALSE(test::stored("do_merge"));
  }
  close(leaked);
}

// The display stands for a desktop session that began after the gateway.
TEST_F(qt_user_questions_test, ADisplayThatAppearedLaterGetsTheQuestionsInAChild) {
  test::x_display x;
  ASSERT_TRUE(x.started()) << x.why();
  auto asker = questions("offscreen", "DISPLAY=" + x.display() + "\n");
  QTimer watchdog;  // a question nobody answers would otherwise hold the test for ever
  QObject::connect(&watchdog, &QTimer::timeout, [&x] {
    x.close_questions({"Save As", "Merge items to one PDF"});
  });
  watchdog.start(60000);

  // Two windows of one title never follow each other: the first might still be on its way
  // out when the user looks for the second.
  auto documents = test::numbered_docs(3);
  test::x_display::answer save(x, "Save As", {"Down", "Return"});
  auto how = asker.ask_how_to_save(*documents[0]);
  EXPECT_TRUE(save.answered());
  ASSERT_TRUE(how);
  EXPECT_EQ(how->chosen_save_mode(), kSaveNewVersion);
  EXPECT_EQ(test::stored("how_to_save"), 1u);

  test::x_display::answer merge_user(x, "Merge items to one PDF", {"alt+o", "Return"});
  auto merge = asker.ask_merge_sort(documents);
  EXPECT_TRUE(merge_user.answered());
  ASSERT_TRUE(merge);
  EXPECT_TRUE(merge->merge_documents_);
  EXPECT_EQ(merge->result, documents);
  EXPECT_EQ(test::stored("do_merge"), 1u);
  EXPECT_GT(unpack_frame_size(test::stored("merge_dialog_size").value_or(0)).height, 100);

  test::store("how_to_save", 2);
  test::x_display::answer cancel(x, "Save As", {"Escape"});
  EXPECT_FALSE(asker.ask_how_to_save(*documents[0]));
  EXPECT_TRUE(cancel.answered());
  EXPECT_EQ(test::stored("how_to_save"), 0u) << "Cancel writes back what it showed";
  EXPECT_THAT(log_->render(), ::testing::Not(HasSubstr("Dlg")));
}

}  // namespace
}  // namespace tarn
