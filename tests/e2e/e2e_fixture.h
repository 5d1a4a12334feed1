// The fixture of the whole-process tests: a sandbox (HOME, XDG folders, TMPDIR, the machine
// store), the diagnostic channel on, and port 9090 free at the start.
#pragma once

#include <gtest/gtest.h>

#include <memory>
#include <optional>
#include <string>

#include "gateway_process.h"
#include "support/test_env.h"

namespace tarn::test {

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

// True when `err` holds a diagnostic line that ends with `text`.
inline bool has_trace_line(const std::string& err, const std::string& text) {
  return err.find(": " + text + "\n") != std::string::npos;
}

// A POST of `body` to "/" as a browser sends it.
inline std::string post_request(const std::string& body) {
  return "POST / HTTP/1.1\r\nHost: localhost:9090\r\nContent-Type: application/x-thrift\r\n"
         "Content-Length: " +
         std::to_string(body.size()) + "\r\n\r\n" + body;
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

  // A gateway that listens on port 9090, or a failed assertion.
  std::unique_ptr<gateway_process> start_listening(const std::string& name) {
    auto gateway = std::make_unique<gateway_process>(env_.root(), name);
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
