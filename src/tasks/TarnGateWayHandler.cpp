#include "tasks/TarnGateWayHandler.h"

#include <utility>

#include "dms_local/doc_ref.h"

namespace tarn {
namespace {

// Bounds of one command: no real connection string, folder or selection comes near them, and
// each byte of them would be copied into every log line of the command.
constexpr size_t kMaxCommandText = 1024;
constexpr size_t kMaxDocRefs = 1000;

// Why a command is refused before any work; empty when it is not.
std::string refusal_of(const std::string& connection, const std::string& location,
                       const std::set<std::string>& doc_refs) {
  const auto over = [](const char* what, size_t size, size_t limit) {
    return std::string(what) + " of " + std::to_string(size) + " bytes, more than " +
           std::to_string(limit);
  };
  if (connection.size() > kMaxCommandText)
    return over("dms_connection", connection.size(), kMaxCommandText);
  if (location.size() > kMaxCommandText)
    return over("dms_location", location.size(), kMaxCommandText);
  if (doc_refs.size() > kMaxDocRefs) {
    return std::to_string(doc_refs.size()) + " references, more than " +
           std::to_string(kMaxDocRefs);
  }
  for (const auto& doc_ref : doc_refs) {
    if (doc_ref.size() > kMaxDocRefLength)
      return over("a reference", doc_ref.size(), kMaxDocRefLength);
  }
  return {};
}

const char* command_label(int32_t cmd) {
  switch (cmd) {
    case TarnWwySrv::command_type::CREATE_PDF:
      return "CREATE_PDF";
    case TarnWwySrv::command_type::CONVERT_WITH_ASSISTANT:
      return "CONVERT_WITH_ASSISTANT";
    default:
      return "n/a";
  }
}

}  // namespace

TarnGateWayHandler::TarnGateWayHandler(std::shared_ptr<simple_log> log,
                                       std::shared_ptr<TaskWorker> worker, task_factory make_task)
    : log_(std::move(log)),
      worker_(std::move(worker)),
      dms_(std::make_shared<DMS_connector_handler>(log_)),
      make_task_(std::move(make_task)) {
  if (log_) log_->add("TarnGateWayHandler()", -1);
}

TarnGateWayHandler::~TarnGateWayHandler() {
  if (log_) log_->add("~TarnGateWayHandler()", -1);
  dms_.reset();
  worker_.reset();
  log_.reset();
}

void TarnGateWayHandler::get_version(std::string& _return) { _return = kVersionText; }

void TarnGateWayHandler::send_command(const TarnWwySrv::command_type::type cmd,
                                      const std::string& dms_connection,
                                      const std::string& dms_location,
                                      const std::set<std::string>& doc_refs) {
  const int32_t number = command_count_.fetch_add(1, std::memory_order_relaxed);
  if (const std::string refusal = refusal_of(dms_connection, dms_location, doc_refs);
      !refusal.empty()) {
    if (log_) {
      log_->add(std::string("send_command(") + command_label(cmd) + ") refused: " + refusal,
                number);
    }
    return;
  }
  if (log_) {
    const std::string head = std::string("send_command(") + command_label(cmd) + ", \"" +
                             dms_connection + "\", \"" + dms_location + "\", \"";
    for (const auto& doc_ref : doc_refs) log_->add(head + doc_ref + "\")", number);
  }
  if (cmd != TarnWwySrv::command_type::CREATE_PDF &&
      cmd != TarnWwySrv::command_type::CONVERT_WITH_ASSISTANT) {
    return;
  }
  if (!worker_) return;
  // The closure owns copies of the arguments: the call's own are gone when it runs. `this`
  // outlives it, since the handler lives as long as the server.
  const bool handed_over =
      worker_->post([this, args = command_args{cmd, dms_connection, dms_location, doc_refs}] {
        std::unique_ptr<task> work = make_task_ ? make_task_(args, log_, dms_) : nullptr;
        if (work) work->do_work();
      });
  if (!handed_over && log_) {
    log_->add(std::string("send_command(") + command_label(cmd) +
                  ") dropped: the task before it is still running",
              number);
  }
}

}  // namespace tarn
