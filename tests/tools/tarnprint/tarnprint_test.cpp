// tarnprint end to end, on the real LibreOffice, qpdf and poppler-utils. The cases of
// tarnprint_test share one sandbox and its warm office; office_lifecycle_test cases each have a
// sandbox, and so a worker, of their own. Every worker started here is ended here.
#include <fcntl.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <QImage>

#include <cstdlib>
#include <future>
#include <regex>
#include <set>
#include <sstream>

#include "convutils/CConvRegKey.h"
#include "office_client.h"
#include "office_paths.h"
#include "support/conversion.h"
#include "support/run_program.h"
#include "support/test_env.h"

namespace tarn {
namespace {

namespace fs = std::filesystem;
using test::program_result;
using test::run_program;

// Names with blanks, quotes and letters outside ASCII, as users give them.
const std::string kStem = "Bericht \"Q3\" – Grüße";

// Switches in any case, as the callers' platform gives them.
program_result tarnprint(const fs::path& src, const fs::path& dst) {
  return run_program({test::dist_program("tarnprint"), "/P", src, dst, "/NoViewPdf"});
}

size_t pdf_images(const fs::path& pdf) {
  const std::string list = run_program({"/usr/bin/pdfimages", "-list", pdf}).out;
  const auto lines = std::count(list.begin(), list.end(), '\n');
  return lines > 2 ? static_cast<size_t>(lines - 2) : 0;  // two header lines
}

fs::path runtime_dir() {
  std::string err;
  auto paths = office_runtime(&err);
  EXPECT_TRUE(paths) << err;
  return paths ? paths->dir : fs::path();
}

// Pids of the workers started in this sandbox (or with `runtime` as their folder), in order,
// from their log.
std::vector<pid_t> started_workers(const fs::path& runtime = runtime_dir()) {
  std::vector<pid_t> pids;
  const std::string log = test::read_file(runtime / "office.log");
  static const std::regex kStart(R"(tarnoffice (\d+): starting)");
  for (std::sregex_iterator it(log.begin(), log.end(), kStart), end; it != end; ++it)
    pids.push_back(std::stoi((*it)[1]));
  return pids;
}

void set_print_setting(const char* name, DWORD value) {
  CConvRegKey(reg_root::current_user, kPrintSettingsKey, name, DWORD{0}).write_number(value);
}

void write_png(const fs::path& path) {
  QImage image(160, 90, QImage::Format_RGB32);
  image.fill(qRgb(40, 80, 128));
  ASSERT_TRUE(image.save(QString::fromStdString(path.string()), "PNG")) << path;
}

// With a comment: a LibreOffice without its UI definitions loads no such document.
constexpr const char* kFlatText = R"(<?xml version="1.0" encoding="UTF-8"?>
<office:document xmlns:office="urn:oasis:names:tc:opendocument:xmlns:office:1.0" xmlns:text="urn:oasis:names:tc:opendocument:xmlns:text:1.0" xmlns:dc="http://purl.org/dc/elements/1.1/" office:version="1.2" office:mimetype="application/vnd.oasis.opendocument.text">
<office:body><office:text><text:p>Writer Grüße 105<office:annotation><dc:creator>A</dc:creator><text:p>A comment</text:p></office:annotation></text:p></office:text></office:body></office:document>
)";
class tarnprint_test : public ::testing::Test {
 protected:
  static void SetUpTestSuite() {
    env_ = std::make_unique<test::scoped_test_env>();
    test::write_file(in("txt"), "Plain text Grüße 101\n");
    test::write_file(in("csv"), "Name;Amount\nWidget Grüße;102\n");
    test::write_file(in("fodt"), kFlatText);

    // The first run starts the worker, from a process holding a descriptor without CLOEXEC.
    marker_ = env_->root() / "inherited-marker";
    const int marker = ::open(marker_.c_str(), O_CREAT | O_RDWR, 0600);
    ASSERT_GE(marker, 0);
    auto r = tarnprint(in("txt"), env_->root() / "warm-up.pdf");
    ::close(marker);
    ASSERT_EQ(r.exit_code, 0) << r.err;

    office_settings settings = read_office_settings();
    settings.worker_program = test::dist_program("tarnoffice");
    for (const char* format : {"docx", "pdf"}) {
      const auto outcome =
          convert_with_office({in("fodt"), in(format), format, std::nullopt}, settings);
      ASSERT_EQ(outcome.status, office_status::ok) << format << ": " << outcome.message;
    }
    write_png(in("png"));
  }

  static void TearDownTestSuite() {
    std::string err;
    EXPECT_TRUE(stop_office(std::chrono::seconds(10), &err)) << err;
    env_.reset();
  }

  void SetUp() override {
    out_ = env_->root() / "out" / ::testing::UnitTest::GetInstance()->current_test_info()->name();
    fs::create_directories(out_);
  }

  static fs::path in(const std::string& ext) { return env_->root() / "in" / (kStem + "." + ext); }

  static inline std::unique_ptr<test::scoped_test_env> env_;
  static inline fs::path marker_;
  fs::path out_;
};

// Checks the failure contract: the exit code, one line naming `culprit`, and nothing written.
void expect_clean_failure(const program_result& r, int exit_code, const std::string& culprit,
                          const std::string& reason, const fs::path& out) {
  EXPECT_EQ(r.exit_code, exit_code) << r.err;
  EXPECT_EQ(r.err.rfind("tarnprint: ", 0), 0u) << r.err;
  EXPECT_EQ(std::count(r.err.begin(), r.err.end(), '\n'), 1) << r.err;
  EXPECT_NE(r.err.find(culprit), std::string::npos) << r.err;
  EXPECT_NE(r.err.find(reason), std::string::npos) << r.err;
  EXPECT_EQ(test::names_in(out), std::set<std::string>{});
}

// The office formats are compared with soffice's PDFs below; these are the kinds that test lacks,
// most named for another kind, since tarnprint goes by the content.
TEST_F(tarnprint_test, EveryKindBecomesACheckedPdfHoldingItsText) {
  const struct {
    const char* kind;
    const char* named;
    std::vector<std::string> text;  // empty: an image, which has none
  } cases[] = {
      {"csv", "csv", {"Widget Grüße", "102", "Amount"}},
      {"docx", "pdf", {"Writer", "Grüße", "105"}},
      {"pdf", "docx", {"Writer", "Grüße", "105"}},
      {"png", "txt", {}},
  };
  std::set<std::string> written;
  for (const auto& c : cases) {
    SCOPED_TRACE(c.kind);
    const fs::path src = out_.parent_path() / (kStem + " " + c.kind + "." + c.named);
    fs::copy_file(in(c.kind), src);
    const fs::path dst = out_ / ("Ausgabe 'ü' " + src.filename().string() + ".pdf");
    const auto r = tarnprint(src, dst);
    ASSERT_EQ(r.exit_code, 0) << r.err;
    EXPECT_EQ(r.err, "");
    EXPECT_TRUE(test::pdf_is_valid(dst));
    const std::string text = test::pdf_text(dst);
    for (const auto& word : c.text) {
      EXPECT_NE(text.find(word), std::string::npos) << word << " in\n" << text;
    }
    if (c.text.empty()) {
      EXPECT_GE(pdf_images(dst), 1u);
    }
    written.insert(dst.filename());
  }
  EXPECT_EQ(test::names_in(out_), written);  // and no temporary file beside them
}

// What a reader compares between two PDFs of one document: pdfinfo's "Pages:" and "Page size:"
// lines, and the words.
std::pair<std::string, std::multiset<std::string>> layout_of(const fs::path& pdf) {
  std::pair<std::string, std::multiset<std::string>> layout;
  std::istringstream info(run_program({"/usr/bin/pdfinfo", pdf}).out);
  for (std::string line; std::getline(info, line);)
    if (line.starts_with("Pages:") || line.starts_with("Page size:")) layout.first += line + "\n";
  std::istringstream text(test::pdf_text(pdf));
  for (std::string word; text >> word;) layout.second.insert(word);
  return layout;
}

// Each format of the benchmarks' documents makes the PDF that soffice makes of it.
TEST_F(tarnprint_test, PdfMatchesSofficeForEachFormat) {
  const auto made = run_program(
      {std::string(TARN_SOURCE_DIR) + "/bench/office_corpus.sh", "--bench-set", out_ / "docs"}, "",
      std::chrono::minutes(5));
  ASSERT_EQ(made.exit_code, 0) << made.err;
  std::vector<std::string> docs;
  std::istringstream lines(made.out);
  for (std::string line; std::getline(lines, line);) docs.push_back(line);
  ASSERT_EQ(docs.size(), 10u);
  std::vector<std::string> soffice = {"/usr/bin/soffice",
                                      "-env:UserInstallation=" + file_url(out_ / "profile"),
                                      "--headless", "--norestore", "--convert-to", "pdf",
                                      "--outdir", out_ / "soffice"};
  soffice.insert(soffice.end(), docs.begin(), docs.end());
  ASSERT_EQ(run_program(soffice, "", std::chrono::minutes(5)).exit_code, 0);
  for (const fs::path doc : docs) {
    SCOPED_TRACE(doc.filename().string());
    const fs::path ours = out_ / (doc.stem().string() + ".pdf");
    ASSERT_EQ(tarnprint(doc, ours).exit_code, 0);
    const auto theirs = layout_of(out_ / "soffice" / ours.filename());
    ASSERT_FALSE(theirs.second.empty());
    EXPECT_EQ(layout_of(ours), theirs);
  }
  // Each format converts through the hidden load, which takes half the time of the view's.
  EXPECT_EQ(test::read_file(runtime_dir() / "office.log").find("loaded with a view"),
            std::string::npos);
}

// Exit code 1 names the source, 3 the target, 2 the mistake in the command line.
TEST_F(tarnprint_test, FailuresNameTheirCulpritAndWriteNothing) {
  const fs::path dir = out_.parent_path() / "bad sources";
  std::string docx = test::read_file(in("docx"));
  test::write_file(dir / "cut \"short\".docx", docx.substr(0, docx.size() / 2));
  test::write_file(dir / "empty.docx", "");
  test::write_file(dir / "noise.docx", std::string(4096, '\x01'));
  test::write_file(dir / "broken.pdf", "%PDF-1.4\n1 0 obj <</Type /Catalog\nno end\n");
  test::write_file(dir / "caf\xE9 latin-1.txt", "Text whose name isn't UTF-8\n");
  const auto qpdf = run_program({"/usr/bin/qpdf", "--encrypt", "user-pw", "owner-pw", "256", "--",
                                 in("pdf"), dir / "locked.pdf"});
  ASSERT_EQ(qpdf.exit_code, 0) << qpdf.err;
  const std::string src = in("txt"), dst = out_ / "x.pdf";
  const struct {
    std::vector<std::string> args;  // after tarnprint /p, unless exit_code is 2
    int exit_code;
    std::string says;  // besides the quoted source or target; for 2 besides the usage
  } cases[] = {
      {{dir / "cut \"short\".docx", dst}, 1, "the office can't read it"},
      {{dir / "empty.docx", dst}, 1, "is empty"},
      {{dir / "noise.docx", dst}, 1, "is not a PDF, an office document, an image or text"},
      {{dir / "broken.pdf", dst}, 1, "is damaged"},
      {{dir / "locked.pdf", dst}, 1, "protected by a password"},
      {{dir / "missing.odt", dst}, 1, "No such file or directory"},
      {{dir / "caf\xE9 latin-1.txt", dst}, 1, "only UTF-8 file names"},
      {{dir, dst}, 1, "not a file"},
      {{src, out_ / "no such folder" / "x.pdf"}, 3, "No such file or directory"},
      {{src, out_}, 3, "is a folder"},
      {{"/p", src}, 2, "SOURCE and TARGET"},
      {{src, dst, "/noviewpdf"}, 2, "/p is missing"},
      {{"/m", src, dst, "/noviewpdf"}, 2, "/m is not supported"},
      {{"/p", src, dst, "/viewpdf"}, 2, "/viewpdf is not supported"},
      {{"/p", src, dst, "/noviewpdf", "/x"}, 2, "unexpected argument \"/x\""},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.args[0] + " " + c.args[1]);
    std::vector<std::string> args = c.args;
    if (c.exit_code == 2) {
      args.insert(args.begin(), test::dist_program("tarnprint"));
      expect_clean_failure(run_program(args), 2, c.says, "usage: tarnprint /p SOURCE TARGET", out_);
      continue;
    }
    const std::string culprit = "\"" + args[c.exit_code == 1 ? 0 : 1] + "\"";
    expect_clean_failure(tarnprint(args[0], args[1]), c.exit_code, culprit, c.says, out_);
  }
}

TEST_F(tarnprint_test, WorkerIsPrivateAndHoldsNothingOfItsCaller) {
  const auto pids = started_workers();
  ASSERT_EQ(pids.size(), 1u);
  for (const auto& entry : fs::directory_iterator("/proc/" + std::to_string(pids[0]) + "/fd")) {
    std::error_code ec;
    EXPECT_NE(fs::read_symlink(entry.path(), ec), marker_) << entry.path();
  }
  EXPECT_NE(fs::read_symlink("/proc/" + std::to_string(pids[0]) + "/ns/net"),
            fs::read_symlink("/proc/self/ns/net"))
      << "the office has a network namespace of its own";
  struct stat st;
  ASSERT_EQ(::stat(runtime_dir().c_str(), &st), 0);
  EXPECT_EQ(st.st_mode & 0777, 0700u);
  ASSERT_EQ(::stat((runtime_dir() / "office.sock").c_str(), &st), 0);
  EXPECT_EQ(st.st_mode & 077, 0u);
}

class office_lifecycle_test : public test::sandboxed_test {
 protected:
  void SetUp() override {
    src_ = env_.root() / "note.txt";
    test::write_file(src_, "Lifecycle Grüße\n");
    out_ = env_.root() / "out";
    fs::create_directories(out_);
  }
  void TearDown() override {
    std::string err;
    EXPECT_TRUE(stop_office(std::chrono::seconds(10), &err)) << err;
  }
  fs::path src_, out_;
};

TEST_F(office_lifecycle_test, OneWorkerForRunsAtOnceReplacedWhenDoneOrKilled) {
  set_print_setting("OfficeMaxConversions", 2);
  set_print_setting("OfficePoolSize", 1);
  // A temporary folder whose socket path doesn't fit a socket address.
  const fs::path deep = env_.tmp() / std::string(60, 'd') / std::string(60, 'e');
  fs::create_directories(deep);
  fs::permissions(deep, fs::perms::owner_all);
  env_.set_env("TMPDIR", deep.string());
  ASSERT_GT((runtime_dir() / "office.sock").string().size(), sizeof(sockaddr_un::sun_path));
  // Two runs that find no worker at the same moment start one between them.
  auto first = std::async(std::launch::async, [&] { return tarnprint(src_, out_ / "1.pdf"); });
  auto second = std::async(std::launch::async, [&] { return tarnprint(src_, out_ / "2.pdf"); });
  EXPECT_EQ(first.get().exit_code, 0);
  EXPECT_EQ(second.get().exit_code, 0);
  auto pids = started_workers();
  ASSERT_EQ(pids.size(), 1u);
  EXPECT_TRUE(test::process_ended(pids[0])) << "a worker exits after its last document";

  EXPECT_EQ(tarnprint(src_, out_ / "3.pdf").exit_code, 0);
  pids = started_workers();
  ASSERT_EQ(pids.size(), 2u);
  ASSERT_EQ(::kill(pids[1], SIGKILL), 0);
  ASSERT_TRUE(test::process_ended(pids[1]));

  const auto r = tarnprint(src_, out_ / "4.pdf");
  EXPECT_EQ(r.exit_code, 0) << r.err;
  EXPECT_EQ(started_workers().size(), 3u);
  EXPECT_EQ(test::names_in(out_), (std::set<std::string>{"1.pdf", "2.pdf", "3.pdf", "4.pdf"}));
}

// Runs at the same time convert on offices of their own; warming finds them running; an idle
// pool ends entirely.
TEST_F(office_lifecycle_test, PoolSpreadsRunsAtOnceAndEndsWhenIdle) {
  set_print_setting("OfficePoolSize", 2);
  set_print_setting("OfficeIdleSeconds", 3);
  auto first = std::async(std::launch::async, [&] { return tarnprint(src_, out_ / "1.pdf"); });
  auto second = std::async(std::launch::async, [&] { return tarnprint(src_, out_ / "2.pdf"); });
  EXPECT_EQ(first.get().exit_code, 0);
  EXPECT_EQ(second.get().exit_code, 0);
  EXPECT_EQ(run_program({test::dist_program("tarnprint"), "/warm"}).exit_code, 0);
  for (const std::string slot : {"", "office-1"}) {
    SCOPED_TRACE(slot);
    const auto pids = started_workers(runtime_dir() / slot);
    ASSERT_EQ(pids.size(), 1u);
    EXPECT_TRUE(test::process_ended(pids[0])) << "an idle office exits";
  }
  EXPECT_EQ(test::names_in(out_), (std::set<std::string>{"1.pdf", "2.pdf"}));
}

TEST_F(office_lifecycle_test, HungConversionEndsAtTheTimeOutAndTheNextRunStartsAfresh) {
  set_print_setting("ConvertTimeoutSeconds", 1);
  env_.set_env("TARN_OFFICE_TEST_STALL", "1");
  auto r = tarnprint(src_, out_ / "hung.pdf");
  expect_clean_failure(r, 4, "\"" + src_.string() + "\"", "took longer than 1 second", out_);
  EXPECT_FALSE(fs::exists(src_.parent_path() / ".~lock.note.txt#")) << "the office's lock file";
  auto pids = started_workers();
  ASSERT_EQ(pids.size(), 1u);
  EXPECT_TRUE(test::process_ended(pids[0], std::chrono::seconds(0)))
      << "tarnprint kills the hung worker";

  env_.set_env("TARN_OFFICE_TEST_STALL", std::nullopt);
  set_print_setting("ConvertTimeoutSeconds", 120);
  r = tarnprint(src_, out_ / "fine.pdf");
  EXPECT_EQ(r.exit_code, 0) << r.err;
  EXPECT_EQ(started_workers().size(), 2u);
}

// A DOCX whose one picture is linked from the web, not embedded.
const std::vector<std::pair<std::string, std::string>> kRemoteDocxParts = {
    {"[Content_Types].xml",
     R"(<Types xmlns="http://schemas.openxmlformats.org/package/2006/content-types"><Default Extension="rels" ContentType="application/vnd.openxmlformats-package.relationships+xml"/><Override PartName="/word/document.xml" ContentType="application/vnd.openxmlformats-officedocument.wordprocessingml.document.main+xml"/></Types>)"},
    {"_rels/.rels",
     R"(<Relationships xmlns="http://schemas.openxmlformats.org/package/2006/relationships"><Relationship Id="rId1" Type="http://schemas.openxmlformats.org/officeDocument/2006/relationships/officeDocument" Target="word/document.xml"/></Relationships>)"},
    {"word/_rels/document.xml.rels",
     R"(<Relationships xmlns="http://schemas.openxmlformats.org/package/2006/relationships"><Relationship Id="rId7" Type="http://schemas.openxmlformats.org/officeDocument/2006/relationships/image" Target="http://192.0.2.1/x.png" TargetMode="External"/></Relationships>)"},
    {"word/document.xml",
     R"(<w:document xmlns:w="http://schemas.openxmlformats.org/wordprocessingml/2006/main" xmlns:r="http://schemas.openxmlformats.org/officeDocument/2006/relationships" xmlns:wp="http://schemas.openxmlformats.org/drawingml/2006/wordprocessingDrawing" xmlns:a="http://schemas.openxmlformats.org/drawingml/2006/main" xmlns:pic="http://schemas.openxmlformats.org/drawingml/2006/picture"><w:body><w:p><w:r><w:t>Remote 202</w:t></w:r></w:p><w:p><w:r><w:drawing><wp:inline><wp:extent cx="952500" cy="952500"/><wp:docPr id="1" name="Picture 1"/><a:graphic><a:graphicData uri="http://schemas.openxmlformats.org/drawingml/2006/picture"><pic:pic><pic:nvPicPr><pic:cNvPr id="1" name="x.png"/><pic:cNvPicPr/></pic:nvPicPr><pic:blipFill><a:blip r:link="rId7"/><a:stretch><a:fillRect/></a:stretch></pic:blipFill><pic:spPr><a:xfrm><a:off x="0" y="0"/><a:ext cx="952500" cy="952500"/></a:xfrm><a:prstGeom prst="rect"/></pic:spPr></pic:pic></a:graphicData></a:graphic></wp:inline></w:drawing></w:r></w:p></w:body></w:document>)"},
};

// Every connect of tarnprint and of the office it starts is traced; an attempt shows in the
// trace also where the office's network namespace would stop it.
TEST_F(office_lifecycle_test, RemoteContentIsNeverFetched) {
  // Each worker exits after its document, and with it the trace.
  set_print_setting("OfficeMaxConversions", 1);
  // LeakSanitizer can't run under ptrace; in a sanitizer build it would fail every traced run.
  const char* asan = std::getenv("ASAN_OPTIONS");
  env_.set_env("ASAN_OPTIONS", std::string(asan ? asan : "") + ":detect_leaks=0");
  const fs::path html = env_.root() / "remote.html", docx = env_.root() / "remote.docx";
  test::write_file(html, R"(<html><body><p>Remote 201</p><img src="http://192.0.2.1/x.png">)");
  test::write_zip(docx, kRemoteDocxParts);
  const struct {
    fs::path src;
    const char* text;
  } cases[] = {{html, "Remote 201"}, {docx, "Remote 202"}};
  for (const auto& c : cases) {
    SCOPED_TRACE(c.src.filename().string());
    const fs::path trace = env_.root() / (c.src.filename().string() + ".trace");
    const fs::path dst = out_ / (c.src.filename().string() + ".pdf");
    const auto r =
        run_program({"/usr/bin/strace", "-f", "-qq", "--seccomp-bpf", "-e", "trace=connect", "-o",
                     trace, test::dist_program("tarnprint"), "/p", c.src, dst, "/noviewpdf"});
    ASSERT_EQ(r.exit_code, 0) << r.err;
    EXPECT_NE(test::pdf_text(dst).find(c.text), std::string::npos);
    const std::string connects = test::read_file(trace);
    EXPECT_NE(connects.find("connect("), std::string::npos) << "the trace saw nothing";
    EXPECT_EQ(connects.find("192.0.2.1"), std::string::npos) << connects;
  }
}

}  // namespace
}  // namespace tarn
