// The settings the warm office's private profile must hold: documents come from anyone, so
// the office fetches nothing a document links to, updates no links and runs no document
// macros; and it leaves no lock files beside the documents it reads.
#pragma once

#include <filesystem>
#include <string>

namespace tarn {

// The version of the office installed in `program_dir` as its configuration names it ("7.4");
// empty when it can't be read.
std::string installed_office_version(const std::filesystem::path& program_dir);

// Writes the settings into `profile`'s registrymodifications.xcu, replacing any other value
// of the same setting and keeping the rest of the file: the office's own entries there spare
// seconds at each start. With `office_version`, the profile also says that this version has
// run in it. False with *err when the file can't be written.
bool prepare_office_profile(const std::filesystem::path& profile, const std::string& office_version,
                            std::string* err);

}  // namespace tarn
