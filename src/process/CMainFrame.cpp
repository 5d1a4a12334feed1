#include "process/CMainFrame.h"

#include <QEvent>

#include "process/CTarnGateWayApp.h"
#include "tasks/TaskWorker.h"

namespace tarn {

CMainFrame::CMainFrame(CTarnGateWayApp& app) : app_(app) { setObjectName("TarnGateWayMainFrame"); }

bool CMainFrame::event(QEvent* event) {
  if (event->type() != kRunPendingEvent) return QObject::event(event);
  if (TaskWorker* worker = app_.task_worker()) worker->run_pending();
  return true;
}

}  // namespace tarn
