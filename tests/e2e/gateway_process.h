// One run of build/dist/tarngateway for a whole-process test: started with the test's
// environment (its sandbox), standard output and error into files of the sandbox, killed and
// reaped at the end if the test didn't end it, and killed by the kernel should the test
// process die first. Only this PID is ever signalled.
#pragma once

#include <sys/types.h>

#include <chrono>
#include <filesystem>
#include <optional>
#include <string>

#include "platform/unique_fd.h"

namespace tarn::test {

inline constexpr int kPort = 9090;

class gateway_process {
 public:
  // Starts the gateway (build/dist/tarngateway unless `program` names another); `name` tells
  // the output files of several runs apart.
  gateway_process(const std::filesystem::path& folder, const std::string& name,
                  const std::string& program = "");
  ~gateway_process();
  gateway_process(const gateway_process&) = delete;
  gateway_process& operator=(const gateway_process&) = delete;

  bool started() const { return pid_ > 0; }
  pid_t pid() const { return pid_; }

  // Tries to connect to port 9090 until it works; false when the process ended first or the
  // deadline passed.
  bool wait_listening(std::chrono::milliseconds deadline = std::chrono::seconds(10));
  // The exit code (128 + signal when a signal ended it), or nothing when it still ran at the
  // deadline.
  std::optional<int> wait_exit(std::chrono::milliseconds deadline = std::chrono::seconds(10));
  bool send_signal(int signo);

  std::string error_output() const;

 private:
  pid_t pid_ = -1;
  unique_fd pidfd_;
  std::optional<int> exit_code_;
  std::filesystem::path out_path_;
  std::filesystem::path err_path_;
};

// True when something accepts connections on 127.0.0.1:9090.
bool port_answers();

}  // namespace tarn::test
