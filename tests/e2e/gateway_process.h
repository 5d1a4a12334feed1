// One run of build/dist/tarngateway for a whole-process test, with the test's environment and
// both outputs in a file of the sandbox. setpriv has the kernel kill it should the test process
// die first, so that port 9090 is free for the next test.
#pragma once

#include <chrono>
#include <filesystem>
#include <memory>
#include <optional>
#include <string>

#include "platform/child_process.h"

namespace tarn::test {

inline constexpr int kPort = 9090;

class gateway_process {
 public:
  // `name` tells the output files of several runs apart; `program` replaces the dist one.
  gateway_process(const std::filesystem::path& folder, const std::string& name,
                  const std::string& program = "");

  bool started() const { return child_ != nullptr; }
  pid_t pid() const { return child_->pid(); }
  // False when the process ended first or the deadline passed.
  bool wait_listening(std::chrono::milliseconds deadline = std::chrono::seconds(10));
  // The exit code (128 + signal), or nothing while it still runs at the deadline.
  std::optional<int> wait_exit(std::chrono::milliseconds deadline = std::chrono::seconds(10)) {
    return child_ ? child_->wait_for(deadline) : std::nullopt;
  }
  bool send_signal(int signo) {
    if (child_) child_->signal(signo);
    return started();
  }
  std::string error_output() const;

 private:
  std::filesystem::path err_path_;
  std::unique_ptr<child_process> child_;
};

// What /proc tells of a process.
struct process_facts {
  size_t fds = 0;
  size_t threads = 0;
  long rss_kib = 0;
};
process_facts facts_of(pid_t pid);

// True when something accepts connections on 127.0.0.1:9090.
bool port_answers();

}  // namespace tarn::test
