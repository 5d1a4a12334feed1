#include "log/log_text.h"

#include <algorithm>

namespace tarn {
namespace {

void append_escaped(std::string& out, unsigned char c) {
  static constexpr char kHex[] = "0123456789abcdef";
  switch (c) {
    case '\n':
      out += "\\n";
      return;
    case '\r':
      out += "\\r";
      return;
    case '\t':
      out += "\\t";
      return;
    default:
      break;
  }
  if (c < 0x20 || c == 0x7f) {
    out += "\\x";
    out += kHex[c >> 4];
    out += kHex[c & 0xf];
  } else {
    out += static_cast<char>(c);
  }
}

}  // namespace

std::string log_safe(std::string_view text, size_t limit) {
  const size_t room = limit > kLogCutMark.size() ? limit - kLogCutMark.size() : 0;
  std::string out;
  out.reserve(std::min(text.size(), limit) + 8);
  size_t fits = 0;  // the output up to the last whole character that leaves room for the mark
  for (const char ch : text) {
    const auto c = static_cast<unsigned char>(ch);
    // A UTF-8 continuation byte belongs to the character before it.
    if ((c & 0xc0) != 0x80 && out.size() <= room) fits = out.size();
    append_escaped(out, c);
    if (out.size() > limit) break;
  }
  if (out.size() <= limit) return out;
  out.resize(fits);
  out += kLogCutMark;
  return out;
}

}  // namespace tarn
