// What a command does on the main thread: a task is made, runs do_work() once, and goes.
// The handler makes tasks through a task_factory, so that tests can put tasks of their own
// in the place of the real ones.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <set>
#include <string>

namespace tarn {

class simple_log;
class DMS_connector_handler;

class task {
 public:
  virtual ~task() = default;
  // Never throws to its caller's caller: failures are logged and the task goes on or ends.
  virtual void do_work() = 0;
};

// A command as the task gets it: its own copies of the call's arguments.
struct command_args {
  int32_t cmd = 0;  // 0 CREATE_PDF, 1 CONVERT_WITH_ASSISTANT
  std::string dms_connection;
  std::string dms_location;
  std::set<std::string> doc_refs;
};

// Makes the task of a command (0 or 1); null when there is nothing to do.
using task_factory = std::function<std::unique_ptr<task>(
    const command_args& args, const std::shared_ptr<simple_log>& log,
    const std::shared_ptr<DMS_connector_handler>& dms)>;

// The real tasks: create_pdf_task for 0, open_cassistant_task for 1.
task_factory default_task_factory();

}  // namespace tarn
