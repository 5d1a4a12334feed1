// dms_local.so, the default document store connector: IDMSHelper over the libraries of the
// local store. dms_connection names the library (empty: the default one), dms_location is the
// folder that new documents go to when the caller names none, and doc_ref is what
// `tarnctl dms import` prints. Open items live in the connector object; one thread at a time.
#include <cstring>
#include <map>
#include <memory>
#include <new>

#include "dms/IDMSHelper.h"
#include "dms/unknown_impl.h"
#include "dms_local/doc_ref.h"
#include "dms_local/local_cache.h"
#include "dms_local/local_store.h"
#include "log/trace.h"

namespace tarn {
namespace {

HRESULT hresult_of(store_status status) {
  switch (status) {
    case store_status::ok:
      return S_OK;
    case store_status::not_found:
      return kHrFileNotFound;
    case store_status::invalid:
      return E_INVALIDARG;
    case store_status::read_only:
      return E_ACCESSDENIED;
    case store_status::no_space:
      return kHrDiskFull;
    case store_status::busy:
      return kHrBusy;
    case store_status::failed:
      break;
  }
  return E_FAIL;
}

// No exception leaves an interface method.
template <typename Body>
HRESULT guarded(const char* method, Body body) noexcept {
  try {
    return body();
  } catch (const std::bad_alloc&) {
    return E_OUTOFMEMORY;
  } catch (const std::exception& e) {
    TARN_TRACE(kTraceError, "dms_local: %s: %s", method, e.what());
  } catch (...) {
    TARN_TRACE(kTraceError, "dms_local: %s: unknown exception", method);
  }
  return E_FAIL;
}

HRESULT traced(HRESULT hr, const char* method, const std::string& why) {
  TARN_TRACE(kTraceError, "dms_local: %s: %s", method, why.c_str());
  return hr;
}

class dms_local_connector final : public unknown_impl<IDMSHelper> {
 public:
  dms_local_connector() : unknown_impl(kIidDmsHelper) {}

  HRESULT InitMgr() override {
    return guarded("InitMgr", [&] {
      local_cache::remove_abandoned();
      return S_OK;
    });
  }

  HRESULT TermMgr() override {
    return guarded("TermMgr", [&] {
      items_.clear();
      cache_.remove_all();
      stores_.clear();
      return S_OK;
    });
  }

  HRESULT SelectDocItem(const std::string& dms_connection, const std::string& dms_location,
                        const std::string& doc_ref, std::string* item_id) override {
    if (item_id == nullptr) return E_POINTER;
    item_id->clear();
    return guarded("SelectDocItem", [&] {
      stored_version v;
      std::string why;
      const HRESULT hr = find(dms_connection, doc_ref, &v, &why);
      // An unknown document is no error here: the empty item says so.
      if (hr == kHrFileNotFound || hr == E_INVALIDARG) {
        TARN_TRACE(kTraceWarning, "dms_local: SelectDocItem: %s", why.c_str());
        return S_FALSE;
      }
      if (FAILED(hr)) return traced(hr, "SelectDocItem", why);
      *item_id = add_item(v);
      return S_OK;
    });
  }

  HRESULT DocOpen(const std::string& dms_connection, const std::string& item_id,
                  int32_t mode) override {
    return guarded("DocOpen", [&] {
      auto item = items_.find(item_id);
      if (item == items_.end())
        return traced(E_INVALIDARG, "DocOpen", "no open item \"" + item_id + "\"");
      open_item& open = item->second;
      std::error_code ec;
      if (!open.local_file.empty() && std::filesystem::exists(open.local_file, ec)) return S_OK;

      // Versions never change once stored, so what SelectDocItem read still holds.
      const stored_version& v = open.version;
      std::string why;
      local_store* store = store_for(v.library, false, &why);
      if (store == nullptr) return traced(store_hr_, "DocOpen", why);
      const std::filesystem::path source = store->content_path(v);
      std::filesystem::path copy;
      copy_result copied = cache_.put(source, v.name, v.extension, &copy);
      if (!copied.ok)
        return traced(hresult_of(status_of_errno(copied.error)), "DocOpen",
                      v.ref() + ": " + copied.text);
      if (copied.size != v.size) {
        cache_.remove(copy);
        return traced(kHrInvalidData, "DocOpen",
                      v.ref() + ": " + source.string() + " holds " + std::to_string(copied.size) +
                          " bytes, the catalogue says " + std::to_string(v.size));
      }
      open.local_file = copy;
      return S_OK;
    });
  }

  HRESULT DocGetLocalFile(const std::string& dms_connection, const std::string& item_id,
                          std::string* path) override {
    if (path == nullptr) return E_POINTER;
    path->clear();
    return guarded("DocGetLocalFile", [&] {
      auto item = items_.find(item_id);
      if (item == items_.end())
        return traced(E_INVALIDARG, "DocGetLocalFile", "no open item \"" + item_id + "\"");
      if (item->second.local_file.empty())
        return traced(E_UNEXPECTED, "DocGetLocalFile", "item \"" + item_id + "\" isn't fetched");
      *path = item->second.local_file.string();
      return S_OK;
    });
  }

  HRESULT DocClose(const std::string& dms_connection, const std::string& item_id,
                   int32_t close_mode) override {
    return guarded("DocClose", [&] {
      auto item = items_.find(item_id);
      if (item == items_.end())
        return traced(E_INVALIDARG, "DocClose", "no open item \"" + item_id + "\"");
      if (!item->second.local_file.empty()) cache_.remove(item->second.local_file);
      items_.erase(item);
      return S_OK;
    });
  }

  HRESULT DocGetProperties(const std::string& dms_connection, const std::string& dms_location,
                           const std::string& doc_ref, const property_array** properties) override {
    if (properties == nullptr) return E_POINTER;
    *properties = nullptr;
    return guarded("DocGetProperties", [&] {
      properties_.clear();
      stored_version v;
      std::string why;
      if (HRESULT hr = find(dms_connection, doc_ref, &v, &why); FAILED(hr))
        return traced(hr, "DocGetProperties", why);
      properties_ = {{"name", v.name},
                     {"extension", v.extension},
                     {"doc_number", std::to_string(v.number)},
                     {"version", std::to_string(v.version)},
                     {"folder", v.folder}};
      *properties = &properties_;
      return S_OK;
    });
  }

  HRESULT SaveDocItem(int32_t mode, const std::string& local_path,
                      const std::string& dms_connection, const std::string& dms_location,
                      const std::string& folder, const std::string& file_name,
                      const std::string& doc_ref, int32_t flags, std::string* item_id) override {
    if (item_id == nullptr) return E_POINTER;
    item_id->clear();
    return guarded("SaveDocItem", [&] {
      if (mode != kSaveNewDocument && mode != kSaveNewRelatedDocument && mode != kSaveNewVersion)
        return traced(E_INVALIDARG, "SaveDocItem", "unknown save mode " + std::to_string(mode));
      // A new document joins its source's library; the other modes need the source itself.
      std::optional<doc_key> source = parse_doc_ref(doc_ref, dms_connection);
      std::string library;
      if (source) {
        library = source->library;
      } else if (mode == kSaveNewDocument) {
        auto named = library_of_connection(dms_connection);
        if (!named)
          return traced(E_INVALIDARG, "SaveDocItem",
                        "\"" + dms_connection + "\" is no library name");
        library = *named;
      } else {
        return traced(E_INVALIDARG, "SaveDocItem", "no document \"" + doc_ref + "\"");
      }

      std::string why;
      local_store* store = store_for(library, mode == kSaveNewDocument, &why);
      if (store == nullptr) return traced(store_hr_, "SaveDocItem", why);
      stored_version original;
      if (mode != kSaveNewDocument) {
        if (store_status status = store->find(source->number, source->version, &original, &why);
            status != store_status::ok)
          return traced(hresult_of(status), "SaveDocItem", why);
      }

      new_content content;
      content.source = local_path;
      std::tie(content.name, content.extension) = name_for(file_name, local_path);
      content.folder = folder.empty() ? dms_location : folder;
      stored_version saved;
      store_status status;
      if (mode == kSaveNewVersion) {
        status = store->add_version(original.number, content, &saved, &why);
      } else {
        status = store->add_document(
            content,
            mode == kSaveNewRelatedDocument ? std::optional(original.number) : std::nullopt, &saved,
            &why);
      }
      if (status != store_status::ok) return traced(hresult_of(status), "SaveDocItem", why);
      *item_id = add_item(saved);
      return S_OK;
    });
  }

 private:
  struct open_item {
    stored_version version;
    std::filesystem::path local_file;  // empty until DocOpen
  };

  // The store of `library`, opened on first use and kept; null with store_hr_ and *why set.
  local_store* store_for(const std::string& library, bool create, std::string* why) {
    auto it = stores_.find(library);
    if (it != stores_.end()) return it->second.get();
    store_status status;
    auto store = local_store::open(library, create, &status, why);
    if (!store) {
      store_hr_ = hresult_of(status);
      return nullptr;
    }
    return stores_.emplace(library, std::move(store)).first->second.get();
  }

  HRESULT find(const std::string& dms_connection, const std::string& doc_ref, stored_version* out,
               std::string* why) {
    auto key = parse_doc_ref(doc_ref, dms_connection);
    if (!key) {
      *why = "no document \"" + doc_ref + "\" in library \"" + dms_connection + "\"";
      return E_INVALIDARG;
    }
    local_store* store = store_for(key->library, false, why);
    if (store == nullptr) return store_hr_;
    return hresult_of(store->find(key->number, key->version, out, why));
  }

  std::string add_item(const stored_version& v) {
    std::string id = v.ref() + "@" + std::to_string(next_item_++);
    items_[id] = open_item{v, {}};
    return id;
  }

  // The stored name and extension of a saved file: from `file_name`, else from the file
  // itself. A file name that is only an extension (".pdf") takes its name from the file.
  static std::pair<std::string, std::string> name_for(const std::string& file_name,
                                                      const std::string& local_path) {
    const std::string local_name = std::filesystem::path(local_path).filename().string();
    auto [name, extension] = split_file_name(file_name.empty() ? local_name : file_name);
    if (!file_name.empty() && file_name[0] == '.' && file_name.find('.', 1) == std::string::npos) {
      extension = file_name.substr(1);
      name = split_file_name(local_name).first;
    }
    if (!valid_doc_name(name)) name = "document";
    return {name, extension};
  }

  std::map<std::string, std::unique_ptr<local_store>> stores_;
  HRESULT store_hr_ = S_OK;
  std::map<std::string, open_item> items_;
  uint64_t next_item_ = 1;
  property_array properties_;  // what the last DocGetProperties handed out
  local_cache cache_;
};

}  // namespace
}  // namespace tarn

extern "C" __attribute__((visibility("default"))) tarn::HRESULT tarn_create_instance(
    const char* clsid, const char* iid, uint32_t abi_version, void** object) {
  using namespace tarn;
  return guarded("tarn_create_instance", [&] {
    return create_component<dms_local_connector>(kClsidDmsConnector, clsid, iid, abi_version,
                                                 object);
  });
}
