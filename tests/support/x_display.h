// A private X server (Xvfb) for tests that show real windows, and a person at it who answers
// questions with xdotool. Both are children of the test: only they are ever ended.
#pragma once

#include <chrono>
#include <memory>
#include <string>
#include <vector>

#include "platform/child_process.h"

namespace tarn::test {

class x_display {
 public:
  // Starts Xvfb on a free display number; why() says why it didn't start.
  x_display();
  ~x_display();
  x_display(const x_display&) = delete;
  x_display& operator=(const x_display&) = delete;

  bool started() const { return !display_.empty(); }
  const std::string& display() const { return display_; }  // ":N"
  const std::string& why() const { return why_; }

  // Presses Escape in every window of these titles that is up now.
  void close_questions(const std::vector<std::string>& titles) const;

  // Waits beside the test for a visible window titled exactly `title`, focuses it (no window
  // manager does here) and types `keys` (xdotool key names such as "alt+o"; none: only waits).
  class answer {
   public:
    answer(const x_display& x, const std::string& title, const std::vector<std::string>& keys);
    // True when the window came up within `deadline` and the keys went out.
    bool answered(std::chrono::milliseconds deadline = std::chrono::seconds(60));

   private:
    std::unique_ptr<child_process> user_;
    std::string why_;
  };

 private:
  std::unique_ptr<child_process> server_;
  std::string display_;
  std::string why_;
};

}  // namespace tarn::test
