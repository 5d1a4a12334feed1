// The user's pool of warm offices: up to office_settings::pool_size tarnoffice workers, each in
// a slot folder of its own (slot 0 is the runtime folder itself, slot k its "office-k"), each
// taking one document at a time. A tarnprint run holds one slot's busy lock while its document
// is converted, so runs at the same time spread over the slots.
#pragma once

#include <optional>
#include <string>

#include "office_paths.h"
#include "office_settings.h"
#include "platform/unique_fd.h"

namespace tarn {

// What one office takes at its peak; a slot whose office isn't running is used only when the
// machine has this much memory available.
constexpr long long kOfficeMemoryBytes = 350LL << 20;

struct office_slot {
  office_paths paths;
  unique_fd busy;  // held until the document is done
};

// The folder of slot `k` under the runtime folder, created 0700 when missing. Nullopt with
// *err when it can't be made.
std::optional<office_paths> slot_paths(const office_paths& runtime, unsigned k, std::string* err);

// A free slot whose office runs, else a free one whose office may start (memory allowing),
// else waits for a busy one. Nullopt with *err when no slot folder can be made.
std::optional<office_slot> take_office_slot(const office_paths& runtime,
                                            const office_settings& settings, std::string* err);

// The number of slots whose office may run now: the setting, lowered so that the offices not
// yet running fit in the available memory, never below the ones running and never below one.
unsigned usable_pool_size(const office_paths& runtime, const office_settings& settings);

// MemAvailable of /proc/meminfo in bytes; nullopt when it can't be read.
std::optional<long long> available_memory();

}  // namespace tarn
