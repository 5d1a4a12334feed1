// The questions answered by a script instead of a person, for tests of the tasks. Each
// question runs the real dialog logic (remembered choices, reordering, registry writes); the
// script plays the user on it. No toolkit.
#pragma once

#include <deque>
#include <functional>
#include <string>
#include <vector>

#include "dialogs/how_to_save_model.h"
#include "dialogs/merge_sort_model.h"
#include "dialogs/user_questions.h"

namespace tarn {

class scripted_user_questions final : public user_questions {
 public:
  // Plays the user on the opened dialog; returns true for OK, false for Cancel.
  using merge_sort_script = std::function<bool(merge_sort_model& dialog)>;
  using how_to_save_script = std::function<bool(how_to_save_model& dialog)>;

  // Each question takes the next script of its kind; with none left, the user presses OK.
  void then_merge_sort(merge_sort_script script) { merge_sort_.push_back(std::move(script)); }
  void then_how_to_save(how_to_save_script script) { how_to_save_.push_back(std::move(script)); }

  // What the user was shown, in the order asked.
  struct question {
    std::string dialog;                // "MergeSortDlg" or "HowToSaveDlg"
    std::vector<merge_sort_row> rows;  // MergeSortDlg
    std::string prompt;                // HowToSaveDlg
  };
  const std::vector<question>& asked() const { return asked_; }

  // From now on nobody is there: every question is cancelled unasked.
  void nobody_answers() { nobody_ = true; }

  std::optional<merge_sort_answer> ask_merge_sort(
      const std::vector<std::shared_ptr<doc_description>>& documents) override;
  std::optional<how_to_save_answer> ask_how_to_save(const doc_description& document) override;
  bool someone_can_answer(std::string* why) override;

 private:
  bool nobody_ = false;
  std::deque<merge_sort_script> merge_sort_;
  std::deque<how_to_save_script> how_to_save_;
  std::vector<question> asked_;
};

}  // namespace tarn
