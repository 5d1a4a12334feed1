// Telemetry: the usage reporter. Takes the gateway's one-line event, checks and decodes it, and
// appends it as one JSON line to ${XDG_STATE_HOME:-~/.local/state}/vantu/usage.jsonl. It sends
// nothing over the network. Several reporters may run at once: each event is one write(2) on an
// O_APPEND descriptor, so lines never mix or get lost.
#include <fcntl.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <cerrno>
#include <cstring>
#include <ctime>
#include <iostream>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "platform/unique_fd.h"
#include "platform/user_dirs.h"

namespace tarn {
namespace {

constexpr int kExitOk = 0;
constexpr int kExitCantWrite = 1;
constexpr int kExitBadInput = 2;

constexpr const char* kDescription =
    "Records one usage event of the Vantu Tarn gateway.\n\n"
    "LINE is KEY|BUILD|PROPERTY followed by NAME|TEXT pairs, e.g.\n"
    "  Software\\Vantu\\PDF\\V1|5.0.0.1|UA-314159265-1|ec|iManage%2010|ea|Open\n"
    "KEY, BUILD and each TEXT carry blanks as %20 and characters above U+007F as %XX\n"
    "(each %XX is read as one character up to U+00FF; the raw line is kept in the event too).\n"
    "Several words are joined with single blanks, so an unquoted line works too.\n\n"
    "The event is appended as one JSON line to\n"
    "  ${XDG_STATE_HOME:-~/.local/state}/vantu/usage.jsonl\n"
    "Nothing is sent over the network.\n\n"
    "Exit codes: 0 recorded, 1 the file can't be written, 2 bad input.";

struct usage_event {
  std::string key;
  std::string build;
  std::string property;
  std::vector<std::pair<std::string, std::string>> values;
};

int hex_value(char c) {
  if (c >= '0' && c <= '9') return c - '0';
  if (c >= 'A' && c <= 'F') return c - 'A' + 10;
  if (c >= 'a' && c <= 'f') return c - 'a' + 10;
  return -1;
}

void append_utf8(std::string* out, unsigned code) {
  if (code < 0x80) {
    *out += static_cast<char>(code);
  } else {
    *out += static_cast<char>(0xC0 | (code >> 6));
    *out += static_cast<char>(0x80 | (code & 0x3F));
  }
}

// "%XX" is one UTF-16 unit up to U+00FF, which covers the blank and Latin-1. A longer escape
// can't be told from an escape followed by hex digits ("%20AC" is the euro sign or " AC"), so
// it is read the short way; the raw line beside it keeps the original.
std::string unescape(std::string_view text) {
  std::string out;
  for (size_t i = 0; i < text.size(); ++i) {
    int high = -1, low = -1;
    if (text[i] == '%' && i + 2 < text.size()) {
      high = hex_value(text[i + 1]);
      low = hex_value(text[i + 2]);
    }
    if (high >= 0 && low >= 0) {
      append_utf8(&out, static_cast<unsigned>(high * 16 + low));
      i += 2;
    } else {
      out += text[i];
    }
  }
  return out;
}

bool parse_line(const std::string& line, usage_event* event, std::string* err) {
  std::vector<std::string_view> fields;
  for (size_t start = 0;;) {
    const size_t bar = line.find('|', start);
    fields.emplace_back(std::string_view(line).substr(start, bar - start));
    if (bar == std::string::npos) break;
    start = bar + 1;
  }
  if (fields.size() < 3) {
    *err = "expected KEY|BUILD|PROPERTY[|NAME|TEXT]..., got " + std::to_string(fields.size()) +
           " field(s) in \"" + line + "\"";
    return false;
  }
  if (fields[0].empty() || fields[2].empty()) {
    *err = std::string(fields[0].empty() ? "the key" : "the property id") + " is empty in \"" +
           line + "\"";
    return false;
  }
  if ((fields.size() - 3) % 2 != 0) {
    *err = "value \"" + std::string(fields.back()) + "\" has no text";
    return false;
  }
  event->key = unescape(fields[0]);
  event->build = unescape(fields[1]);
  event->property = std::string(fields[2]);
  for (size_t i = 3; i < fields.size(); i += 2) {
    if (fields[i].empty()) {
      *err = "value " + std::to_string((i - 3) / 2 + 1) + " has no name";
      return false;
    }
    event->values.emplace_back(std::string(fields[i]), unescape(fields[i + 1]));
  }
  return true;
}

std::string utc_now() {
  const std::time_t now = std::time(nullptr);
  std::tm utc;
  gmtime_r(&now, &utc);
  char text[32];
  std::strftime(text, sizeof text, "%Y-%m-%dT%H:%M:%SZ", &utc);
  return text;
}

int record(const std::string& line) {
  usage_event event;
  std::string err;
  if (!parse_line(line, &event, &err)) {
    std::cerr << "Telemetry: bad event: " << err << "\n";
    return kExitBadInput;
  }
  nlohmann::ordered_json json;
  json["time"] = utc_now();
  json["key"] = event.key;
  json["build"] = event.build;
  json["property"] = event.property;
  json["values"] = nlohmann::ordered_json::object();
  for (const auto& [name, text] : event.values) json["values"][name] = text;
  json["line"] = line;
  const std::string text =
      json.dump(-1, ' ', false, nlohmann::ordered_json::error_handler_t::replace) + "\n";

  const auto dir = xdg_state_home() / "vantu";
  if (!make_dirs(dir, 0700)) {
    std::cerr << "Telemetry: can't create " << dir.string() << ": " << std::strerror(errno) << "\n";
    return kExitCantWrite;
  }
  const auto file = dir / "usage.jsonl";
  unique_fd fd(::open(file.c_str(), O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC, 0600));
  if (!fd) {
    std::cerr << "Telemetry: can't open " << file.string() << ": " << std::strerror(errno) << "\n";
    return kExitCantWrite;
  }
  // One write, so that concurrent reporters append whole lines.
  ssize_t written;
  while ((written = ::write(fd.get(), text.data(), text.size())) < 0 && errno == EINTR) {
  }
  if (written != static_cast<ssize_t>(text.size())) {
    std::cerr << "Telemetry: can't append to " << file.string() << ": "
              << (written < 0 ? std::strerror(errno) : "short write") << "\n";
    return kExitCantWrite;
  }
  return kExitOk;
}

}  // namespace
}  // namespace tarn

int main(int argc, char** argv) {
  CLI::App app(tarn::kDescription, "Telemetry");
  std::vector<std::string> words;
  app.add_option("LINE", words, "The event line")->required();
  app.allow_extras(false);
  try {
    app.parse(argc, argv);
  } catch (const CLI::CallForHelp& e) {
    return app.exit(e);
  } catch (const CLI::ParseError& e) {
    std::cerr << "Telemetry: " << e.what() << "\nRun with --help for the line's format.\n";
    return tarn::kExitBadInput;
  }
  std::string line;
  for (const auto& word : words) line += (line.empty() ? "" : " ") + word;
  return tarn::record(line);
}
