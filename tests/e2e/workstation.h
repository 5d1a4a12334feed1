// One workstation that all tests of the two commands share, with one gateway and its warm
// office: a sandbox, a private X display and session bus with a notification service, the
// install folder set up, a private document store, the log page on.
#pragma once

#include <unistd.h>

#include <nlohmann/json.hpp>

#include "e2e_fixture.h"
#include "notification_service.h"
#include "support/x_display.h"

namespace tarn::test {

class workstation {
 public:
  static workstation& get();
  ~workstation();

  bool ready() const { return why_.empty(); }
  const std::string& why() const { return why_; }
  const scoped_test_env& env() const { return env_; }
  const x_display& x() const { return *x_; }
  gateway_process& gateway() { return *gateway_; }
  const notification_service& notes() const { return *notes_; }

  // A small document whose only text is `text`: RTF or plain text, by the extension of `name`.
  std::filesystem::path make_document(const std::string& name, const std::string& text) {
    const auto file = env_.root() / "documents" / std::to_string(++made_) / name;
    write_file(file, file.extension() == ".rtf" ? "{\\rtf1 " + text + "}" : text + "\n");
    return file;
  }
  // The references of the imported files, in their order ("" for one that failed).
  std::vector<std::string> import(const std::vector<std::filesystem::path>& files,
                                  const std::string& folder = "");
  // `tarnctl dms ARGS --json`; null on failure (and a test failure).
  nlohmann::json dms(const std::vector<std::string>& args);
  std::string exported(const std::string& ref);  // the PDF's text (pdftotext)

  void send_command(int cmd, const std::vector<std::string>& refs);
  // Waits until the task that runs now has ended. Only when a task is known to have started
  // (its question came up): a task still waiting in the slot would drop the empty command.
  bool after_the_running_task();
  std::string trace() const { return gateway_->error_output(); }

  // TMPDIR, which every user may write, and the private folder the programs make in it.
  std::filesystem::path shared_tmp() const { return env_.root() / "shared-tmp"; }
  std::filesystem::path temp() const { return shared_tmp() / ("tarn-" + std::to_string(getuid())); }
  // Files below the private temporary folder but the warm office's: empty after every task.
  std::vector<std::string> temp_files() const { return files_below(temp(), "tarnoffice"); }
  // The answers the merge and save questions open on: value name and number.
  void remember(const std::vector<std::pair<std::string, uint32_t>>& answers);

 private:
  workstation();

  scoped_test_env env_;
  std::unique_ptr<x_display> x_;
  std::unique_ptr<notification_service> notes_;
  std::unique_ptr<gateway_process> gateway_;
  std::string why_;
  int seqid_ = 1;
  int made_ = 0;
};

class workstation_test : public ::testing::Test {
 protected:
  void SetUp() override {
    w_ = &workstation::get();
    ASSERT_TRUE(w_->ready()) << w_->why();
    notes_from_ = w_->notes().shown().size();
  }
  // A question that a failed test left open would hold every later command; an assistant
  // waits while its last notification offers to open the folder.
  void TearDown() override {
    if (w_ == nullptr || !w_->ready()) return;
    w_->x().close_questions({"Merge items to one PDF", "Save As"});
    w_->notes().close_all();
  }
  // The notifications shown since the test began; true when exactly `count` were shown.
  std::vector<shown_notification> shown() const {
    auto all = w_->notes().shown();
    all.erase(all.begin(), all.begin() + static_cast<std::ptrdiff_t>(notes_from_));
    return all;
  }
  bool shown_count(size_t count) const {
    return eventually([&] { return shown().size() >= count; }, 30s) && shown().size() == count;
  }
  workstation* w_ = nullptr;
  size_t notes_from_ = 0;
};

}  // namespace tarn::test
