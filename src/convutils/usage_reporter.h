// One usage event: decides whether reporting is allowed, finds the reporter program and
// starts it, detached and below normal priority, on one line of "|"-separated fields. A task
// makes one on its stack, adds its values and sends; nothing here can fail for the caller,
// and nothing is logged.
#pragma once

#include <string>
#include <string_view>

namespace tarn {

inline constexpr const char* kUsagePropertyId = "UA-314159265-1";
inline constexpr const char* kUsagePolicyKey = "Software\\Policies\\Vantu\\Tarn 5.0\\Preferences";
inline constexpr const char* kTelemetryProgram = "Telemetry";

class usage_reporter {
 public:
  // Reads the switches: CollectData (policy key), else AnalyticsEnabled (`key`), each in the
  // machine store first, then the user's; only 1 means on. With neither found anywhere it
  // writes AnalyticsEnabled = 1 for the user and reports.
  usage_reporter(std::string_view key, std::string_view property_id);
  usage_reporter(const usage_reporter&) = delete;
  usage_reporter& operator=(const usage_reporter&) = delete;

  // Appends |name|escaped text, both trimmed; an empty name or text adds nothing.
  void add_value(std::string_view name, std::string_view text);
  // Starts the reporter; nothing when reporting is off or the line is over the limit.
  void send();

  // The program and its one argument that send() starts; an empty program while reporting
  // is off.
  const std::string& program() const { return program_; }
  const std::string& line() const { return line_; }

 private:
  std::string key_;
  std::string program_;
  std::string line_;
};

// Escapes by UTF-16 unit: a blank becomes "%20", a unit of 128 or more "%" and its value in
// upper-case hex of at least two digits; everything else, "|" and "%" too, stays.
std::string escape_usage_text(std::string_view utf8);

// The event of one command: category, action and label.
void send_usage_event(std::string_view category, std::string_view action, std::string_view label);

}  // namespace tarn
