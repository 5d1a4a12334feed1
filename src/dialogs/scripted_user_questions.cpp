#include "dialogs/scripted_user_questions.h"

namespace tarn {

std::optional<merge_sort_answer> scripted_user_questions::ask_merge_sort(
    const std::vector<std::shared_ptr<doc_description>>& documents) {
  if (nobody_) return std::nullopt;
  merge_sort_model dialog(documents, true);
  dialog.init();
  asked_.push_back({"MergeSortDlg", dialog.rows(), ""});
  merge_sort_script script;
  if (!merge_sort_.empty()) {
    script = std::move(merge_sort_.front());
    merge_sort_.pop_front();
  }
  if (script && !script(dialog)) return std::nullopt;
  return dialog.accept();
}

std::optional<how_to_save_answer> scripted_user_questions::ask_how_to_save(
    const doc_description& document) {
  if (nobody_) return std::nullopt;
  how_to_save_model dialog(how_to_save_prompt(document.source_name(), document.pdf_name()), false);
  dialog.init();
  asked_.push_back({"HowToSaveDlg", {}, dialog.prompt()});
  how_to_save_script script;
  if (!how_to_save_.empty()) {
    script = std::move(how_to_save_.front());
    how_to_save_.pop_front();
  }
  std::optional<how_to_save_answer> answer;
  if (!script || script(dialog)) answer = dialog.accept();
  dialog.store_settings();
  return answer;
}

bool scripted_user_questions::someone_can_answer(std::string* why) {
  if (nobody_) *why = "nobody to ask";
  return !nobody_;
}

}  // namespace tarn
