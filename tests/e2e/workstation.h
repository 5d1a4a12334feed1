// One workstation for the tests of the two commands: a sandbox, a private X display with a
// notification service on a private session bus, the install folder registered with `tarnctl
// setup`, a private document store, and one gateway on port 9090 with the log page on. Made on first use and ended when the test program ends, so that
// every test shares the gateway and its warm office.
#pragma once

#include <gtest/gtest.h>
#include <unistd.h>

#include <chrono>
#include <filesystem>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

#include "gateway_process.h"
#include "notification_service.h"
#include "support/test_env.h"
#include "support/x_display.h"

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
  // Stops the gateway and ends the office and the X server; called at program end.
  static void end();
  ~workstation();

  bool ready() const { return why_.empty(); }
  const std::string& why() const { return why_; }
  const scoped_test_env& env() const { return env_; }
  const x_display& x() const { return *x_; }
  gateway_process& gateway() { return *gateway_; }
  const notification_service& notes() const { return *notes_; }
  // Ends the gateway and starts another, on the session bus or with none at all.
  bool restart_gateway(bool with_bus);

  // A small document whose only text is `text`: .docx, else plain text, by `name`.
  std::filesystem::path make_document(const std::string& name, const std::string& text);
  // `tarnctl dms import`; the new references in the order of `files`.
  std::vector<std::string> import(const std::vector<std::filesystem::path>& files,
                                  const std::string& folder = "");
  // `tarnctl dms ARGS --json`; null on failure (and a test failure).
  nlohmann::json dms(const std::vector<std::string>& args);
  nlohmann::json list() { return dms({"list"}); }
  // The text of the PDF of `ref` (pdftotext) and its number of pages.
  struct pdf_facts {
    std::string text;
    int pages = 0;
  };
  pdf_facts exported(const std::string& ref);

  // One POST of `message` on a new connection; the reply's body, or empty.
  std::string post(const std::string& message);
  std::string send_command(int cmd, const std::vector<std::string>& refs,
                           const std::string& connection = "", const std::string& location = "");
  // Waits until the task that runs now has ended. Only when a task is known to have started
  // (its question came up): a task still waiting in the slot would drop the empty command.
  bool after_the_running_task();
  std::string logs();  // the body of GET /logs
  std::string trace() const { return gateway_->error_output(); }
  // How often `text` ends a line of the diagnostic channel.
  size_t trace_count(const std::string& text) const;

  // TMPDIR, which every user may write, and the private folder the programs make in it.
  std::filesystem::path shared_tmp() const { return env_.root() / "shared-tmp"; }
  std::filesystem::path temp() const { return shared_tmp() / ("tarn-" + std::to_string(getuid())); }
  std::filesystem::path assistant_output() const { return env_.home() / "Documents" / "Tarn PDF"; }
  // Files below the private temporary folder but the warm office's: documents left open, PDFs
  // not deleted. Empty after every finished task.
  std::vector<std::string> temp_files() const;
  // The remembered answer of a question.
  void remember(const std::string& value, uint32_t number);

 private:
  workstation();

  scoped_test_env env_;
  std::unique_ptr<x_display> x_;
  std::unique_ptr<notification_service> notes_;
  std::unique_ptr<gateway_process> gateway_;
  int gateways_ = 0;
  std::string why_;
  int seqid_ = 1;
  int made_ = 0;
};

// The fixture of the command tests: the shared workstation, ready.
class workstation_test : public ::testing::Test {
 protected:
  void SetUp() override {
    w_ = &workstation::get();
    ASSERT_TRUE(w_->ready()) << w_->why();
  }
  // A question that a failed test left open would hold every later command; an assistant
  // waits while its last notification offers to open the folder.
  void TearDown() override {
    if (w_ == nullptr || !w_->ready()) return;
    w_->x().close_questions({"Merge items to one PDF", "Save As"});
    w_->notes().close_all();
  }
  workstation* w_ = nullptr;
};

}  // namespace tarn::test
