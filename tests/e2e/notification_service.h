// A real desktop notification service for the whole-process tests: a private session bus
// (dbus-daemon) with dunst on the test's X display. dunst runs a script for every notification
// it shows, updates included, and the test reads that record back.
#pragma once

#include <signal.h>
#include <unistd.h>

#include <filesystem>
#include <memory>
#include <ostream>
#include <sstream>
#include <string>
#include <vector>

#include "e2e_fixture.h"
#include "platform/child_process.h"
#include "support/run_program.h"
#include "support/session_bus.h"

namespace tarn::test {

struct shown_notification {
  std::string id;  // the service's id: an update in place keeps it
  std::string app, summary, body;
};

inline void PrintTo(const shown_notification& n, std::ostream* os) {
  *os << "#" << n.id << " " << n.app << ": " << n.summary << " / " << n.body;
}

class notification_service {
 public:
  notification_service(const std::string& display, const std::filesystem::path& folder)
      : record_(folder / "shown.log"), address_("unix:path=" + (folder / "bus").string()) {
    for (const char* tool : {kBus, kDunst, kDunstctl}) {
      if (::access(tool, X_OK) != 0) {
        why_ = std::string(tool) + " is missing (scripts/install-deps.sh test installs it)";
        return;
      }
    }
    // dunst hands the script appname, summary and body; fields and records get separators
    // that no text of the tests holds.
    const auto script = folder / "shown";
    write_file(script,
               "#!/bin/sh\nprintf '%s\\037%s\\037%s\\037%s\\036' \"$DUNST_ID\" \"$1\" \"$2\" "
               "\"$3\" >> \"$0.log\"\n");
    std::filesystem::permissions(script, std::filesystem::perms::owner_all);
    write_file(folder / "dunstrc",
               "[record]\n    appname = \"*\"\n    script = " + script.string() + "\n");
    bus_ = start_session_bus(folder, &why_);
    if (!bus_) return;
    dunst_ = child_process::start(
        {"/usr/bin/env", "DISPLAY=" + display, "DBUS_SESSION_BUS_ADDRESS=" + address_, kDunst,
         "-conf", (folder / "dunstrc").string()},
        {}, &why_);
    // Up once it answers on the bus.
    if (!dunst_ || !eventually([&] { return dunstctl({"is-paused"}).exit_code == 0; }, 20s))
      why_ += "; dunst didn't come up on " + address_;
  }
  ~notification_service() {
    if (!dunst_) return;
    dunst_->signal(SIGTERM);
    dunst_->wait_for(std::chrono::seconds(5));
  }

  bool started() const { return why_.empty(); }
  const std::string& why() const { return why_; }
  const std::string& address() const { return address_; }  // for DBUS_SESSION_BUS_ADDRESS

  std::vector<shown_notification> shown() const {
    std::vector<shown_notification> all;
    std::istringstream records(read_file(record_));
    for (std::string record; std::getline(records, record, '\036');) {
      std::istringstream fields(record);
      shown_notification& n = all.emplace_back();
      for (std::string* field : {&n.id, &n.app, &n.summary, &n.body})
        std::getline(fields, *field, '\037');
    }
    return all;
  }
  void close_all() const { dunstctl({"close-all"}); }
  bool click() const { return dunstctl({"action", "0"}).exit_code == 0; }

 private:
  static constexpr const char* kBus = "/usr/bin/dbus-daemon";
  static constexpr const char* kDunst = "/usr/bin/dunst";
  static constexpr const char* kDunstctl = "/usr/bin/dunstctl";

  program_result dunstctl(const std::vector<std::string>& args) const {
    std::vector<std::string> argv{"/usr/bin/env", "DBUS_SESSION_BUS_ADDRESS=" + address_,
                                  kDunstctl};
    argv.insert(argv.end(), args.begin(), args.end());
    return run_program(argv, "", std::chrono::seconds(10));
  }

  std::filesystem::path record_;
  std::string address_;
  std::unique_ptr<child_process> bus_;
  std::unique_ptr<child_process> dunst_;
  std::string why_;
};

}  // namespace tarn::test
