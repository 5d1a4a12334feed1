// The document store connector's interface: what the gateway calls to describe, fetch, store
// and close documents. `dms_connection`, `dms_location` and `doc_ref` are the client's opaque
// strings, handed on unchanged; `item_id` is the connector's id of an open document.
#pragma once

#include <string>
#include <utility>
#include <vector>

#include "dms/component.h"

namespace tarn {

constexpr const char* kClsidDmsConnector = "{3D91BB51-50A8-4DE6-A8AD-FE23DA9E7C97}";
constexpr const char* kIidDmsHelper = "{4DA6D6FD-203B-4E40-9419-0D58935D4C62}";

// Key/value pairs: "name", "extension", "doc_number", "version", "folder", and any others.
using property_array = std::vector<std::pair<std::string, std::string>>;

constexpr int32_t kDocOpenForLocalUse = 2;
constexpr int32_t kCloseNormal = 0;  // DMSConnector::CLOSE_NORMAL

enum save_mode : int32_t {
  kSaveNewDocument = 0,
  kSaveNewRelatedDocument = 1,
  kSaveNewVersion = 2,
};

// Methods in the order the gateway's contract lists them.
class IDMSHelper : public IUnknown {
 public:
  // Called once after creation; on failure the caller drops the object.
  virtual HRESULT InitMgr() = 0;
  // Called before the last Release(); its result is not read.
  virtual HRESULT TermMgr() = 0;
  // Fetches the document for local use (`mode` is kDocOpenForLocalUse).
  virtual HRESULT DocOpen(const std::string& dms_connection, const std::string& item_id,
                          int32_t mode) = 0;
  // Full path of the local copy of an opened document.
  virtual HRESULT DocGetLocalFile(const std::string& dms_connection, const std::string& item_id,
                                  std::string* path) = 0;
  // Releases the item (`close_mode` is kCloseNormal).
  virtual HRESULT DocClose(const std::string& dms_connection, const std::string& item_id,
                           int32_t close_mode) = 0;
  // *properties points into the connector, valid until its next call; the caller never frees
  // it. Null means no properties.
  virtual HRESULT DocGetProperties(const std::string& dms_connection,
                                   const std::string& dms_location, const std::string& doc_ref,
                                   const property_array** properties) = 0;
  // An empty *item_id means there is no such document.
  virtual HRESULT SelectDocItem(const std::string& dms_connection, const std::string& dms_location,
                                const std::string& doc_ref, std::string* item_id) = 0;
  // Stores the file at `local_path` as `file_name` in `folder`, as `mode` says, relative to
  // `doc_ref` for the related and version modes; *item_id is the new document's open item.
  virtual HRESULT SaveDocItem(int32_t mode, const std::string& local_path,
                              const std::string& dms_connection, const std::string& dms_location,
                              const std::string& folder, const std::string& file_name,
                              const std::string& doc_ref, int32_t flags,
                              std::string* item_id) = 0;
};

}  // namespace tarn
