// The real tasks of the two commands. A create-PDF task asks its questions through real
// dialogs, which also know what to do when there is no display to show them on, and tells
// how it ended through the process's one desktop notifier.
#include <memory>

#include "dialogs/qt_user_questions.h"
#include "dms/attach_handler.h"
#include "log/trace.h"
#include "notify/desktop_notifier.h"
#include "tasks/create_pdf_task.h"
#include "tasks/open_cassistant_task.h"
#include "tasks/task.h"

namespace tarn {

task_factory default_task_factory() {
  // Made by the first command, on the thread that runs tasks; it lives as long as the factory.
  auto notifier = std::make_shared<std::shared_ptr<desktop_notifier>>();
  return [notifier](const command_args& args, const std::shared_ptr<simple_log>& log,
                    const std::shared_ptr<DMS_connector_handler>& dms) -> std::unique_ptr<task> {
    switch (args.cmd) {
      case 0: {
        if (!*notifier && notifications_enabled()) {
          *notifier = std::make_shared<desktop_notifier>("Vantu Tarn", [log](const std::string& why) {
            if (log) {
              log->add(why, -1);  // the log traces it too
            } else {
              TARN_TRACE(kTraceWarning, "%s", why.c_str());
            }
          });
        }
        qt_user_questions::options questions;
        questions.log = log;
        return std::make_unique<create_pdf_task>(
            log, dms, std::make_unique<attach_handler>(),
            std::make_shared<qt_user_questions>(std::move(questions)), args.dms_connection,
            args.dms_location, args.doc_refs, *notifier);
      }
      case 1:
        return std::make_unique<open_cassistant_task>(log, dms, args.dms_connection,
                                                      args.dms_location, args.doc_refs);
      default:
        return nullptr;
    }
  };
}

}  // namespace tarn
