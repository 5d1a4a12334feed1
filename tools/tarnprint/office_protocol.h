// What tarnprint and tarnoffice say over the office socket: one request per connection, each
// message one JSON object on one line.
//
//   tarnprint -> {"op":"convert","src":"/abs/in.docx","dst":"/abs/.out.tmp","format":"pdf",
//                 "by_content":true,"timeout_ms":120000,
//                 "csv":{"separator":44,"charset":76}}       ("by_content", "csv" optional)
//             -> {"op":"quit"}
//   tarnoffice -> {"event":"started"}   when the office takes the document up
//              -> {"ok":true} | {"ok":false,"error":"why"}   when it is done
#pragma once

#include <chrono>
#include <string>

#include <nlohmann/json.hpp>

namespace tarn {

// A longer line is a broken peer, not a request.
constexpr size_t kMaxOfficeLine = 64 * 1024;

// Writes the object and a newline; false when the peer is gone (never raises SIGPIPE).
bool send_message(int fd, const nlohmann::json& message);

// Reads lines from one socket, keeping what follows a line for the next call.
class line_reader {
 public:
  enum class status { line, eof, timeout, error, too_long };

  // Waits until `deadline` for a complete line and stores it, without the newline, in *line.
  status read(int fd, std::chrono::steady_clock::time_point deadline, std::string* line);

 private:
  std::string buffer_;
};

// Parses a line into an object; a line that isn't one gives a discarded (null) value.
nlohmann::json parse_message(const std::string& line);

}  // namespace tarn
