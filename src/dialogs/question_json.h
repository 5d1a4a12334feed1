// A question shown by a child process travels as JSON: the dialog's state at opening goes to
// the child's standard input, its state at the end comes back on its standard output. Names
// and texts are UTF-8; invalid bytes arrive as U+FFFD.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "dialogs/how_to_save_model.h"
#include "dialogs/merge_sort_model.h"
#include "dialogs/resizable_frame.h"

namespace tarn {

struct merge_sort_request {
  bool extended = true;
  merge_sort_choices choices;
  std::vector<merge_sort_row> rows;
  frame_size size;  // the stored size; 0 by 0 for none
};

struct merge_sort_reply {
  bool accepted = false;
  merge_sort_choices choices;
  std::vector<int32_t> order;  // the rows' item data, top to bottom
  frame_size size;             // the size the dialog had at its end; 0 by 0 for none
};

struct how_to_save_request {
  std::string prompt;
  bool local_save_allowed = false;
  how_to_save_choices choices;
};

struct how_to_save_reply {
  bool accepted = false;
  how_to_save_choices choices;  // what the dialog writes back, on Cancel too
};

std::string encode(const merge_sort_request& request);
std::string encode(const merge_sort_reply& reply);
std::string encode(const how_to_save_request& request);
std::string encode(const how_to_save_reply& reply);

// False, with *err naming the field at fault, for text that isn't the message expected.
bool decode(const std::string& text, merge_sort_request* request, std::string* err);
bool decode(const std::string& text, merge_sort_reply* reply, std::string* err);
bool decode(const std::string& text, how_to_save_request* request, std::string* err);
bool decode(const std::string& text, how_to_save_reply* reply, std::string* err);

}  // namespace tarn
