// The gateway's main window: a QObject nobody sees, living on the main thread. Other threads
// post a kRunPendingEvent to it; it then runs the task waiting in the TaskWorker.
#pragma once

#include <QObject>

namespace tarn {

class CTarnGateWayApp;

class CMainFrame : public QObject {
 public:
  // `app` must outlive the window.
  explicit CMainFrame(CTarnGateWayApp& app);

  bool event(QEvent* event) override;

 private:
  CTarnGateWayApp& app_;
};

}  // namespace tarn
