#include "convutils/usage_reporter.h"

#include <unistd.h>

#include <QString>
#include <cstdio>
#include <fstream>
#include <initializer_list>

#include "convutils/CConvRegKey.h"
#include "convutils/ConvUtils.h"
#include "log/trace.h"
#include "platform/ascii_text.h"
#include "platform/process_launch.h"
#include "platform/self_exe.h"
#include "platform/trusted_path.h"

namespace tarn {
namespace {

// UTF-16 units of "program line" with its end mark; longer lines are dropped.
constexpr qsizetype kMaxCommandLine = 1040;
constexpr DWORD kNotFound = 0xFFFFFFFF;
constexpr int kBelowNormal = 10;
constexpr size_t kMaxBuildWord = 259;

// The machine's value wins over the user's; -1 and a value that can't be read as a number
// count as missing.
DWORD read_switch(std::string_view key, const char* name) {
  for (reg_root root : {reg_root::local_machine, reg_root::current_user}) {
    DWORD value = kNotFound;
    if (CConvRegKey(root, key, name, kNotFound).read_number(&value) == kErrorSuccess &&
        value != kNotFound)
      return value;
  }
  return kNotFound;
}

std::string read_install_path(std::string_view key) {
  for (reg_root root : {reg_root::local_machine, reg_root::current_user}) {
    CConvRegKey value(root, key, "InstallPath", std::nullopt);
    if (const std::string* text = value.read_text()) {
      std::string path = *text;
      if (!path.empty() && path.back() != '/') path += '/';
      return path;
    }
  }
  return "";
}

std::string read_build_id(const std::string& install) {
  std::ifstream in(install + "Build.id");
  std::string word;
  while (in >> word) {
    if (word.size() > kMaxBuildWord) word.resize(kMaxBuildWord);
    if (auto id = trim(word); !id.empty()) return std::string(id);
  }
  return "";
}

// Never relative to the current folder, which anyone may have chosen.
std::string find_reporter(const std::string& install) {
  return (install.empty() ? self_exe_dir() : install) + kTelemetryProgram;
}

}  // namespace

std::string escape_usage_text(std::string_view utf8) {
  const QString text = QString::fromUtf8(utf8.data(), static_cast<qsizetype>(utf8.size()));
  std::string out;
  out.reserve(utf8.size());
  for (QChar c : text) {
    const unsigned unit = c.unicode();
    if (unit >= 128) {
      char hex[8];
      std::snprintf(hex, sizeof hex, "%%%02X", unit);
      out += hex;
    } else if (unit == ' ') {
      out += "%20";
    } else {
      out += static_cast<char>(unit);
    }
  }
  return out;
}

usage_reporter::usage_reporter(std::string_view key, std::string_view property_id) : key_(key) {
  DWORD enabled = read_switch(kUsagePolicyKey, "CollectData");
  if (enabled == kNotFound) enabled = read_switch(key_, "AnalyticsEnabled");
  if (enabled == kNotFound) {
    // Nothing decided anywhere yet: reporting is on, now and for later events.
    enabled = 1;
    CConvRegKey(reg_root::current_user, key_, "AnalyticsEnabled", DWORD{0}).write_number(1);
  }
  if (enabled != 1) return;
  const std::string install = read_install_path(key_);
  program_ = find_reporter(install);
  const std::string build = install.empty() ? "" : read_build_id(install);
  line_ = escape_usage_text(key_) + "|" + escape_usage_text(build) + "|" + std::string(property_id);
}

void usage_reporter::add_value(std::string_view name, std::string_view text) {
  name = trim(name);
  text = trim(text);
  if (name.empty() || text.empty()) return;
  line_ += "|";
  line_ += name;
  line_ += "|";
  line_ += escape_usage_text(text);
}

void usage_reporter::send() {
  if (program_.empty()) return;
  const qsizetype units = QString::fromUtf8(program_.data(), program_.size()).size() + 1 +
                          QString::fromUtf8(line_.data(), line_.size()).size() + 1;
  if (units > kMaxCommandLine) return;
  if (std::string why; !trusted_path(program_, &why)) {
    TARN_TRACE(kTraceError, "Refusing to run %s: %s", program_.c_str(), why.c_str());
    return;
  }
  detached_options options;
  options.nice_increment = kBelowNormal;
  spawn_detached({program_, line_}, options);
}

void send_usage_event(std::string_view category, std::string_view action, std::string_view label) {
  usage_reporter reporter(kProductKey, kUsagePropertyId);
  reporter.add_value("ec", category);
  reporter.add_value("ea", action);
  reporter.add_value("el", label);
  reporter.send();
}

}  // namespace tarn
