// A question shown by a short-lived child process, `tarnask`, for a gateway that runs without
// a display while one has appeared since it started. The parent sends the dialog's state at
// opening as JSON on the child's standard input; the child shows the real dialog and prints
// the state at its end. Registry and log stay with the parent.
#pragma once

#include <filesystem>
#include <string>

#include "dialogs/display_probe.h"

namespace tarn {

// tarnask's exit codes.
enum tarnask_exit : int {
  kTarnaskAnswered = 0,    // the reply is on standard output, OK or Cancel
  kTarnaskNoDisplay = 1,   // no display could be opened
  kTarnaskBadRequest = 2,  // bad arguments or JSON
};

// The names of the two questions on tarnask's command line.
inline constexpr const char* kMergeSortQuestion = "merge-sort";
inline constexpr const char* kHowToSaveQuestion = "how-to-save";

struct child_answer {
  enum class outcome {
    answered,   // `reply` holds tarnask's output
    not_shown,  // tarnask didn't start, couldn't open the display or ended badly; see `why`
    withdrawn,  // the thread's event loop was told to quit: the gateway is ending
  };
  outcome result = outcome::not_shown;
  std::string reply;
  std::string why;
};

// Parent side: runs `tarnask <question>` at `display`, hands it `request` and waits for its
// end while this thread's events go on being served; no time limit, as for any dialog. The
// child's standard error goes to ours. A withdrawn question's child is ended.
child_answer ask_in_child(const std::filesystem::path& tarnask, const std::string& question,
                          const std::string& request, const display_env& display);

// Child side: shows the question of `request` in this process (a QApplication must exist)
// and sets *reply. Returns a tarnask_exit; *err says what was wrong.
int answer_merge_sort(const std::string& request, std::string* reply, std::string* err);
int answer_how_to_save(const std::string& request, std::string* reply, std::string* err);

}  // namespace tarn
