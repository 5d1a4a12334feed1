// A private session bus for the tests that talk D-Bus. Unlike a desktop session's, it starts no
// services on demand: a test sees only the services it starts itself.
#pragma once

#include <chrono>
#include <filesystem>
#include <memory>
#include <string>
#include <thread>

#include "platform/child_process.h"
#include "support/test_env.h"

namespace tarn::test {

// Starts dbus-daemon listening at "unix:path=FOLDER/bus"; null with the reason in *why when it
// doesn't listen.
inline std::unique_ptr<child_process> start_session_bus(const std::filesystem::path& folder,
                                                        std::string* why) {
  const auto config = folder / "bus.conf", socket = folder / "bus";
  write_file(config, "<busconfig><type>session</type><listen>unix:path=" + socket.string() +
                         "</listen><auth>EXTERNAL</auth><policy context=\"default\">"
                         "<allow send_destination=\"*\"/><allow eavesdrop=\"true\"/>"
                         "<allow own=\"*\"/></policy></busconfig>");
  auto bus = child_process::start(
      {"/usr/bin/dbus-daemon", "--config-file=" + config.string(), "--nofork", "--nosyslog"}, {},
      why);
  // Clients give up on a bus they can't reach yet.
  for (int tries = 0; bus && !std::filesystem::exists(socket); ++tries) {
    if (tries == 1000) {
      *why = "dbus-daemon didn't listen at " + socket.string();
      return nullptr;
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
  }
  return bus;
}

}  // namespace tarn::test
