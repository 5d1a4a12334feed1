#include "dialogs/qt_user_questions.h"

#include "convutils/CConvRegKey.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <unistd.h>

#include "dialog_test_support.h"
#include "dialogs/resizable_frame.h"
#include "log/simple_log.h"
#include "support/run_program.h"
#include "support/x_display.h"

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
  EXPECT_TRUE(asker.ask_merge_sort(documents));
  test::as_user([](QWidget* dlg) { test::type(dlg, Qt::Key_Escape); });
  EXPECT_FALSE(asker.ask_how_to_save(*documents[0]));
  EXPECT_THAT(log_->render(), ::testing::Not(HasSubstr("Dlg")));
}

// Nobody there is Cancel, unless the machine's policy, else the user, lets the remembered
// choices answer.
TEST_F(qt_user_questions_test, WithoutADisplayNobodyAnswersUnlessUnattendedAnswersAreAllowed) {
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
  const struct {
    std::optional<uint32_t> user, policy;
    bool answered;
  } cases[] = {
      {std::nullopt, std::nullopt, false},
      {1, std::nullopt, true},
      {1, 0, false},
      {0, 1, true},
  };
  auto documents = test::numbered_docs(2);
  for (const auto& c : cases) {
    SCOPED_TRACE(testing::Message() << c.user.value_or(9) << "/" << c.policy.value_or(9));
    auto set = [](reg_root root, const char* key, std::optional<uint32_t> value) {
      CConvRegKey reg(root, key, "UnattendedAnswers", DWORD{0});
      if (value) reg.write_number(*value);
    };
    set(reg_root::current_user, "Software\\Vantu\\PDF\\V1\\TarnGateWay", c.user);
    set(reg_root::local_machine, "Software\\Policies\\Vantu\\Tarn 5.0\\Preferences", c.policy);
    log_ = std::make_shared<simple_log>("start");
    auto asker = questions("offscreen");
    std::string why;
    EXPECT_EQ(asker.someone_can_answer(&why), c.answered);
    auto merge = asker.ask_merge_sort(documents);
    auto how = asker.ask_how_to_save(*documents[1]);
    ASSERT_EQ(merge.has_value(), c.answered);
    ASSERT_EQ(how.has_value(), c.answered);
    // The log lines below describe the very answers given.
    if (c.answered) {
      EXPECT_EQ(merge->result, documents);
    }
    EXPECT_EQ(why, c.answered ? "" : "no display to ask on");
    EXPECT_THAT(log_->render(),
                HasSubstr(c.answered ? "taking the remembered choices: one PDF of all, saved as a "
                                       "new document, 2 files in the given order\n"
                                     : "MergeSortDlg: no display to ask on; taken as Cancel"));
    EXPECT_THAT(log_->render(), HasSubstr(c.answered ? "remembered choice for 'Document 2.docx': "
                                                       "saved as a new document\n"
                                                     : "for 'Document 2.docx'; taken as Cancel"));
    EXPECT_EQ(test::stored("how_to_save"), 2u) << "nobody answered: nothing is remembered anew";
    EXPECT_FALSE(test::stored("merge_dialog_size"));
  }
}

TEST_F(qt_user_questions_test, AChildThatEndsWithoutAnAnswerIsCancel) {
  const std::filesystem::path fake = env_.root() / "tarnask";
  // A descriptor the gateway forgot to mark close-on-exec, as a listening socket might be.
  const int leaked = open("/dev/null", O_RDONLY);
  const std::pair<std::string, const char*> cases[] = {
      // its script, what the log says
      {"# anyone may change it", "tarnask can be written by others"},
      {"[ -e /proc/self/fd/" + std::to_string(leaked) + " ] && exit 5; exit 1",
       "answer: tarnask could not open the display (at"},
      {"kill -SEGV $$", "answer: tarnask was ended by a signal (at"},
      {"echo '{\"accepted\": tru'", "parse error"},
      {R"(echo '{"accepted":true,"merge_documents_":true,"save_new_":4294967296,)"
       R"("save_new_related_":true,"order":[0,1],"size":{"width":1,"height":1}}')",
       "out of range: 4294967296"},
      {R"(echo '{"accepted":true,"merge_documents_":true,"save_new_":1,)"
       R"("save_new_related_":true,"order":[0,7],"size":{"width":1,"height":1}}')",
       "answer: tarnask gave back rows that weren't asked about (at"},
  };
  for (const auto& [script, why] : cases) {
    SCOPED_TRACE(script);
    test::write_file(fake, "#!/bin/sh\ncat >/dev/null\n" + script + "\n");
    std::filesystem::permissions(fake, std::filesystem::perms::owner_all);
    if (script.starts_with("# anyone"))
      std::filesystem::permissions(fake, std::filesystem::perms::others_write,
                                   std::filesystem::perm_options::add);
    log_ = std::make_shared<simple_log>("start");
    // A name that isn't UTF-8 still makes a request: the bad bytes go as U+FFFD.
    auto merge = questions("offscreen", "DISPLAY=far.example:0\n", fake)
                     .ask_merge_sort({test::doc("bad \xff", "1"), test::doc("ok", "2")});
    EXPECT_FALSE(merge);
    EXPECT_THAT(log_->render(), HasSubstr("MergeSortDlg: the question ended without an answer: "));
    EXPECT_THAT(log_->render(), HasSubstr("(at DISPLAY=far.example:0 from the systemd user "
                                          "environment); taken as Cancel, nothing is stored"));
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
  EXPECT_EQ(merge->result, documents);
  EXPECT_EQ(test::stored("do_merge"), 1u);
  EXPECT_GT(unpack_frame_size(test::stored("merge_dialog_size").value_or(0)).height, 100);

  EXPECT_THAT(log_->render(), ::testing::Not(HasSubstr("Dlg")));
}

}  // namespace
}  // namespace tarn
