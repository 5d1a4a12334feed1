#include "dialogs/how_to_save_model.h"

#include "convutils/CConvRegKey.h"
#include "dialogs/dialog_keys.h"

namespace tarn {

how_to_save_settings registry_how_to_save_settings(std::string_view subkey) {
  const std::string key = dialog_key(subkey);
  return {
      [key] {
        how_to_save_choices choices;
        choices.how_to_save = static_cast<int32_t>(
            CConvRegKey(reg_root::current_user, key, kHowToSaveValue, 0).read_as_number());
        choices.save_new_related =
            CConvRegKey(reg_root::current_user, key, kSaveNewRelatedValue, 1).read_as_bool();
        return choices;
      },
      [key](const how_to_save_choices& choices) {
        CConvRegKey(reg_root::current_user, key, kHowToSaveValue, 0)
            .write_number(static_cast<DWORD>(choices.how_to_save));
        CConvRegKey(reg_root::current_user, key, kSaveNewRelatedValue, 1)
            .write_number(choices.save_new_related ? 1 : 0);
      },
  };
}

std::string how_to_save_prompt(std::string_view source_name, std::string_view pdf_name) {
  std::string prompt = "The '";
  prompt.append(source_name);
  prompt.append("' has been converted to a PDF file.\nHow do you want to save the '");
  prompt.append(pdf_name);
  prompt.append("' ?");
  return prompt;
}

how_to_save_model::how_to_save_model(std::string prompt, bool local_save_allowed,
                                     how_to_save_settings settings)
    : prompt_(std::move(prompt)),
      local_save_allowed_(local_save_allowed),
      settings_(std::move(settings)) {}

void how_to_save_model::init() {
  if (settings_.load) choices_ = settings_.load();
  if (!local_save_allowed_ && choices_.how_to_save > kHowNewVersion)
    choices_.how_to_save = kHowNewDocument;
  // Any other stored number leaves every choice unchecked, as the radios would show it.
  checked_ = choices_.how_to_save;
  relate_checked_ = choices_.save_new_related;
}

how_to_save_answer how_to_save_model::accept() {
  const bool one_checked = checked_ >= kHowNewDocument && checked_ <= kHowLocalSave;
  choices_.how_to_save = one_checked ? checked_ : -1;
  choices_.save_new_related = relate_checked_;
  return remembered_answer();
}

how_to_save_answer how_to_save_model::remembered_answer() const {
  return {choices_.how_to_save, choices_.save_new_related};
}

void how_to_save_model::store_settings() {
  if (settings_.store) settings_.store(choices_);
}

}  // namespace tarn
