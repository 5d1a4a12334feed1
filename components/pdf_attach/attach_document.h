// One PDF document being joined on qpdf: the opened file plus the files whose pages it took.
// qpdf copies page contents only when the document is written, so every source file stays
// open (or, past a number of them, reopened on demand) until the document goes.
// Methods throw qpdf's exceptions for unreadable files and std::invalid_argument for bad
// options; a method that throws leaves the document as it was.
#pragma once

#include <qpdf/QPDF.hh>

#include <memory>
#include <string>
#include <vector>

namespace tarn {

struct insert_options {
  std::string password;
  std::string page_range;     // qpdf's range syntax; "" for all pages
  std::string insert_after;   // page number, "0" in front; "" at the end
  std::string rotation;       // degrees clockwise, a multiple of 90; "" unchanged
  std::string outline_title;  // "" for no bookmark
  bool strict = false;        // refuse a file that reads only with repairs
};

class attach_document {
 public:
  static std::unique_ptr<attach_document> open(const std::string& path,
                                               const std::string& password);
  attach_document(const attach_document&) = delete;
  attach_document& operator=(const attach_document&) = delete;

  void insert(const std::string& path, const insert_options& options);

  // Writes to a temporary file beside `path` (synced to disk when `flush`), which then
  // replaces `path`, keeping its permissions. On failure `path` is untouched and no temporary
  // file is left. A non-empty `producer` goes into the document information.
  void save(const std::string& path, bool linearize, bool flush, const std::string& producer);

 private:
  explicit attach_document(std::unique_ptr<QPDF> pdf) : pdf_(std::move(pdf)) {}

  // Sources must outlive pdf_'s writes: pdf_ is declared last so it goes first.
  std::vector<std::unique_ptr<QPDF>> sources_;
  std::unique_ptr<QPDF> pdf_;
};

}  // namespace tarn
