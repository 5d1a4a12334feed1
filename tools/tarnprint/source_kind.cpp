#include "source_kind.h"

#include <algorithm>
#include <array>

#include "platform/ascii_text.h"

namespace tarn {
namespace {

bool starts_with(std::string_view head, std::string_view magic) {
  return head.substr(0, magic.size()) == magic;
}

bool has_utf16_bom(std::string_view head) {
  return starts_with(head, "\xFF\xFE") || starts_with(head, "\xFE\xFF");
}

bool looks_like_text(std::string_view head) {
  if (has_utf16_bom(head)) return true;
  if (head.find('\0') != std::string_view::npos) return false;
  // In any encoding, text has hardly any control characters; random bytes one in eight.
  const auto controls = std::count_if(head.begin(), head.end(), [](char ch) {
    const auto c = static_cast<unsigned char>(ch);
    return (c < 0x20 && c != '\t' && c != '\n' && c != '\r' && c != '\f' && c != 0x1B) || c == 0x7F;
  });
  return static_cast<size_t>(controls) * 100 < head.size();
}

}  // namespace

bool is_utf8(std::string_view text, bool allow_cut_end) {
  size_t i = 0;
  while (i < text.size()) {
    const auto c = static_cast<unsigned char>(text[i]);
    size_t more = 0;
    if (c < 0x80) {
      more = 0;
    } else if (c >= 0xC2 && c <= 0xDF) {
      more = 1;
    } else if (c >= 0xE0 && c <= 0xEF) {
      more = 2;
    } else if (c >= 0xF0 && c <= 0xF4) {
      more = 3;
    } else {
      return false;
    }
    for (size_t k = 1; k <= more; ++k) {
      if (i + k >= text.size()) return allow_cut_end;
      if ((static_cast<unsigned char>(text[i + k]) & 0xC0) != 0x80) return false;
    }
    i += more + 1;
  }
  return true;
}

source_kind sniff_source(std::string_view head) {
  if (head.empty()) return source_kind::empty;
  // PDF readers accept the header anywhere in the first kilobyte.
  if (head.substr(0, 1024).find("%PDF-") != std::string_view::npos) return source_kind::pdf;
  static constexpr std::array<std::string_view, 3> kPackages = {
      std::string_view("PK\x03\x04", 4), std::string_view("\xD0\xCF\x11\xE0\xA1\xB1\x1A\xE1", 8),
      std::string_view("{\\rtf")};
  for (auto magic : kPackages)
    if (starts_with(head, magic)) return source_kind::package;
  static constexpr std::array<std::string_view, 6> kImages = {
      std::string_view("\x89PNG\r\n\x1A\n", 8),
      std::string_view("\xFF\xD8\xFF", 3),
      std::string_view("GIF87a"),
      std::string_view("GIF89a"),
      std::string_view("II*\0", 4),
      std::string_view("MM\0*", 4)};
  for (auto magic : kImages)
    if (starts_with(head, magic)) return source_kind::image;
  return looks_like_text(head) ? source_kind::text : source_kind::unknown;
}

std::optional<csv_layout> csv_layout_of(const std::filesystem::path& name, std::string_view head) {
  if (ascii_lower(name.extension().string()) != ".csv") return std::nullopt;

  csv_layout layout;
  if (has_utf16_bom(head)) {
    layout.charset = 65535;
    return layout;  // the separator count below would read every other byte
  }
  if (starts_with(head, "\xEF\xBB\xBF")) head.remove_prefix(3);
  layout.charset = is_utf8(head, /*allow_cut_end=*/true) ? 76 : 1;
  size_t commas = 0, semicolons = 0, tabs = 0;
  bool quoted = false;
  for (char c : head.substr(0, head.find('\n'))) {
    if (c == '"') quoted = !quoted;
    if (quoted) continue;
    commas += c == ',';
    semicolons += c == ';';
    tabs += c == '\t';
  }
  if (semicolons > commas && semicolons >= tabs) layout.separator = ';';
  if (tabs > commas && tabs > semicolons) layout.separator = '\t';
  return layout;
}

}  // namespace tarn
