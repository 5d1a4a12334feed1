#include "dms/DMS_connector_handler.h"

#include <system_error>

#include "dms/com_text.h"
#include "log/trace.h"

namespace tarn {
namespace {

// Out strings end at their first NUL, as a C string copy of them would.
std::string up_to_nul(const std::string& text) { return text.substr(0, text.find('\0')); }

std::string quoted(const std::string& text) { return "\"" + text + "\""; }

}  // namespace

DMS_connector_handler::DMS_connector_handler(std::shared_ptr<simple_log> log)
    : log_(std::move(log)) {
  this->log("DMS_connector_handler::DMS_connector_handler");
}

DMS_connector_handler::~DMS_connector_handler() {
  try {
    log("DMS_connector_handler::~DMS_connector_handler");
  } catch (...) {
  }
  if (connector_) {
    if (auto helper = connector_.query(kIidDmsHelper)) helper->TermMgr();
    connector_.reset();
  }
}

void DMS_connector_handler::init() {
  log("DMS_connector_handler::init");
  HRESULT hr = connector_.create(kClsidDmsConnector, kIidDmsHelper);
  if (FAILED(hr)) {
    log("ERROR: DMS_connector_handler::init() -> " + hresult_text(hr));
    log("DMS_connector_handler::init() IID: " + guid_text(kIidDmsHelper) +
        ", CLSID: " + guid_text(kClsidDmsConnector));
    return;
  }
  auto helper = connector_.query(kIidDmsHelper);
  hr = helper ? helper->InitMgr() : E_NOINTERFACE;
  if (FAILED(hr)) {
    log("pDMSHelper->InitMgr() -> " + hresult_text(hr));
    helper.reset();  // the object goes before its library
    connector_.reset();
  }
}

com_ptr<IDMSHelper> DMS_connector_handler::start() {
  if (!connector_) init();
  return connector_.query(kIidDmsHelper);
}

std::string DMS_connector_handler::download_file(const std::string& dms_connection,
                                                 const std::string& dms_location,
                                                 const std::string& doc_ref) {
  try {
    // The quote after the location is missing in this line, and readers of the log expect it so.
    log("DMS_connector_handler::download_file(" + quoted(dms_connection) + ", \"" + dms_location +
        ", " + quoted(doc_ref) + ", 2)");
    if (auto helper = start()) {
      std::string item_id;
      HRESULT hr = helper->SelectDocItem(dms_connection, dms_location, doc_ref, &item_id);
      if (FAILED(hr)) {
        log("pDMSHelper->SelectDocItem(" + quoted(dms_connection) + ", " + quoted(dms_location) +
            ", " + quoted(doc_ref) + ") -> " + hresult_text(hr));
      } else if (!item_id.empty()) {
        const std::string id = up_to_nul(item_id);
        hr = helper->DocOpen(dms_connection, item_id, kDocOpenForLocalUse);
        if (FAILED(hr)) {
          log("pDMSHelper->DocOpen(" + quoted(dms_connection) + ", " + quoted(id) + ", 2) -> " +
              hresult_text(hr));
        } else {
          log("DMS_connector_handler::download_file() -> " + id);
          return id;
        }
      }
    }
    log("DMS_connector_handler::download_file() -> \"\"");
  } catch (const std::exception& e) {
    log_exception("download_file", e.what());
  }
  return {};
}

std::filesystem::path DMS_connector_handler::get_localfilename(const std::string& dms_connection,
                                                               const std::string& item_id) {
  try {
    log("DMS_connector_handler::get_localfilename(" + quoted(dms_connection) + ", " +
        quoted(item_id) + ")");
    auto helper = start();
    // An empty item_id never reaches the connector.
    if (helper && !item_id.empty()) {
      std::string path;
      HRESULT hr = helper->DocGetLocalFile(dms_connection, item_id, &path);
      if (FAILED(hr)) {
        log("pDMSHelper->DocGetLocalFile(" + quoted(dms_connection) + ", " + quoted(item_id) +
            ") -> " + hresult_text(hr));
      } else {
        path = up_to_nul(path);
        log("DMS_connector_handler::get_localfilename() -> " + path);
        return path;
      }
    }
    log("DMS_connector_handler::get_localfilename() -> \"\"");
  } catch (const std::exception& e) {
    log_exception("get_localfilename", e.what());
  }
  return {};
}

std::shared_ptr<doc_description> DMS_connector_handler::get_file_info(
    const std::string& dms_connection, const std::string& dms_location,
    const std::string& doc_ref) {
  try {
    log("DMS_connector_handler::get_file_info(" + quoted(dms_connection) + ", " +
        quoted(dms_location) + ", " + quoted(doc_ref) + ")");
    auto description = std::make_shared<doc_description>(doc_ref);
    // Without a connector the caller still gets a description that holds doc_ref.
    if (auto helper = start()) {
      const property_array* properties = nullptr;
      HRESULT hr = helper->DocGetProperties(dms_connection, dms_location, doc_ref, &properties);
      if (FAILED(hr)) {
        log("pDMSHelper->DocGetProperties(" + quoted(dms_connection) + ", " + quoted(dms_location) +
            ", " + quoted(doc_ref) + ") -> " + hresult_text(hr));
        return nullptr;
      }
      if (properties != nullptr) {
        // Keys match whole and case counting; a key given twice keeps its last value.
        for (const auto& [key, value] : *properties) {
          std::string* field = key == "name"         ? &description->name
                               : key == "extension"  ? &description->extension
                               : key == "doc_number" ? &description->doc_number
                               : key == "version"    ? &description->version
                               : key == "folder"     ? &description->folder
                                                     : nullptr;
          if (field != nullptr) *field = up_to_nul(value);
        }
      }
    }
    log("DMS_connector_handler::get_file_info() -> retval.name: " + description->name);
    return description;
  } catch (const std::exception& e) {
    log_exception("get_file_info", e.what());
  }
  return nullptr;
}

std::string DMS_connector_handler::save_file_to_DMS(
    int32_t save_mode, const std::filesystem::path& file, const std::string& dms_connection,
    const std::string& dms_location, const std::string& folder, const std::string& file_name,
    const std::string& doc_ref) {
  try {
    // Two quotes are missing in this line, as readers of the log know it.
    log("DMS_connector_handler::save_file_to_DMS(" + quoted(file.string()) + ", \"" +
        dms_connection + ", \"" + dms_location + ", " + quoted(folder) + ", " + quoted(file_name) +
        ", " + quoted(doc_ref) + ")");
    std::string result;
    if (auto helper = start()) {
      std::error_code ec;
      const bool exists = std::filesystem::exists(file, ec);
      if (ec) {
        log("ERROR: DMS_connector_handler::save_file_to_DMS() can't test " + quoted(file.string()) +
            ": " + ec.message());
      } else if (exists) {
        std::string item_id;
        HRESULT hr = helper->SaveDocItem(save_mode, file.string(), dms_connection, dms_location,
                                         folder, file_name, doc_ref, 0, &item_id);
        if (FAILED(hr)) {
          log("DMS_connector_handler::save_file_to_DMS() -> " + hresult_text(hr));
          return {};
        }
        result = up_to_nul(item_id);
      }
    }
    log("DMS_connector_handler::save_file_to_DMS() -> " + result);
    return result;
  } catch (const std::exception& e) {
    log_exception("save_file_to_DMS", e.what());
  }
  return {};
}

bool DMS_connector_handler::close_dms_file(const std::string& dms_connection,
                                           const std::string& item_id) {
  try {
    log("DMS_connector_handler::close_dms_file(" + quoted(dms_connection) + ", " + quoted(item_id) +
        ")");
    auto helper = start();
    HRESULT hr = E_FAIL;
    if (helper && !item_id.empty()) hr = helper->DocClose(dms_connection, item_id, kCloseNormal);
    // Also written when the connector was never asked.
    if (FAILED(hr)) {
      log("pDMSHelper->DocClose(" + quoted(dms_connection) + ", " + quoted(item_id) +
          ", DMSConnector::CLOSE_NORMAL) -> " + hresult_text(hr));
    }
    log("DMS_connector_handler::close_dms_file() -> " + hresult_text(hr));
    return SUCCEEDED(hr);
  } catch (const std::exception& e) {
    log_exception("close_dms_file", e.what());
  }
  return false;
}

void DMS_connector_handler::log(const std::string& text) {
  if (log_) {
    log_->add(text, -1);
  } else {
    TARN_TRACE(kTraceError, "%s", text.c_str());
  }
}

void DMS_connector_handler::log_exception(const char* op, const char* what) noexcept {
  try {
    log(std::string("ERROR: DMS_connector_handler::") + op + "() failed: " + what);
  } catch (...) {
    TARN_TRACE(kTraceError, "DMS_connector_handler::%s() failed: %s", op, what);
  }
}

}  // namespace tarn
