#include <fcntl.h>
#include <signal.h>
#include <sys/stat.h>

#include <regex>
#include <set>
#include <sstream>

#include "convutils/CConvRegKey.h"
#include "platform/child_process.h"
#include "platform/self_exe.h"
#include "support/conversion.h"
#include "support/run_program.h"
#include "support/test_env.h"

namespace tarn {
namespace {

namespace fs = std::filesystem;
using Names = std::set<std::string>;
using Lines = std::vector<std::string>;

// An install folder of its own: copies of the built tarnassist and tarnimage.so, and this test
// binary as tarnprint (support/conversion.h says what it does with which source).
class tarnassist_test : public test::sandboxed_test {
 protected:
  void SetUp() override {
    fs::create_directories(install_);
    fs::copy_file(test::dist_program("tarnassist"), install_ / "tarnassist");
    fs::copy_file(test::dist_program("tarnimage.so"), install_ / "tarnimage.so");
    fs::create_symlink(self_exe_path(), install_ / "tarnprint");
  }
  test::program_result assist(std::vector<std::string> args) {
    args.insert(args.begin(), assistant_);
    return test::run_program(args);
  }
  // The list as the gateway writes it, rows as given; Count may announce more rows than there are.
  void write_list(const Lines& rows, size_t count = 0) {
    std::string text = "[FILES]\r\nCount=" + std::to_string(std::max(count, rows.size())) + "\r\n";
    text += "Delete=1\r\n";
    for (size_t i = 0; i < rows.size(); ++i)
      text += std::to_string(i + 1) + "=\"" + rows[i] + "\"\r\n";
    test::write_file(list_, text);
  }
  std::string copy(const std::string& name, const std::string& content) {
    test::write_file(env_.tmp() / name, content);
    return (env_.tmp() / name).string();
  }
  // The progress lines with their timings blanked out.
  static Lines lines(const std::string& out) {
    Lines found;
    std::istringstream in(out);
    for (std::string line; std::getline(in, line);)
      found.push_back(std::regex_replace(line, std::regex(R"(\(\d+\.\d s\))"), "(T)"));
    return found;
  }

  const fs::path install_ = env_.root() / "inst";
  const std::string assistant_ = (install_ / "tarnassist").string();
  const fs::path list_ = env_.tmp() / "ss_0a1b2c3d.txt";
  const fs::path out_ = env_.home() / "Documents" / "Tarn PDF";
};

TEST_F(tarnassist_test, ConvertsEachFileAndCleansUpTheHandOver) {
  test::write_xps(env_.tmp() / "Bericht \xc3\xa9.xps", {"Hello from XPS"});
  const fs::path outside = env_.root() / "keep.docx";
  test::write_file(outside, "text\n");
  test::write_file(out_ / "contract.pdf", "an older PDF");
  // The gateway writes Latin-1; a name it can't write that way arrives as UTF-8.
  write_list({copy("contract.docx", "text\n"), env_.tmp().string() + "/Bericht \xe9.xps",
              copy("日本 \"q\".txt", "text\n"), outside.string()});

  auto r = assist({list_.string()});
  EXPECT_EQ(r.exit_code, 0) << r.out << r.err;
  EXPECT_EQ(lines(r.out),
            (Lines{"[1/4] contract.docx -> contract (2).pdf (T)",
                   "[2/4] Bericht é.xps -> Bericht é.pdf (T)",
                   "[3/4] 日本 \"q\".txt -> 日本 \"q\".pdf (T)",
                   "[4/4] keep.docx -> keep.pdf (T), copy kept (not in the temporary folder)",
                   "Done: 4 of 4 converted, in " + out_.string() + " (T)"}));
  EXPECT_EQ(test::names_in(out_), (Names{"contract.pdf", "contract (2).pdf", "Bericht é.pdf",
                                         "日本 \"q\".pdf", "keep.pdf"}));
  EXPECT_EQ(test::read_file(out_ / "contract.pdf"), "an older PDF");
  EXPECT_EQ(test::pdf_text(out_ / "Bericht é.pdf"), "Hello from XPS\n\n\f");
  // Copies and list are gone; the file outside the temporary folder stays.
  EXPECT_TRUE(fs::is_empty(env_.tmp()));
  EXPECT_TRUE(fs::exists(outside));
}

// Failures are the stand-in's job; the real helper shows that both agree on its command line.
TEST_F(tarnassist_test, RealHelperConvertsADocument) {
  fs::remove(install_ / "tarnprint");
  fs::create_symlink(test::dist_program("tarnprint"), install_ / "tarnprint");
  write_list({copy("Notiz \"1\" é.txt", "Grüße aus der Notiz\n")});
  auto r = assist({list_.string()});
  test::end_office_worker(env_.tmp());
  EXPECT_EQ(r.exit_code, 0) << r.out << r.err;
  EXPECT_EQ(lines(r.out), (Lines{"[1/1] Notiz \"1\" é.txt -> Notiz \"1\" é.pdf (T)",
                                 "Done: 1 of 1 converted, in " + out_.string() + " (T)"}));
  EXPECT_EQ(test::pdf_text(out_ / "Notiz \"1\" é.pdf"), "Grüße aus der Notiz\n\n\f");
}

TEST_F(tarnassist_test, FailedFilesStayListedForARetry) {
  CConvRegKey(reg_root::current_user, "Software\\Vantu\\PDF\\V1\\TarnGateWay",
              "print_helper_timeout", DWORD{0})
      .write_number(1);
  const std::string bad = copy("bad \xc3\xa9.docx", "FAIL\n");
  const std::string corrupt = copy("corrupt.xps", std::string(2000, 'z'));
  const std::string hang = copy("hang.docx", "HANG\n");
  write_list({copy("ok.docx", "text\n"), env_.tmp().string() + "/bad \xe9.docx", corrupt, hang,
              "/nonexistent/missing.docx", ""},
             7);

  auto r = assist({list_.string()});
  EXPECT_EQ(r.exit_code, 1);
  EXPECT_EQ(lines(r.out),
            (Lines{"[1/7] ok.docx -> ok.pdf (T)",
                   "[2/7] bad é.docx: failed: tarnprint exited with 2: tarnprint: can't convert " +
                       bad + ": not a document",
                   "[3/7] corrupt.xps: failed: not a readable XPS document",
                   "[4/7] hang.docx: failed: tarnprint still running after 1 s; ended",
                   "[5/7] missing.docx: failed: can't read it: No such file or directory",
                   "[6/7] row 6: failed: no file (the gateway could not fetch this document)",
                   "[7/7] row 7: failed: missing from the list",
                   "Done: 1 of 7 converted, 6 failed, in " + out_.string() + " (T)",
                   "The 3 failed file(s) stay listed in " + list_.string() +
                       "; run tarnassist on it again to retry."}));
  EXPECT_EQ(test::names_in(out_), Names{"ok.pdf"});
  EXPECT_EQ(test::read_file(list_), "[FILES]\r\nCount=3\r\nDelete=1\r\n1=\"" + env_.tmp().string() +
                                        "/bad \xe9.docx\"\r\n2=\"" + corrupt + "\"\r\n3=\"" + hang +
                                        "\"\r\n");

  test::write_file(bad, "text\n");
  test::write_xps(corrupt, {"repaired"});
  test::write_file(hang, "text\n");
  r = assist({list_.string()});
  EXPECT_EQ(r.exit_code, 0) << r.out;
  EXPECT_EQ(test::names_in(out_), (Names{"ok.pdf", "bad é.pdf", "corrupt.pdf", "hang.pdf"}));
  EXPECT_TRUE(fs::is_empty(env_.tmp()));
}

TEST_F(tarnassist_test, WithoutDeleteNothingIsTouchedAndRunsAtOnceNeverShareAName) {
  test::write_file(env_.home() / ".config/user-dirs.dirs",
                   "XDG_DOCUMENTS_DIR=\"$HOME/Dokumente\"\n");
  const std::string source = copy("a.docx", "text\n");
  test::write_file(env_.tmp() / "my list.txt", "[FILES]\r\nCount=1\r\n1=\"" + source + "\"\r\n");
  std::vector<std::unique_ptr<child_process>> runs;
  for (int i = 0; i < 6; ++i) {
    // The list's path arrives unquoted, so a blank splits it into words.
    runs.push_back(child_process::start({assistant_, env_.tmp().string() + "/my", "list.txt"}));
    ASSERT_TRUE(runs.back());
  }
  for (auto& run : runs) EXPECT_EQ(run->wait(), 0);
  EXPECT_EQ(test::names_in(env_.home() / "Dokumente" / "Tarn PDF"),
            (Names{"a.pdf", "a (2).pdf", "a (3).pdf", "a (4).pdf", "a (5).pdf", "a (6).pdf"}));
  EXPECT_EQ(test::names_in(env_.tmp()), (Names{"a.docx", "my list.txt"}));
}

TEST_F(tarnassist_test, InterruptedRunLeavesNoPartialPdfAndKeepsTheList) {
  const fs::path block = env_.tmp() / "block";
  ASSERT_EQ(mkfifo(block.c_str(), 0600), 0);
  write_list({copy("a.docx", "BLOCK " + block.string() + "\n"), copy("b.docx", "text\n")});
  const std::string list_bytes = test::read_file(list_);
  const fs::path out_file = env_.root() / "stdout";
  int out_fd = open(out_file.c_str(), O_CREAT | O_WRONLY | O_CLOEXEC, 0600);
  auto run = child_process::start({assistant_, list_.string()}, {.stdout_fd = out_fd});
  close(out_fd);
  // Opening the FIFO returns once the helper waits on it: the conversion is under way.
  int writer = open(block.c_str(), O_WRONLY | O_CLOEXEC);
  run->signal(SIGTERM);
  EXPECT_EQ(run->wait(), 130);
  close(writer);
  EXPECT_EQ(lines(test::read_file(out_file)),
            (Lines{"[1/2] a.docx: failed: interrupted",
                   "Interrupted: 0 of 2 converted, 1 failed, 1 not tried, in " + out_.string() +
                       " (T)"}));
  EXPECT_EQ(test::names_in(out_), Names{});
  EXPECT_EQ(test::read_file(list_), list_bytes);
}

TEST_F(tarnassist_test, BadUsageOrListIsRefusedWithTheCause) {
  const std::string list = list_.string();
  const struct {
    std::vector<std::string> args;
    std::string list_text;
    std::string err;
  } cases[] = {
      {{}, "", "LISTFILE is required\n"},
      {{"/no/ss_1.txt"}, "", "can't read /no/ss_1.txt: No such file or directory"},
      {{"/no/a", "b"}, "", "expected one list file, got 2 arguments (and no file \"/no/a b\")"},
      {{list}, "Count=1\r\n", list + ": no [FILES] section"},
      {{list}, "[FILES]\r\n1=\"/a\"\r\n", list + ": no Count= line in [FILES]"},
      {{list}, "[FILES]\r\nCount=2x\r\n", list + ": line 2: Count must be a number"},
      {{list}, "[FILES]\r\nCount=1\r\n/a\r\n", list + ": line 3: expected KEY=VALUE, got \"/a\""},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.err);
    test::write_file(list_, c.list_text);
    auto r = assist(c.args);
    EXPECT_EQ(r.exit_code, 2);
    EXPECT_EQ(r.err.rfind("tarnassist: " + c.err, 0), 0u) << r.err;
  }
  EXPECT_FALSE(fs::exists(out_));
}

}  // namespace
}  // namespace tarn

