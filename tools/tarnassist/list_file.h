// The conversion assistant's list file: "[FILES]", "Count=N", "Delete=1", then rows N="path",
// one byte per character (Latin-1), CR LF line ends. Nothing between the quotes is escaped.
#pragma once

#include <filesystem>
#include <string>
#include <vector>

namespace tarn {

struct list_row {
  int number = 0;
  bool present = false;  // the list has a row of this number
  std::string raw;       // the bytes between the quotes, as written
  // The path in UTF-8: raw read as Latin-1, as the format says. A writer that had characters
  // beyond Latin-1 may have put UTF-8 bytes instead; see candidate_paths().
  std::string path;
};

struct assist_list {
  std::vector<list_row> rows;  // numbers 1..Count, in order
  bool delete_copies = false;
};

// False with *err naming the line or key at fault. Lines may end in LF alone; keys ignore
// case; rows beyond Count are ignored, missing ones come back as not present.
bool parse_list(const std::string& bytes, assist_list* list, std::string* err);

// The list's bytes: the rows with their raw paths, renumbered from 1.
std::string format_list(const std::vector<list_row>& rows, bool delete_copies);

// Where a row's file may be: its Latin-1 reading, then its raw bytes if they differ.
std::vector<std::string> candidate_paths(const list_row& row);

}  // namespace tarn
