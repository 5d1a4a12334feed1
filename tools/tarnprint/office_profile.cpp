#include "office_profile.h"

#include <fstream>
#include <iterator>
#include <vector>

namespace tarn {
namespace {

namespace fs = std::filesystem;

struct forced_setting {
  const char* path;
  const char* name;
  const char* value;
};

constexpr forced_setting kSettings[] = {
    // A killed office would leave its lock file beside the document.
    {"/org.openoffice.Office.Common/Misc", "UseLocking", "false"},
    // Images, frames and objects a document links to are loaded only from trusted places;
    // a document in a temporary folder has none.
    {"/org.openoffice.Office.Common/Security/Scripting", "BlockUntrustedRefererLinks", "true"},
    // "Very high": only signed macros from trusted places. The profile's own Basic library is
    // not a document's and still runs.
    {"/org.openoffice.Office.Common/Security/Scripting", "MacroSecurityLevel", "3"},
    {"/org.openoffice.Office.Common/Security/Scripting", "DisableMacrosExecution", "true"},
    {"/org.openoffice.Office.Common/Security/Scripting", "ExecutePlugins", "false"},
    // Links to other files and sites are never updated: 0 is "never" for text documents, 1
    // for spreadsheets.
    {"/org.openoffice.Office.Writer/Content/Update", "Link", "0"},
    {"/org.openoffice.Office.Calc/Content/Update", "Link", "1"},
    // Spreadsheets show the values they were saved with; a recalculation would run functions
    // that read the web.
    {"/org.openoffice.Office.Calc/Formula/Load", "OOXMLRecalcMode", "1"},
    {"/org.openoffice.Office.Calc/Formula/Load", "ODFRecalcMode", "1"},
};

constexpr const char* kSettingsHead = R"(<?xml version="1.0" encoding="UTF-8"?>
<oor:items xmlns:oor="http://openoffice.org/2001/registry" xmlns:xs="http://www.w3.org/2001/XMLSchema" xmlns:xsi="http://www.w3.org/2001/XMLSchema-instance">
)";
constexpr const char* kSettingsEnd = "</oor:items>";

// The office writes one setting an item, each on a line of its own.
void remove_setting(std::string* text, const forced_setting& s) {
  const std::string start =
      std::string("<item oor:path=\"") + s.path + "\"><prop oor:name=\"" + s.name + "\"";
  for (size_t at; (at = text->find(start)) != std::string::npos;) {
    size_t end = text->find("</item>", at);
    end = end == std::string::npos ? text->size() : end + 7;
    if (end < text->size() && (*text)[end] == '\n') ++end;
    text->erase(at, end - at);
  }
}

std::string setting_item(const forced_setting& s) {
  return std::string("<item oor:path=\"") + s.path + "\"><prop oor:name=\"" + s.name +
         "\" oor:op=\"fuse\"><value>" + s.value + "</value></prop></item>\n";
}

std::string read_all(const fs::path& file) {
  std::ifstream in(file, std::ios::binary);
  return std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

}  // namespace

std::string installed_office_version(const fs::path& program_dir) {
  const std::string text = read_all(program_dir.parent_path() / "share" / "registry" / "main.xcd");
  const std::string prop = "<prop oor:name=\"ooSetupVersion\">";
  size_t at = text.find(prop);
  if (at == std::string::npos) return "";
  // The value's element comes next, after at most the layout's blanks.
  at = text.find_first_not_of(" \t\r\n", at + prop.size());
  if (at == std::string::npos || text.compare(at, 7, "<value>") != 0) return "";
  const size_t end = text.find("</value>", at);
  if (end == std::string::npos || end - at > 32) return "";
  std::string version = text.substr(at + 7, end - at - 7);
  // Written into XML as it is.
  if (version.empty() || version.find_first_not_of("0123456789.") != std::string::npos) return "";
  return version;
}

bool prepare_office_profile(const fs::path& profile, const std::string& office_version,
                            std::string* err) {
  const fs::path file = profile / "user" / "registrymodifications.xcu";
  std::string text = read_all(file);
  std::vector<forced_setting> settings(std::begin(kSettings), std::end(kSettings));
  // An office that finds no record of having run in its version takes itself for an upgrade
  // and spends most of a second on it at every start; a hidden load never writes the record.
  if (!office_version.empty())
    settings.push_back(
        {"/org.openoffice.Setup/Product", "ooSetupLastVersion", office_version.c_str()});
  for (const auto& s : settings) remove_setting(&text, s);
  size_t end = text.rfind(kSettingsEnd);
  if (end == std::string::npos) {
    text = std::string(kSettingsHead) + kSettingsEnd + "\n";
    end = text.rfind(kSettingsEnd);
  }
  for (const auto& s : settings) {
    const std::string item = setting_item(s);
    text.insert(end, item);
    end += item.size();
  }

  std::error_code ec;
  fs::create_directories(file.parent_path(), ec);
  std::ofstream out(file, std::ios::binary | std::ios::trunc);
  out << text;
  out.close();
  if (!out) *err = "can't write " + file.string();
  return static_cast<bool>(out);
}

}  // namespace tarn
