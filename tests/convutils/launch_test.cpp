#include <fcntl.h>
#include <sys/stat.h>
#include <sys/wait.h>

#include <QTimer>
#include <QWidget>
#include <functional>

#include "convutils_fixture.h"
#include "platform/self_exe.h"

namespace tarn {
namespace {

namespace fs = std::filesystem;
using Lines = std::vector<std::string>;

// Opening a FIFO for writing waits for its reader; closing it ends the reader's wait.
void release(const fs::path& fifo) { close(open(fifo.c_str(), O_WRONLY | O_CLOEXEC)); }

bool no_children_left() { return waitpid(-1, nullptr, WNOHANG) == -1 && errno == ECHILD; }

// The install folder holds this test binary as tarnassist or tarnprint, which it then plays
// (support/conversion.h).
class launch_test : public test::convutils_fixture {
 protected:
  void SetUp() override {
    env_.set_env("TARN_TRACE", "85");
    fs::create_directories(install_ / "bin");
    set_install_path(install_.string() + "/");
    mkfifo(fifo_.c_str(), 0600);
  }
  void install_as(const fs::path& relative) {
    fs::create_symlink(self_exe_path(), install_ / relative);
  }

  const fs::path install_ = env_.root() / "inst";
  const fs::path fifo_ = env_.tmp() / "fifo";
  const std::string target_ = (env_.tmp() / "Bericht Grüße.pdf").string();
};

TEST_F(launch_test, CheckCommandLineLooksOnlyAtTheFirstQuotedText) {
  test::write_file(target_, "");
  const std::pair<std::string, bool> cases[] = {
      {"no quotes at all /nonexistent", true},
      {"\"/nonexistent/missing.pdf\"", false},
      {"\"https://example.com/a b\" x", true},
      {"\"ftp:x\"", true},
      {"\"HTTPS://example.com\"", false},
      {"open \"" + target_ + "\" \"/nonexistent/second\"", true},
      {"\"unclosed /nonexistent", true},
      {std::string(4096, 'a'), false},
  };
  for (const auto& [line, passes] : cases) {
    SCOPED_TRACE(line.substr(0, 60));
    std::string checked = "untouched";
    EXPECT_EQ(CheckCommandLine(line, &checked), passes);
    EXPECT_EQ(checked, passes ? line : "untouched");
  }
}

TEST_F(launch_test, AssistantStartsDetachedOnTheSplitLineOnlyWhenItMay) {
  install_as("tarnassist");
  env_.set_env("TARN_FAKE_RECORD", fifo_.string());
  test::write_file(target_, "");
  {
    auto trace = capture();
    LaunchConverter("\"" + target_ + "\" /second", false, nullptr);
    EXPECT_EQ(test::read_file(fifo_), target_ + "\n/second\n");
    LaunchConverter("\"/nonexistent/ss_1.txt\"", false, nullptr);
    set_install_path("");
    LaunchConverter("ss_1.txt", false, nullptr);
    EXPECT_EQ(trace.lines(), Lines{"2 ERROR: Invalid commandline parameter"});
  }
  EXPECT_TRUE(no_children_left());
}

TEST_F(launch_test, ModalAssistantDisablesItsParentWhileTheEventLoopRuns) {
  install_as("tarnassist");
  env_.set_env("TARN_FAKE_BLOCK", fifo_.string());
  QWidget parent;
  bool enabled_while_waiting = true;
  auto trace = capture();
  QTimer::singleShot(0, [&] {
    enabled_while_waiting = parent.isEnabled();
    release(fifo_);
  });
  LaunchConverter("ss_1.txt", true, &parent);
  EXPECT_FALSE(enabled_while_waiting);
  EXPECT_TRUE(parent.isEnabled());
  QTimer::singleShot(0, [&] { release(fifo_); });
  LaunchConverter("ss_1.txt", true, nullptr);
  EXPECT_EQ(trace.lines(),
            Lines{"1 ALERT: LaunchConverter should be modal, but the parent window is invalid"});
  EXPECT_TRUE(no_children_left());
}

TEST_F(launch_test, PrintHelperOutcomesAreTracedLineByLine) {
  CConvRegKey(reg_root::current_user, "Software\\Vantu\\PDF\\V1\\TarnGateWay",
              "print_helper_timeout", DWORD{0})
      .write_number(1);
  const std::string helper = install_.string() + "/bin/tarnprint";
  auto with = [](Lines lines, const Lines& more) {
    lines.insert(lines.end(), more.begin(), more.end());
    return lines;
  };
  const Lines start = {"0 TarnPrintHelper: " + helper,
                       "0 Cmd line: /p \"" + target_ + ".src\" \"" + target_ + "\" /noviewpdf",
                       "0 ShellExecuteEx"};
  const Lines started =
      with(start, {"0 ShellExecuteEx returned true, vaiting for process to exit"});
  const struct {
    const char* name;
    std::function<void()> helper;
    std::string content;  // what the stand-in helper does with the source
    Lines lines;
  } cases[] = {
      {"prints", [&] { install_as("bin/tarnprint"); }, "BLOCK " + fifo_.string(),
       with(started, {"0 GetExitCodeProcess returned 0", "0 Print Succeeded"})},
      {"fails", [] {}, "FAIL", with(started, {"2 Print failed"})},
      {"writes nothing", [] {}, "SILENT",
       with(started, {"0 GetExitCodeProcess returned 0", "2 Printed file not found"})},
      {"hangs, half a PDF written", [] {}, "HANG",
       with(started, {"2 Print helper still running after 1 s, ending it", "2 Print failed"})},
      {"missing", [&] { fs::remove(helper); }, "text", {"0 TarnPrintHelper: "}},
      // Not executable: execve refuses it even to root.
      {"broken", [&] { test::write_file(helper, "#!/bin/sh\n"); }, "text",
       with(start, {"2 ShellExecuteEx returned false",
                    "2 can't start " + helper + ": Permission denied"})},
  };
  // The first helper finishes only once this timer has run inside the wait.
  QTimer::singleShot(0, [&] { release(fifo_); });
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    c.helper();
    test::write_file(target_ + ".src", c.content + "\n");
    fs::remove(target_);
    auto trace = capture();
    const bool printed = PrintPDFWithHelper(target_ + ".src", target_, false, false, 3, 0);
    EXPECT_EQ(trace.lines(), with(c.lines, {"0 PrintPDFWithHelper exit"}));
    EXPECT_EQ(printed, c.lines.back() == "0 Print Succeeded");
    EXPECT_EQ(fs::exists(target_), printed);
  }
  EXPECT_TRUE(no_children_left());
}

}  // namespace
}  // namespace tarn
