// The two questions a create-PDF task asks the user, behind one seam: the real dialogs
// (qt_user_questions.h) or scripted answers for tests (scripted_user_questions.h).
// Main thread only. A call returns when the question has been answered or withdrawn; while
// it waits, the thread's event loop runs, as under a modal dialog.
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "dms/IDMSHelper.h"
#include "dms/doc_description.h"

namespace tarn {

// MergeSortDlg's answer on OK.
struct merge_sort_answer {
  // The documents in the order of the rows: the given records, reordered, never copied.
  std::vector<std::shared_ptr<doc_description>> result;
  bool merge_documents_ = false;   // one PDF of all the documents
  int32_t save_new_ = 0;           // 1 a new document, 0 a new version
  bool save_new_related_ = false;  // the new document is related to its source

  save_mode chosen_save_mode() const {
    if (save_new_ == 0) return kSaveNewVersion;
    return save_new_related_ ? kSaveNewRelatedDocument : kSaveNewDocument;
  }
};

// HowToSaveDlg's answer on OK. Note the sense of how_to_save is not MergeSortDlg's save_new_.
struct how_to_save_answer {
  int32_t how_to_save = 0;  // 0 a new document, 1 a new version, 2 local save
  bool save_new_related = false;

  save_mode chosen_save_mode() const {
    if (how_to_save != 0) return kSaveNewVersion;
    return save_new_related ? kSaveNewRelatedDocument : kSaveNewDocument;
  }
};

class user_questions {
 public:
  virtual ~user_questions() = default;

  // One PDF of all or one each, their order, and how to save: asked when a command names
  // several documents. Empty when the user cancelled or closed the dialog.
  virtual std::optional<merge_sort_answer> ask_merge_sort(
      const std::vector<std::shared_ptr<doc_description>>& documents) = 0;

  // How to store the PDF made from `document`; its name and extension fill the prompt.
  // Empty when the user cancelled.
  virtual std::optional<how_to_save_answer> ask_how_to_save(const doc_description& document) = 0;

  // Whether a question asked now would get an answer other than the Cancel of nobody; else
  // false, and *why says why. Work that only an answer makes worth doing waits on it.
  virtual bool someone_can_answer(std::string* why) = 0;
};

}  // namespace tarn
