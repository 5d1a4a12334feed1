// The addressing strings of the local document store and the checks on the texts it keeps:
// library names, document references ("12.3", "archive:12.3", "12" for the latest version),
// document names, extensions and folders. Nothing here touches the disk.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <utility>

namespace tarn {

constexpr const char* kDefaultLibrary = "default";

// The longest reference text the store reads, library prefix included. The gateway refuses a
// command with a longer one before it logs or copies anything.
inline constexpr size_t kMaxDocRefLength = 100;

// One document version of one library; version 0 means the latest.
struct doc_key {
  std::string library;
  int64_t number = 0;
  int32_t version = 0;
};

// 1 to 64 of a-z, 0-9, '-' and '_', beginning with a letter or digit. Also a folder name on
// disk, so nothing else is let through.
bool valid_library_name(std::string_view name);

// Reads "N", "N.V", "LIB:N" or "LIB:N.V": decimal numbers from 1, without sign or leading
// zeros. The library comes from the text, else from `library`: the connection string, which
// may be empty for the default library. A text that names another library than a non-empty
// `library`, or anything else that doesn't read as above, gives nullopt.
std::optional<doc_key> parse_doc_ref(std::string_view text, std::string_view library = {});

// The reference as `tarnctl dms import` prints it: "N.V" in the default library, "LIB:N.V"
// elsewhere.
std::string format_doc_ref(std::string_view library, int64_t number, int32_t version);

// The library a connection string names: the default one for an empty string; nullopt for a
// string that is no library name.
std::optional<std::string> library_of_connection(std::string_view dms_connection);

// Well-formed UTF-8 without control characters.
bool printable_utf8(std::string_view text);

// Document names: 1 to 255 bytes of printable UTF-8, no '/', not "." or "..".
bool valid_doc_name(std::string_view name);
// Extensions, without the dot: up to 32 bytes of printable UTF-8 without '/' or '.'.
bool valid_extension(std::string_view extension);
// Folders are labels in the catalogue, never paths on disk: up to 255 bytes of printable UTF-8.
bool valid_folder(std::string_view folder);

// "report.final.pdf" -> {"report.final", "pdf"}; a leading dot belongs to the name
// (".profile" -> {".profile", ""}).
std::pair<std::string, std::string> split_file_name(std::string_view file_name);

}  // namespace tarn
