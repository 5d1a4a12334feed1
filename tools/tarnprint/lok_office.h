// The office loaded into this process through LibreOfficeKit. One document at a time, from the
// thread that started it. The office is never torn down: destroying it may corrupt the heap
// after all output is written, so the process ends with _exit instead.
#pragma once

#include <filesystem>
#include <optional>
#include <string>

#include "source_kind.h"

namespace lok {
class Office;
}

namespace tarn {

class lok_office {
 public:
  lok_office() = default;
  lok_office(const lok_office&) = delete;
  lok_office& operator=(const lok_office&) = delete;

  // Loads the office of `program_dir` with its user profile in `profile` (made when missing).
  // False with *err when it can't.
  bool start(const std::filesystem::path& program_dir, const std::filesystem::path& profile,
             std::string* err);

  // Loads `src` and saves it to `dst` as `format` (pdf, docx, xlsx, pptx, odt, ...). A CSV
  // source is read through Calc's text import with `csv`, and can only become a PDF. False with
  // *err when the office can't read or save the document; `dst` may then hold part of a file.
  bool convert(const std::filesystem::path& src, const std::filesystem::path& dst,
               const std::string& format, const std::optional<csv_layout>& csv, std::string* err);

  // Whether the last convert() of a document to PDF, not CSV, needed the view's load: the hidden
  // load failed on it, and the conversion took about twice as long.
  bool viewed_pdf() const { return viewed_; }

  // A PDF's document stays open after convert(), so that the caller can hand the PDF on first;
  // this closes it. The next convert() closes it too.
  void close_document();

  // For tests of the time-out: from now on every document hangs, as the office does on a
  // document it can't lay out.
  void stall() { stall_ = true; }

 private:
  bool convert_csv(const std::filesystem::path& src, const std::filesystem::path& dst,
                   const csv_layout& csv, std::string* err);
  bool use_system_locale(std::string* err);
  std::string last_error();

  lok::Office* office_ = nullptr;  // lives until the process ends; see above
  bool stall_ = false;
  bool viewed_ = false;
};

}  // namespace tarn
