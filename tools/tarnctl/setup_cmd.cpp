// tarnctl setup: writes into the machine store what an installer writes, pointing at the
// install folder that holds this tarnctl.
#include <filesystem>
#include <iostream>
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

int run_setup() {
  const std::string install_dir = self_exe_dir();
  if (install_dir.empty()) {
    std::cerr << "tarnctl setup: can't find the install folder (/proc/self/exe unreadable)\n";
    return kExitFailed;
  }
  const std::vector<setup_value> values = {
      {kProductKey, "InstallPath", install_dir},
      {inproc_server_key(kClsidDmsConnector), "", install_dir + "dms_local.so", true},
      {inproc_server_key(kClsidPdfAttach), "", install_dir + "pdf_attach.so", true},
  };

  const auto file = registry_file(reg_root::local_machine);
  std::string err;
  auto store = registry_store::open(reg_root::local_machine, registry_store::access::write, &err);
  if (!store) {
    std::cerr << "tarnctl setup: can't write the machine store " << file.string() << ": " << err
              << "\n(run as root, or name another file in TARN_MACHINE_REGISTRY)\n";
    return kExitFailed;
  }
  for (const auto& value : values) {
    if (!store->set(value.key, value.name, kRegSz, reg_sz_bytes(value.text), &err)) {
      std::cerr << "tarnctl setup: can't write " << value.key << "\\" << value.name << " in "
                << file.string() << ": " << err << "\n";
      return kExitFailed;
    }
    if (value.names_file && !std::filesystem::exists(value.text))
      std::cerr << "tarnctl setup: warning: " << value.text << " is missing; registered anyway\n";
    std::cout << "HKEY_LOCAL_MACHINE\\" << value.key << "  "
              << (value.name.empty() ? "(Default)" : value.name) << " = " << value.text << "\n";
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
  setup->callback([exit_code] { *exit_code = run_setup(); });
}

}  // namespace tarn
