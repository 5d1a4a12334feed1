#include "dialogs/question_json.h"

#include <nlohmann/json.hpp>

#include <cstdint>
#include <stdexcept>

namespace tarn {
namespace {

using json = nlohmann::json;

std::string dump(const json& message) {
  return message.dump(-1, ' ', false, json::error_handler_t::replace) + "\n";
}

// A 32-bit integer; JSON's numbers are wider, and a value out of range is a bad message.
int32_t int32_of(const json& value) {
  if (!value.is_number_integer()) throw std::invalid_argument("not an integer: " + value.dump());
  const bool fits = value.is_number_unsigned()
                        ? value.get<uint64_t>() <= INT32_MAX
                        : value.get<int64_t>() >= INT32_MIN && value.get<int64_t>() <= INT32_MAX;
  if (!fits) throw std::out_of_range("out of range: " + value.dump());
  return static_cast<int32_t>(value.get<int64_t>());
}

json size_json(frame_size size) { return {{"width", size.width}, {"height", size.height}}; }

frame_size size_of(const json& message) {
  const json& size = message.at("size");
  return {int32_of(size.at("width")), int32_of(size.at("height"))};
}

json merge_choices_json(const merge_sort_choices& choices) {
  return {{"merge_documents_", choices.merge_documents_},
          {"save_new_", choices.save_new_},
          {"save_new_related_", choices.save_new_related_}};
}

merge_sort_choices merge_choices_of(const json& message) {
  merge_sort_choices choices;
  choices.merge_documents_ = message.at("merge_documents_").get<bool>();
  choices.save_new_ = int32_of(message.at("save_new_"));
  choices.save_new_related_ = message.at("save_new_related_").get<bool>();
  return choices;
}

std::vector<merge_sort_row> rows_of(const json& message) {
  std::vector<merge_sort_row> rows;
  for (const json& row : message.at("rows")) {
    rows.push_back({row.at("name").get<std::string>(), row.at("doc_number").get<std::string>(),
                    row.at("version").get<std::string>(), int32_of(row.at("item_data"))});
  }
  return rows;
}

std::vector<int32_t> order_of(const json& message) {
  std::vector<int32_t> order;
  for (const json& item_data : message.at("order")) order.push_back(int32_of(item_data));
  return order;
}

json how_choices_json(const how_to_save_choices& choices) {
  return {{"how_to_save", choices.how_to_save}, {"save_new_related", choices.save_new_related}};
}

how_to_save_choices how_choices_of(const json& message) {
  return {int32_of(message.at("how_to_save")), message.at("save_new_related").get<bool>()};
}

// Reads `text` into *message with `read`, which gives the message or throws; the exceptions
// of a bad message end here as a false and a sentence, and *message stays as it was.
template <typename Message, typename Read>
bool parse(const std::string& text, Message* message, std::string* err, Read read) {
  try {
    *message = read(json::parse(text));
    return true;
  } catch (const std::exception& e) {
    if (err) *err = e.what();
    return false;
  }
}

}  // namespace

std::string encode(const merge_sort_request& request) {
  json rows = json::array();
  for (const auto& row : request.rows) {
    rows.push_back({{"name", row.name},
                    {"doc_number", row.doc_number},
                    {"version", row.version},
                    {"item_data", row.item_data}});
  }
  json message = merge_choices_json(request.choices);
  message["extended"] = request.extended;
  message["rows"] = std::move(rows);
  message["size"] = size_json(request.size);
  return dump(message);
}

std::string encode(const merge_sort_reply& reply) {
  json message = merge_choices_json(reply.choices);
  message["accepted"] = reply.accepted;
  message["order"] = reply.order;
  message["size"] = size_json(reply.size);
  return dump(message);
}

std::string encode(const how_to_save_request& request) {
  json message = how_choices_json(request.choices);
  message["prompt"] = request.prompt;
  message["local_save_allowed"] = request.local_save_allowed;
  return dump(message);
}

std::string encode(const how_to_save_reply& reply) {
  json message = how_choices_json(reply.choices);
  message["accepted"] = reply.accepted;
  return dump(message);
}

// Braced lists read the fields in order, so *err names the first one at fault.
bool decode(const std::string& text, merge_sort_request* request, std::string* err) {
  return parse(text, request, err, [](const json& message) {
    return merge_sort_request{message.at("extended").get<bool>(), merge_choices_of(message),
                              rows_of(message), size_of(message)};
  });
}

bool decode(const std::string& text, merge_sort_reply* reply, std::string* err) {
  return parse(text, reply, err, [](const json& message) {
    return merge_sort_reply{message.at("accepted").get<bool>(), merge_choices_of(message),
                            order_of(message), size_of(message)};
  });
}

bool decode(const std::string& text, how_to_save_request* request, std::string* err) {
  return parse(text, request, err, [](const json& message) {
    return how_to_save_request{message.at("prompt").get<std::string>(),
                               message.at("local_save_allowed").get<bool>(),
                               how_choices_of(message)};
  });
}

bool decode(const std::string& text, how_to_save_reply* reply, std::string* err) {
  return parse(text, reply, err, [](const json& message) {
    return how_to_save_reply{message.at("accepted").get<bool>(), how_choices_of(message)};
  });
}

}  // namespace tarn
