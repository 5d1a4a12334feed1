#include <fcntl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <QTimer>
#include <QWidget>

#include "convutils/CConvRegKey.h"
#include "convutils/ConvUtils.h"
#include "platform/self_exe.h"
#include "support/test_env.h"
#include "trace_capture.h"

namespace tarn {
namespace {

namespace fs = std::filesystem;
using Lines = std::vector<std::string>;

// Opening a FIFO for writing waits for its reader; closing it ends the reader's wait.
void release(const fs::path& fifo) {
  int fd = open(fifo.c_str(), O_WRONLY | O_CLOEXEC);
  if (fd >= 0) close(fd);
}

bool no_children_left() { return waitpid(-1, nullptr, WNOHANG) == -1 && errno == ECHILD; }

// The install folder holds this test binary as tarnassist and tarnprint, which then play those
// programs (support/conversion.h).
class launch_test : public test::sandboxed_test {
 protected:
  void SetUp() override {
    env_.set_env("TARN_TRACE", "85");
    fs::create_directories(install_ / "bin");
    CConvRegKey(reg_root::local_machine, kProductKey, "InstallPath", std::nullopt)
        .write_text(install_.string() + "/");
  }
  void install_as(const fs::path& relative) {
    fs::create_symlink(self_exe_path(), install_ / relative);
  }
  fs::path fifo(const char* name) {
    const fs::path path = env_.tmp() / name;
    mkfifo(path.c_str(), 0600);
    return path;
  }
  test::trace_capture capture() { return test::trace_capture(env_.root() / "trace"); }

  const fs::path install_ = env_.root() / "inst";
  const fs::path record_ = env_.tmp() / "record";
};

TEST_F(launch_test, CheckCommandLineLooksOnlyAtTheFirstQuotedText) {
  const std::string list = (env_.tmp() / "my list é.txt").string();
  test::write_file(list, "[FILES]\r\n");
  const struct {
    std::string line;
    bool passes;
  } cases[] = {
      {"no quotes at all /nonexistent", true},
      {"\"/nonexistent/missing.pdf\"", false},
      {"\"https://example.com/a b\" x", true},
      {"\"http://\"", true},
      {"\"ftp:x\"", true},
      {"\"file:///nonexistent\"", true},
      {"\"HTTPS://example.com\"", false},
      {"open \"" + list + "\" \"/nonexistent/second\"", true},
      {"\"unclosed /nonexistent", true},
      {"\"\" /nonexistent", true},
      {std::string(4096, 'a'), false},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.line.substr(0, 60));
    std::string checked = "untouched";
    EXPECT_EQ(CheckCommandLine(c.line, &checked), c.passes);
    EXPECT_EQ(checked, c.passes ? c.line : "untouched");
  }
}

TEST_F(launch_test, AssistantStartsDetachedOnTheSplitCommandLine) {
  install_as("tarnassist");
  const fs::path record = fifo("record");
  env_.set_env("TARN_FAKE_RECORD", record.string());
  const std::string list = (env_.tmp() / "ss_0a1b 2c3d.txt").string();
  test::write_file(list, "[FILES]\r\n");
  auto trace = capture();
  LaunchConverter("\"" + list + "\" /second", false, nullptr);
  EXPECT_TRUE(no_children_left());
  EXPECT_EQ(test::read_file(record), list + "\n/second\n");
  EXPECT_EQ(trace.lines(), Lines{});
}

TEST_F(launch_test, AssistantIsNotStartedOnAMissingDocumentOrWithoutInstallFolder) {
  install_as("tarnassist");
  auto trace = capture();
  LaunchConverter("\"/nonexistent/ss_1.txt\"", false, nullptr);
  EXPECT_EQ(trace.lines(), Lines{"2 ERROR: Invalid commandline parameter"});

  CConvRegKey(reg_root::local_machine, kProductKey, "InstallPath", std::nullopt).write_text("");
  auto silent = capture();
  LaunchConverter("/nonexistent/ss_1.txt", false, nullptr);
  EXPECT_EQ(silent.lines(), Lines{});
  EXPECT_TRUE(no_children_left());
}

TEST_F(launch_test, ModalAssistantDisablesItsParentWhileTheEventLoopRuns) {
  install_as("tarnassist");
  const fs::path block = fifo("block");
  env_.set_env("TARN_FAKE_BLOCK", block.string());
  QWidget parent;
  bool enabled_while_waiting = true;
  QTimer::singleShot(0, [&] {
    enabled_while_waiting = parent.isEnabled();
    release(block);
  });
  auto trace = capture();
  LaunchConverter("ss_1.txt", true, &parent);
  EXPECT_FALSE(enabled_while_waiting);
  EXPECT_TRUE(parent.isEnabled());
  EXPECT_TRUE(no_children_left());

  QTimer::singleShot(0, [&] { release(block); });
  LaunchConverter("ss_1.txt", true, nullptr);
  EXPECT_EQ(trace.lines(),
            Lines{"1 ALERT: LaunchConverter should be modal, but the parent window is invalid"});
}

TEST_F(launch_test, PrintHelperOutcomesAreTracedLineByLine) {
  const std::string source = (env_.tmp() / "Bericht Grüße.docx").string();
  const std::string target = (env_.tmp() / "Bericht Grüße.pdf").string();
  const std::string helper = install_.string() + "/bin/tarnprint";
  const Lines started = {"0 TarnPrintHelper: " + helper,
                         "0 Cmd line: /p \"" + source + "\" \"" + target + "\" /noviewpdf",
                         "0 ShellExecuteEx",
                         "0 ShellExecuteEx returned true, vaiting for process to exit"};
  auto with = [](Lines lines, const Lines& more) {
    lines.insert(lines.end(), more.begin(), more.end());
    return lines;
  };
  const struct {
    const char* name;
    const char* content;  // what the stand-in helper does
    bool result;
    Lines lines;
  } cases[] = {
      {"prints", "text", true,
       with(started, {"0 GetExitCodeProcess returned 0", "0 Print Succeeded",
                      "0 PrintPDFWithHelper exit"})},
      {"fails", "FAIL", false, with(started, {"2 Print failed", "0 PrintPDFWithHelper exit"})},
      {"writes nothing", "SILENT", false,
       with(started, {"0 GetExitCodeProcess returned 0", "2 Printed file not found",
                      "0 PrintPDFWithHelper exit"})},
  };
  install_as("bin/tarnprint");
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    test::write_file(source, std::string(c.content) + "\n");
    fs::remove(target);
    auto trace = capture();
    EXPECT_EQ(PrintPDFWithHelper(source, target, false, false, 3, 0), c.result);
    EXPECT_EQ(trace.lines(), c.lines);
    EXPECT_EQ(fs::exists(target), c.result);
  }
  EXPECT_TRUE(no_children_left());
}

TEST_F(launch_test, PrintHelperGetsPathsWholeAndMayBeMissingOrBroken) {
  const std::string source = (env_.tmp() / "a \"quoted\" name\\.docx").string();
  const std::string target = (env_.tmp() / "out dir\\").string();
  test::write_file(source, "text\n");
  env_.set_env("TARN_FAKE_RECORD", record_.string());
  install_as("tarnprint");
  EXPECT_TRUE(PrintPDFWithHelper(source, target, false, false));
  EXPECT_EQ(test::read_file(record_), "/p\n" + source + "\n" + target + "\n/noviewpdf\n");

  fs::remove(install_ / "tarnprint");
  auto missing = capture();
  EXPECT_FALSE(PrintPDFWithHelper(source, target, false, false));
  EXPECT_EQ(missing.lines(), (Lines{"0 TarnPrintHelper: ", "0 PrintPDFWithHelper exit"}));

  // Not executable: execve refuses it even to root.
  test::write_file(install_ / "tarnprint", "#!/bin/sh\n");
  auto broken = capture();
  EXPECT_FALSE(PrintPDFWithHelper(source, target, false, false));
  const Lines lines = broken.lines();
  ASSERT_EQ(lines.size(), 6u);
  EXPECT_EQ(lines[3], "2 ShellExecuteEx returned false");
  EXPECT_EQ(lines[4], "2 can't start " + install_.string() + "/tarnprint: Permission denied");
}

TEST_F(launch_test, PrintHelperWaitKeepsTheEventLoopRunning) {
  install_as("bin/tarnprint");
  const fs::path block = fifo("block");
  const std::string source = (env_.tmp() / "a.docx").string();
  test::write_file(source, "BLOCK " + block.string() + "\n");
  bool timer_ran = false;
  // The helper finishes only once this timer has run inside the wait.
  QTimer::singleShot(0, [&] {
    timer_ran = true;
    release(block);
  });
  EXPECT_TRUE(PrintPDFWithHelper(source, (env_.tmp() / "a.pdf").string(), false, false));
  EXPECT_TRUE(timer_ran);
}

TEST_F(launch_test, HungPrintHelperIsEndedAndLeavesNoPartialPdf) {
  install_as("bin/tarnprint");
  CConvRegKey(reg_root::current_user, "Software\\Vantu\\PDF\\V1\\TarnGateWay",
              "print_helper_timeout", DWORD{0})
      .write_number(1);
  const std::string source = (env_.tmp() / "a.docx").string();
  const std::string target = (env_.tmp() / "a.pdf").string();
  test::write_file(source, "HANG\n");
  auto trace = capture();
  EXPECT_FALSE(PrintPDFWithHelper(source, target, false, false));
  const Lines lines = trace.lines();
  ASSERT_EQ(lines.size(), 7u);
  EXPECT_EQ(lines[4], "2 Print helper still running after 1 s, ending it");
  EXPECT_EQ(lines[5], "2 Print failed");
  EXPECT_FALSE(fs::exists(target));
  EXPECT_TRUE(no_children_left());
}

}  // namespace
}  // namespace tarn
