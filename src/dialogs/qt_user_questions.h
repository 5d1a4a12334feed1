// The questions as real dialogs. Where a question is shown is decided each time it is asked:
// in this process when Qt runs on a display; in a tarnask child process when this process
// runs offscreen but a display has appeared since. A question nobody answered (no display at
// all, or the child ended without an answer) is Cancel, unless the UnattendedAnswers setting
// lets the remembered choices answer; the log says which and why. Main thread only.
#pragma once

#include <filesystem>
#include <memory>
#include <string>

#include "dialogs/display_probe.h"
#include "dialogs/user_questions.h"

namespace tarn {

class simple_log;

class qt_user_questions final : public user_questions {
 public:
  struct options {
    std::shared_ptr<simple_log> log;  // may be null; notes then go to the trace channel only
    std::filesystem::path tarnask;    // empty: "tarnask" in the running program's folder
    display_probe probe;
    std::string platform;  // empty: the platform Qt runs on
  };

  qt_user_questions() : qt_user_questions(options()) {}
  explicit qt_user_questions(options opts);

  std::optional<merge_sort_answer> ask_merge_sort(
      const std::vector<std::shared_ptr<doc_description>>& documents) override;
  std::optional<how_to_save_answer> ask_how_to_save(const doc_description& document) override;
  bool someone_can_answer(std::string* why) override;

 private:
  enum class place { here, child, nobody };
  place where_to_ask(std::optional<display_env>* display) const;
  void note(const std::string& text) const;

  options options_;
};

}  // namespace tarn
