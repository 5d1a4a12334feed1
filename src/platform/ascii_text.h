// Small text helpers for ASCII-only syntax (file extensions, switches, keys of list files),
// where the locale must not change the result.
#pragma once

#include <string>
#include <string_view>

namespace tarn {

inline char ascii_lower(char c) {
  return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c;
}

inline std::string ascii_lower(std::string text) {
  for (char& c : text) c = ascii_lower(c);
  return text;
}

inline bool ascii_iequals(std::string_view a, std::string_view b) {
  if (a.size() != b.size()) return false;
  for (size_t i = 0; i < a.size(); ++i)
    if (ascii_lower(a[i]) != ascii_lower(b[i])) return false;
  return true;
}

// `text` without the characters of `blanks` at either end.
inline std::string_view trim(std::string_view text, std::string_view blanks = " \t\r\n\v\f") {
  const auto first = text.find_first_not_of(blanks);
  if (first == std::string_view::npos) return {};
  return text.substr(first, text.find_last_not_of(blanks) - first + 1);
}

}  // namespace tarn
