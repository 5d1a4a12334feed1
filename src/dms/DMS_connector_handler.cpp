#include "dms/DMS_connector_handler.h"

#include "log/trace.h"

namespace tarn {

DMS_connector_handler::DMS_connector_handler(std::shared_ptr<simple_log> log)
    : log_(std::move(log)) {
  this->log("DMS_connector_handler::DMS_connector_handler");
}

DMS_connector_handler::~DMS_connector_handler() {
  log("DMS_connector_handler::~DMS_connector_handler");
}

void DMS_connector_handler::log(const std::string& text) {
  if (log_) {
    log_->add(text, -1);
  } else {
    TARN_TRACE(kTraceError, "%s", text.c_str());
  }
}

}  // namespace tarn
