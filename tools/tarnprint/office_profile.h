// The settings the warm office's private profile must hold: documents come from anyone, so
// the office fetches nothing a document links to, updates no links and runs no document
// macros; and it leaves no lock files beside the documents it reads.
#pragma once

#include <filesystem>
#include <string>

namespace tarn {

// Writes the settings into `profile`'s registrymodifications.xcu, replacing any other value
// of the same setting and keeping the rest of the file: the office's own entries there spare
// seconds at each start. False with *err when the file can't be written.
bool prepare_office_profile(const std::filesystem::path& profile, std::string* err);

}  // namespace tarn
