// The print helper's settings: DWORD values under HKCU, else HKLM,
// Software\Vantu\PDF\V1\TarnPrint. A missing or out-of-range value gives the default.
#pragma once

#include <chrono>
#include <filesystem>

namespace tarn {

constexpr const char* kPrintSettingsKey = "Software\\Vantu\\PDF\\V1\\TarnPrint";

struct office_settings {
  // ConvertTimeoutSeconds (1..86400): how long one document may take before the office that
  // holds it is killed.
  std::chrono::seconds timeout{120};
  // OfficeMaxConversions (1..100000): a worker exits after this many documents, since the
  // office's memory grows with each; the next run starts a fresh one.
  unsigned max_conversions = 50;
  // OfficeIdleSeconds (0..86400): a worker with nothing to do exits after this long.
  std::chrono::seconds idle{600};
  // OfficePoolSize (1..4): how many offices may convert at once; by default one per core
  // (print_helper_parallelism()).
  unsigned pool_size = 1;
  // OfficeNetworkIsolation (0 or 1): the office runs in a network namespace of its own, where
  // this system allows one, so that no document can make it reach another machine.
  bool isolate_network = true;
  // The worker program: tarnoffice beside the running program.
  std::filesystem::path worker_program;
};

office_settings read_office_settings();

}  // namespace tarn
