// What a command's end says to the person at the machine: why a document was left out, in
// plain words, and the one notification that sums up a CREATE_PDF. The tasks record the
// reasons; the words live here alone.
#pragma once

#include <chrono>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "convutils/ConvUtils.h"
#include "notify/desktop_notifier.h"

namespace tarn {

enum class left_out_reason {
  not_in_store,   // the store knows no such document
  not_fetched,    // the store didn't hand over its content
  unreadable,     // damaged, empty, protected or of a kind that can't be converted
  timed_out,      // after `limit`
  cannot_write,   // the PDF couldn't be written
  office_failed,  // the office program couldn't be started or ended during the conversion
  not_converted,  // any other failed conversion
  not_stored,     // the store refused the PDF
};

struct left_out_document {
  std::string name;  // the file name, else the reference
  left_out_reason reason = left_out_reason::not_converted;
  std::chrono::seconds limit{0};  // for timed_out
};

// "took longer than 120 s", "damaged or unreadable", ...
std::string plain_words(const left_out_document& doc);

// The reason of a print helper run that made no PDF.
left_out_reason print_failure_reason(const print_run& run);

struct stored_pdf {
  std::string pdf_name;
  int32_t mode = 0;  // save_mode: 0 new, 1 new related to the source, 2 new version
  std::string source_number;
  size_t joined = 1;  // documents in it
};

struct create_pdf_outcome {
  std::vector<stored_pdf> stored;
  std::vector<left_out_document> left_out;
};

// Nothing when the command stored nothing and left nothing out: it was cancelled or had
// nothing to do.
std::optional<notification> create_pdf_notification(const create_pdf_outcome& outcome);

// "2 documents couldn't be converted: a.xlsx (took longer than 120 s), b.tif (damaged or
// unreadable)"; at most a handful of names, then how many more.
std::string left_out_text(const std::vector<left_out_document>& left_out);

}  // namespace tarn
