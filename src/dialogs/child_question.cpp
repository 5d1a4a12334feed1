#include "dialogs/child_question.h"

#include <QEventLoop>
#include <QGuiApplication>
#include <QProcess>
#include <QProcessEnvironment>

#include "dialogs/HowToSaveDlg.h"
#include "dialogs/MergeSortDlg.h"
#include "dialogs/child_launch_internal.h"
#include "dialogs/dialog_look.h"
#include "dialogs/question_json.h"
#include "platform/trusted_path.h"

namespace tarn {

child_answer ask_in_child(const std::filesystem::path& tarnask, const std::string& question,
                          const std::string& request, const display_env& display) {
  child_answer answer;
  if (std::string why; !trusted_path(tarnask, &why)) {
    answer.why = "refusing to run " + tarnask.string() + ": " + why;
    return answer;
  }
  QProcessEnvironment env = QProcessEnvironment::systemEnvironment();
  for (const auto& [name, value] : display.vars)
    env.insert(QString::fromStdString(name), QString::fromStdString(value));
  env.insert("QT_QPA_PLATFORM", QString::fromStdString(display.qt_platforms));

  QProcess child;
  child.setProcessEnvironment(env);
  child.setProcessChannelMode(QProcess::ForwardedErrorChannel);
  keep_descriptors_from_child(child);
  QEventLoop loop;
  QObject::connect(&child, &QProcess::finished, &loop, &QEventLoop::quit);
  QObject::connect(&child, &QProcess::errorOccurred, &loop, [&](QProcess::ProcessError error) {
    if (error == QProcess::FailedToStart) loop.quit();
  });
  child.start(QString::fromStdString(tarnask.string()), {QString::fromStdString(question)});
  child.write(request.data(), static_cast<qint64>(request.size()));
  child.closeWriteChannel();
  if (child.error() != QProcess::FailedToStart) loop.exec();

  if (child.error() == QProcess::FailedToStart) {
    answer.why = tarnask.string() + " could not be started: " + child.errorString().toStdString();
  } else if (child.state() != QProcess::NotRunning) {
    child.kill();
    child.waitForFinished();
    answer.result = child_answer::outcome::withdrawn;
    answer.why = "the question was withdrawn: the gateway is ending";
  } else if (child.exitStatus() != QProcess::NormalExit) {
    answer.why = "tarnask was ended by a signal";
  } else if (child.exitCode() == kTarnaskNoDisplay) {
    answer.why = "tarnask could not open the display";
  } else if (child.exitCode() != kTarnaskAnswered) {
    answer.why = "tarnask ended with code " + std::to_string(child.exitCode());
  } else {
    answer.result = child_answer::outcome::answered;
    answer.reply = child.readAllStandardOutput().toStdString();
  }
  return answer;
}

namespace {

bool check_display(std::string* err) {
  if (!platform_is_offscreen()) return true;
  *err = "no display to show the question on (Qt runs on the " +
         QGuiApplication::platformName().toStdString() + " platform)";
  return false;
}

}  // namespace

int answer_merge_sort(const std::string& request_text, std::string* reply_text, std::string* err) {
  merge_sort_request request;
  if (!decode(request_text, &request, err)) return kTarnaskBadRequest;
  if (!check_display(err)) return kTarnaskNoDisplay;

  // The rows come as they are to be shown; the documents behind them stay with the parent.
  std::vector<std::shared_ptr<doc_description>> items;
  for (const auto& row : request.rows) {
    auto item = std::make_shared<doc_description>("");
    item->name = row.name;
    item->doc_number = row.doc_number;
    item->version = row.version;
    items.push_back(std::move(item));
  }
  merge_sort_reply reply;
  merge_sort_model model(
      std::move(items), request.extended,
      {[&] { return request.choices; }, [&](const merge_sort_choices& c) { reply.choices = c; }});
  {
    MergeSortDlg dialog(model, nullptr,
                        {[&] { return request.size; }, [&](frame_size s) { reply.size = s; }});
    reply.accepted = dialog.exec() == QDialog::Accepted;
  }
  reply.choices = model.choices();
  for (const auto& row : model.rows()) reply.order.push_back(request.rows[row.item_data].item_data);
  *reply_text = encode(reply);
  return kTarnaskAnswered;
}

int answer_how_to_save(const std::string& request_text, std::string* reply_text, std::string* err) {
  how_to_save_request request;
  if (!decode(request_text, &request, err)) return kTarnaskBadRequest;
  if (!check_display(err)) return kTarnaskNoDisplay;

  how_to_save_reply reply;
  how_to_save_model model(
      request.prompt, request.local_save_allowed,
      {[&] { return request.choices; }, [&](const how_to_save_choices& c) { reply.choices = c; }});
  {
    HowToSaveDlg dialog(model);
    reply.accepted = dialog.exec() == QDialog::Accepted;
  }
  *reply_text = encode(reply);
  return kTarnaskAnswered;
}

}  // namespace tarn
