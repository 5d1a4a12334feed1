// The fixture of the whole-process tests: runs of build/dist/tarngateway in a sandbox, with the
// diagnostic channel on and port 9090 free at the start.
#pragma once

#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>

#include <chrono>
#include <filesystem>
#include <fstream>
#include <functional>
#include <iterator>
#include <memory>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include <nlohmann/json.hpp>

#include "convutils/CConvRegKey.h"
#include "platform/child_process.h"
#include "process/canned_http_server.h"
#include "support/run_program.h"
#include "support/test_env.h"
#include "web/raw_http_client.h"

namespace tarn::test {

using namespace std::chrono_literals;

inline constexpr int kPort = 9090;
inline constexpr const char* kGatewayKey = "Software\\Vantu\\PDF\\V1\\TarnGateWay";
inline constexpr int kCreatePdf = 0;
inline constexpr int kConvertWithAssistant = 1;

// The message of send_command as a browser posts it: JSON text, UTF-8 unescaped.
inline std::string send_command_message(int cmd, const std::string& connection,
                                        const std::string& location,
                                        const std::vector<std::string>& refs, int seqid = 1) {
  nlohmann::json set = nlohmann::json::array({"str", refs.size()});
  for (const auto& ref : refs) set.push_back(ref);
  const nlohmann::json args = {{"1", {{"i32", cmd}}},
                               {"2", {{"str", connection}}},
                               {"3", {{"str", location}}},
                               {"4", {{"set", set}}}};
  return nlohmann::json::array({1, "send_command", 1, seqid, args}).dump();
}

inline bool port_answers() {
  try {
    raw_http_client probe(kPort);
    return true;
  } catch (const std::runtime_error&) {
    return false;
  }
}

// One run of the gateway, both outputs in a file of the sandbox. setpriv has the kernel kill it
// should the test process die first, so that port 9090 is free for the next test.
class gateway_process {
 public:
  gateway_process(const std::filesystem::path& folder, const std::string& name,
                  const std::string& program = "")
      : err_path_(folder / (name + ".err")) {
    const unique_fd err(open(err_path_.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600));
    child_ = child_process::start({"/usr/bin/setpriv", "--pdeathsig", "KILL",
                                   program.empty() ? dist_program("tarngateway") : program},
                                  {.stdout_fd = err.get(), .stderr_fd = err.get()});
  }

  bool started() const { return child_ != nullptr; }
  pid_t pid() const { return child_->pid(); }
  // False when the process ended first or the deadline passed.
  bool wait_listening(std::chrono::milliseconds deadline = 10s) {
    const auto end = std::chrono::steady_clock::now() + deadline;
    while (child_ && std::chrono::steady_clock::now() < end) {
      if (port_answers()) return true;
      pollfd exited{child_->pidfd(), POLLIN, 0};  // wakes at once when the process ends
      if (poll(&exited, 1, 10) > 0) return false;
    }
    return false;
  }
  std::optional<int> wait_exit(std::chrono::milliseconds deadline = 10s) {
    return child_ ? child_->wait_for(deadline) : std::nullopt;
  }
  bool send_signal(int signo) {
    if (child_) child_->signal(signo);
    return started();
  }
  std::string error_output() const { return read_file(err_path_); }

 private:
  std::filesystem::path err_path_;
  std::unique_ptr<child_process> child_;
};

struct process_facts {
  size_t fds = 0;
  size_t threads = 0;
  long rss_kib = 0;
};

inline process_facts facts_of(pid_t pid) {
  const std::filesystem::path proc = "/proc/" + std::to_string(pid);
  process_facts facts;
  facts.fds = std::distance(std::filesystem::directory_iterator(proc / "fd"), {});
  std::ifstream status(proc / "status");
  for (std::string line; std::getline(status, line);) {
    if (line.starts_with("VmRSS:")) facts.rss_kib = std::stol(line.substr(6));
    if (line.starts_with("Threads:")) facts.threads = std::stoul(line.substr(8));
  }
  return facts;
}

inline bool eventually(const std::function<bool()>& done,
                       std::chrono::milliseconds deadline = 60s) {
  const auto end = std::chrono::steady_clock::now() + deadline;
  while (!done()) {
    if (std::chrono::steady_clock::now() >= end) return false;
    std::this_thread::sleep_for(20ms);
  }
  return true;
}

// The environment every gateway of these tests runs in; no display, no session bus.
inline void prepare_sandbox(scoped_test_env& env) {
  write_file(env.root() / "machine-info", "CHASSIS=desktop\n");
  env.set_env("TARN_MACHINE_INFO", (env.root() / "machine-info").string());
  env.set_env("TARN_TRACE", "85");
  const auto runtime = env.root() / "run";
  std::filesystem::create_directories(runtime);
  std::filesystem::permissions(runtime, std::filesystem::perms::owner_all);
  env.set_env("XDG_RUNTIME_DIR", runtime.string());
  for (const char* name :
       {"DISPLAY", "WAYLAND_DISPLAY", "QT_QPA_PLATFORM", "DBUS_SESSION_BUS_ADDRESS"})
    env.set_env(name, std::nullopt);
}

inline std::string version_calls(int count) {
  std::string all;
  for (int i = 0; i < count; ++i) all += post_request(kVersionCall);
  return all;
}

inline std::string body_of(const std::string& reply) {
  const size_t end = reply.find("\r\n\r\n");
  return end == std::string::npos ? "" : reply.substr(end + 4);
}

inline std::string get(const std::string& uri) {
  raw_http_client client(kPort);
  client.send("GET " + uri + " HTTP/1.1\r\n\r\n");
  return client.read_to_close();
}

inline std::string call(const std::string& body, const std::string& type = "application/x-thrift") {
  raw_http_client client(kPort);
  client.send(post_request(body, type));
  return body_of(client.read_reply());
}

class e2e_test : public sandboxed_test {
 protected:
  void SetUp() override {
    ASSERT_FALSE(port_answers()) << "something already listens on port 9090";
    prepare_sandbox(env_);
    // Without this the gateway would take the X server of any test that runs beside it.
    std::filesystem::create_directories(env_.root() / "no-x11");
    env_.set_env("TARN_X11_SOCKET_DIR", (env_.root() / "no-x11").string());
  }

  static void set_dword(const char* name, DWORD value, const char* key = kGatewayKey,
                        reg_root root = reg_root::current_user) {
    CConvRegKey setting(root, key, name, DWORD{0});
    ASSERT_EQ(setting.write_number(value), kErrorSuccess) << name;
  }

  std::unique_ptr<gateway_process> start_listening(const std::string& name,
                                                   const std::string& program = "") {
    auto gateway = std::make_unique<gateway_process>(env_.root(), name, program);
    EXPECT_TRUE(gateway->wait_listening()) << "the gateway didn't listen:\n"
                                           << gateway->error_output();
    return gateway;
  }

  // SIGTERM, then the process must end with 0 in time and leave the port free.
  void stop(gateway_process& gateway) {
    ASSERT_TRUE(gateway.send_signal(SIGTERM));
    EXPECT_EQ(gateway.wait_exit(), std::optional<int>(0)) << gateway.error_output();
    EXPECT_FALSE(port_answers());
  }
};

}  // namespace tarn::test
