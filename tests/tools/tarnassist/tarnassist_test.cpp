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
    args.insert(args.begin(), (install_ / "tarnassist").string());
    return test::run_program(args);
  }
  // The list as the gateway writes it; each row's bytes go in as given. `count` may announce
  // more rows than there are.
  fs::path write_list(const std::vector<std::string>& rows, bool delete_copies,
                      const std::string& name = "ss_0a1b2c3d.txt", int count = -1) {
    const size_t announced = count < 0 ? rows.size() : static_cast<size_t>(count);
    std::string text = "[FILES]\r\nCount=" + std::to_string(announced) + "\r\n";
    if (delete_copies) text += "Delete=1\r\n";
    for (size_t i = 0; i < rows.size(); ++i)
      text += std::to_string(i + 1) + "=\"" + rows[i] + "\"\r\n";
    test::write_file(env_.tmp() / name, text);
    return env_.tmp() / name;
  }
  fs::path copy(const std::string& name, const std::string& content) {
    test::write_file(env_.tmp() / name, content);
    return env_.tmp() / name;
  }
  Names output_names() const {
    Names names;
    if (fs::exists(out_))
      for (const auto& entry : fs::directory_iterator(out_))
        names.insert(entry.path().filename().string());
    return names;
  }
  // The progress lines with their timings blanked out.
  static std::vector<std::string> lines(const std::string& out) {
    std::vector<std::string> found;
    std::istringstream in(out);
    const std::regex timing(R"(\(\d+\.\d s\))");
    for (std::string line; std::getline(in, line);)
      found.push_back(std::regex_replace(line, timing, "(T)"));
    return found;
  }

  const fs::path install_ = env_.root() / "inst";
  const fs::path out_ = env_.home() / "Documents" / "Tarn PDF";
};

TEST_F(tarnassist_test, ConvertsEachFileAndCleansUpTheHandOver) {
  const fs::path docx = copy("contract.docx", "text\n");
  test::write_xps(env_.tmp() / "Bericht \xc3\xa9.xps", {"Hello from XPS"});
  const fs::path beyond_latin1 = copy("日本 \"q\".txt", "text\n");
  const fs::path outside = env_.root() / "keep.docx";
  test::write_file(outside, "text\n");
  test::write_file(out_ / "contract.pdf", "an older PDF");
  // The gateway writes Latin-1; a name it can't write that way arrives as UTF-8.
  const fs::path list = write_list({docx.string(), env_.tmp().string() + "/Bericht \xe9.xps",
                                    beyond_latin1.string(), outside.string()},
                                   true);

  auto r = assist({list.string()});
  EXPECT_EQ(r.exit_code, 0) << r.out << r.err;
  EXPECT_EQ(lines(r.out),
            (std::vector<std::string>{
                "[1/4] contract.docx -> contract (2).pdf (T)",
                "[2/4] Bericht é.xps -> Bericht é.pdf (T)",
                "[3/4] 日本 \"q\".txt -> 日本 \"q\".pdf (T)",
                "[4/4] keep.docx -> keep.pdf (T), copy kept (not in the temporary folder)",
                "Done: 4 of 4 converted, in " + out_.string() + " (T)"}));
  EXPECT_EQ(output_names(), (Names{"contract.pdf", "contract (2).pdf", "Bericht é.pdf",
                                   "日本 \"q\".pdf", "keep.pdf"}));
  EXPECT_EQ(test::read_file(out_ / "contract.pdf"), "an older PDF");
  EXPECT_NE(test::pdf_text(out_ / "Bericht é.pdf").find("Hello from XPS"), std::string::npos);
  // Copies and list are gone; the file outside the temporary folder stays.
  EXPECT_TRUE(fs::is_empty(env_.tmp()));
  EXPECT_TRUE(fs::exists(outside));
}

TEST_F(tarnassist_test, FailedFilesStayListedForARetry) {
  const fs::path ok = copy("ok.docx", "text\n");
  const fs::path bad = copy("bad.docx", "FAIL\n");
  const fs::path corrupt = copy("corrupt.xps", std::string(2000, 'z'));
  // Count=6 announces a sixth row that the list lacks.
  const fs::path list = write_list(
      {ok.string(), bad.string(), corrupt.string(), "/nonexistent/missing.docx", ""}, true,
      "ss_0a1b2c3d.txt", 6);

  auto r = assist({list.string()});
  EXPECT_EQ(r.exit_code, 1);
  EXPECT_EQ(lines(r.out),
            (std::vector<std::string>{
                "[1/6] ok.docx -> ok.pdf (T)",
                "[2/6] bad.docx: failed: tarnprint exited with 2: tarnprint: can't convert " +
                    bad.string() + ": not a document",
                "[3/6] corrupt.xps: failed: not a readable XPS document",
                "[4/6] missing.docx: failed: can't read it: No such file or directory",
                "[5/6] row 5: failed: no file (the gateway could not fetch this document)",
                "[6/6] row 6: failed: missing from the list",
                "Done: 1 of 6 converted, 5 failed, in " + out_.string() + " (T)",
                "The 2 failed file(s) stay listed in " + list.string() +
                    "; run tarnassist on it again to retry."}));
  EXPECT_EQ(output_names(), Names{"ok.pdf"});
  EXPECT_FALSE(fs::exists(ok));
  EXPECT_EQ(test::read_file(list), "[FILES]\r\nCount=2\r\nDelete=1\r\n1=\"" + bad.string() +
                                       "\"\r\n2=\"" + corrupt.string() + "\"\r\n");

  test::write_file(bad, "text\n");
  test::write_xps(corrupt, {"repaired"});
  r = assist({list.string()});
  EXPECT_EQ(r.exit_code, 0) << r.out;
  EXPECT_EQ(output_names(), (Names{"ok.pdf", "bad.pdf", "corrupt.pdf"}));
  EXPECT_TRUE(fs::is_empty(env_.tmp()));
}

TEST_F(tarnassist_test, WithoutDeleteNothingIsTouchedAndRunsAtOnceNeverShareAName) {
  // A documents folder of the user's choosing, and a list path with a blank passed unquoted.
  test::write_file(env_.home() / ".config/user-dirs.dirs", "XDG_DOCUMENTS_DIR=\"$HOME/Dokumente\"\n");
  const fs::path out = env_.home() / "Dokumente" / "Tarn PDF";
  const fs::path source = copy("a.docx", "text\n");
  const fs::path list = write_list({source.string()}, false, "my list.txt");
  const std::string list_bytes = test::read_file(list);

  std::vector<std::unique_ptr<child_process>> runs;
  for (int i = 0; i < 6; ++i) {
    runs.push_back(child_process::start({(install_ / "tarnassist").string(),
                                         env_.tmp().string() + "/my", "list.txt"}));
    ASSERT_TRUE(runs.back());
  }
  for (auto& run : runs) EXPECT_EQ(run->wait(), 0);
  Names names;
  for (const auto& entry : fs::directory_iterator(out)) names.insert(entry.path().filename());
  EXPECT_EQ(names, (Names{"a.pdf", "a (2).pdf", "a (3).pdf", "a (4).pdf", "a (5).pdf",
                          "a (6).pdf"}));
  EXPECT_EQ(test::read_file(list), list_bytes);
  EXPECT_TRUE(fs::exists(source));
}

TEST_F(tarnassist_test, MissingLibraryOrHungHelperFailsOnlyItsFile) {
  fs::remove(install_ / "tarnimage.so");
  CConvRegKey(reg_root::current_user, "Software\\Vantu\\PDF\\V1\\TarnGateWay",
              "print_helper_timeout", DWORD{0})
      .write_number(1);
  test::write_xps(env_.tmp() / "x.xps", {"x"});
  const fs::path list = write_list({(env_.tmp() / "x.xps").string(),
                                    copy("hang.docx", "HANG\n").string(),
                                    copy("ok.docx", "text\n").string()},
                                   true);
  auto r = assist({list.string()});
  EXPECT_EQ(r.exit_code, 1);
  const auto found = lines(r.out);
  ASSERT_EQ(found.size(), 5u) << r.out;
  EXPECT_EQ(found[0], "[1/3] x.xps: failed: can't load tarnimage.so: not found");
  EXPECT_EQ(found[1], "[2/3] hang.docx: failed: tarnprint still running after 1 s; ended");
  EXPECT_EQ(found[2], "[3/3] ok.docx -> ok.pdf (T)");
  EXPECT_EQ(output_names(), Names{"ok.pdf"});
}

TEST_F(tarnassist_test, InterruptedRunLeavesNoPartialPdfAndKeepsTheList) {
  const fs::path block = env_.tmp() / "block";
  ASSERT_EQ(mkfifo(block.c_str(), 0600), 0);
  const fs::path list = write_list(
      {copy("a.docx", "BLOCK " + block.string() + "\n").string(), copy("b.docx", "text\n").string()},
      true);
  const std::string list_bytes = test::read_file(list);
  const fs::path out_file = env_.root() / "stdout";
  int out_fd = open(out_file.c_str(), O_CREAT | O_WRONLY | O_CLOEXEC, 0600);
  auto run = child_process::start({(install_ / "tarnassist").string(), list.string()},
                                  {.stdout_fd = out_fd});
  close(out_fd);
  ASSERT_TRUE(run);
  // Opening the FIFO returns once the helper is waiting on it: the conversion is under way.
  int writer = open(block.c_str(), O_WRONLY | O_CLOEXEC);
  run->signal(SIGTERM);
  EXPECT_EQ(run->wait(), 130);
  close(writer);
  EXPECT_EQ(lines(test::read_file(out_file)),
            (std::vector<std::string>{"[1/2] a.docx: failed: interrupted",
                                      "Interrupted: 0 of 2 converted, 1 failed, 1 not tried, in " +
                                          out_.string() + " (T)"}));
  EXPECT_EQ(output_names(), Names{});
  EXPECT_EQ(test::read_file(list), list_bytes);
}

TEST_F(tarnassist_test, BadUsageOrListIsRefusedWithTheCause) {
  test::write_file(env_.tmp() / "no section.txt", "Count=1\r\n");
  const struct {
    std::vector<std::string> args;
    std::string err;
  } cases[] = {
      {{}, "tarnassist: LISTFILE is required\n"},
      {{"/nonexistent/ss_1.txt"},
       "tarnassist: can't read /nonexistent/ss_1.txt: No such file or directory\n"},
      {{(env_.tmp() / "no section.txt").string()},
       "tarnassist: " + (env_.tmp() / "no section.txt").string() + ": no [FILES] section\n"},
      {{"/nonexistent/a", "b"},
       "tarnassist: expected one list file, got 2 arguments (and no file \"/nonexistent/a b\")\n"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.err);
    auto r = assist(c.args);
    EXPECT_EQ(r.exit_code, 2);
    EXPECT_EQ(r.err.substr(0, c.err.size()), c.err);
  }
  auto help = assist({"--help"});
  EXPECT_EQ(help.exit_code, 0);
  EXPECT_NE(help.out.find("Delete=1"), std::string::npos);
  EXPECT_EQ(output_names(), Names{});
}

}  // namespace
}  // namespace tarn
