// The start page in a real headless Chromium: it shows what it asked the gateway, and in its
// "Try a command" panel a person types and clicks, and the command is posted as a browser would.
#include <fcntl.h>
#include <gmock/gmock.h>
#include <poll.h>
#include <sys/stat.h>

#include "support/run_program.h"
#include "workstation.h"

namespace tarn::test {
namespace {

using ::testing::HasSubstr;

// A real headless Chromium with one tab, driven over the DevTools protocol on a pipe
// (--remote-debugging-pipe: JSON messages ended by NUL on descriptors 3 and 4).
class chromium_page {
 public:
  static constexpr auto kAnswerDeadline = 60s;

  chromium_page(const std::filesystem::path& profile, const std::string& url) {
    const char* const chromium = "/usr/bin/chromium";
    if (access(chromium, X_OK) != 0) {
      why_ = std::string(chromium) + " is missing; scripts/install-deps.sh test installs it";
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
    const unique_fd log(
        open((profile.string() + ".log").c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600));
    // The pipes go on descriptors 3 and 4. The browser keeps its temporary files beside its
    // profile, out of the folder the gateway's temporary files are checked in.
    const std::string tmpdir = "TMPDIR=" + profile.parent_path().string(),
                      data_dir = "--user-data-dir=" + profile.string(),
                      to_fds = R"(i=$1 o=$2; shift 2; exec "$@" 3<"$i" 4>"$o")";
    std::vector<std::string> argv = {
        "/bin/sh",     "-c",   to_fds,         "sh",   in,       out,     "/usr/bin/setpriv",
        "--pdeathsig", "KILL", "/usr/bin/env", tmpdir, chromium, data_dir};
    for (const char* flag :
         {"--headless", "--no-sandbox", "--disable-gpu", "--disable-quic", "--no-first-run",
          "--disable-background-networking", "--disable-component-update", "--disable-sync",
          "--remote-debugging-pipe", "about:blank"})
      argv.push_back(flag);
    browser_ = child_process::start(argv, {.stdout_fd = log.get(), .stderr_fd = log.get()}, &why_);
    if (!browser_) return;
    const nlohmann::json target = command("Target.createTarget", {{"url", "about:blank"}}, true);
    if (target.is_null()) return;
    const nlohmann::json attached = command(
        "Target.attachToTarget", {{"targetId", target.at("targetId")}, {"flatten", true}}, true);
    if (attached.is_null()) return;
    session_ = attached.at("sessionId").get<std::string>();
    if (command("Page.navigate", {{"url", url}}).is_null()) return;
    // Asked until the new page has loaded; an evaluation that meets the navigation is retried.
    const auto end = std::chrono::steady_clock::now() + kAnswerDeadline;
    while (evaluate("location.href != 'about:blank' && document.readyState == 'complete'") !=
           true) {
      why_ = std::chrono::steady_clock::now() < end ? "" : url + " didn't load in time: " + why_;
      if (!why_.empty()) return;
      poll(nullptr, 0, 50);
    }
  }
  ~chromium_page() {
    if (!browser_) return;
    if (why_.empty()) command("Browser.close", nlohmann::json::object(), true);
    browser_->wait_for(10s);  // what still runs then, the child's destructor kills
  }

  const std::string& why() const { return why_; }

  // A promise is awaited; null (and why() says so) when it threw or nothing answered in time.
  nlohmann::json evaluate(const std::string& expression) {
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

  bool click(const std::string& id) {
    const nlohmann::json at =
        evaluate("(() => { const e = document.getElementById(" + nlohmann::json(id).dump() +
                 "); e.scrollIntoView({block: 'center'}); const r = e.getBoundingClientRect();"
                 " return {x: r.x + r.width / 2, y: r.y + r.height / 2}; })()");
    if (at.is_null()) return false;
    nlohmann::json event = {
        {"x", at.at("x")}, {"y", at.at("y")}, {"button", "left"}, {"clickCount", 1}};
    for (const char* type : {"mousePressed", "mouseReleased"}) {
      event["type"] = type;
      if (command("Input.dispatchMouseEvent", event).is_null()) return false;
    }
    return true;
  }

  bool type(const std::string& text) {
    return !command("Input.insertText", {{"text", text}}).is_null();
  }

 private:
  nlohmann::json command(const std::string& method, const nlohmann::json& params,
                         bool to_browser = false) {
    const int id = next_id_++;
    nlohmann::json message = {{"id", id}, {"method", method}, {"params", params}};
    if (!to_browser) message["sessionId"] = session_;
    const std::string bytes = message.dump() + '\0';
    if (write(to_browser_.get(), bytes.data(), bytes.size()) !=
        static_cast<ssize_t>(bytes.size())) {
      why_ = "the browser stopped reading its commands";
      return nullptr;
    }
    const auto deadline = std::chrono::steady_clock::now() + kAnswerDeadline;
    for (;;) {
      size_t end;
      while ((end = pending_.find('\0')) == std::string::npos) {
        const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
            deadline - std::chrono::steady_clock::now());
        pollfd p{from_browser_.get(), POLLIN, 0};
        char buffer[65536];
        const ssize_t n = left.count() > 0 && poll(&p, 1, static_cast<int>(left.count())) > 0
                              ? read(from_browser_.get(), buffer, sizeof(buffer))
                              : 0;
        if (n <= 0) {
          why_ = "no answer to " + method;
          return nullptr;
        }
        pending_.append(buffer, static_cast<size_t>(n));
      }
      const auto answer = nlohmann::json::parse(pending_.substr(0, end), nullptr, false);
      pending_.erase(0, end + 1);
      if (!answer.is_object() || answer.value("id", 0) != id) continue;  // an event
      if (answer.contains("error")) {
        why_ = method + " failed: " + answer.at("error").dump();
        return nullptr;
      }
      return answer.at("result");
    }
  }

  unique_fd to_browser_, from_browser_;
  std::string pending_, session_;
  int next_id_ = 1;
  std::string why_;
  std::unique_ptr<child_process> browser_;  // last: ended first
};

class panel_e2e_test : public workstation_test {};

// The class and text of the status element `id` once it is no longer "pending".
nlohmann::json settled(chromium_page& page, const std::string& id) {
  const std::string status = "document.getElementById('" + id + "')";
  eventually([&] {
    return page.evaluate("!" + status + ".classList.contains('pending') && " + status +
                         ".textContent !== ''") == true;
  });
  return page.evaluate("({cls: " + status + ".className, text: " + status + ".textContent})");
}

TEST_F(panel_e2e_test, WithoutAGatewayBehindItThePageSaysSo) {
  chromium_page page(w_->env().root() / "chromium" / "offline",
                     "file://" + dist_program("www-data/index.html"));
  ASSERT_EQ(page.why(), "");
  const nlohmann::json status = settled(page, "status");
  EXPECT_EQ(status.value("cls", ""), "status error");
  EXPECT_THAT(status.value("text", ""), HasSubstr("The gateway can't be reached"));
  EXPECT_EQ(page.evaluate("document.getElementById('version').textContent"), "unknown");
}

TEST_F(panel_e2e_test, ATypedCommandIsPostedAsTypedAndItsReplyShown) {
  const auto refs = w_->import({w_->make_document("november.txt", "Novemberword"),
                                w_->make_document("oscar.txt", "Oscarword")});
  // Markup, quotes, a backslash and non-ASCII: they must be sent as typed.
  const std::string location = "Präsentation <b>\"x\"</b> \\ ü";

  chromium_page page(w_->env().root() / "chromium" / "profile", "http://localhost:9090/");
  ASSERT_EQ(page.why(), "");
  EXPECT_EQ(settled(page, "status").value("cls", ""), "status ok");
  EXPECT_EQ(page.evaluate("document.getElementById('version').textContent"),
            "Vantu Tarn (version 5.0)");

  ASSERT_TRUE(page.click("try-location"));
  ASSERT_TRUE(page.type(location));
  ASSERT_TRUE(page.click("try-refs"));
  // As an administrator pastes them: a blank around one, an empty line, one given twice.
  ASSERT_TRUE(page.type("  " + refs[1] + "\n\n" + refs[0] + "\n" + refs[1] + "\n"));

  // The question comes up for the two documents: the command reached the gateway.
  x_display::answer user(w_->x(), "Merge items to one PDF", {"Escape"});
  ASSERT_TRUE(page.click("try-create-pdf"));
  const nlohmann::json status = settled(page, "try-status");
  ASSERT_EQ(page.why(), "");
  EXPECT_EQ(status.value("cls", ""), "status ok") << status.dump();
  EXPECT_THAT(status.value("text", ""), HasSubstr("The gateway took CREATE_PDF with 2 references"));
  ASSERT_TRUE(user.answered());

  // What the page says it sent is what a browser client sends, and the reply came back whole.
  const nlohmann::json tried = page.evaluate(
      "({sent: document.getElementById('try-sent').textContent,"
      "  reply: document.getElementById('try-reply').textContent,"
      "  markup: document.querySelectorAll('#try-result pre *:not(code)').length})");
  const nlohmann::json sent = nlohmann::json::parse(tried.value("sent", ""), nullptr, false);
  ASSERT_TRUE(sent.is_array()) << tried.dump();
  const int seqid = sent[3].get<int>();
  EXPECT_EQ(sent, nlohmann::json::parse(
                      send_command_message(kCreatePdf, "", location, {refs[1], refs[0]}, seqid)));
  EXPECT_EQ(tried.value("reply", ""), "[1,\"send_command\",2," + std::to_string(seqid) + ",{}]");
  EXPECT_EQ(tried.value("markup", -1), 0) << "typed text must stay text";
  EXPECT_TRUE(w_->after_the_running_task());
}

}  // namespace
}  // namespace tarn::test
