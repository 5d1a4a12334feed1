#include "attach_document.h"

#include <fcntl.h>
#include <stdio.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include <qpdf/ClosedFileInputSource.hh>
#include <qpdf/QPDFExc.hh>
#include <qpdf/QPDFPageDocumentHelper.hh>
#include <qpdf/QPDFPageObjectHelper.hh>
#include <qpdf/QPDFSystemError.hh>
#include <qpdf/QPDFWriter.hh>
#include <qpdf/QUtil.hh>

#include <cerrno>
#include <charconv>
#include <fstream>
#include <set>
#include <stdexcept>

namespace tarn {
namespace {

// Sources past this many are reopened for each read, so that a long series can't run out of
// file descriptors (the qpdf command does the same past 200 files).
constexpr size_t kSourcesKeptOpen = 150;

std::unique_ptr<QPDF> read_pdf(const std::string& path, const std::string& password,
                               bool keep_open) {
  auto pdf = std::make_unique<QPDF>();
  pdf->setSuppressWarnings(true);
  const char* pw = password.empty() ? nullptr : password.c_str();
  if (keep_open) {
    pdf->processFile(path.c_str(), pw);
  } else {
    pdf->processInputSource(std::make_shared<ClosedFileInputSource>(path.c_str()), pw);
  }
  return pdf;
}

// Parses all of `text` as a decimal integer.
bool parse_int(const std::string& text, int* value) {
  const char* end = text.data() + text.size();
  auto [ptr, ec] = std::from_chars(text.data(), end, *value);
  return ec == std::errc() && ptr == end;
}

std::vector<int> page_numbers(const std::string& range, int page_count) {
  if (range.empty()) {
    std::vector<int> all(static_cast<size_t>(page_count));
    for (int i = 0; i < page_count; ++i) all[static_cast<size_t>(i)] = i + 1;
    return all;
  }
  try {
    return QUtil::parse_numrange(range.c_str(), page_count);
  } catch (const std::runtime_error& e) {
    throw std::invalid_argument("page range \"" + range + "\": " + e.what());
  }
}

void add_outline_item(QPDF& pdf, QPDFObjectHandle page, const std::string& title) {
  QPDFObjectHandle root = pdf.getRoot();
  QPDFObjectHandle outlines = root.getKey("/Outlines");
  if (!outlines.isDictionary()) {
    outlines = pdf.makeIndirectObject(QPDFObjectHandle::parse("<< /Type /Outlines /Count 0 >>"));
    root.replaceKey("/Outlines", outlines);
  }
  QPDFObjectHandle item = pdf.makeIndirectObject(QPDFObjectHandle::newDictionary());
  item.replaceKey("/Title", QPDFObjectHandle::newUnicodeString(title));
  item.replaceKey("/Parent", outlines);
  item.replaceKey("/Dest", QPDFObjectHandle::newArray({page, QPDFObjectHandle::newName("/Fit")}));
  QPDFObjectHandle last = outlines.getKey("/Last");
  if (last.isDictionary()) {
    last.replaceKey("/Next", item);
    item.replaceKey("/Prev", last);
  } else {
    outlines.replaceKey("/First", item);
  }
  outlines.replaceKey("/Last", item);
  QPDFObjectHandle count = outlines.getKey("/Count");
  const int visible = count.isInteger() ? count.getIntValueAsInt() : 0;
  outlines.replaceKey("/Count", QPDFObjectHandle::newInteger(visible < 0 ? 1 : visible + 1));
}

// The process's umask, read without changing it (umask(2) can't be read alone).
mode_t current_umask() {
  std::ifstream status("/proc/self/status");
  std::string line;
  while (std::getline(status, line)) {
    if (line.rfind("Umask:", 0) == 0) {
      return static_cast<mode_t>(std::strtoul(line.c_str() + 6, nullptr, 8));
    }
  }
  return 022;
}

// A temporary file that is removed unless release()d.
class scoped_temp_file {
 public:
  explicit scoped_temp_file(std::string path) : path_(std::move(path)) {}
  ~scoped_temp_file() {
    if (!path_.empty()) unlink(path_.c_str());
  }
  scoped_temp_file(const scoped_temp_file&) = delete;
  scoped_temp_file& operator=(const scoped_temp_file&) = delete;
  void release() { path_.clear(); }

 private:
  std::string path_;
};

[[noreturn]] void throw_system(const std::string& what) { throw QPDFSystemError(what, errno); }

}  // namespace

std::unique_ptr<attach_document> attach_document::open(const std::string& path,
                                                       const std::string& password) {
  auto pdf = read_pdf(path, password, true);
  pdf->getAllPages();  // a broken page tree fails here rather than at the save
  return std::unique_ptr<attach_document>(new attach_document(std::move(pdf)));
}

void attach_document::insert(const std::string& path, const insert_options& options) {
  // Everything that can fail comes before the first change to the document.
  int after = -1;
  if (!options.insert_after.empty() && (!parse_int(options.insert_after, &after) || after < 0))
    throw std::invalid_argument("insert after \"" + options.insert_after + "\"");
  int rotation = 0;
  if (!options.rotation.empty() && (!parse_int(options.rotation, &rotation) || rotation % 90))
    throw std::invalid_argument("rotation \"" + options.rotation + "\"");

  QPDFPageDocumentHelper target(*pdf_);
  std::vector<QPDFPageObjectHelper> target_pages = target.getAllPages();
  if (after > static_cast<int>(target_pages.size()))
    throw std::invalid_argument("insert after page " + options.insert_after + " of " +
                                std::to_string(target_pages.size()));

  auto source = read_pdf(path, options.password, sources_.size() < kSourcesKeptOpen);
  QPDFPageDocumentHelper source_doc(*source);
  source_doc.pushInheritedAttributesToPage();
  std::vector<QPDFPageObjectHelper> source_pages = source_doc.getAllPages();
  const std::vector<int> numbers =
      page_numbers(options.page_range, static_cast<int>(source_pages.size()));

  std::vector<QPDFObjectHandle> copies;
  std::set<QPDFObjGen> copied;
  for (int number : numbers) {
    QPDFObjectHandle copy =
        pdf_->copyForeignObject(source_pages.at(static_cast<size_t>(number - 1)).getObjectHandle());
    // A page taken twice must be two pages, each rotated once.
    if (!copied.insert(copy.getObjGen()).second)
      copy = pdf_->makeIndirectObject(copy.shallowCopy());
    copies.push_back(copy);
  }
  if (options.strict && source->anyWarnings())
    throw std::invalid_argument(path + " is damaged and reads only with repairs");

  for (size_t i = 0; i < copies.size(); ++i) {
    if (rotation != 0) QPDFPageObjectHelper(copies[i]).rotatePage(rotation, true);
    if (after < 0) {
      target.addPage(copies[i], false);
    } else if (i > 0) {
      target.addPageAt(copies[i], false, copies[i - 1]);
    } else if (after > 0) {
      target.addPageAt(copies[i], false, target_pages[static_cast<size_t>(after - 1)]);
    } else if (!target_pages.empty()) {
      target.addPageAt(copies[i], true, target_pages.front());
    } else {
      target.addPage(copies[i], false);
    }
  }
  if (!options.outline_title.empty() && !copies.empty())
    add_outline_item(*pdf_, copies.front(), options.outline_title);
  sources_.push_back(std::move(source));
}

void attach_document::save(const std::string& path, bool linearize, bool flush,
                           const std::string& producer) {
  if (!producer.empty()) {
    QPDFObjectHandle trailer = pdf_->getTrailer();
    QPDFObjectHandle info = trailer.getKey("/Info");
    if (!info.isDictionary()) {
      info = pdf_->makeIndirectObject(QPDFObjectHandle::newDictionary());
      trailer.replaceKey("/Info", info);
    }
    info.replaceKey("/Producer", QPDFObjectHandle::newUnicodeString(producer));
  }

  const auto slash = path.rfind('/');
  const std::string dir = slash == std::string::npos ? "." : path.substr(0, slash + 1);
  const std::string base = slash == std::string::npos ? path : path.substr(slash + 1);
  std::string temp_path = (slash == std::string::npos ? "" : dir) + "." + base + ".XXXXXX";
  const int fd = mkostemp(temp_path.data(), O_CLOEXEC);
  if (fd < 0) throw_system("can't create a temporary file beside " + path);
  scoped_temp_file temp(temp_path);
  FILE* file = fdopen(fd, "wb");
  if (file == nullptr) {
    close(fd);
    throw_system("fdopen " + temp_path);
  }
  std::unique_ptr<FILE, int (*)(FILE*)> closer(file, &fclose);

  // The joined file keeps the permissions of the one it replaces.
  struct stat st;
  const mode_t mode =
      stat(path.c_str(), &st) == 0 ? (st.st_mode & 07777) : (0666 & ~current_umask());
  if (fchmod(fd, mode) != 0) throw_system("chmod " + temp_path);

  QPDFWriter writer(*pdf_);
  writer.setOutputFile(temp_path.c_str(), file, false);
  writer.setLinearization(linearize);
  writer.write();
  if (fflush(file) != 0 || (flush && fsync(fd) != 0)) throw_system("write " + temp_path);
  if (fclose(closer.release()) != 0) throw_system("close " + temp_path);
  if (rename(temp_path.c_str(), path.c_str()) != 0) throw_system("rename onto " + path);
  temp.release();
}

}  // namespace tarn
