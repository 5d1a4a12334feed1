#include "list_file.h"

#include <charconv>
#include <map>

#include "platform/ascii_text.h"

namespace tarn {
namespace {

constexpr int kMaxCount = 100000;

constexpr std::string_view kBlank = " \t\r";

bool parse_number(std::string_view text, int* value) {
  auto [end, ec] = std::from_chars(text.data(), text.data() + text.size(), *value);
  return ec == std::errc() && end == text.data() + text.size();
}

std::string latin1_to_utf8(std::string_view bytes) {
  std::string out;
  for (unsigned char c : bytes) {
    if (c < 0x80) {
      out += static_cast<char>(c);
    } else {
      out += static_cast<char>(0xC0 | (c >> 6));
      out += static_cast<char>(0x80 | (c & 0x3F));
    }
  }
  return out;
}

}  // namespace

bool parse_list(const std::string& bytes, assist_list* list, std::string* err) {
  bool in_files = false, seen_files = false;
  int count = -1;
  std::map<int, std::string> rows;
  size_t line_no = 0;
  for (size_t start = 0; start < bytes.size();) {
    size_t end = bytes.find('\n', start);
    if (end == std::string::npos) end = bytes.size();
    std::string_view line = trim(std::string_view(bytes).substr(start, end - start), kBlank);
    start = end + 1;
    ++line_no;
    if (line.empty()) continue;
    const std::string where = "line " + std::to_string(line_no);
    if (line.front() == '[') {
      in_files = ascii_iequals(line, "[FILES]");
      seen_files = seen_files || in_files;
      continue;
    }
    if (!in_files) continue;
    const auto eq = line.find('=');
    if (eq == std::string_view::npos) {
      *err = where + ": expected KEY=VALUE, got \"" + std::string(line) + "\"";
      return false;
    }
    const std::string_view key = trim(line.substr(0, eq), kBlank);
    std::string_view value = trim(line.substr(eq + 1), kBlank);
    int number = 0;
    if (ascii_iequals(key, "Count")) {
      if (!parse_number(value, &count) || count < 0 || count > kMaxCount) {
        *err = where + ": Count must be a number from 0 to " + std::to_string(kMaxCount) +
               ", got \"" + std::string(value) + "\"";
        return false;
      }
    } else if (ascii_iequals(key, "Delete")) {
      list->delete_copies = value == "1";
    } else if (parse_number(key, &number) && number >= 1) {
      // The path runs from the first quote to the last: a name may hold quotes itself.
      if (value.size() >= 2 && value.front() == '"' && value.back() == '"')
        value = value.substr(1, value.size() - 2);
      rows[number] = std::string(value);
    }
  }
  if (!seen_files) {
    *err = "no [FILES] section";
    return false;
  }
  if (count < 0) {
    *err = "no Count= line in [FILES]";
    return false;
  }
  list->rows.clear();
  for (int i = 1; i <= count; ++i) {
    list_row row;
    row.number = i;
    if (auto it = rows.find(i); it != rows.end()) {
      row.present = true;
      row.raw = it->second;
      row.path = latin1_to_utf8(row.raw);
    }
    list->rows.push_back(std::move(row));
  }
  return true;
}

std::string format_list(const std::vector<list_row>& rows, bool delete_copies) {
  std::string out = "[FILES]\r\nCount=" + std::to_string(rows.size()) + "\r\n";
  if (delete_copies) out += "Delete=1\r\n";
  int number = 0;
  for (const auto& row : rows) out += std::to_string(++number) + "=\"" + row.raw + "\"\r\n";
  return out;
}

std::vector<std::string> candidate_paths(const list_row& row) {
  std::vector<std::string> paths;
  if (!row.path.empty()) paths.push_back(row.path);
  if (row.raw != row.path && !row.raw.empty()) paths.push_back(row.raw);
  return paths;
}

}  // namespace tarn
