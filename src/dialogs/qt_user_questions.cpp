#include "dialogs/qt_user_questions.h"

#include "convutils/CConvRegKey.h"
#include "convutils/usage_reporter.h"
#include "dialogs/HowToSaveDlg.h"
#include "dialogs/MergeSortDlg.h"
#include "dialogs/child_question.h"
#include "dialogs/dialog_keys.h"
#include "dialogs/dialog_look.h"
#include "dialogs/question_json.h"
#include "log/simple_log.h"
#include "log/trace.h"
#include "platform/self_exe.h"

namespace tarn {
namespace {

const char* describe(save_mode mode) {
  switch (mode) {
    case kSaveNewDocument:
      return "saved as a new document";
    case kSaveNewRelatedDocument:
      return "saved as a new document related to its source";
    default:
      return "saved as a new version";
  }
}

std::string describe(const merge_sort_answer& answer) {
  return std::string(answer.merge_documents_ ? "one PDF of all, " : "one PDF each, ") +
         describe(answer.chosen_save_mode()) + ", " + std::to_string(answer.result.size()) +
         " files in the given order";
}

std::string describe(const how_to_save_answer& answer) {
  return describe(answer.chosen_save_mode());
}

constexpr const char* kUnattendedKey = "Software\\Vantu\\PDF\\V1\\TarnGateWay";
constexpr const char* kNobodyAsked = "no display to ask on";
constexpr const char* kUnanswered = "the question ended without an answer: ";
constexpr const char* kCancelled = "; taken as Cancel, nothing is stored";

// A command any web page can post must not store documents unattended, so only a choice made
// for the machine (policy) or by the user lets the remembered choices answer for nobody.
bool unattended_answers() {
  constexpr DWORD kUnset = 0xFFFFFFFF;
  DWORD policy = kUnset;
  if (CConvRegKey(reg_root::local_machine, kUsagePolicyKey, "UnattendedAnswers", kUnset)
              .read_number(&policy) == kErrorSuccess &&
      policy != kUnset)
    return policy != 0;
  return CConvRegKey(reg_root::current_user, kUnattendedKey, "UnattendedAnswers", DWORD{0})
      .read_as_bool();
}

}  // namespace

qt_user_questions::qt_user_questions(options opts) : options_(std::move(opts)) {
  if (options_.tarnask.empty()) options_.tarnask = self_exe_dir() + "tarnask";
}

qt_user_questions::place qt_user_questions::where_to_ask(
    std::optional<display_env>* display) const {
  const bool offscreen = options_.platform.empty()
                             ? platform_is_offscreen()
                             : options_.platform == "offscreen" || options_.platform == "minimal";
  if (!offscreen) return place::here;
  *display = options_.probe.find();
  return *display ? place::child : place::nobody;
}

void qt_user_questions::note(const std::string& text) const {
  if (options_.log) {
    options_.log->add(text);
  } else {
    TARN_TRACE(kTraceWarning, "%s", text.c_str());
  }
}

bool qt_user_questions::someone_can_answer(std::string* why) {
  std::optional<display_env> display;
  if (where_to_ask(&display) != place::nobody || unattended_answers()) return true;
  *why = kNobodyAsked;
  return false;
}

std::optional<merge_sort_answer> qt_user_questions::ask_merge_sort(
    const std::vector<std::shared_ptr<doc_description>>& documents) {
  merge_sort_model model(documents, true);
  std::optional<display_env> display;
  switch (where_to_ask(&display)) {
    case place::here: {
      MergeSortDlg dialog(model);
      if (dialog.exec() != QDialog::Accepted) return std::nullopt;
      return dialog.answer();
    }
    case place::nobody: {
      if (!unattended_answers()) {
        note(std::string("MergeSortDlg: ") + kNobodyAsked + kCancelled);
        return std::nullopt;
      }
      model.init();
      merge_sort_answer answer = model.remembered_answer();
      note(std::string("MergeSortDlg: ") + kNobodyAsked +
           "; taking the remembered choices: " + describe(answer));
      return answer;
    }
    case place::child:
      break;
  }

  model.init();
  resizable_frame frame(registry_frame_size(kDialogSubkey, kMergeDialogSizeValue));
  const merge_sort_request request{true, model.choices(), model.rows(),
                                   frame.restore_size().value_or(frame_size{})};
  TARN_TRACE(kTraceProgress, "MergeSortDlg: shown by tarnask at %s", display->where.c_str());
  child_answer shown =
      ask_in_child(options_.tarnask, kMergeSortQuestion, encode(request), *display);
  merge_sort_reply reply;
  if (shown.result == child_answer::outcome::answered) {
    if (!decode(shown.reply, &reply, &shown.why)) {
      shown.result = child_answer::outcome::not_shown;
    } else if (!model.take_over(reply.choices, reply.order)) {
      shown.result = child_answer::outcome::not_shown;
      shown.why = "tarnask gave back rows that weren't asked about";
    }
  }
  switch (shown.result) {
    case child_answer::outcome::withdrawn:
      note("MergeSortDlg: " + shown.why);
      return std::nullopt;
    case child_answer::outcome::not_shown: {
      if (!unattended_answers()) {
        note(std::string("MergeSortDlg: ") + kUnanswered + shown.why + " (at " + display->where +
             ")" + kCancelled);
        return std::nullopt;
      }
      merge_sort_answer answer = model.remembered_answer();
      note("MergeSortDlg: could not be shown at " + display->where + " (" + shown.why +
           "); taking the remembered choices: " + describe(answer));
      return answer;
    }
    case child_answer::outcome::answered:
      break;
  }
  frame.on_size(reply.size);
  if (!reply.accepted) return std::nullopt;
  return model.accept();
}

std::optional<how_to_save_answer> qt_user_questions::ask_how_to_save(
    const doc_description& document) {
  how_to_save_model model(how_to_save_prompt(document.source_name(), document.pdf_name()), false);
  std::optional<display_env> display;
  switch (where_to_ask(&display)) {
    case place::here: {
      HowToSaveDlg dialog(model);
      if (dialog.exec() != QDialog::Accepted) return std::nullopt;
      return dialog.answer();
    }
    case place::nobody: {
      if (!unattended_answers()) {
        note("HowToSaveDlg: " + std::string(kNobodyAsked) + " for '" + document.source_name() +
             "'" + kCancelled);
        return std::nullopt;
      }
      model.init();
      how_to_save_answer answer = model.remembered_answer();
      note(std::string("HowToSaveDlg: ") + kNobodyAsked + "; taking the remembered choice for '" +
           document.source_name() + "': " + describe(answer));
      return answer;
    }
    case place::child:
      break;
  }

  model.init();
  const how_to_save_request request{model.prompt(), model.local_save_shown(), model.choices()};
  TARN_TRACE(kTraceProgress, "HowToSaveDlg: shown by tarnask at %s", display->where.c_str());
  child_answer shown =
      ask_in_child(options_.tarnask, kHowToSaveQuestion, encode(request), *display);
  how_to_save_reply reply;
  if (shown.result == child_answer::outcome::answered && !decode(shown.reply, &reply, &shown.why))
    shown.result = child_answer::outcome::not_shown;
  switch (shown.result) {
    case child_answer::outcome::withdrawn:
      note("HowToSaveDlg: " + shown.why);
      return std::nullopt;
    case child_answer::outcome::not_shown: {
      if (!unattended_answers()) {
        note(std::string("HowToSaveDlg: ") + kUnanswered + shown.why + " (at " + display->where +
             ") for '" + document.source_name() + "'" + kCancelled);
        return std::nullopt;
      }
      how_to_save_answer answer = model.remembered_answer();
      note("HowToSaveDlg: could not be shown at " + display->where + " (" + shown.why +
           "); taking the remembered choice for '" + document.source_name() +
           "': " + describe(answer));
      return answer;
    }
    case child_answer::outcome::answered:
      break;
  }
  // The dialog writes its choices back however it ended; here that falls to the parent.
  model.take_over(reply.choices);
  model.store_settings();
  if (!reply.accepted) return std::nullopt;
  return model.remembered_answer();
}

}  // namespace tarn
