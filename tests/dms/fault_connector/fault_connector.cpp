// A document store connector for tests that fails on demand. TARN_FAULT lists what fails
// (comma-separated): create, InitMgr, SelectDocItem, empty_item, DocOpen, DocGetLocalFile,
// DocGetProperties, null_properties, no_known_keys, SaveDocItem, DocClose, close_false.
// Tests read its counters through their own dlopen of this library (same instance).
// Built with FAULT_ABI_VERSION other than the gateway's, it stands for an outdated library.
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <set>
#include <string>

#include "dms/IDMSHelper.h"
#include "dms/unknown_impl.h"

#ifndef FAULT_ABI_VERSION
#define FAULT_ABI_VERSION kComponentAbiVersion
#endif

namespace tarn {
namespace {

struct connector_state {
  std::set<std::string> open_items;
  int created = 0;
  int term_calls = 0;
  int next_item = 1;
  std::string calls;  // one line per call that reached the connector
};
connector_state state;

bool fault(const char* name) {
  const char* list = std::getenv("TARN_FAULT");
  if (list == nullptr) return false;
  const std::string text = std::string(",") + list + ",";
  return text.find(std::string(",") + name + ",") != std::string::npos;
}

void record(const std::string& call) { state.calls += call + "\n"; }

class fault_connector final : public unknown_impl<IDMSHelper> {
 public:
  fault_connector() : unknown_impl(kIidDmsHelper) {}

  HRESULT InitMgr() override { return fault("InitMgr") ? E_FAIL : S_OK; }
  HRESULT TermMgr() override {
    ++state.term_calls;
    return S_OK;
  }

  HRESULT SelectDocItem(const std::string& connection, const std::string& location,
                        const std::string& doc_ref, std::string* item_id) override {
    record("SelectDocItem(" + connection + ", " + location + ", " + doc_ref + ")");
    if (fault("SelectDocItem")) return E_INVALIDARG;
    *item_id = fault("empty_item") ? "" : "item" + std::to_string(state.next_item++);
    return S_OK;
  }

  HRESULT DocOpen(const std::string& connection, const std::string& item_id,
                  int32_t mode) override {
    record("DocOpen(" + connection + ", " + item_id + ", " + std::to_string(mode) + ")");
    if (fault("DocOpen")) return E_ACCESSDENIED;
    std::ofstream(local_path(item_id)) << "content of " << item_id;
    state.open_items.insert(item_id);
    return S_OK;
  }

  HRESULT DocGetLocalFile(const std::string& connection, const std::string& item_id,
                          std::string* path) override {
    record("DocGetLocalFile(" + connection + ", " + item_id + ")");
    if (fault("DocGetLocalFile")) return kHrFileNotFound;
    if (!state.open_items.count(item_id)) return E_INVALIDARG;
    *path = local_path(item_id);
    return S_OK;
  }

  HRESULT DocGetProperties(const std::string& connection, const std::string& location,
                           const std::string& doc_ref, const property_array** properties) override {
    record("DocGetProperties(" + connection + ", " + location + ", " + doc_ref + ")");
    if (fault("DocGetProperties")) return E_FAIL;
    if (fault("null_properties")) {
      *properties = nullptr;
      return S_OK;
    }
    if (fault("no_known_keys")) {
      properties_ = {{"Name", "capitals"}, {"names", "longer"}, {"author", "someone"}};
    } else {
      // "name" comes twice: the last one counts.
      properties_ = {{"name", "draft"},           {"extension", "docx"},
                     {"doc_number", "4711"},      {"version", "3"},
                     {"folder", "Reports"},       {"author", "someone"},
                     {"name", "Bericht \xc3\xbc"}};
    }
    *properties = &properties_;
    return S_OK;
  }

  HRESULT SaveDocItem(int32_t mode, const std::string& local_path, const std::string& connection,
                      const std::string& location, const std::string& folder,
                      const std::string& file_name, const std::string& doc_ref, int32_t flags,
                      std::string* item_id) override {
    record("SaveDocItem(" + std::to_string(mode) + ", " + local_path + ", " + connection + ", " +
           location + ", " + folder + ", " + file_name + ", " + doc_ref + ", " +
           std::to_string(flags) + ")");
    if (fault("SaveDocItem")) return kHrDiskFull;
    *item_id = "saved" + std::to_string(state.next_item++);
    state.open_items.insert(*item_id);
    return S_OK;
  }

  HRESULT DocClose(const std::string& connection, const std::string& item_id,
                   int32_t close_mode) override {
    record("DocClose(" + connection + ", " + item_id + ", " + std::to_string(close_mode) + ")");
    if (fault("DocClose")) return E_UNEXPECTED;
    if (state.open_items.erase(item_id) == 0) return E_INVALIDARG;
    return fault("close_false") ? S_FALSE : S_OK;
  }

 private:
  static std::string local_path(const std::string& item_id) {
    return (std::filesystem::temp_directory_path() / (item_id + ".docx")).string();
  }

  property_array properties_;
};

}  // namespace
}  // namespace tarn

#define EXPORT extern "C" __attribute__((visibility("default")))

EXPORT tarn::HRESULT tarn_create_instance(const char* clsid, const char* iid, uint32_t abi_version,
                                          void** object) {
  using namespace tarn;
  *object = nullptr;
  ++state.created;
  if (abi_version != FAULT_ABI_VERSION) return kErrorAbiMismatch;
  if (!same_id(clsid, kClsidDmsConnector)) return CLASS_E_CLASSNOTAVAILABLE;
  if (fault("create")) return E_OUTOFMEMORY;
  return make_instance<fault_connector>(iid, object);
}

EXPORT void fault_connector_reset() { tarn::state = {}; }
EXPORT int fault_connector_open_items() { return static_cast<int>(tarn::state.open_items.size()); }
EXPORT int fault_connector_created() { return tarn::state.created; }
EXPORT int fault_connector_term_calls() { return tarn::state.term_calls; }
EXPORT const char* fault_connector_calls() { return tarn::state.calls.c_str(); }
