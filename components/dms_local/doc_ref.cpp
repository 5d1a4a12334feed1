#include "dms_local/doc_ref.h"

#include <charconv>
#include <limits>

namespace tarn {
namespace {

constexpr size_t kMaxLibraryLength = 64;
constexpr size_t kMaxNameLength = 255;
constexpr size_t kMaxExtensionLength = 32;
constexpr size_t kMaxFolderLength = 255;

bool is_digit(char c) { return c >= '0' && c <= '9'; }

// A decimal number from 1 up to `max`, digits only, no leading zero.
template <typename T>
std::optional<T> parse_positive(std::string_view text, T max) {
  if (text.empty() || text[0] == '0') return std::nullopt;
  for (char c : text)
    if (!is_digit(c)) return std::nullopt;
  T value{};
  auto [end, ec] = std::from_chars(text.data(), text.data() + text.size(), value);
  if (ec != std::errc() || end != text.data() + text.size() || value < 1 || value > max)
    return std::nullopt;
  return value;
}

}  // namespace

bool valid_library_name(std::string_view name) {
  if (name.empty() || name.size() > kMaxLibraryLength) return false;
  for (size_t i = 0; i < name.size(); ++i) {
    const char c = name[i];
    const bool alnum = (c >= 'a' && c <= 'z') || is_digit(c);
    if (!alnum && (i == 0 || (c != '-' && c != '_'))) return false;
  }
  return true;
}

std::optional<doc_key> parse_doc_ref(std::string_view text, std::string_view library) {
  if (text.empty() || text.size() > kMaxDocRefLength) return std::nullopt;
  doc_key key;
  if (const size_t colon = text.find(':'); colon != std::string_view::npos) {
    key.library = std::string(text.substr(0, colon));
    text.remove_prefix(colon + 1);
    if (!valid_library_name(key.library)) return std::nullopt;
    if (!library.empty() && library != key.library) return std::nullopt;
  } else if (!library.empty()) {
    if (!valid_library_name(library)) return std::nullopt;
    key.library = std::string(library);
  } else {
    key.library = kDefaultLibrary;
  }
  std::string_view number = text;
  std::string_view version;
  if (const size_t dot = text.find('.'); dot != std::string_view::npos) {
    number = text.substr(0, dot);
    version = text.substr(dot + 1);
    if (version.empty()) return std::nullopt;
  }
  // Numbers stay below 2^53 so that a JSON reader gets them exactly.
  auto parsed_number = parse_positive<int64_t>(number, (int64_t{1} << 53) - 1);
  if (!parsed_number) return std::nullopt;
  key.number = *parsed_number;
  if (!version.empty()) {
    auto parsed_version = parse_positive<int32_t>(version, std::numeric_limits<int32_t>::max());
    if (!parsed_version) return std::nullopt;
    key.version = *parsed_version;
  }
  return key;
}

std::string format_doc_ref(std::string_view library, int64_t number, int32_t version) {
  std::string out;
  if (library != kDefaultLibrary) {
    out.append(library);
    out += ':';
  }
  out += std::to_string(number);
  out += '.';
  out += std::to_string(version);
  return out;
}

std::optional<std::string> library_of_connection(std::string_view dms_connection) {
  if (dms_connection.empty()) return std::string(kDefaultLibrary);
  if (!valid_library_name(dms_connection)) return std::nullopt;
  return std::string(dms_connection);
}

bool printable_utf8(std::string_view text) {
  for (size_t i = 0; i < text.size();) {
    const auto lead = static_cast<unsigned char>(text[i]);
    if (lead < 0x80) {
      if (lead < 0x20 || lead == 0x7F) return false;
      ++i;
      continue;
    }
    size_t len = 0;
    uint32_t cp = 0;
    if ((lead & 0xE0) == 0xC0) {
      len = 2;
      cp = lead & 0x1F;
    } else if ((lead & 0xF0) == 0xE0) {
      len = 3;
      cp = lead & 0x0F;
    } else if ((lead & 0xF8) == 0xF0) {
      len = 4;
      cp = lead & 0x07;
    } else {
      return false;
    }
    if (i + len > text.size()) return false;
    for (size_t k = 1; k < len; ++k) {
      const auto next = static_cast<unsigned char>(text[i + k]);
      if ((next & 0xC0) != 0x80) return false;
      cp = (cp << 6) | (next & 0x3F);
    }
    static constexpr uint32_t kSmallest[] = {0, 0, 0x80, 0x800, 0x10000};
    if (cp < kSmallest[len] || cp > 0x10FFFF || (cp >= 0xD800 && cp <= 0xDFFF)) return false;
    if (cp >= 0x80 && cp <= 0x9F) return false;  // C1 controls
    i += len;
  }
  return true;
}

bool valid_doc_name(std::string_view name) {
  return !name.empty() && name.size() <= kMaxNameLength && name != "." && name != ".." &&
         name.find('/') == std::string_view::npos && printable_utf8(name);
}

bool valid_extension(std::string_view extension) {
  return extension.size() <= kMaxExtensionLength &&
         extension.find_first_of("/.") == std::string_view::npos && printable_utf8(extension);
}

bool valid_folder(std::string_view folder) {
  return folder.size() <= kMaxFolderLength && printable_utf8(folder);
}

std::pair<std::string, std::string> split_file_name(std::string_view file_name) {
  const size_t dot = file_name.rfind('.');
  if (dot == std::string_view::npos || dot == 0) return {std::string(file_name), std::string()};
  return {std::string(file_name.substr(0, dot)), std::string(file_name.substr(dot + 1))};
}

}  // namespace tarn
