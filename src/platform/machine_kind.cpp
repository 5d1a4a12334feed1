#include "platform/machine_kind.h"

#include <charconv>
#include <cstdlib>
#include <fstream>
#include <optional>
#include <string>
#include <string_view>

namespace tarn {
namespace {

std::string env_or(const char* name, const char* fallback) {
  const char* value = std::getenv(name);
  return value != nullptr && value[0] != '\0' ? value : fallback;
}

// The CHASSIS value of machine-info(5), unquoted; nullopt when there is no such line.
std::optional<std::string> machine_info_chassis(const std::string& path) {
  std::ifstream in(path);
  std::string line;
  std::optional<std::string> chassis;
  while (std::getline(in, line)) {
    std::string_view view(line);
    while (!view.empty() && (view.front() == ' ' || view.front() == '\t')) view.remove_prefix(1);
    if (!view.starts_with("CHASSIS=")) continue;
    view.remove_prefix(8);
    while (!view.empty() && (view.back() == ' ' || view.back() == '\t' || view.back() == '\r'))
      view.remove_suffix(1);
    if (view.size() >= 2 && (view.front() == '"' || view.front() == '\'') &&
        view.back() == view.front()) {
      view = view.substr(1, view.size() - 2);
    }
    chassis = std::string(view);
  }
  return chassis;
}

// SMBIOS chassis types: 17 main server chassis, 23 rack mount, 25 multi-system,
// 28 blade, 29 blade enclosure.
bool dmi_says_server(const std::string& dmi_dir) {
  std::ifstream in(dmi_dir + "/chassis_type");
  std::string text;
  if (!std::getline(in, text)) return false;
  int type = 0;
  auto [end, ec] = std::from_chars(text.data(), text.data() + text.size(), type);
  if (ec != std::errc()) return false;
  return type == 17 || type == 23 || type == 25 || type == 28 || type == 29;
}

}  // namespace

bool is_server_edition() {
  if (auto chassis = machine_info_chassis(env_or("TARN_MACHINE_INFO", "/etc/machine-info")))
    return *chassis == "server";
  return dmi_says_server(env_or("TARN_DMI_DIR", "/sys/class/dmi/id"));
}

}  // namespace tarn
