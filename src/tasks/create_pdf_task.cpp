#include "tasks/create_pdf_task.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <stdexcept>
#include <system_error>
#include <utility>

#include "convutils/ConvUtils.h"
#include "convutils/usage_reporter.h"
#include "platform/private_temp.h"
#include "tasks/task_documents_internal.h"

namespace tarn {
namespace {

namespace fs = std::filesystem;

constexpr const char* kWhere = "ERROR: create_pdf_task::do_work() ";
// More same-named PDFs than this in the temporary folder means something else is wrong.
constexpr int kMaxNameTries = 1000;

// Takes `path` by making it, empty, only if nothing lies there, a dangling link included:
// a name merely found free could be taken by someone else before the conversion writes it.
bool take_on_disk(const fs::path& path) {
  const int fd = ::open(path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0600);
  if (fd >= 0) {
    ::close(fd);
    return true;
  }
  if (errno == EEXIST) return false;
  throw std::system_error(errno, std::generic_category(), "can't create " + path.string());
}

}  // namespace

create_pdf_task::create_pdf_task(std::shared_ptr<simple_log> log,
                                 std::shared_ptr<DMS_connector_handler> dms,
                                 std::unique_ptr<attach_handler> attach,
                                 std::shared_ptr<user_questions> questions,
                                 std::string dms_connection, std::string dms_location,
                                 std::set<std::string> doc_refs,
                                 std::shared_ptr<desktop_notifier> notifier)
    : log_(std::move(log)),
      dms_(std::move(dms)),
      attach_(std::move(attach)),
      dms_connection_(std::move(dms_connection)),
      dms_location_(std::move(dms_location)),
      doc_refs_(std::move(doc_refs)),
      questions_(std::move(questions)),
      notifier_(std::move(notifier)) {}

void create_pdf_task::do_work() {
  // The offices load while the documents are listed and fetched and the question is open.
  WarmPrintHelper();
  // The event counts commands, not results: it goes out before anything is looked at.
  try {
    send_usage_event("iManage 10", "iManage10: Create PDF", "From DMS");
  } catch (...) {
    log_failure("");
  }

  document_list documents;
  try {
    documents = list_documents(dms_.get(), dms_connection_, dms_location_, doc_refs_);
    if (documents.empty()) {
      log(std::string(kWhere) + "nothing to do.");
      return;
    }
    for (const auto& ref : doc_refs_) {
      if (std::none_of(documents.begin(), documents.end(),
                       [&](const auto& doc) { return doc->doc_ref == ref; }))
        outcome_.left_out.push_back({ref, left_out_reason::not_in_store});
    }
    bool merge = false;
    std::optional<save_mode> mode;
    // Asked by the number of references, not of documents found: one refused reference of
    // two still brings up the dialog, with one row.
    if (doc_refs_.size() > 1 && !ask_merge_sort(&documents, &merge, &mode)) {
      documents.clear();
      cancelled_ = true;
    }
    // Every fetch comes before the first conversion.
    for (const auto& doc : documents) fetch(*doc);
    if (merge) {
      merged_branch(documents, *mode);
    } else {
      single_branch(documents, mode);
    }
  } catch (...) {
    log_failure("");
  }
  // The joined file is written when the attach handler goes; that must happen before the
  // closing deletes the PDFs, or it would bring the first one back.
  attach_.reset();
  close_documents(documents);
  notify();
}

bool create_pdf_task::ask_merge_sort(document_list* documents, bool* merge,
                                     std::optional<save_mode>* mode) {
  std::optional<merge_sort_answer> answer = questions_->ask_merge_sort(*documents);
  if (!answer) return false;
  *documents = std::move(answer->result);
  *merge = answer->merge_documents_;
  *mode = answer->chosen_save_mode();
  return true;
}

void create_pdf_task::fetch(doc_description& doc) {
  doc.item_id = dms_->download_file(dms_connection_, dms_location_, doc.doc_ref);
  if (doc.item_id.empty()) {
    log(std::string(kWhere) + "can't download file: \"" + doc.doc_ref + "\"");
    leave_out(doc, left_out_reason::not_fetched);
    return;
  }
  fs::path local = dms_->get_localfilename(dms_connection_, doc.item_id);
  if (local.empty()) {
    leave_out(doc, left_out_reason::not_fetched);
    return;
  }
  doc.local_file = std::move(local);
  try {
    doc.pdf_file = pdf_path_for(doc.local_file);
    pdf_paths_.insert(doc.pdf_file);
  } catch (...) {
    // Without a PDF path the document is passed over; its item is closed all the same.
    log_failure(doc.doc_ref);
    leave_out(doc, left_out_reason::not_converted);
  }
}

fs::path create_pdf_task::pdf_path_for(const fs::path& local_file) {
  fs::path target = local_file;
  target.replace_extension("pdf");
  // Beside the local copy when nothing lies there. A path already taken, on disk or by
  // another document of this command, is never written over: the closing deletes every PDF
  // path, so it would take a file that this task didn't make.
  auto taken = [&](const fs::path& path) { return pdf_paths_.count(path) || !take_on_disk(path); };
  if (!taken(target)) return target;
  std::string err;
  const std::optional<fs::path> temp = private_temp_dir(&err);
  if (!temp) throw std::runtime_error("no temporary folder: " + err);
  fs::path in_temp = *temp / target.filename();
  for (int n = 2; taken(in_temp); ++n) {
    if (n > kMaxNameTries) throw std::runtime_error("no free name for " + in_temp.string());
    in_temp = *temp / (target.stem().string() + " (" + std::to_string(n) + ").pdf");
  }
  return in_temp;
}

std::vector<bool> create_pdf_task::convert_all(const document_list& documents) {
  // Office documents go to the print helpers all at once; XPS is converted in this process.
  std::vector<std::pair<std::string, std::string>> jobs;
  std::vector<size_t> job_documents;
  std::vector<bool> converted(documents.size(), false);
  std::vector<left_out_reason> why(documents.size(), left_out_reason::not_converted);
  std::vector<std::chrono::seconds> limit(documents.size(), std::chrono::seconds(0));
  for (size_t i = 0; i < documents.size(); ++i) {
    const doc_description& doc = *documents[i];
    if (doc.local_file.empty() || doc.pdf_file.empty()) continue;
    if (doc.extension == "xps" || doc.extension == "oxps") {
      // One document's failure must not take the others of the command with it.
      try {
        converted[i] = ConvertXpsToPdf(doc.local_file.string(), doc.pdf_file.string(), 15, 0, 0);
      } catch (...) {
        log_failure(doc.doc_ref);
      }
    } else {
      jobs.emplace_back(doc.local_file.string(), doc.pdf_file.string());
      job_documents.push_back(i);
    }
  }
  std::vector<print_run> runs;
  try {
    runs = PrintPDFsWithHelper(jobs);
  } catch (...) {
    for (const size_t i : job_documents) log_failure(documents[i]->doc_ref);
  }
  for (size_t j = 0; j < runs.size(); ++j) {
    const size_t i = job_documents[j];
    converted[i] = runs[j].printed;
    why[i] = print_failure_reason(runs[j]);
    limit[i] = runs[j].timed_out ? runs[j].limit : print_helper_convert_timeout();
  }
  for (size_t i = 0; i < documents.size(); ++i) {
    const doc_description& doc = *documents[i];
    if (doc.local_file.empty() || doc.pdf_file.empty()) continue;
    // The path was made empty when it was handed out: an empty file is no PDF.
    std::error_code ec;
    if (converted[i] && fs::file_size(doc.pdf_file, ec) > 0 && !ec) continue;
    converted[i] = false;
    log(std::string(kWhere) + "can't convert file: \"" + doc.doc_ref + "\"");
    leave_out(doc, why[i], limit[i]);
    // Whatever a failed conversion left is no PDF to join or store. The path was free before.
    fs::remove(doc.pdf_file, ec);
  }
  return converted;
}

void create_pdf_task::merged_branch(const document_list& documents, save_mode mode) {
  std::shared_ptr<doc_description> first_pdf;
  std::shared_ptr<doc_description> holder;
  size_t joined = 0;
  const std::vector<bool> converted = convert_all(documents);
  for (size_t i = 0; i < documents.size(); ++i) {
    const auto& doc = documents[i];
    if (!converted[i]) continue;
    try {
      if (!first_pdf) first_pdf = doc;
      if (attach_ && attach_->attach_file(doc->pdf_file)) {
        if (!holder) holder = doc;
        ++joined;
      }
    } catch (...) {
      log_failure(doc->doc_ref);
    }
  }
  // Writes the joined PDF over the first one attached.
  attach_.reset();
  // The document whose PDF holds the join lends it name, folder and source; without a
  // joining component, the first PDF goes alone.
  const std::shared_ptr<doc_description>& merged = holder ? holder : first_pdf;
  if (!merged) return;
  merged->saved_item_id =
      dms_->save_file_to_DMS(mode, merged->pdf_file, dms_connection_, dms_location_, merged->folder,
                             merged->pdf_name(), merged->doc_ref);
  record_save(*merged, mode, std::max<size_t>(joined, 1));
}

void create_pdf_task::single_branch(const document_list& documents, std::optional<save_mode> mode) {
  // Only a command of one document gets here without a mode: the merge dialog gives one.
  // A PDF that nobody will be asked to store is not worth making.
  if (std::string why; !mode && !questions_->someone_can_answer(&why)) {
    for (const auto& doc : documents) {
      if (doc->local_file.empty() || doc->pdf_file.empty()) continue;
      log("HowToSaveDlg: " + why + "; \"" + doc->doc_ref +
          "\" is not converted, nothing is stored");
    }
    return;
  }
  const std::vector<bool> converted = convert_all(documents);
  for (size_t i = 0; i < documents.size(); ++i) {
    const auto& doc = documents[i];
    if (!converted[i]) continue;
    try {
      if (!mode) {
        if (auto answer = questions_->ask_how_to_save(*doc)) mode = answer->chosen_save_mode();
      }
      if (!mode) continue;
      doc->saved_item_id =
          dms_->save_file_to_DMS(*mode, doc->pdf_file, dms_connection_, dms_location_, doc->folder,
                                 doc->pdf_name(), doc->doc_ref);
      record_save(*doc, *mode, 1);
    } catch (...) {
      log_failure(doc->doc_ref);
    }
  }
}

void create_pdf_task::close_documents(const document_list& documents) noexcept {
  for (const auto& doc : documents) {
    try {
      // Every item opened is closed, also one whose local copy never came.
      if (doc->item_id.empty()) continue;
      dms_->close_dms_file(dms_connection_, doc->item_id);
      if (!doc->saved_item_id.empty()) dms_->close_dms_file(dms_connection_, doc->saved_item_id);
      if (doc->pdf_file.empty()) continue;
      std::error_code ec;
      fs::remove(doc->pdf_file, ec);
      if (ec)
        log(std::string(kWhere) + "can't remove \"" + doc->pdf_file.string() +
            "\": " + ec.message());
    } catch (...) {
      log_failure(doc->doc_ref);
    }
  }
}

void create_pdf_task::leave_out(const doc_description& doc, left_out_reason reason,
                                std::chrono::seconds limit) {
  outcome_.left_out.push_back(
      {doc.name.empty() ? doc.doc_ref : doc.source_name(), reason, limit});
}

void create_pdf_task::record_save(const doc_description& doc, save_mode mode, size_t joined) {
  if (doc.saved_item_id.empty()) {
    leave_out(doc, left_out_reason::not_stored);
    return;
  }
  outcome_.stored.push_back({doc.pdf_name(), mode, doc.doc_number, joined});
}

void create_pdf_task::notify() const noexcept {
  // A Save As answered with Cancel leaves nothing stored and nothing left out: no word either.
  if (!notifier_ || cancelled_) return;
  try {
    if (!notifications_enabled()) return;
    if (auto n = create_pdf_notification(outcome_)) notifier_->show("", std::move(*n));
  } catch (...) {
    log_failure("");
  }
}

void create_pdf_task::log(const std::string& text) const {
  if (log_) log_->add(text, -1);
}

void create_pdf_task::log_failure(const std::string& doc_ref) const noexcept {
  try {
    const std::string what = current_exception_text();
    log(std::string(kWhere) + (doc_ref.empty() ? "failed: " : "failed for \"" + doc_ref + "\": ") +
        what);
  } catch (...) {
    // Out of memory while logging: the work goes on without the line.
  }
}

}  // namespace tarn
