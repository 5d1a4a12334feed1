// tarnctl reg add|query|delete: edits the registry store with reg.exe's syntax, e.g.
//   tarnctl reg add "HKCU\Software\Vantu\PDF\V1\TarnGateWay" /v Tarn_GateWay_fetatures /t REG_DWORD /d 4 /f
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <charconv>
#include <cstdio>
#include <iostream>
#include <map>
#include <optional>
#include <string>

#include "platform/ascii_text.h"
#include "platform/registry_store.h"
#include "tarnctl_commands.h"

namespace tarn {
namespace {

struct reg_options {
  std::string key;
  std::optional<std::string> value_name;  // /v
  bool default_value = false;             // /ve
  bool all_values = false;                // /va
  std::string type = "REG_SZ";            // /t
  std::string data;                       // /d
  bool force = false;                     // /f
  bool recurse = false;                   // /s
};

struct parsed_key {
  reg_root root;
  std::string root_name;
  std::string path;
};

const std::map<std::string, uint32_t>& type_names() {
  static const std::map<std::string, uint32_t> names = {
      {"REG_SZ", kRegSz},       {"REG_EXPAND_SZ", kRegExpandSz}, {"REG_BINARY", kRegBinary},
      {"REG_DWORD", kRegDword}, {"REG_QWORD", kRegQword},         {"REG_MULTI_SZ", kRegMultiSz}};
  return names;
}

std::string upper(std::string text) {
  std::transform(text.begin(), text.end(), text.begin(),
                 [](unsigned char c) { return static_cast<char>(std::toupper(c)); });
  return text;
}

std::optional<parsed_key> parse_key(const std::string& text) {
  const std::string normalized = normalize_reg_key(text);
  const size_t slash = normalized.find('\\');
  const std::string root = upper(normalized.substr(0, slash));
  const std::string path = slash == std::string::npos ? std::string() : normalized.substr(slash + 1);
  if (root == "HKCU" || root == "HKEY_CURRENT_USER")
    return parsed_key{reg_root::current_user, "HKEY_CURRENT_USER", path};
  if (root == "HKLM" || root == "HKEY_LOCAL_MACHINE")
    return parsed_key{reg_root::local_machine, "HKEY_LOCAL_MACHINE", path};
  return std::nullopt;
}

template <typename T>
std::optional<T> parse_number(std::string_view text) {
  int base = 10;
  if (text.size() > 2 && text[0] == '0' && (text[1] == 'x' || text[1] == 'X')) {
    base = 16;
    text.remove_prefix(2);
  }
  T value{};
  auto [end, ec] = std::from_chars(text.data(), text.data() + text.size(), value, base);
  if (ec != std::errc() || end != text.data() + text.size() || text.empty()) return std::nullopt;
  return value;
}

// Registry bytes of /d for type `type`; nullopt with *err when the data doesn't fit the type.
std::optional<std::string> encode_data(uint32_t type, const std::string& data, std::string* err) {
  switch (type) {
    case kRegSz:
    case kRegExpandSz:
      return reg_sz_bytes(data);
    case kRegMultiSz: {
      // Items are separated by "\0", as reg.exe reads them; the list ends with an empty item.
      std::string out;
      size_t pos = 0;
      while (pos <= data.size()) {
        size_t end = data.find("\\0", pos);
        if (end == std::string::npos) end = data.size();
        std::string item = reg_sz_bytes(data.substr(pos, end - pos));
        if (end > pos) out += item;
        pos = end + 2;
      }
      out += std::string(2, '\0');
      return out;
    }
    case kRegDword: {
      auto value = parse_number<uint32_t>(data.empty() ? "0" : data);
      if (!value) {
        *err = "ERROR: Invalid REG_DWORD data: \"" + data + "\" (0 to 4294967295, or 0x hex).";
        return std::nullopt;
      }
      return reg_dword_bytes(*value);
    }
    case kRegQword: {
      auto value = parse_number<uint64_t>(data.empty() ? "0" : data);
      if (!value) {
        *err = "ERROR: Invalid REG_QWORD data: \"" + data + "\".";
        return std::nullopt;
      }
      std::string out(8, '\0');
      for (int i = 0; i < 8; ++i) out[i] = static_cast<char>((*value >> (8 * i)) & 0xFF);
      return out;
    }
    case kRegBinary: {
      if (data.size() % 2 != 0) {
        *err = "ERROR: Invalid REG_BINARY data: \"" + data + "\" (an even number of hex digits).";
        return std::nullopt;
      }
      std::string out;
      for (size_t i = 0; i < data.size(); i += 2) {
        auto byte = parse_number<uint8_t>("0x" + data.substr(i, 2));
        if (!byte) {
          *err = "ERROR: Invalid REG_BINARY data: \"" + data + "\".";
          return std::nullopt;
        }
        out.push_back(static_cast<char>(*byte));
      }
      return out;
    }
    default:
      *err = "ERROR: Unsupported type.";
      return std::nullopt;
  }
}

std::string type_name(uint32_t type) {
  for (const auto& [name, value] : type_names())
    if (value == type) return name;
  return "REG_0x" + std::to_string(type);
}

// The data column of `reg query`.
std::string display_data(const reg_value& value) {
  char buffer[32];
  switch (value.type) {
    case kRegSz:
    case kRegExpandSz:
      return reg_sz_text(value.data);
    case kRegMultiSz: {
      std::string out;
      std::string_view rest(value.data);
      while (rest.size() >= 2) {
        std::string item = reg_sz_text(rest);
        if (item.empty()) break;
        if (!out.empty()) out += "\\0";
        out += item;
        rest.remove_prefix(reg_sz_bytes(item).size());
      }
      return out;
    }
    case kRegDword:
    case kRegQword: {
      uint64_t number = 0;
      for (size_t i = 0; i < value.data.size() && i < 8; ++i)
        number |= static_cast<uint64_t>(static_cast<unsigned char>(value.data[i])) << (8 * i);
      std::snprintf(buffer, sizeof buffer, "0x%llx", static_cast<unsigned long long>(number));
      return buffer;
    }
    default: {
      std::string out;
      for (unsigned char c : value.data) {
        std::snprintf(buffer, sizeof buffer, "%02X", c);
        out += buffer;
      }
      return out;
    }
  }
}

void print_value(const reg_value& value) {
  std::cout << "    " << (value.name.empty() ? "(Default)" : value.name) << "    "
            << type_name(value.type) << "    " << display_data(value) << "\n";
}

// Asks on the terminal; without one, the question counts as answered "no".
bool confirm(const std::string& question) {
  if (!isatty(STDIN_FILENO)) {
    std::cerr << question << " -- not asked: standard input is not a terminal; add /f.\n";
    return false;
  }
  std::cout << question << " " << std::flush;
  std::string answer;
  if (!std::getline(std::cin, answer)) return false;
  answer = upper(answer);
  return answer == "Y" || answer == "YES";
}

std::unique_ptr<registry_store> open_store(const parsed_key& key, registry_store::access mode,
                                           int* code) {
  std::string err;
  auto store = registry_store::open(key.root, mode, &err, code);
  if (!store && !(mode == registry_store::access::read && *code == ENOENT))
    std::cerr << "ERROR: can't open the " << key.root_name << " store: " << err << "\n";
  return store;
}

constexpr const char* kNotFound =
    "ERROR: The system was unable to find the specified registry key or value.";

int not_found() {
  std::cerr << kNotFound << "\n";
  return kExitFailed;
}

// The key of the command line with a path below its root; nullopt (reported) otherwise.
std::optional<parsed_key> command_key(const reg_options& opt) {
  auto key = parse_key(opt.key);
  if (!key || key->path.empty()) {
    std::cerr << "ERROR: Invalid key name: \"" << opt.key << "\".\n";
    return std::nullopt;
  }
  return key;
}

int run_add(const reg_options& opt) {
  auto key = command_key(opt);
  if (!key) return kExitUsage;
  auto type = type_names().find(upper(opt.type));
  if (type == type_names().end()) {
    std::cerr << "ERROR: Invalid type: \"" << opt.type << "\". Use REG_SZ, REG_EXPAND_SZ, "
              << "REG_MULTI_SZ, REG_DWORD, REG_QWORD or REG_BINARY.\n";
    return kExitUsage;
  }
  std::string err;
  auto data = encode_data(type->second, opt.data, &err);
  if (!data) {
    std::cerr << err << "\n";
    return kExitUsage;
  }
  int code = 0;
  auto store = open_store(*key, registry_store::access::write, &code);
  if (!store) return kExitFailed;
  const bool names_value = opt.value_name || opt.default_value;
  const std::string name = opt.value_name.value_or("");
  if (!names_value) {
    if (!store->create_key(key->path, &err)) {
      std::cerr << "ERROR: " << err << "\n";
      return kExitFailed;
    }
  } else {
    if (!opt.force && store->get(key->path, name) &&
        !confirm("Value " + (name.empty() ? std::string("(Default)") : name) +
                 " exists, overwrite(Yes/No)?")) {
      std::cout << "The operation was cancelled by the user.\n";
      return kExitFailed;
    }
    if (!store->set(key->path, name, type->second, *data, &err)) {
      std::cerr << "ERROR: " << err << "\n";
      return kExitFailed;
    }
  }
  std::cout << "The operation completed successfully.\n";
  return kExitOk;
}

void query_key(registry_store& store, const parsed_key& key, const std::string& path,
               bool recurse) {
  std::cout << "\n" << key.root_name << "\\" << path << "\n";
  for (const auto& value : store.values(path)) print_value(value);
  auto children = store.subkeys(path);
  if (!recurse) {
    if (!children.empty()) std::cout << "\n";
    for (const auto& child : children) std::cout << key.root_name << "\\" << child << "\n";
    return;
  }
  for (const auto& child : children) query_key(store, key, child, true);
}

int run_query(const reg_options& opt) {
  auto key = command_key(opt);
  if (!key) return kExitUsage;
  int code = 0;
  auto store = open_store(*key, registry_store::access::read, &code);
  if (!store || !store->key_exists(key->path)) return not_found();
  if (opt.value_name || opt.default_value) {
    auto value = store->get(key->path, opt.value_name.value_or(""));
    if (!value) return not_found();
    std::cout << "\n" << key->root_name << "\\" << key->path << "\n";
    print_value(*value);
  } else {
    query_key(*store, *key, key->path, opt.recurse);
  }
  std::cout << "\n";
  return kExitOk;
}

int run_delete(const reg_options& opt) {
  auto key = command_key(opt);
  if (!key) return kExitUsage;
  int code = 0;
  auto read = open_store(*key, registry_store::access::read, &code);
  if (!read || !read->key_exists(key->path)) return not_found();
  read.reset();
  auto store = open_store(*key, registry_store::access::write, &code);
  if (!store) return kExitFailed;
  std::string err;
  const std::string full = key->root_name + "\\" + key->path;
  if (opt.all_values) {
    if (!opt.force && !confirm("Delete all values under the registry key " + full + " (Yes/No)?"))
      return kExitFailed;
    for (const auto& value : store->values(key->path)) {
      if (!store->remove_value(key->path, value.name, &err) && !err.empty()) {
        std::cerr << "ERROR: can't delete " << full << "\\" << value.name << ": " << err << "\n";
        return kExitFailed;
      }
    }
  } else if (opt.value_name || opt.default_value) {
    const std::string name = opt.value_name.value_or("");
    if (!store->get(key->path, name)) return not_found();
    if (!opt.force &&
        !confirm("Delete the registry value " + (name.empty() ? std::string("(Default)") : name) +
                 " (Yes/No)?"))
      return kExitFailed;
    if (!store->remove_value(key->path, name, &err)) {
      std::cerr << "ERROR: " << (err.empty() ? kNotFound : err) << "\n";
      return kExitFailed;
    }
  } else {
    if (!opt.force && !confirm("Permanently delete the registry key " + full + " (Yes/No)?"))
      return kExitFailed;
    if (!store->remove_key(key->path, &err)) {
      std::cerr << "ERROR: " << (err.empty() ? kNotFound : err) << "\n";
      return kExitFailed;
    }
  }
  std::cout << "The operation completed successfully.\n";
  return kExitOk;
}

}  // namespace

std::vector<std::string> translate_reg_switches(int argc, char** argv) {
  static const std::map<std::string, bool> kSwitches = {  // name -> takes a value
      {"/v", true}, {"/t", true}, {"/d", true}, {"/ve", false},
      {"/f", false}, {"/s", false}, {"/va", false}};
  std::vector<std::string> args(argv + 1, argv + argc);
  if (args.empty() || args[0] != "reg") return args;
  std::vector<std::string> out;
  for (size_t i = 0; i < args.size(); ++i) {
    std::string lower = ascii_lower(args[i]);
    auto known = kSwitches.find(lower);
    if (lower == "/?") {
      out.push_back("--help");
    } else if (known == kSwitches.end()) {
      out.push_back(args[i]);
    } else if (!known->second) {
      out.push_back("-" + lower.replace(0, 1, "-"));
    } else if (i + 1 < args.size()) {
      // Joined to its switch, so that data such as "/usr/lib" or "-1" is never read as a switch.
      out.push_back("-" + lower.replace(0, 1, "-") + "=" + args[++i]);
    } else {
      out.push_back("-" + lower.replace(0, 1, "-"));
    }
  }
  return out;
}

void add_reg_command(CLI::App& app, int* exit_code) {
  auto* reg = app.add_subcommand(
      "reg",
      "Edit the gateway's registry store (current user: ~/.config/vantu/registry.sqlite; "
      "machine: /etc/vantu/registry.sqlite or $TARN_MACHINE_REGISTRY), with reg.exe's syntax. "
      "Keys start with HKCU or HKLM; switches are /v NAME, /ve, /t TYPE, /d DATA, /f.");
  // Not require_subcommand(1): CLI11 would then name no culprit for "reg frobnicate".
  reg->require_subcommand(0, 1);
  reg->callback([reg, exit_code] {
    if (reg->get_subcommands().empty()) {
      std::cerr << "tarnctl reg: name one of add, query, delete (see tarnctl reg --help)\n";
      *exit_code = kExitUsage;
    }
  });
  auto options = std::make_shared<reg_options>();

  auto add_common = [&](CLI::App* cmd) {
    cmd->add_option("key", options->key, "HKCU\\Path\\To\\Key or HKLM\\Path\\To\\Key")->required();
    cmd->add_option("--v", options->value_name, "/v NAME: the value's name");
    cmd->add_flag("--ve", options->default_value, "/ve: the key's default (unnamed) value");
  };

  auto* add = reg->add_subcommand("add", "Add or change a key or value.");
  add_common(add);
  add->add_option("--t", options->type,
                  "/t TYPE: REG_SZ (default), REG_EXPAND_SZ, REG_MULTI_SZ, REG_DWORD, REG_QWORD, REG_BINARY");
  add->add_option("--d", options->data, "/d DATA: text, decimal or 0x hex number, hex bytes");
  add->add_flag("--f", options->force, "/f: overwrite without asking");
  add->callback([options, exit_code] { *exit_code = run_add(*options); });

  auto* query = reg->add_subcommand("query", "Show a key's values and subkeys, or one value.");
  add_common(query);
  query->add_flag("--s", options->recurse, "/s: all keys below, too");
  query->callback([options, exit_code] { *exit_code = run_query(*options); });

  auto* del = reg->add_subcommand("delete", "Delete a key (with all below it) or a value.");
  add_common(del);
  del->add_flag("--va", options->all_values, "/va: all values of the key");
  del->add_flag("--f", options->force, "/f: delete without asking");
  del->callback([options, exit_code] { *exit_code = run_delete(*options); });
}

}  // namespace tarn
