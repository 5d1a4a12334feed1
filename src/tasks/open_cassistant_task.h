// The work of one CONVERT_WITH_ASSISTANT command: fetches the documents, lays copies of them in
// the private temporary folder, closes their items, writes the assistant's list file and
// starts tarnassist on it without waiting. Made, run once and destroyed on the main thread by
// the command's closure.
#pragma once

#include <filesystem>
#include <memory>
#include <set>
#include <string>
#include <vector>

#include "dms/DMS_connector_handler.h"
#include "dms/doc_description.h"
#include "log/simple_log.h"
#include "tasks/task.h"

namespace tarn {

// The list file's bytes: "[FILES]", "Count=", "Delete=1" and one row N="path" per path, each
// line ending in CR LF. A path whose characters all lie within U+00FF is written one byte per
// character (Latin-1). Any other path, one with a character beyond U+00FF or bytes that aren't
// UTF-8, keeps its own bytes: tarnassist reads a row as Latin-1 first and, when that names no
// file, tries the row's bytes as they stand. An empty path gives an empty row.
std::string assistant_list_text(const std::vector<std::filesystem::path>& paths);

class open_cassistant_task final : public task {
 public:
  // Starts nothing. `log` may be null.
  open_cassistant_task(std::shared_ptr<simple_log> log, std::shared_ptr<DMS_connector_handler> dms,
                       std::string dms_connection, std::string dms_location,
                       std::set<std::string> doc_refs);
  open_cassistant_task(const open_cassistant_task&) = delete;
  open_cassistant_task& operator=(const open_cassistant_task&) = delete;

  // Returns once the assistant is started. Every item opened is closed by then. The copies and
  // the list belong to the assistant from its start; when it can't be started, or the list
  // can't be written, this task deletes the copies it made and the list. Nothing throws.
  void do_work() override;

 private:
  // Fetches, copies and closes; a document without a copy keeps an empty local_file.
  void fetch(doc_description& doc);
  // The copy's path: the source itself when it already lies directly in the temporary folder,
  // else in this command's own folder (copies_dir_), so that no file of the user's nor of
  // another command is replaced.
  // Throws std::filesystem::filesystem_error (or runtime_error) when no copy can be made.
  std::filesystem::path copy_to_temp(const std::filesystem::path& source);
  // The list's path, empty when no free name was found; false when no whole list was written.
  bool write_list(const std::vector<std::filesystem::path>& paths, std::filesystem::path* list);
  void remove_own_file(const std::filesystem::path& path) noexcept;
  // Removes the copies made and their folder.
  void remove_copies() noexcept;

  void log(const std::string& text) const;
  // Logs the exception being handled, which ended the work on `doc_ref` (empty: the task's).
  void log_failure(const std::string& doc_ref) const noexcept;

  std::shared_ptr<simple_log> log_;
  std::shared_ptr<DMS_connector_handler> dms_;
  const std::string dms_connection_;
  const std::string dms_location_;
  const std::set<std::string> doc_refs_;
  std::set<std::filesystem::path> copies_;  // the copies this task made
  std::filesystem::path copies_dir_;        // made (mkdtemp, 0700) for the first copy
};

}  // namespace tarn
