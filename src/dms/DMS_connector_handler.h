// The gateway's one door to the document store: wraps the connector component behind five
// operations in plain strings, starts it on first use, logs what it does and turns every
// failure into an empty result. Used on the task thread only; no lock.
#pragma once

#include <cstdint>
#include <filesystem>
#include <memory>
#include <string>

#include "dms/IDMSHelper.h"
#include "dms/component_loader.h"
#include "dms/doc_description.h"
#include "log/simple_log.h"

namespace tarn {

class DMS_connector_handler {
 public:
  // Starts no connector; logs "DMS_connector_handler::DMS_connector_handler". `log` may be null.
  explicit DMS_connector_handler(std::shared_ptr<simple_log> log);
  // Ends a running connector with TermMgr and unloads it.
  virtual ~DMS_connector_handler();
  DMS_connector_handler(const DMS_connector_handler&) = delete;
  DMS_connector_handler& operator=(const DMS_connector_handler&) = delete;

  // The opened document's item_id; empty on failure.
  std::string download_file(const std::string& dms_connection, const std::string& dms_location,
                            const std::string& doc_ref);
  // Path of the local copy of an opened item; empty on failure.
  std::filesystem::path get_localfilename(const std::string& dms_connection,
                                          const std::string& item_id);
  // The document's properties; null when the connector refused, a record holding only
  // doc_ref when there is no connector.
  std::shared_ptr<doc_description> get_file_info(const std::string& dms_connection,
                                                 const std::string& dms_location,
                                                 const std::string& doc_ref);
  // The stored document's item_id; empty on failure, also when no file is at `file`.
  std::string save_file_to_DMS(int32_t save_mode, const std::filesystem::path& file,
                               const std::string& dms_connection, const std::string& dms_location,
                               const std::string& folder, const std::string& file_name,
                               const std::string& doc_ref);
  // True when the connector closed the item.
  bool close_dms_file(const std::string& dms_connection, const std::string& item_id);

 private:
  // Creates the connector and calls InitMgr; leaves connector_ empty on failure, so that the
  // next operation tries again.
  void init();
  // The connector for one operation (started first if needed); null when there is none.
  com_ptr<IDMSHelper> start();
  void log(const std::string& text);
  // Logs an exception that ended operation `op`; never throws.
  void log_exception(const char* op, const char* what) noexcept;

  component<IDMSHelper> connector_;  // empty until init() succeeds
  std::shared_ptr<simple_log> log_;
};

}  // namespace tarn
