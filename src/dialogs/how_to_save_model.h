// What HowToSaveDlg knows and does, free of any toolkit: the prompt, which choice is checked,
// the related check box and when it is enabled, and the remembered choices. A view shows the
// state and reports clicks. Used on the task's thread only.
#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <string_view>

#include "dialogs/user_questions.h"

namespace tarn {

enum how_to_save_choice : int32_t {
  kHowNewDocument = 0,
  kHowNewVersion = 1,
  kHowLocalSave = 2,
};

struct how_to_save_choices {
  int32_t how_to_save = kHowNewDocument;
  bool save_new_related = true;
  bool operator==(const how_to_save_choices&) const = default;
};

// Where the choices are remembered: "how_to_save" and "saver_new_related" in the registry, or
// the question's JSON for a dialog shown by a child process.
struct how_to_save_settings {
  std::function<how_to_save_choices()> load;
  std::function<void(const how_to_save_choices&)> store;
};
how_to_save_settings registry_how_to_save_settings(std::string_view subkey = "iManage");

// "The '<source>' has been converted to a PDF file.\nHow do you want to save the '<pdf>' ?"
std::string how_to_save_prompt(std::string_view source_name, std::string_view pdf_name);

class how_to_save_model {
 public:
  how_to_save_model(std::string prompt, bool local_save_allowed,
                    how_to_save_settings settings = registry_how_to_save_settings());
  how_to_save_model(const how_to_save_model&) = delete;
  how_to_save_model& operator=(const how_to_save_model&) = delete;

  // The dialog opens: loads the remembered choices; a stored local save falls back to a new
  // document when local save isn't allowed.
  void init();

  const std::string& prompt() const { return prompt_; }
  bool local_save_shown() const { return local_save_allowed_; }
  int32_t checked() const { return checked_; }
  bool relate_checked() const { return relate_checked_; }
  // The related check box serves a new document only; it keeps its check while disabled.
  bool relate_enabled() const { return checked_ == kHowNewDocument; }

  void choose(how_to_save_choice choice) { checked_ = choice; }
  void set_relate(bool checked) { relate_checked_ = checked; }

  // OK: the checked choice and the check box become the answer.
  how_to_save_answer accept();
  // What OK would answer without any click, for when nobody can be asked.
  how_to_save_answer remembered_answer() const;
  // The dialog ends, however: writes back the choices, which Cancel left as loaded.
  void store_settings();
  const how_to_save_choices& choices() const { return choices_; }

  // For a dialog shown elsewhere: its end state (accepted or not) becomes this one's.
  void take_over(const how_to_save_choices& choices) { choices_ = choices; }

 private:
  const std::string prompt_;
  const bool local_save_allowed_;
  how_to_save_settings settings_;
  how_to_save_choices choices_;  // the fields, set by init() and accept()
  int32_t checked_ = kHowNewDocument;
  bool relate_checked_ = false;
};

}  // namespace tarn
