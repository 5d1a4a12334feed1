// The current user's private temporary folder. /tmp is shared by every user, so files the
// gateway hands between programs live in a folder that only this user can enter:
// $TMPDIR if set, else $XDG_RUNTIME_DIR/tarn, else /tmp/tarn-<uid>.
#pragma once

#include <filesystem>
#include <optional>
#include <string>

namespace tarn {

// Creates the folder with mode 0700 when missing. Refuses (nullopt, reason in *err) a folder
// owned by another user, one that others can write or enter, or a path that is not a folder.
std::optional<std::filesystem::path> private_temp_dir(std::string* err = nullptr);

}  // namespace tarn
