// The IUnknown part that every component object shares: an atomic reference count, and
// QueryInterface for the object's one interface and IUnknown. For component libraries; the
// object deletes itself when its last reference goes, so it is made only by make_instance().
#pragma once

#include <strings.h>

#include <atomic>
#include <memory>

#include "dms/component.h"

namespace tarn {

// Whether `id` (may be null) names `expected`; ids compare case-blind.
inline bool same_id(const char* id, guid_text_t expected) {
  return id != nullptr && strcasecmp(id, expected) == 0;
}

template <class Interface>
class unknown_impl : public Interface {
 public:
  // `iid`: the id of Interface; a string that lives as long as the library.
  explicit unknown_impl(guid_text_t iid) : iid_(iid) {}

  HRESULT QueryInterface(const char* iid, void** object) override {
    if (object == nullptr) return E_POINTER;
    *object = nullptr;
    if (!same_id(iid, iid_) && !same_id(iid, kIidUnknown)) return E_NOINTERFACE;
    *object = static_cast<Interface*>(this);
    AddRef();
    return S_OK;
  }
  uint32_t AddRef() override { return ++refs_; }
  uint32_t Release() override {
    const uint32_t left = --refs_;
    if (left == 0) delete this;
    return left;
  }

 private:
  const guid_text_t iid_;
  std::atomic<uint32_t> refs_{0};
};

// A new T handed out as interface `iid` with one reference in *object; when T lacks `iid`,
// E_NOINTERFACE and null, and the object is gone again. Exceptions of T's constructor pass
// to the caller, which is the entry point that catches them.
template <class T>
HRESULT make_instance(const char* iid, void** object) {
  auto made = std::make_unique<T>();
  const HRESULT hr = made->QueryInterface(iid, object);
  if (SUCCEEDED(hr)) made.release();  // its reference count owns it from here
  return hr;
}

// The body of a component library's tarn_create_instance for its one class T, whose class id
// is `own_clsid`: the checks of the arguments and of the interface version, then
// make_instance(). Exceptions pass to the entry point.
template <class T>
HRESULT create_component(guid_text_t own_clsid, const char* clsid, const char* iid,
                         uint32_t abi_version, void** object) {
  if (object == nullptr) return E_POINTER;
  *object = nullptr;
  if (abi_version != kComponentAbiVersion) return kErrorAbiMismatch;
  if (!same_id(clsid, own_clsid)) return CLASS_E_CLASSNOTAVAILABLE;
  return make_instance<T>(iid, object);
}

}  // namespace tarn
