// Desktop notifications: short messages for the person at the machine, shown by the
// freedesktop notification service on the session bus. The notifier talks to the bus from a
// thread of its own, so that no caller ever waits for it; without a bus or a service nothing
// is shown and the log gets one line.
#pragma once

#include <chrono>
#include <condition_variable>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "platform/mutex.h"

class QThread;

namespace tarn {

// The Notifications switch: the machine policy's value when it sets one, else the user's
// value under kGatewayKey, else on.
bool notifications_enabled();

// DBUS_SESSION_BUS_ADDRESS, else $XDG_RUNTIME_DIR/bus when that socket exists; empty when
// there is no session bus to reach. Never starts one.
std::string session_bus_address();

struct notification {
  std::string summary;
  std::string body;
  // Key and label of each button; offered only where the service shows actions. The key
  // "default" is also what a click on the notification itself does.
  std::vector<std::pair<std::string, std::string>> actions;
  bool urgent = false;
  std::chrono::milliseconds expire{-1};  // -1: the service's choice; 0: until closed
};

class notifier_worker;

class desktop_notifier {
 public:
  using log_sink = std::function<void(const std::string&)>;

  // Starts the notifier's thread when there is a session bus (session_bus_address()). `log`
  // gets at most one line in the notifier's life, at the first show() that can't be shown.
  desktop_notifier(std::string app_name, log_sink log,
                   std::chrono::milliseconds call_timeout = std::chrono::seconds(2));
  ~desktop_notifier();
  desktop_notifier(const desktop_notifier&) = delete;
  desktop_notifier& operator=(const desktop_notifier&) = delete;

  // Queues `n` and returns at once. A later show() with the same non-empty `slot` updates
  // that notification in place instead of adding another.
  void show(const std::string& slot, notification n);

  // Waits at most `wait` for the person to pick an action of what `slot` shows now: its key,
  // or empty when it was closed or expired, the time ran out, or nothing could be shown.
  std::string wait_for_action(const std::string& slot, std::chrono::milliseconds wait);

 private:
  friend class notifier_worker;
  struct slot_state {
    int queued = 0;    // shows not yet answered by the service
    uint32_t id = 0;   // the service's id of what the slot shows; 0: nothing
    bool offers_actions = false;
    bool closed = false;
    std::string action;
  };
  // Called on the notifier's thread.
  void shown(const std::string& slot, uint32_t id, bool offers_actions);
  void acted(uint32_t id, const std::string& key);
  void closed(uint32_t id);
  void log_once(const std::string& text);

  log_sink log_;
  Mutex mu_;
  std::condition_variable_any changed_;
  std::map<std::string, slot_state> slots_ TARN_GUARDED_BY(mu_);
  bool logged_ TARN_GUARDED_BY(mu_) = false;
  QThread* thread_ = nullptr;          // null without a bus
  notifier_worker* worker_ = nullptr;  // lives on thread_
};

}  // namespace tarn
