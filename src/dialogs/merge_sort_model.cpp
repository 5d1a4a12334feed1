#include "dialogs/merge_sort_model.h"

#include <algorithm>

#include "convutils/CConvRegKey.h"
#include "dialogs/dialog_keys.h"
#include "log/trace.h"

namespace tarn {
namespace {

const char* text_of(bool value) { return value ? "true" : "false"; }

}  // namespace

merge_sort_settings registry_merge_sort_settings(std::string_view subkey) {
  const std::string key = dialog_key(subkey);
  return {
      [key] {
        merge_sort_choices choices;
        choices.merge_documents_ =
            CConvRegKey(reg_root::current_user, key, kDoMergeValue, 0).read_as_bool();
        choices.save_new_ =
            CConvRegKey(reg_root::current_user, key, kHowToSaveValue, 0).read_as_bool() ? 1 : 0;
        choices.save_new_related_ =
            CConvRegKey(reg_root::current_user, key, kSaveNewRelatedValue, 1).read_as_bool();
        return choices;
      },
      [key](const merge_sort_choices& choices) {
        CConvRegKey(reg_root::current_user, key, kDoMergeValue, 0)
            .write_number(choices.merge_documents_ ? 1 : 0);
        CConvRegKey(reg_root::current_user, key, kHowToSaveValue, 0)
            .write_number(choices.save_new_ != 0 ? 1 : 0);
        CConvRegKey(reg_root::current_user, key, kSaveNewRelatedValue, 1)
            .write_number(choices.save_new_related_ ? 1 : 0);
      },
  };
}

merge_sort_model::merge_sort_model(std::vector<std::shared_ptr<doc_description>> items,
                                   bool extended, merge_sort_settings settings)
    : items_(std::move(items)), extended_(extended), settings_(std::move(settings)) {
  TARN_TRACE(kTraceProgress, "MergeSortDlg::MergeSortDlg(extended: %s)", text_of(extended_));
}

void merge_sort_model::init() {
  if (settings_.load) choices_ = settings_.load();
  rows_.clear();
  rows_.reserve(items_.size());
  for (size_t i = 0; i < items_.size(); ++i) {
    // A record the store gave nothing for still gets its row, with empty cells.
    static const doc_description kEmpty("");
    const doc_description& item = items_[i] ? *items_[i] : kEmpty;
    rows_.push_back({item.name, item.doc_number, item.version, static_cast<int32_t>(i)});
    TARN_TRACE(kTraceProgress, "itemData[%d] %s, %s.%s", static_cast<int>(i), item.name.c_str(),
               item.doc_number.c_str(), item.version.c_str());
  }
}

void merge_sort_model::choose_merge() {
  choices_.merge_documents_ = true;
  if (extended_) choices_.save_new_ = 1;
  TARN_TRACE(kTraceProgress, "MergeSortDlg OnMerge()");
}

void merge_sort_model::choose_single() {
  choices_.merge_documents_ = false;
  TARN_TRACE(kTraceProgress, "MergeSortDlg OnSingle()");
}

int merge_sort_model::move_up(int selected) { return move(selected, selected - 1); }

int merge_sort_model::move_down(int selected) { return move(selected, selected + 1); }

int merge_sort_model::move(int selected, int to) {
  const int count = static_cast<int>(rows_.size());
  if (selected < 0 || selected >= count || to < 0 || to >= count) return selected;
  if (rows_[selected].name.empty()) return selected;
  std::swap(rows_[selected], rows_[to]);
  return to;
}

merge_sort_answer merge_sort_model::answer() const {
  merge_sort_answer answer;
  answer.merge_documents_ = choices_.merge_documents_;
  answer.save_new_ = choices_.save_new_;
  answer.save_new_related_ = choices_.save_new_related_;
  for (const auto& row : rows_) {
    if (row.item_data >= 0 && static_cast<size_t>(row.item_data) < items_.size())
      answer.result.push_back(items_[row.item_data]);
  }
  return answer;
}

merge_sort_answer merge_sort_model::accept() {
  merge_sort_answer result = answer();
  TARN_TRACE(kTraceProgress, "OnOK(), merge_documents_: %s, save_new_: %s, save_new_related_: %s",
             text_of(choices_.merge_documents_), text_of(choices_.save_new_ != 0),
             text_of(choices_.save_new_related_));
  if (settings_.store) settings_.store(choices_);
  return result;
}

merge_sort_answer merge_sort_model::remembered_answer() const { return answer(); }

bool merge_sort_model::take_over(const merge_sort_choices& choices,
                                 const std::vector<int32_t>& order) {
  if (order.size() != rows_.size()) return false;
  std::vector<merge_sort_row> reordered;
  reordered.reserve(rows_.size());
  for (int32_t item_data : order) {
    auto row = std::find_if(rows_.begin(), rows_.end(),
                            [&](const merge_sort_row& r) { return r.item_data == item_data; });
    if (row == rows_.end()) return false;
    if (std::any_of(reordered.begin(), reordered.end(),
                    [&](const merge_sort_row& r) { return r.item_data == item_data; }))
      return false;
    reordered.push_back(*row);
  }
  rows_ = std::move(reordered);
  choices_ = choices;
  return true;
}

}  // namespace tarn
