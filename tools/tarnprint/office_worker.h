// tarnoffice, the user's warm office: takes documents from tarnprint runs over the socket of
// the runtime folder, one at a time, through one LibreOfficeKit office loaded once.
#pragma once

#include <chrono>

#include "office_paths.h"

namespace tarn {

struct worker_options {
  office_paths paths;
  unsigned max_conversions = 50;
  std::chrono::seconds idle{600};
  int ready_fd = -1;  // gets one byte once the socket listens, then is closed
  bool prime = false;  // convert a small text document once loaded (a warm-up's office)
};

// Serves until the worker has been idle for `idle`, has converted `max_conversions` documents
// or is asked to quit, then ends the process with _exit: 0 for those, 1 when it could not
// start, 3 when a document hung (see conversion_watchdog). Never returns.
[[noreturn]] void run_office_worker(const worker_options& options);

}  // namespace tarn
