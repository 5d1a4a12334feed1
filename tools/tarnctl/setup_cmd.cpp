// tarnctl setup: writes into the machine store what an installer writes, pointing at the
// install folder that holds this tarnctl.
#include <filesystem>
#include <iostream>
#include <memory>
#include <string>

#include "dms/IDMSHelper.h"
#include "dms/IPdfAttach.h"
#include "dms/component_loader.h"
#include "platform/registry_store.h"
#include "platform/self_exe.h"
#include "tarnctl_commands.h"

namespace tarn {
namespace {

constexpr const char* kProductKey = "Software\\Vantu\\PDF\\V1";

struct setup_value {
  std::string key;
  std::string name;
  std::string text;
  bool names_file = false;  // a component library that should be in the install folder
};

// What an installer writes, pointing at the install folder that holds this tarnctl; empty
// when that folder can't be found.
std::vector<setup_value> setup_values() {
  const std::string install_dir = self_exe_dir();
  if (install_dir.empty()) return {};
  return {
      {kProductKey, "InstallPath", install_dir},
      {inproc_server_key(kClsidDmsConnector), "", install_dir + "dms_local.so", true},
      {inproc_server_key(kClsidPdfAttach), "", install_dir + "pdf_attach.so", true},
  };
}

// Removes KEY and the keys above it while they hold nothing, up to "Software".
void remove_empty_keys(registry_store& store, std::string key) {
  std::string err;
  while (key.find('\\') != std::string::npos && store.values(key).empty() &&
         store.subkeys(key).empty()) {
    store.remove_key(key, &err);
    key.erase(key.rfind('\\'));
  }
}

int run_setup(bool remove) {
  const auto values = setup_values();
  if (values.empty()) {
    std::cerr << "tarnctl setup: can't find the install folder (/proc/self/exe unreadable)\n";
    return kExitFailed;
  }
  const auto file = registry_file(reg_root::local_machine);
  std::error_code ec;
  if (remove && !std::filesystem::exists(file, ec) && !ec) return kExitOk;  // nothing to remove
  std::string err;
  auto store = registry_store::open(reg_root::local_machine, registry_store::access::write, &err);
  if (!store) {
    std::cerr << "tarnctl setup: can't write the machine store " << file.string() << ": " << err
              << "\n(run as root, or name another file in TARN_MACHINE_REGISTRY)\n";
    return kExitFailed;
  }
  for (const auto& value : values) {
    const std::string shown =
        "HKEY_LOCAL_MACHINE\\" + value.key + "  " + (value.name.empty() ? "(Default)" : value.name);
    if (remove) {
      // A value that names another folder belongs to another installation: it stays.
      const auto current = store->get(value.key, value.name);
      if (!current || reg_sz_text(current->data) != value.text) continue;
      if (!store->remove_value(value.key, value.name, &err) && !err.empty()) {
        std::cerr << "tarnctl setup: can't remove " << shown << " from " << file.string() << ": "
                  << err << "\n";
        return kExitFailed;
      }
      remove_empty_keys(*store, value.key);
      std::cout << shown << " removed\n";
      continue;
    }
    if (!store->set(value.key, value.name, kRegSz, reg_sz_bytes(value.text), &err)) {
      std::cerr << "tarnctl setup: can't write " << value.key << "\\" << value.name << " in "
                << file.string() << ": " << err << "\n";
      return kExitFailed;
    }
    if (value.names_file && !std::filesystem::exists(value.text))
      std::cerr << "tarnctl setup: warning: " << value.text << " is missing; registered anyway\n";
    std::cout << shown << " = " << value.text << "\n";
  }
  std::cout << "Machine store: " << file.string() << "\n";
  return kExitOk;
}

}  // namespace

void add_setup_command(CLI::App& app, int* exit_code) {
  auto* setup = app.add_subcommand(
      "setup",
      "Write the install-time settings into the machine store: InstallPath (this tarnctl's "
      "folder) and the registrations of the shipped components. Run after installing or moving "
      "the install folder.");
  auto remove = std::make_shared<bool>(false);
  setup->add_flag("--remove", *remove,
                  "Remove those values again where they still name this install folder (before "
                  "the folder goes); the store's other values stay");
  setup->callback([exit_code, remove] { *exit_code = run_setup(*remove); });
}

}  // namespace tarn
