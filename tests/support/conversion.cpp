#include "support/conversion.h"

#include <archive.h>
#include <archive_entry.h>
#include <poll.h>
#include <signal.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <fstream>
#include <limits>
#include <stdexcept>

#include "support/run_program.h"
#include "support/test_env.h"

namespace tarn::test {
namespace {

constexpr const char* kFont = "/usr/share/fonts/truetype/dejavu/DejaVuSans.ttf";

std::string xml_escape(const std::string& text) {
  std::string out;
  for (char c : text)
    out += c == '&' ? "&amp;" : c == '<' ? "&lt;" : c == '"' ? "&quot;" : std::string(1, c);
  return out;
}

void record_args(int argc, char** argv) {
  if (const char* record = std::getenv("TARN_FAKE_RECORD")) {
    std::ofstream out(record);
    for (int i = 1; i < argc; ++i) out << argv[i] << "\n";
  }
}

void read_fifo_to_end(const std::string& fifo) {
  std::ifstream(fifo).ignore(std::numeric_limits<std::streamsize>::max());
}

int play_tarnprint(int argc, char** argv) {
  if (argc != 5) return 64;
  std::string first;
  std::getline(std::ifstream(argv[2]), first);
  if (first == "FAIL") {
    std::fprintf(stderr, "tarnprint: can't convert %s: not a document\n", argv[2]);
    return 2;
  }
  if (first == "SILENT") return 0;
  if (first.rfind("BLOCK ", 0) == 0) read_fifo_to_end(first.substr(6));
  std::ofstream(argv[3]) << "%PDF-1.4\n% printed from " << argv[2] << "\n";
  while (first == "HANG") pause();
  return 0;
}

}  // namespace

void write_zip(const std::filesystem::path& file,
               const std::vector<std::pair<std::string, std::string>>& entries) {
  archive* zip = archive_write_new();
  archive_write_set_format_zip(zip);
  if (archive_write_open_filename(zip, file.c_str()) != ARCHIVE_OK)
    throw std::runtime_error("can't write " + file.string());
  for (const auto& [name, data] : entries) {
    archive_entry* entry = archive_entry_new();
    archive_entry_set_pathname(entry, name.c_str());
    archive_entry_set_size(entry, static_cast<la_int64_t>(data.size()));
    archive_entry_set_filetype(entry, AE_IFREG);
    archive_entry_set_perm(entry, 0644);
    archive_write_header(zip, entry);
    archive_write_data(zip, data.data(), data.size());
    archive_entry_free(entry);
  }
  archive_write_close(zip);
  archive_write_free(zip);
}

void write_xps(const std::filesystem::path& file, const std::vector<std::string>& page_texts,
               bool oxps) {
  const std::string font = read_file(kFont);
  if (font.empty()) throw std::runtime_error(std::string("missing font ") + kFont);
  const std::string ns =
      oxps ? "http://schemas.openxps.org/oxps/v1.0" : "http://schemas.microsoft.com/xps/2005/06";
  std::vector<std::pair<std::string, std::string>> entries = {
      {"_rels/.rels",
       "<Relationships xmlns=\"http://schemas.openxmlformats.org/package/2006/relationships\">"
       "<Relationship Type=\"" +
           ns +
           "/fixedrepresentation\" "
           "Target=\"/FixedDocumentSequence.fdseq\" Id=\"R0\"/></Relationships>"},
      {"FixedDocumentSequence.fdseq",
       "<FixedDocumentSequence xmlns=\"" + ns +
           "\"><DocumentReference Source=\"/Documents/1/FixedDocument.fdoc\"/>"
           "</FixedDocumentSequence>"},
  };
  std::string document = "<FixedDocument xmlns=\"" + ns + "\">";
  for (size_t i = 0; i < page_texts.size(); ++i) {
    const std::string page = "Documents/1/Pages/" + std::to_string(i + 1) + ".fpage";
    document += "<PageContent Source=\"/" + page + "\"/>";
    entries.push_back(
        {page, "<FixedPage xmlns=\"" + ns +
                   "\" Width=\"816\" Height=\"1056\" xml:lang=\"en\">"
                   "<Glyphs Fill=\"#ff000000\" FontUri=\"/Resources/font.ttf\" "
                   "FontRenderingEmSize=\"24\" OriginX=\"96\" OriginY=\"96\" UnicodeString=\"" +
                   xml_escape(page_texts[i]) + "\"/></FixedPage>"});
  }
  entries.push_back({"Documents/1/FixedDocument.fdoc", document + "</FixedDocument>"});
  // Last: libgxps reads the package as a stream, so each part it looks up after the font
  // would mean reading through the whole font again.
  entries.push_back({"Resources/font.ttf", font});
  write_zip(file, entries);
}

bool pdf_is_valid(const std::filesystem::path& pdf) {
  return run_program({"/usr/bin/qpdf", "--check", pdf.string()}).exit_code == 0;
}

std::string pdf_text(const std::filesystem::path& pdf) {
  return run_program({"/usr/bin/pdftotext", "-q", pdf.string(), "-"}).out;
}

bool process_ended(pid_t pid, std::chrono::milliseconds limit) {
  const int pidfd = static_cast<int>(::syscall(SYS_pidfd_open, pid, 0));
  if (pidfd < 0) return errno == ESRCH;
  pollfd pfd = {pidfd, POLLIN, 0};
  const bool ended = ::poll(&pfd, 1, static_cast<int>(limit.count())) == 1;
  ::close(pidfd);
  return ended;
}

void end_office_worker(const std::filesystem::path& tmp) {
  // The pool's first office lives in the folder itself, the others in office-N below it.
  for (const std::string slot : {"", "office-1", "office-2", "office-3"}) {
    const pid_t pid = std::atoi(read_file(tmp / "tarnoffice" / slot / "office.pid").c_str());
    if (pid > 0 && ::kill(pid, SIGTERM) == 0 && !process_ended(pid, std::chrono::seconds(30)))
      ::kill(pid, SIGKILL);
  }
}

bool play_helper_program(int argc, char** argv, int* exit_code) {
  const std::string name = std::filesystem::path(argv[0]).filename().string();
  if (name != "tarnprint" && name != "tarnassist") return false;
  // Starting the offices asks nothing of the stand-in.
  if (name == "tarnprint" && argc == 2 && std::string(argv[1]) == "/warm") {
    *exit_code = 0;
    return true;
  }
  record_args(argc, argv);
  const char* block = std::getenv("TARN_FAKE_BLOCK");
  if (name == "tarnassist" && block != nullptr) read_fifo_to_end(block);
  *exit_code = name == "tarnprint" ? play_tarnprint(argc, argv) : 0;
  return true;
}

}  // namespace tarn::test
