#include "notify/outcome_text.h"

namespace tarn {
namespace {

// A notification is a glance, not a report: more names than these go into a count.
constexpr size_t kMaxNames = 5;

std::string how_stored_one(const stored_pdf& pdf) {
  switch (pdf.mode) {
    case 1:
      return "as a new document related to " + pdf.source_number;
    case 2:
      return "as a new version of " + pdf.source_number;
    default:
      return "as a new document";
  }
}

std::string how_stored_many(int32_t mode) {
  switch (mode) {
    case 1:
      return "as new documents related to their sources";
    case 2:
      return "as new versions of their documents";
    default:
      return "as new documents";
  }
}

}  // namespace

std::string plain_words(const left_out_document& doc) {
  switch (doc.reason) {
    case left_out_reason::not_in_store:
      return "not in the store";
    case left_out_reason::not_fetched:
      return "couldn't be fetched from the store";
    case left_out_reason::unreadable:
      return "damaged or unreadable";
    case left_out_reason::timed_out:
      return "took longer than " + std::to_string(doc.limit.count()) + " s";
    case left_out_reason::cannot_write:
      return "the PDF couldn't be written";
    case left_out_reason::office_failed:
      return "the office program failed";
    case left_out_reason::not_stored:
      return "the store refused the PDF";
    case left_out_reason::not_converted:
      break;
  }
  return "conversion failed";
}

left_out_reason print_failure_reason(const print_run& run) {
  if (run.timed_out) return left_out_reason::timed_out;
  switch (run.exit_code.value_or(-1)) {
    case 1:
      return left_out_reason::unreadable;
    case 3:
      return left_out_reason::cannot_write;
    case 4:
      return left_out_reason::timed_out;
    case 5:
      return left_out_reason::office_failed;
    default:
      return left_out_reason::not_converted;
  }
}

std::string left_out_text(const std::vector<left_out_document>& left_out) {
  if (left_out.empty()) return "";
  std::string text = std::to_string(left_out.size()) +
                     (left_out.size() == 1 ? " document" : " documents") +
                     " couldn't be converted: ";
  for (size_t i = 0; i < left_out.size() && i < kMaxNames; ++i)
    text += (i == 0 ? "" : ", ") + left_out[i].name + " (" + plain_words(left_out[i]) + ")";
  if (left_out.size() > kMaxNames)
    text += " and " + std::to_string(left_out.size() - kMaxNames) + " more";
  return text;
}

std::optional<notification> create_pdf_notification(const create_pdf_outcome& outcome) {
  if (outcome.stored.empty() && outcome.left_out.empty()) return std::nullopt;
  notification n;
  std::string stored;
  if (outcome.stored.size() == 1) {
    const stored_pdf& pdf = outcome.stored.front();
    stored = "Stored '" + pdf.pdf_name + "'" +
             (pdf.joined > 1 ? ", joined from " + std::to_string(pdf.joined) + " documents," : "") +
             " " + how_stored_one(pdf);
  } else if (!outcome.stored.empty()) {
    stored = std::to_string(outcome.stored.size()) + " PDFs stored " +
             how_stored_many(outcome.stored.front().mode);
  }
  if (outcome.stored.empty()) {
    n.summary = "Create PDF: nothing stored";
  } else if (outcome.left_out.empty()) {
    n.summary = "Create PDF: done";
  } else {
    n.summary = "Create PDF: done, some documents left out";
  }
  n.body = stored;
  if (!outcome.left_out.empty())
    n.body += (stored.empty() ? "" : "\n") + left_out_text(outcome.left_out);
  n.urgent = !outcome.left_out.empty();
  return n;
}

}  // namespace tarn
