// The current user's private temporary folder. /tmp is shared by every user, so files the
// gateway hands between programs live in a folder that only this user can enter: $TMPDIR
// itself when it is such a folder; else "tarn-<uid>" inside $TMPDIR; without TMPDIR,
// $XDG_RUNTIME_DIR/tarn, else /tmp/tarn-<uid>. When someone else holds that name, or it is
// no private folder, ${XDG_CACHE_HOME:-~/.cache}/tarn-tmp serves, and as a last resort a
// folder made by mkdtemp beside the name, kept for the life of the process.
#pragma once

#include <filesystem>
#include <optional>
#include <string>

namespace tarn {

// Creates the folder with mode 0700 when missing. A folder serves only when it is one, belongs
// to this user and nobody else may enter it. Nullopt, with every reason in *err, when no place
// serves.
std::optional<std::filesystem::path> private_temp_dir(std::string* err = nullptr);

}  // namespace tarn
