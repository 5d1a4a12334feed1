// The service's handler: get_version answers from a constant; send_command writes one log
// entry per document and hands the command's closure to the TaskWorker. Runs on connection
// threads; the work itself runs on the main thread.
#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <set>
#include <string>

#include "TarnGateWay.h"
#include "dms/DMS_connector_handler.h"
#include "log/simple_log.h"
#include "tasks/TaskWorker.h"
#include "tasks/task.h"

namespace tarn {

// The product and version text: get_version's answer and the head of the log's start entry.
inline constexpr const char* kVersionText = "Vantu Tarn (version 5.0)";

class TarnGateWayHandler : virtual public TarnWwySrv::TarnGateWayIf {
 public:
  // Makes the one DMS_connector_handler and logs "TarnGateWayHandler()". `log` may be null.
  // `make_task` makes the work of commands 0 and 1 (the real tasks by default).
  TarnGateWayHandler(std::shared_ptr<simple_log> log, std::shared_ptr<TaskWorker> worker,
                     task_factory make_task = default_task_factory());
  ~TarnGateWayHandler() override;

  void get_version(std::string& _return) override;
  void send_command(const TarnWwySrv::command_type::type cmd, const std::string& dms_connection,
                    const std::string& dms_location,
                    const std::set<std::string>& doc_refs) override;

 private:
  std::shared_ptr<simple_log> log_;
  std::atomic<int32_t> command_count_{0};  // only log numbers depend on it
  std::shared_ptr<TaskWorker> worker_;
  std::shared_ptr<DMS_connector_handler> dms_;
  task_factory make_task_;
};

}  // namespace tarn
