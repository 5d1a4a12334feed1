// Where the dialogs keep their remembered choices: REG_DWORD values in the current user's
// store under "Software\Vantu\PDF\V1\" plus the dialog's subkey.
#pragma once

#include <string>
#include <string_view>

namespace tarn {

inline constexpr std::string_view kDialogSubkey = "iManage";

inline constexpr const char* kDoMergeValue = "do_merge";
inline constexpr const char* kHowToSaveValue = "how_to_save";
inline constexpr const char* kSaveNewRelatedValue = "saver_new_related";
inline constexpr const char* kMergeDialogSizeValue = "merge_dialog_size";

inline std::string dialog_key(std::string_view subkey) {
  return "Software\\Vantu\\PDF\\V1\\" + std::string(subkey);
}

}  // namespace tarn
