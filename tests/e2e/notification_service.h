// A real desktop notification service for the whole-process tests: a private session bus
// (dbus-daemon) with dunst on the test's X display. dunst runs a script for every notification
// it shows, updates included, and the test reads that record back, and dunstctl's history.
#pragma once

#include <filesystem>
#include <memory>
#include <ostream>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

#include "platform/child_process.h"

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
  // Starts the bus and dunst for `display`, keeping their files in `folder`.
  notification_service(const std::string& display, const std::filesystem::path& folder);
  ~notification_service();

  bool started() const { return why_.empty(); }
  const std::string& why() const { return why_; }
  const std::string& address() const { return address_; }  // for DBUS_SESSION_BUS_ADDRESS

  // Everything shown so far, in order.
  std::vector<shown_notification> shown() const;
  // Closes what is on screen; the clients hear of it.
  void close_all() const;
  // Closes what is on screen, then reads `dunstctl history`:
  // the last state of every notification, newest first.
  std::vector<shown_notification> history() const;
  // Clicks the notification on top, as the person would: its default action.
  bool click() const;

 private:
  std::filesystem::path record_;
  std::unique_ptr<child_process> bus_;
  std::unique_ptr<child_process> dunst_;
  std::string address_;
  std::string why_;
};

}  // namespace tarn::test
