#include "chromium_page.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/stat.h>

namespace tarn::test {
namespace {

using namespace std::chrono_literals;
using clock_type = std::chrono::steady_clock;

constexpr auto kAnswerDeadline = 60s;

int milliseconds_until(clock_type::time_point deadline) {
  const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - clock_type::now());
  return left.count() < 0 ? 0 : static_cast<int>(left.count());
}

}  // namespace

chromium_page::chromium_page(const std::filesystem::path& profile, const std::string& url) {
  if (access(kChromium, X_OK) != 0) {
    why_ = std::string(kChromium) + " is missing; scripts/install-deps.sh test installs it";
    return;
  }
  std::filesystem::create_directories(profile);
  const std::string in = profile.string() + ".in", out = profile.string() + ".out";
  if (mkfifo(in.c_str(), 0600) != 0 || mkfifo(out.c_str(), 0600) != 0) {
    why_ = "mkfifo failed";
    return;
  }
  // Read and write: neither open waits for the browser to open its end.
  to_browser_.reset(open(in.c_str(), O_RDWR | O_CLOEXEC));
  from_browser_.reset(open(out.c_str(), O_RDWR | O_CLOEXEC));
  const unique_fd log(open((profile.string() + ".log").c_str(),
                           O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600));
  // The pipes go on descriptors 3 and 4. The browser keeps its temporary files beside its
  // profile, out of the folder the gateway's temporary files are checked in.
  browser_ = child_process::start(
      {"/bin/sh", "-c", R"(i=$1 o=$2; shift 2; exec "$@" 3<"$i" 4>"$o")", "sh", in, out,
       "/usr/bin/setpriv", "--pdeathsig", "KILL", "/usr/bin/env",
       "TMPDIR=" + profile.parent_path().string(), kChromium, "--headless", "--no-sandbox",
       "--disable-gpu", "--disable-quic", "--no-first-run", "--disable-background-networking",
       "--disable-component-update", "--disable-sync", "--user-data-dir=" + profile.string(),
       "--remote-debugging-pipe", "about:blank"},
      {.stdout_fd = log.get(), .stderr_fd = log.get()}, &why_);
  if (!browser_) return;

  const nlohmann::json target =
      command("Target.createTarget", {{"url", "about:blank"}}, /*to_browser=*/true);
  if (target.is_null()) return;
  const nlohmann::json attached = command(
      "Target.attachToTarget", {{"targetId", target.at("targetId")}, {"flatten", true}}, true);
  if (attached.is_null()) return;
  session_ = attached.at("sessionId").get<std::string>();
  if (command("Page.enable", nlohmann::json::object()).is_null() ||
      command("Page.navigate", {{"url", url}}).is_null())
    return;
  if (!wait_event("Page.loadEventFired", kAnswerDeadline) && why_.empty())
    why_ = url + " didn't load within " + std::to_string(kAnswerDeadline.count()) + " s";
}

chromium_page::~chromium_page() {
  if (!browser_) return;
  if (why_.empty()) command("Browser.close", nlohmann::json::object(), true);
  browser_->wait_for(10s);  // what still runs then, the child's destructor kills
}

nlohmann::json chromium_page::command(const std::string& method, const nlohmann::json& params,
                                      bool to_browser) {
  const int id = next_id_++;
  nlohmann::json message = {{"id", id}, {"method", method}, {"params", params}};
  if (!to_browser) message["sessionId"] = session_;
  const std::string bytes = message.dump() + '\0';
  for (size_t sent = 0; sent < bytes.size();) {
    const ssize_t n = write(to_browser_.get(), bytes.data() + sent, bytes.size() - sent);
    if (n <= 0) {
      why_ = "the browser stopped reading its commands";
      return nullptr;
    }
    sent += static_cast<size_t>(n);
  }
  const auto deadline = clock_type::now() + kAnswerDeadline;
  for (;;) {
    nlohmann::json answer = receive(deadline);
    if (answer.is_null()) {
      why_ = "no answer to " + method;
      return nullptr;
    }
    if (!answer.contains("id")) {
      events_.push_back(std::move(answer));
      continue;
    }
    if (answer.at("id") != id) continue;
    if (answer.contains("error")) {
      why_ = method + " failed: " + answer.at("error").dump();
      return nullptr;
    }
    return answer.at("result");
  }
}

nlohmann::json chromium_page::receive(clock_type::time_point deadline) {
  size_t end;
  while ((end = pending_.find('\0')) == std::string::npos) {
    pollfd p{from_browser_.get(), POLLIN, 0};
    if (poll(&p, 1, milliseconds_until(deadline)) <= 0) return nullptr;
    char buffer[65536];
    const ssize_t n = read(from_browser_.get(), buffer, sizeof(buffer));
    if (n <= 0) return nullptr;
    pending_.append(buffer, static_cast<size_t>(n));
  }
  nlohmann::json message = nlohmann::json::parse(pending_.substr(0, end), nullptr, false);
  pending_.erase(0, end + 1);
  return message.is_discarded() ? nlohmann::json::object() : message;
}

bool chromium_page::wait_event(const std::string& method, std::chrono::milliseconds deadline) {
  const auto end = clock_type::now() + deadline;
  for (;;) {
    for (auto it = events_.begin(); it != events_.end(); ++it) {
      if (it->value("method", "") == method && it->value("sessionId", "") == session_) {
        events_.erase(it);
        return true;
      }
    }
    events_.clear();
    nlohmann::json message = receive(end);
    if (message.is_null()) return false;
    events_.push_back(std::move(message));
  }
}

nlohmann::json chromium_page::evaluate(const std::string& expression) {
  const nlohmann::json result =
      command("Runtime.evaluate",
              {{"expression", expression}, {"awaitPromise", true}, {"returnByValue", true}});
  if (result.is_null()) return nullptr;
  if (result.contains("exceptionDetails")) {
    why_ = "the page threw: " + result.at("exceptionDetails").dump();
    return nullptr;
  }
  return result.at("result").value("value", nlohmann::json());
}

bool chromium_page::click(const std::string& id) {
  const nlohmann::json at = evaluate(
      "(() => { const e = document.getElementById(" + nlohmann::json(id).dump() +
      "); e.scrollIntoView({block: 'center'}); const r = e.getBoundingClientRect();"
      " return {x: r.x + r.width / 2, y: r.y + r.height / 2}; })()");
  if (at.is_null()) return false;
  for (const char* type : {"mousePressed", "mouseReleased"}) {
    if (command("Input.dispatchMouseEvent", {{"type", type},
                                             {"x", at.at("x")},
                                             {"y", at.at("y")},
                                             {"button", "left"},
                                             {"clickCount", 1}})
            .is_null())
      return false;
  }
  return true;
}

bool chromium_page::type(const std::string& text) {
  size_t begin = 0;
  for (;;) {
    const size_t end = text.find('\n', begin);
    const std::string line = text.substr(begin, end == std::string::npos ? end : end - begin);
    if (!line.empty() && command("Input.insertText", {{"text", line}}).is_null()) return false;
    if (end == std::string::npos) return true;
    for (const char* type : {"keyDown", "keyUp"}) {
      nlohmann::json key = {{"type", type}, {"key", "Enter"}, {"code", "Enter"},
                            {"windowsVirtualKeyCode", 13}};
      if (std::string(type) == "keyDown") key["text"] = "\r";
      if (command("Input.dispatchKeyEvent", key).is_null()) return false;
    }
    begin = end + 1;
  }
}

}  // namespace tarn::test
