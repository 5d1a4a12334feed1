// Ends the process when one conversion outlasts its limit. The office can't be interrupted
// inside a document, and a hung office would otherwise keep the user's worker, and its memory,
// for ever, even after the run that asked for the document has given up.
// Owns one thread, started by the constructor and joined by the destructor.
#pragma once

#include <chrono>
#include <condition_variable>
#include <filesystem>
#include <mutex>
#include <optional>
#include <string>
#include <thread>

namespace tarn {

class conversion_watchdog {
 public:
  conversion_watchdog();
  ~conversion_watchdog();
  conversion_watchdog(const conversion_watchdog&) = delete;
  conversion_watchdog& operator=(const conversion_watchdog&) = delete;

  // From now on, `what` may take `limit`; after that `output`, the file it was writing, is
  // removed and the process exits with status 3.
  void arm(std::chrono::steady_clock::duration limit, std::string what,
           std::filesystem::path output);
  void disarm();

 private:
  void run();

  std::mutex mu_;
  std::condition_variable changed_;
  std::optional<std::chrono::steady_clock::time_point> deadline_;  // guarded by mu_
  std::string what_;                                               // guarded by mu_
  std::filesystem::path output_;                                   // guarded by mu_
  bool stop_ = false;                                              // guarded by mu_
  std::thread thread_;  // last, so it starts after the fields it reads exist
};

}  // namespace tarn
