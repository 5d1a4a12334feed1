#include "dialogs/qt_user_questions.h"

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
      model.init();
      merge_sort_answer answer = model.remembered_answer();
      note("MergeSortDlg: no display to ask on; taking the remembered choices: " +
           describe(answer));
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
      model.init();
      how_to_save_answer answer = model.remembered_answer();
      note("HowToSaveDlg: no display to ask on; taking the remembered choice for '" +
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
