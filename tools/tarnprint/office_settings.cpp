#include "office_settings.h"

#include "convutils/CConvRegKey.h"
#include "convutils/ConvUtils.h"
#include "platform/self_exe.h"

namespace tarn {
namespace {

DWORD read_setting(const char* name, DWORD fallback, DWORD low, DWORD high) {
  for (reg_root root : {reg_root::current_user, reg_root::local_machine}) {
    CConvRegKey key(root, kPrintSettingsKey, name, fallback);
    DWORD value = fallback;
    if (key.read_number(&value) == kErrorSuccess)
      return value >= low && value <= high ? value : fallback;
  }
  return fallback;
}

}  // namespace

office_settings read_office_settings() {
  office_settings settings;
  settings.timeout = std::chrono::seconds(
      read_setting("ConvertTimeoutSeconds", settings.timeout.count(), 1, 86400));
  settings.max_conversions =
      read_setting("OfficeMaxConversions", settings.max_conversions, 1, 100000);
  settings.idle =
      std::chrono::seconds(read_setting("OfficeIdleSeconds", settings.idle.count(), 0, 86400));
  settings.pool_size = print_helper_parallelism();
  settings.isolate_network =
      read_setting("OfficeNetworkIsolation", settings.isolate_network ? 1 : 0, 0, 1) != 0;
  settings.worker_program = self_exe_dir() + "tarnoffice";
  return settings;
}

}  // namespace tarn
