#include "notification_service.h"

#include <fcntl.h>
#include <signal.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>

#include "support/run_program.h"
#include "support/test_env.h"
#include "workstation.h"

namespace tarn::test {
namespace {

namespace fs = std::filesystem;

constexpr const char* kBus = "/usr/bin/dbus-daemon";
constexpr const char* kDunst = "/usr/bin/dunst";
constexpr const char* kDunstctl = "/usr/bin/dunstctl";
// dunst hands the script appname, summary and body; fields and records get separators that
// no text of the tests holds.
constexpr const char* kScript =
    "#!/bin/sh\nprintf '%s\\037%s\\037%s\\037%s\\036' \"$DUNST_ID\" \"$1\" \"$2\" \"$3\" >> \"$0.log\"\n";

program_result dunstctl(const std::string& address, const std::vector<std::string>& args) {
  std::vector<std::string> argv{"/usr/bin/env", "DBUS_SESSION_BUS_ADDRESS=" + address, kDunstctl};
  argv.insert(argv.end(), args.begin(), args.end());
  return run_program(argv, "", std::chrono::seconds(10));
}

std::vector<std::string> split(const std::string& text, char separator) {
  std::vector<std::string> parts;
  size_t from = 0;
  for (size_t at; (at = text.find(separator, from)) != std::string::npos; from = at + 1)
    parts.push_back(text.substr(from, at - from));
  if (from < text.size()) parts.push_back(text.substr(from));
  return parts;
}

}  // namespace

notification_service::notification_service(const std::string& display, const fs::path& folder) {
  for (const char* tool : {kBus, kDunst, kDunstctl}) {
    if (::access(tool, X_OK) != 0) {
      why_ = std::string(tool) + " is missing (scripts/install-deps.sh test installs it)";
      return;
    }
  }
  fs::create_directories(folder);
  const fs::path script = folder / "shown";
  record_ = folder / "shown.log";
  write_file(script, kScript);
  fs::permissions(script, fs::perms::owner_all);
  write_file(folder / "dunstrc", "[global]\n    font = DejaVu Sans 10\n    width = 420\n"
                                 "    offset = 16x48\n    frame_width = 1\n"
                                 "[record]\n    appname = \"*\"\n    script = " +
                                     script.string() + "\n");
  int fds[2];
  if (pipe2(fds, O_CLOEXEC) != 0) {
    why_ = "pipe failed";
    return;
  }
  std::unique_ptr<FILE, int (*)(FILE*)> reader(fdopen(fds[0], "r"), fclose);
  // No services started on demand: dunstctl would otherwise start a dunst of its own.
  write_file(folder / "bus.conf",
             "<!DOCTYPE busconfig PUBLIC \"-//freedesktop//DTD D-Bus Bus Configuration 1.0//EN\" "
             "\"http://www.freedesktop.org/standards/dbus/1.0/busconfig.dtd\"><busconfig>"
             "<type>session</type><listen>unix:dir=" + folder.string() + "</listen>"
             "<auth>EXTERNAL</auth><policy context=\"default\"><allow send_destination=\"*\" "
             "eavesdrop=\"true\"/><allow eavesdrop=\"true\"/><allow own=\"*\"/></policy>"
             "</busconfig>");
  bus_ = child_process::start({kBus, "--config-file=" + (folder / "bus.conf").string(),
                               "--nofork", "--nosyslog", "--print-address=1"},
                              {.stdout_fd = fds[1]}, &why_);
  char line[512] = {};
  const bool named = bus_ && fgets(line, sizeof line, reader.get()) != nullptr;
  ::close(fds[1]);
  if (!named) {
    why_ += "; dbus-daemon named no address";
    return;
  }
  line[strcspn(line, "\n")] = '\0';
  address_ = line;
  dunst_ = child_process::start({"/usr/bin/env", "DISPLAY=" + display,
                                 "DBUS_SESSION_BUS_ADDRESS=" + address_, kDunst, "-conf",
                                 (folder / "dunstrc").string()},
                                {}, &why_);
  // Up once it answers on the bus.
  if (!dunst_ || !eventually([&] { return dunstctl(address_, {"is-paused"}).exit_code == 0; },
                             std::chrono::seconds(20)))
    why_ = "dunst didn't come up on " + address_;
}

notification_service::~notification_service() {
  for (auto* child : {dunst_.get(), bus_.get()}) {
    if (!child) continue;
    child->signal(SIGTERM);
    child->wait_for(std::chrono::seconds(5));
  }
}

std::vector<shown_notification> notification_service::shown() const {
  std::vector<shown_notification> all;
  std::error_code ec;
  if (!fs::exists(record_, ec)) return all;
  for (const auto& record : split(read_file(record_), '\036')) {
    const auto f = split(record, '\037');
    all.push_back({f.size() > 0 ? f[0] : "", f.size() > 1 ? f[1] : "", f.size() > 2 ? f[2] : "",
                   f.size() > 3 ? f[3] : ""});
  }
  return all;
}

void notification_service::close_all() const { dunstctl(address_, {"close-all"}); }

std::vector<shown_notification> notification_service::history() const {
  close_all();
  std::vector<shown_notification> all;
  const program_result r = dunstctl(address_, {"history"});
  const auto json = nlohmann::json::parse(r.out, nullptr, false);
  if (json.is_discarded()) {
    ADD_FAILURE() << "dunstctl history: " << r.out << r.err;
    return all;
  }
  for (const auto& n : json.at("data").at(0)) {
    all.push_back({std::to_string(n.at("id").at("data").get<int>()),
                   n.at("appname").at("data"), n.at("summary").at("data"),
                   n.at("body").at("data")});
  }
  return all;
}

bool notification_service::click() const {
  return dunstctl(address_, {"action", "0"}).exit_code == 0;
}

}  // namespace tarn::test
