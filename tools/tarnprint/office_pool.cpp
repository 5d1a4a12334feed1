#include "office_pool.h"

#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>

#include <cerrno>
#include <cstring>
#include <fstream>
#include <vector>

namespace tarn {
namespace {

// A slot's office runs while its socket exists: a worker binds it first and removes it last.
bool office_runs(const office_paths& paths) {
  struct stat st;
  return ::lstat(paths.socket().c_str(), &st) == 0 && S_ISSOCK(st.st_mode);
}

}  // namespace

std::optional<long long> available_memory() {
  std::ifstream in("/proc/meminfo");
  std::string key;
  long long kib = 0;
  std::string unit;
  while (in >> key >> kib >> unit)
    if (key == "MemAvailable:") return kib * 1024;
  return std::nullopt;
}

std::optional<office_paths> slot_paths(const office_paths& runtime, unsigned k, std::string* err) {
  if (k == 0) return runtime;
  office_paths paths{runtime.dir / ("office-" + std::to_string(k))};
  if (::mkdir(paths.dir.c_str(), 0700) != 0 && errno != EEXIST) {
    *err = "can't create " + paths.dir.string() + ": " + std::strerror(errno);
    return std::nullopt;
  }
  return paths;
}

unsigned usable_pool_size(const office_paths& runtime, const office_settings& settings) {
  unsigned running = 0, usable = 0;
  long long memory = available_memory().value_or(0);
  std::string err;
  for (unsigned k = 0; k < settings.pool_size; ++k) {
    auto paths = slot_paths(runtime, k, &err);
    if (!paths) break;
    if (office_runs(*paths)) {
      ++running;
    } else if (memory >= kOfficeMemoryBytes) {
      memory -= kOfficeMemoryBytes;
    } else {
      continue;
    }
    usable = k + 1;
  }
  return std::max({usable, running, 1u});
}

std::optional<office_slot> take_office_slot(const office_paths& runtime,
                                            const office_settings& settings, std::string* err) {
  const unsigned size = usable_pool_size(runtime, settings);
  std::vector<office_paths> slots;
  for (unsigned k = 0; k < size; ++k) {
    auto paths = slot_paths(runtime, k, err);
    if (!paths) return std::nullopt;
    slots.push_back(std::move(*paths));
  }
  // Warm offices first: a cold one costs its start.
  for (bool warm : {true, false}) {
    for (const auto& paths : slots) {
      if (office_runs(paths) != warm) continue;
      std::string ignored;
      unique_fd busy = lock_file(paths.busy_lock(), /*wait=*/false, &ignored);
      if (busy) return office_slot{paths, std::move(busy)};
    }
  }
  // All busy: queue behind one, spread by process so that waiting runs share the slots.
  const office_paths& paths = slots[static_cast<unsigned>(::getpid()) % slots.size()];
  unique_fd busy = lock_file(paths.busy_lock(), /*wait=*/true, err);
  if (!busy) return std::nullopt;
  return office_slot{paths, std::move(busy)};
}

}  // namespace tarn
