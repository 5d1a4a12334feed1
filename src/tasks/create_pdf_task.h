// The work of one CREATE_PDF command: lists the documents, asks the user how to combine and
// store them, fetches each, turns each into a PDF and brings the result back into the store;
// then closes every item it opened and deletes every PDF it made. Made, run once and destroyed
// on the main thread by the command's closure.
#pragma once

#include <filesystem>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "dialogs/user_questions.h"
#include "dms/DMS_connector_handler.h"
#include "dms/attach_handler.h"
#include "dms/doc_description.h"
#include "log/simple_log.h"
#include "notify/desktop_notifier.h"
#include "notify/outcome_text.h"
#include "tasks/task.h"

namespace tarn {

class create_pdf_task final : public task {
 public:
  // Starts nothing. `log` may be null; `questions` asks the merge-and-sort and how-to-save
  // questions and must not be null. `notifier`, when set, tells the user how the command ended.
  create_pdf_task(std::shared_ptr<simple_log> log, std::shared_ptr<DMS_connector_handler> dms,
                  std::unique_ptr<attach_handler> attach, std::shared_ptr<user_questions> questions,
                  std::string dms_connection, std::string dms_location,
                  std::set<std::string> doc_refs,
                  std::shared_ptr<desktop_notifier> notifier = nullptr);
  create_pdf_task(const create_pdf_task&) = delete;
  create_pdf_task& operator=(const create_pdf_task&) = delete;

  // Returns when the command is over. A failure of one document is logged and the others go
  // on; nothing throws, and no item stays open and no PDF of this task stays on disk.
  void do_work() override;

 private:
  using document_list = std::vector<std::shared_ptr<doc_description>>;

  // The merge dialog: false when the user cancelled.
  bool ask_merge_sort(document_list* documents, bool* merge, std::optional<save_mode>* mode);
  void fetch(doc_description& doc);
  std::filesystem::path pdf_path_for(const std::filesystem::path& local_file);
  // Makes each document's pdf_file, several at once; element i false (logged, left out,
  // nothing left at pdf_file) when no PDF came of document i.
  std::vector<bool> convert_all(const document_list& documents);
  void leave_out(const doc_description& doc, left_out_reason reason,
                 std::chrono::seconds limit = {});
  // Records what the store answered for the PDF of `doc`, made of `joined` documents.
  void record_save(const doc_description& doc, save_mode mode, size_t joined);
  void notify() const noexcept;
  void merged_branch(const document_list& documents, save_mode mode);
  void single_branch(const document_list& documents, std::optional<save_mode> mode);
  void close_documents(const document_list& documents) noexcept;

  void log(const std::string& text) const;
  // Logs the exception being handled, which ended the work on `doc_ref` (empty: the task's).
  void log_failure(const std::string& doc_ref) const noexcept;

  std::shared_ptr<simple_log> log_;
  std::shared_ptr<DMS_connector_handler> dms_;
  std::unique_ptr<attach_handler> attach_;  // joins the PDFs; destroyed once they are all in
  const std::string dms_connection_;
  const std::string dms_location_;
  const std::set<std::string> doc_refs_;
  std::shared_ptr<user_questions> questions_;
  // The PDF paths handed out so far, so that no two documents of the task share one.
  std::set<std::filesystem::path> pdf_paths_;
  std::shared_ptr<desktop_notifier> notifier_;
  create_pdf_outcome outcome_;
  bool cancelled_ = false;  // the user said no: nothing is told
};

}  // namespace tarn
