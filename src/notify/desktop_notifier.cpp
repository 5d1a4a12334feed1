#include "notify/desktop_notifier.h"

#include <sys/stat.h>

#include <QDBusConnection>
#include <QDBusMessage>
#include <QDBusReply>
#include <QObject>
#include <QStringList>
#include <QThread>
#include <QVariantMap>
#include <atomic>
#include <cstdlib>

#include "convutils/CConvRegKey.h"
#include "convutils/ConvUtils.h"
#include "convutils/usage_reporter.h"

namespace tarn {
namespace {

constexpr const char* kService = "org.freedesktop.Notifications";
constexpr const char* kPath = "/org/freedesktop/Notifications";
constexpr const char* kInterface = "org.freedesktop.Notifications";
constexpr DWORD kUnset = 0xFFFFFFFF;

QString qt_text(const std::string& text) { return QString::fromStdString(text); }

}  // namespace

bool notifications_enabled() {
  const DWORD forced =
      CConvRegKey(reg_root::local_machine, kUsagePolicyKey, "Notifications", kUnset).read_as_number();
  if (forced != kUnset) return forced != 0;
  return CConvRegKey(reg_root::current_user, kGatewayKey, "Notifications", DWORD{1})
             .read_as_number() != 0;
}

std::string session_bus_address() {
  if (const char* set = std::getenv("DBUS_SESSION_BUS_ADDRESS"); set != nullptr && *set != '\0')
    return set;
  // What a systemd user session offers; the library would otherwise try to launch a bus.
  const char* runtime = std::getenv("XDG_RUNTIME_DIR");
  if (runtime == nullptr || *runtime == '\0') return "";
  const std::string socket = std::string(runtime) + "/bus";
  struct stat st {};
  if (::stat(socket.c_str(), &st) != 0 || !S_ISSOCK(st.st_mode)) return "";
  return "unix:path=" + socket;
}

// The notifier's side on its own thread: the bus connection, the calls, the service's signals.
// Calls block this thread only, each for at most the call time-out.
class notifier_worker : public QObject {
  Q_OBJECT

 public:
  notifier_worker(desktop_notifier* owner, QString address, QString app_name, int timeout_ms)
      : owner_(owner),
        address_(std::move(address)),
        name_(QStringLiteral("tarn-notify-%1").arg(reinterpret_cast<quintptr>(this))),
        app_name_(std::move(app_name)),
        timeout_ms_(timeout_ms) {}

  void open() {
    QDBusConnection bus = QDBusConnection::connectToBus(address_, name_);
    if (!bus.isConnected()) {
      owner_->log_once("desktop notifications are off: can't reach the session bus at " +
                       address_.toStdString() + ": " + bus.lastError().message().toStdString());
      return;
    }
    bus.connect(kService, kPath, kInterface, "ActionInvoked", this,
                SLOT(on_action(uint, QString)));
    bus.connect(kService, kPath, kInterface, "NotificationClosed", this,
                SLOT(on_closed(uint, uint)));
    connected_ = true;
  }

  void close() {
    if (connected_) QDBusConnection::disconnectFromBus(name_);
    connected_ = false;
  }

  void show(const std::string& slot, const notification& n, uint32_t replaces) {
    uint32_t id = 0;
    if (connected_) {
      QDBusConnection bus(name_);
      if (!capabilities_known_) {
        QDBusMessage ask = QDBusMessage::createMethodCall(kService, kPath, kInterface,
                                                          "GetCapabilities");
        QDBusReply<QStringList> caps = bus.call(ask, QDBus::Block, timeout_ms_);
        if (caps.isValid()) {
          capabilities_known_ = true;
          offers_actions_ = caps.value().contains("actions");
          marks_up_ = caps.value().contains("body-markup");
        }
      }
      QStringList actions;
      if (offers_actions_) {
        for (const auto& [key, label] : n.actions) actions << qt_text(key) << qt_text(label);
      }
      QVariantMap hints;
      hints.insert("urgency", QVariant::fromValue<uchar>(n.urgent ? 2 : 1));
      QDBusMessage call = QDBusMessage::createMethodCall(kService, kPath, kInterface, "Notify");
      QString body = qt_text(n.body);
      // Names of documents are the user's: "R&D <draft>.docx" is text, not markup.
      if (marks_up_) {
        body.replace('&', "&amp;").replace('<', "&lt;").replace('>', "&gt;");
      }
      call << app_name_ << replaces << QString() << qt_text(n.summary) << body
           << actions << hints << static_cast<int>(n.expire.count());
      QDBusReply<uint> reply = bus.call(call, QDBus::Block, timeout_ms_);
      if (reply.isValid()) {
        id = reply.value();
      } else {
        owner_->log_once("desktop notifications are off: no notification service answers: " +
                         reply.error().message().toStdString());
      }
    }
    owner_->shown(slot, id, offers_actions_);
  }

 private slots:
  void on_action(uint id, const QString& key) { owner_->acted(id, key.toStdString()); }
  void on_closed(uint id, uint /*reason*/) { owner_->closed(id); }

 private:
  desktop_notifier* const owner_;
  const QString address_;
  const QString name_;
  const QString app_name_;
  const int timeout_ms_;
  bool connected_ = false;
  bool capabilities_known_ = false;
  bool offers_actions_ = false;
  bool marks_up_ = false;
};

desktop_notifier::desktop_notifier(std::string app_name, log_sink log,
                                   std::chrono::milliseconds call_timeout)
    : log_(std::move(log)) {
  const std::string address = session_bus_address();
  if (address.empty()) return;  // said at the first show(), when it matters
  thread_ = new QThread;
  worker_ = new notifier_worker(this, QString::fromStdString(address), qt_text(app_name),
                                static_cast<int>(call_timeout.count()));
  worker_->moveToThread(thread_);
  thread_->start();
  QMetaObject::invokeMethod(worker_, [w = worker_] { w->open(); }, Qt::QueuedConnection);
}

desktop_notifier::~desktop_notifier() {
  if (thread_ == nullptr) return;
  // The worker goes on its own thread, after every queued show; quit() alone would drop those.
  QMetaObject::invokeMethod(
      worker_,
      [w = worker_] {
        w->close();
        delete w;
      },
      Qt::BlockingQueuedConnection);
  thread_->quit();
  thread_->wait();
  delete thread_;
}

void desktop_notifier::show(const std::string& slot, notification n) {
  if (worker_ == nullptr) {
    log_once("desktop notifications are off: no session bus (DBUS_SESSION_BUS_ADDRESS is unset "
             "and there is no $XDG_RUNTIME_DIR/bus)");
    return;
  }
  {
    MutexLock lock(mu_);
    ++slots_[slot].queued;
  }
  QMetaObject::invokeMethod(
      worker_,
      [this, w = worker_, slot, n = std::move(n)] {
        uint32_t replaces = 0;
        if (!slot.empty()) {
          MutexLock lock(mu_);
          replaces = slots_[slot].id;
        }
        w->show(slot, n, replaces);
      },
      Qt::QueuedConnection);
}

std::string desktop_notifier::wait_for_action(const std::string& slot,
                                              std::chrono::milliseconds wait) {
  const auto deadline = std::chrono::steady_clock::now() + wait;
  MutexLock lock(mu_);
  for (;;) {
    const auto it = slots_.find(slot);
    if (it == slots_.end()) return "";
    const slot_state& s = it->second;
    if (s.queued == 0) {
      if (!s.action.empty()) return s.action;
      if (s.id == 0 || !s.offers_actions || s.closed) return "";
    }
    if (changed_.wait_until(mu_, deadline) == std::cv_status::timeout) return "";
  }
}

void desktop_notifier::shown(const std::string& slot, uint32_t id, bool offers_actions) {
  {
    MutexLock lock(mu_);
    slot_state& s = slots_[slot];
    --s.queued;
    s.id = id;
    s.offers_actions = offers_actions;
    s.closed = false;
    s.action.clear();
  }
  changed_.notify_all();
}

void desktop_notifier::acted(uint32_t id, const std::string& key) {
  {
    MutexLock lock(mu_);
    for (auto& [name, s] : slots_)
      if (s.id == id && id != 0) s.action = key;
  }
  changed_.notify_all();
}

void desktop_notifier::closed(uint32_t id) {
  {
    MutexLock lock(mu_);
    for (auto& [name, s] : slots_)
      if (s.id == id && id != 0) s.closed = true;
  }
  changed_.notify_all();
}

void desktop_notifier::log_once(const std::string& text) {
  {
    MutexLock lock(mu_);
    if (logged_) return;
    logged_ = true;
  }
  if (log_) log_(text);
}

}  // namespace tarn

#include "desktop_notifier.moc"
