// The office's cache of extensions installed for all users, a folder every user's office must
// be able to read at start. An office run as root with umask 077 creates it mode 0700, and
// from then on every other user's office dies at start.
#pragma once

#include <filesystem>
#include <string>

namespace tarn {

// /var/spool/libreoffice/uno_packages/cache/uno_packages on Debian: the folder the office's
// share/uno_packages/cache link leads to.
std::filesystem::path shared_extension_cache();

// For an office about to start as root: creates the folder readable by everyone (0755), or
// opens up one that isn't. False with *err when that fails.
bool open_shared_extension_cache(std::string* err);

// One sentence naming the folder and the remedy when this user can't read it; else empty.
std::string shared_extension_cache_hint();

}  // namespace tarn
