// What MergeSortDlg knows and does, free of any toolkit: the choice of one PDF of all or one
// each, the rows and their moves, the save choices, what is enabled, and the remembered
// choices. A view shows the state and reports clicks; it reads nothing from its controls.
// Used on the task's thread only.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "dialogs/user_questions.h"
#include "dms/doc_description.h"

namespace tarn {

struct merge_sort_choices {
  bool merge_documents_ = false;
  int32_t save_new_ = 0;  // 1 a new document, 0 a new version
  bool save_new_related_ = true;
  bool operator==(const merge_sort_choices&) const = default;
};

// Where the choices are remembered: "do_merge", "how_to_save" and "saver_new_related" in the
// registry, or the question's JSON for a dialog shown by a child process.
struct merge_sort_settings {
  std::function<merge_sort_choices()> load;
  std::function<void(const merge_sort_choices&)> store;
};
merge_sort_settings registry_merge_sort_settings(std::string_view subkey = "iManage");

struct merge_sort_row {
  std::string name;
  std::string doc_number;
  std::string version;
  int32_t item_data = 0;  // index into the documents as given
  bool operator==(const merge_sort_row&) const = default;
};

class merge_sort_model {
 public:
  static constexpr int kNoRow = -1;

  // `extended` shows the save group. Logs "MergeSortDlg::MergeSortDlg(extended: ...)".
  merge_sort_model(std::vector<std::shared_ptr<doc_description>> items, bool extended,
                   merge_sort_settings settings = registry_merge_sort_settings());
  merge_sort_model(const merge_sort_model&) = delete;
  merge_sort_model& operator=(const merge_sort_model&) = delete;

  // The dialog opens: loads the remembered choices and lays out one row per document, in the
  // given order.
  void init();

  bool extended() const { return extended_; }
  const merge_sort_choices& choices() const { return choices_; }
  const std::vector<merge_sort_row>& rows() const { return rows_; }
  const std::vector<std::shared_ptr<doc_description>>& items() const { return items_; }

  // Up, Down and the list serve only a combined PDF; the save group only one PDF each.
  bool list_enabled() const { return choices_.merge_documents_; }
  bool save_group_enabled() const { return !choices_.merge_documents_; }

  // "Combine files into one PDF document": a merged PDF is always offered as a new document.
  void choose_merge();
  // "Create a PDF for each input document".
  void choose_single();
  void set_save_new(bool save_new) { choices_.save_new_ = save_new ? 1 : 0; }
  void set_save_new_related(bool related) { choices_.save_new_related_ = related; }

  // Move the selected row one place; each gives the selected row afterwards. A row at the
  // edge, no selection (kNoRow), or a row with an empty name doesn't move.
  int move_up(int selected);
  int move_down(int selected);

  // OK: the documents in row order and the choices; the choices are remembered.
  merge_sort_answer accept();
  // What OK would answer without any click, for when nobody can be asked; stores nothing.
  merge_sort_answer remembered_answer() const;

  // For a dialog shown elsewhere: take its choices and its order of rows (the rows' item
  // data, top to bottom). False, changing nothing, when `order` isn't a reordering of rows().
  bool take_over(const merge_sort_choices& choices, const std::vector<int32_t>& order);

 private:
  int move(int selected, int to);
  merge_sort_answer answer() const;

  const std::vector<std::shared_ptr<doc_description>> items_;
  const bool extended_;
  merge_sort_settings settings_;
  merge_sort_choices choices_;
  std::vector<merge_sort_row> rows_;
};

}  // namespace tarn
