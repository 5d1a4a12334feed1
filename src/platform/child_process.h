// A started program that the caller waits for. The object owns the child: its destructor ends
// a child that is still running and always reaps it, so no zombie outlives the object. Its
// pidfd becomes readable when the child ends, for poll() or an event loop's notifier.
// One thread at a time.
#pragma once

#include <sys/types.h>

#include <chrono>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "platform/unique_fd.h"

namespace tarn {

struct child_options {
  // Descriptors the child gets as its standard output and error; -1 shares the caller's.
  // Standard input is always /dev/null.
  int stdout_fd = -1;
  int stderr_fd = -1;
};

class child_process {
 public:
  // Starts argv[0] (a path, not looked up in PATH) with the caller's environment, every
  // descriptor above 2 closed and every signal at its default and unblocked, whatever the
  // caller masks or ignores. Null with the reason in *err when it can't be started.
  static std::unique_ptr<child_process> start(const std::vector<std::string>& argv,
                                              const child_options& options = {},
                                              std::string* err = nullptr);

  // Kills a child that is still running (SIGKILL), then reaps it.
  ~child_process();
  child_process(const child_process&) = delete;
  child_process& operator=(const child_process&) = delete;

  pid_t pid() const { return pid_; }
  // Readable once the child has ended; stays valid for the object's life.
  int pidfd() const { return pidfd_.get(); }

  // The exit code, or 128 + the signal's number when a signal ended it; nullopt while the child
  // runs. Reaps the child when it has ended.
  std::optional<int> poll_exit();
  // Waits up to `timeout` (for ever when nullopt); nullopt if the child still runs then.
  std::optional<int> wait_for(std::optional<std::chrono::milliseconds> timeout);
  int wait() { return *wait_for(std::nullopt); }
  // Sends `sig` unless the child has been reaped already.
  void signal(int sig);

 private:
  child_process(pid_t pid, unique_fd pidfd) : pid_(pid), pidfd_(std::move(pidfd)) {}

  const pid_t pid_;
  unique_fd pidfd_;
  std::optional<int> exit_code_;
};

}  // namespace tarn
