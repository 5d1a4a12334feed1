// What tarnassist does with one file: reserve a free PDF name in the output folder, convert
// into a hidden file beside it (tarnprint for documents, tarnimage.so for XPS), and rename the
// result into place. A failure leaves neither the reserved name nor a partial file behind.
#pragma once

#include <chrono>
#include <filesystem>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "convutils/DynLoadDll.h"
#include "notify/outcome_text.h"

namespace tarn {

struct conversion {
  bool ok = false;
  bool interrupted = false;  // a signal came while the helper ran
  std::filesystem::path output;
  std::string reason;  // why it failed, for the progress line
  left_out_reason why = left_out_reason::not_converted;  // the same, for the user
  std::chrono::seconds limit{0};                         // for a time-out
};

class assistant {
 public:
  // `tarnprint`: the print helper's path. `signal_fd`: a signalfd whose readiness means stop
  // (-1 for none). The helper is ended after `helper_timeout`.
  assistant(std::filesystem::path out_dir, std::string tarnprint, int signal_fd,
            std::chrono::seconds helper_timeout);

  // Safe from several threads at once.
  conversion convert(const std::string& source);

 private:
  conversion print(const std::string& source, const std::string& part);
  conversion convert_xps(const std::string& source, const std::string& part);

  const std::filesystem::path out_dir_;
  const std::string tarnprint_;
  const int signal_fd_;
  const std::chrono::seconds helper_timeout_;
  std::mutex xps_mu_;  // the library is used by one thread at a time
  TarnImageDll xps_;  // loaded on the first XPS file; guarded by xps_mu_
  std::optional<std::string> xps_load_error_;  // guarded by xps_mu_
};

// The result of a program run to its end with one of its outputs collected.
struct collected_run {
  std::optional<int> exit_code;  // nullopt: it could not start, timed out or was interrupted
  bool interrupted = false;
  bool timed_out = false;
  std::string output;  // what it wrote to the collected stream, at most 64 KiB
  std::string start_error;
};

// Runs argv with its standard output (fd 1) or error (fd 2) collected. Stops waiting as soon
// as the program ends, even if a process it left behind still holds the stream. On a signal
// on `signal_fd` or after `timeout` the program gets SIGTERM, then SIGKILL.
collected_run run_collecting(const std::vector<std::string>& argv, int collected_fd, int signal_fd,
                             std::chrono::seconds timeout);

// The user's documents folder: `xdg-user-dir DOCUMENTS`, or ~/Documents when that gives nothing
// or only the home folder (the tool's way of saying "not set").
std::filesystem::path documents_dir();

}  // namespace tarn
