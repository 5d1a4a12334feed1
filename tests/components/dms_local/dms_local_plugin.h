// The built dms_local.so, loaded once per test process, and connectors made by it.
#pragma once

#include <dlfcn.h>
#include <gtest/gtest.h>

#include <filesystem>
#include <memory>
#include <string>

#include "dms/IDMSHelper.h"

namespace tarn::test {

// The plug-in's entry point; the library stays loaded until the process ends.
inline component_entry_fn dms_local_entry() {
  static component_entry_fn entry = [] {
    void* lib = dlopen(TARN_DIST_DIR "/dms_local.so", RTLD_NOW | RTLD_LOCAL);
    if (lib == nullptr) throw std::runtime_error(dlerror());
    return reinterpret_cast<component_entry_fn>(dlsym(lib, kComponentEntryPoint));
  }();
  return entry;
}

// Ends a connector the way the gateway does: TermMgr, then the last Release.
struct connector_ender {
  void operator()(IDMSHelper* helper) const {
    helper->TermMgr();
    helper->Release();
  }
};
using connector = std::unique_ptr<IDMSHelper, connector_ender>;

// A started connector (InitMgr called); null if creation failed.
inline connector make_connector() {
  void* object = nullptr;
  if (dms_local_entry()(kClsidDmsConnector, kIidDmsHelper, kComponentAbiVersion, &object) != S_OK)
    return nullptr;
  auto* helper = static_cast<IDMSHelper*>(object);
  if (helper->InitMgr() != S_OK) {
    helper->Release();
    return nullptr;
  }
  return connector(helper);
}

// The item of `doc_ref`, empty when the connector knows no such document.
inline std::string select_item(IDMSHelper& dms, const std::string& doc_ref,
                               const std::string& connection = "") {
  std::string item = "unset";
  EXPECT_TRUE(SUCCEEDED(dms.SelectDocItem(connection, "", doc_ref, &item))) << doc_ref;
  return item;
}

// Stores `file` as `mode` asks and closes the new item, as the gateway does.
inline HRESULT save_doc(IDMSHelper& dms, int32_t mode, const std::filesystem::path& file,
                        const std::string& source_ref = "", const std::string& folder = "",
                        const std::string& location = "") {
  std::string item = "unset";
  const HRESULT hr = dms.SaveDocItem(mode, file.string(), "", location, folder,
                                     file.filename().string(), source_ref, 0, &item);
  EXPECT_EQ(item.empty(), FAILED(hr));
  if (SUCCEEDED(hr)) {
    EXPECT_EQ(dms.DocClose("", item, kCloseNormal), S_OK);
  }
  return hr;
}

}  // namespace tarn::test
