// The tasks of the two commands as they stand today: each says when it has nothing to do, and
// otherwise that the command can't be carried out yet. create_pdf_task and
// open_cassistant_task take their places here.
#include <memory>
#include <string>
#include <utility>

#include "log/simple_log.h"
#include "tasks/task.h"

namespace tarn {
namespace {

class pending_task : public task {
 public:
  pending_task(std::string name, std::string command, size_t documents,
               std::shared_ptr<simple_log> log)
      : name_(std::move(name)),
        command_(std::move(command)),
        documents_(documents),
        log_(std::move(log)) {}

  void do_work() override {
    if (!log_) return;
    if (documents_ == 0) {
      log_->add("ERROR: " + name_ + "::do_work() nothing to do.", -1);
    } else {
      log_->add("ERROR: " + command_ + " is not handled yet; " + std::to_string(documents_) +
                    " document(s) left as they are.",
                -1);
    }
  }

 private:
  const std::string name_;
  const std::string command_;
  const size_t documents_;
  const std::shared_ptr<simple_log> log_;
};

}  // namespace

task_factory default_task_factory() {
  return [](const command_args& args, const std::shared_ptr<simple_log>& log,
            const std::shared_ptr<DMS_connector_handler>&) -> std::unique_ptr<task> {
    switch (args.cmd) {
      case 0:
        return std::make_unique<pending_task>("create_pdf_task", "CREATE_PDF", args.doc_refs.size(),
                                              log);
      case 1:
        return std::make_unique<pending_task>("open_cassistant_task", "CONVERT_WITH_ASSISTANT",
                                              args.doc_refs.size(), log);
      default:
        return nullptr;
    }
  };
}

}  // namespace tarn
