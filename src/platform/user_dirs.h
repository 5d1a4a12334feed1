// Where the current user's files live: home and the XDG base folders, by the XDG rules
// (a relative or empty variable is ignored).
#pragma once

#include <filesystem>
#include <optional>

namespace tarn {

std::filesystem::path home_dir();
std::filesystem::path xdg_config_home();  // ~/.config
std::filesystem::path xdg_data_home();    // ~/.local/share
std::filesystem::path xdg_state_home();   // ~/.local/state
std::filesystem::path xdg_cache_home();   // ~/.cache
// $XDG_RUNTIME_DIR when it is set and absolute.
std::optional<std::filesystem::path> xdg_runtime_dir();

// Creates `dir` and missing parents; the folders it creates get `mode`. False (errno set) on
// failure.
bool make_dirs(const std::filesystem::path& dir, unsigned mode);

}  // namespace tarn
