// A real headless Chromium with one tab, driven over the DevTools protocol on a pipe
// (--remote-debugging-pipe: JSON messages ended by NUL on descriptors 3 and 4), so that a test
// can type into a page and click it as a person would.
#pragma once

#include <chrono>
#include <filesystem>
#include <memory>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

#include "platform/child_process.h"
#include "platform/unique_fd.h"

namespace tarn::test {

class chromium_page {
 public:
  static constexpr const char* kChromium = "/usr/bin/chromium";

  // Starts the browser with its profile in `profile` and loads `url` in a new tab.
  chromium_page(const std::filesystem::path& profile, const std::string& url);
  ~chromium_page();
  chromium_page(const chromium_page&) = delete;
  chromium_page& operator=(const chromium_page&) = delete;

  // Empty when the page has loaded; else what went wrong.
  const std::string& why() const { return why_; }

  // The value of a JavaScript expression in the page, a promise awaited; null (and why()
  // says so) when it threw or the browser didn't answer in time.
  nlohmann::json evaluate(const std::string& expression);
  // Clicks the middle of the element with this id, scrolled into view, with the mouse.
  bool click(const std::string& id);
  // Types `text` where the focus is, as a keyboard's text input ("\n" as Enter).
  bool type(const std::string& text);

 private:
  // Sends one command (to the tab unless `to_browser`) and waits for its result.
  nlohmann::json command(const std::string& method, const nlohmann::json& params,
                         bool to_browser = false);
  // The next message from the browser, or null at the deadline or its end.
  nlohmann::json receive(std::chrono::steady_clock::time_point deadline);
  bool wait_event(const std::string& method, std::chrono::milliseconds deadline);

  unique_fd to_browser_;
  unique_fd from_browser_;
  std::string pending_;
  std::string session_;
  int next_id_ = 1;
  std::vector<nlohmann::json> events_;
  std::string why_;
  std::unique_ptr<child_process> browser_;  // last: ended first
};

}  // namespace tarn::test
