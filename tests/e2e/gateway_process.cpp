#include "gateway_process.h"

#include <fcntl.h>
#include <poll.h>

#include <fstream>

#include "support/run_program.h"
#include "support/test_env.h"
#include "web/raw_http_client.h"

namespace tarn::test {

gateway_process::gateway_process(const std::filesystem::path& folder, const std::string& name,
                                 const std::string& program)
    : err_path_(folder / (name + ".err")) {
  const unique_fd err(open(err_path_.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600));
  child_ = child_process::start(
      {"/usr/bin/setpriv", "--pdeathsig", "KILL",
       program.empty() ? dist_program("tarngateway") : program},
      {.stdout_fd = err.get(), .stderr_fd = err.get()});
}

bool gateway_process::wait_listening(std::chrono::milliseconds deadline) {
  const auto end = std::chrono::steady_clock::now() + deadline;
  while (child_ && std::chrono::steady_clock::now() < end) {
    if (port_answers()) return true;
    pollfd exited{child_->pidfd(), POLLIN, 0};  // wakes at once when the process ends
    if (poll(&exited, 1, 10) > 0) return false;
  }
  return false;
}

std::string gateway_process::error_output() const { return read_file(err_path_); }

process_facts facts_of(pid_t pid) {
  const std::filesystem::path proc = "/proc/" + std::to_string(pid);
  process_facts facts;
  for (auto it = std::filesystem::directory_iterator(proc / "fd"); it != std::filesystem::directory_iterator(); ++it)
    ++facts.fds;
  std::ifstream status(proc / "status");
  for (std::string line; std::getline(status, line);) {
    if (line.starts_with("VmRSS:")) facts.rss_kib = std::stol(line.substr(6));
    if (line.starts_with("Threads:")) facts.threads = std::stoul(line.substr(8));
  }
  return facts;
}

bool port_answers() {
  try {
    raw_http_client probe(kPort);
    return true;
  } catch (const std::runtime_error&) {
    return false;
  }
}

}  // namespace tarn::test
