// One workstation for the tests of the two commands: a sandbox (HOME, XDG folders, TMPDIR,
// machine store), a private X display, the install folder registered with `tarnctl setup`, a
// private document store, and one gateway on port 9090 with the log page on and the
// diagnostic channel in its standard error. It is made on first use and ended when the test
// program ends, so that every test shares the gateway and its warm office.
#pragma once

#include <gtest/gtest.h>

#include <chrono>
#include <condition_variable>
#include <deque>
#include <filesystem>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include <nlohmann/json.hpp>

#include "gateway_process.h"
#include "platform/unique_fd.h"
#include "support/test_env.h"
#include "x_display.h"

namespace tarn::test {

using namespace std::chrono_literals;

constexpr int kCreatePdf = 0;
constexpr int kConvertWithAssistant = 1;

// The message of send_command as a browser posts it: JSON text, UTF-8 unescaped.
std::string send_command_message(int cmd, const std::string& connection,
                                 const std::string& location, const std::vector<std::string>& refs,
                                 int seqid = 1);

// True once `done` holds, asked every 20 ms until `deadline`.
bool eventually(const std::function<bool()>& done, std::chrono::milliseconds deadline = 60s);

class workstation {
 public:
  // The one workstation, made on the first call. Check ready() before use.
  static workstation& get();
  // Stops the gateway and ends what the run left (office, X server); called at program end.
  static void end();

  ~workstation();
  workstation(const workstation&) = delete;
  workstation& operator=(const workstation&) = delete;

  bool ready() const { return why_.empty(); }
  const std::string& why() const { return why_; }

  const scoped_test_env& env() const { return env_; }
  const x_display& x() const { return *x_; }
  gateway_process& gateway() { return *gateway_; }

  // A small office document whose only text is `text`: .docx, .odt or .txt by `name`.
  std::filesystem::path make_document(const std::string& name, const std::string& text);
  // `tarnctl dms import`; the new references in the order of `files`.
  std::vector<std::string> import(const std::vector<std::filesystem::path>& files,
                                  const std::string& folder = "");

  // `tarnctl dms ...  --json` for the default library; null on failure (and a test failure).
  nlohmann::json dms(const std::vector<std::string>& args);
  // The latest version of every document.
  nlohmann::json list() { return dms({"list"}); }
  // `tarnctl dms export` of `ref` into a fresh folder: the text of the PDF (pdftotext) and its
  // number of pages.
  struct pdf_facts {
    std::string text;
    int pages = 0;
  };
  pdf_facts exported(const std::string& ref);

  // One POST of `message` on a new connection; the reply's body, or empty.
  std::string post(const std::string& message);
  std::string send_command(int cmd, const std::vector<std::string>& refs,
                           const std::string& connection = "", const std::string& location = "");
  // Waits until the task that runs now has ended: a command with nothing to do can only be
  // taken once the slot is free, and its line then says it ran. Call only when a task is known
  // to have started (its question came up), else the empty command may find that task still
  // waiting in the slot and be dropped.
  bool after_the_running_task();
  // The body of GET /logs.
  std::string logs();
  // Everything the gateway wrote to its diagnostic channel so far.
  std::string trace() const { return gateway_->error_output(); }
  // How often `text` stands in the trace as the end of a line of the log or the channel.
  size_t trace_count(const std::string& text) const;

  std::filesystem::path temp() const { return env_.tmp(); }
  std::filesystem::path assistant_output() const {
    return env_.home() / "Documents" / "Tarn PDF";
  }
  // Files below the private temporary folder apart from the warm office's own folder:
  // documents left open, PDFs not deleted. Empty after every finished task.
  std::vector<std::string> temp_files() const;

  // The remembered answers of the two questions.
  void remember(const std::string& value, uint32_t number);

 private:
  workstation();

  scoped_test_env env_;
  std::unique_ptr<x_display> x_;
  std::unique_ptr<gateway_process> gateway_;
  std::string why_;
  int seqid_ = 1;
  int made_ = 0;
};

// The assistant's list files as the gateway writes them into the private temporary folder,
// caught as they are closed. The assistant deletes a list once it is done with it, so a thread
// of the catcher opens each one as soon as it is created and keeps it open.
class list_file_catcher {
 public:
  explicit list_file_catcher(const std::filesystem::path& folder);
  ~list_file_catcher();
  list_file_catcher(const list_file_catcher&) = delete;
  list_file_catcher& operator=(const list_file_catcher&) = delete;

  // The bytes of the next list the gateway finished writing, or nothing within `deadline`.
  std::optional<std::string> next(std::chrono::milliseconds deadline = 60s);

 private:
  void watch();
  void take_events();

  const std::filesystem::path folder_;
  unique_fd inotify_;
  unique_fd stop_;  // an eventfd: readable when the thread is to end
  std::map<std::string, unique_fd> open_;  // the thread's own: name -> held since its creation
  std::mutex mutex_;
  std::condition_variable changed_;
  std::deque<std::string> closed_;  // guarded by mutex_; contents in the order of closing
  std::thread thread_;
};

// The fixture of the command tests: the shared workstation, ready.
class workstation_test : public ::testing::Test {
 protected:
  void SetUp() override {
    w_ = &workstation::get();
    ASSERT_TRUE(w_->ready()) << w_->why();
  }
  // A question that a failed test left open would hold every later command.
  void TearDown() override {
    if (w_ != nullptr && w_->ready())
      w_->x().close_questions({"Merge items to one PDF", "Save As"});
  }
  workstation* w_ = nullptr;
};

}  // namespace tarn::test
