// Creates component objects by class id, the stand-in for CoCreateInstance: the class id is
// looked up under Software\Classes\CLSID\{id}\InprocServer32 in the machine store, then in the
// user store; the shared library its default value names is loaded and asked for the object
// through its one exported entry point (dms/component.h). A component keeps its library
// loaded for as long as it holds the object.
#pragma once

#include <memory>
#include <string>
#include <string_view>
#include <utility>

#include "dms/com_ptr.h"
#include "dms/component.h"

namespace tarn {

// Results of a failed creation, beside those the entry point returns.
constexpr HRESULT REGDB_E_CLASSNOTREG = static_cast<HRESULT>(0x80040154u);
constexpr HRESULT kErrorModNotFound = static_cast<HRESULT>(0x8007007Eu);
constexpr HRESULT kErrorProcNotFound = static_cast<HRESULT>(0x8007007Fu);

struct library_closer {
  void operator()(void* handle) const;
};
// A dlopen'ed library, closed with dlclose.
using library_handle = std::unique_ptr<void, library_closer>;

// Key that holds the library path of `clsid` as its default value.
std::string inproc_server_key(std::string_view clsid);

// The library registered for `clsid`, machine store first; empty when neither store has one.
std::string registered_library(std::string_view clsid);

// Loads the library registered for `clsid` and asks it for interface `iid`. On success
// *library holds the library and *object one reference. On failure both are null, and the
// reason, naming the class id, the library path and the loader's text, goes to *err (when
// given) and to the diagnostic channel.
HRESULT create_component_object(std::string_view clsid, const char* iid, library_handle* library,
                                void** object, std::string* err = nullptr);

// An object of interface T together with the library that made it. The object is released
// before the library is closed, whichever way the component ends.
template <class T>
class component {
 public:
  component() = default;
  ~component() { reset(); }
  component(component&& other) noexcept
      : library_(std::move(other.library_)), object_(std::move(other.object_)) {}
  component& operator=(component&& other) noexcept {
    if (this != &other) {
      reset();
      library_ = std::move(other.library_);
      object_ = std::move(other.object_);
    }
    return *this;
  }
  component(const component&) = delete;
  component& operator=(const component&) = delete;

  T* get() const { return object_.get(); }
  T* operator->() const { return object_.get(); }
  explicit operator bool() const { return static_cast<bool>(object_); }

  // A further reference for one operation, null when the object refuses `iid`. It must be
  // released before this component is reset or destroyed.
  template <class U = T>
  com_ptr<U> query(const char* iid) const {
    return object_.template query<U>(iid);
  }

  void reset() {
    object_.reset();
    library_.reset();
  }

  // Replaces this component by a new object of `clsid` as interface `iid` (which must be T's).
  HRESULT create(std::string_view clsid, const char* iid, std::string* err = nullptr) {
    reset();
    void* object = nullptr;
    HRESULT hr = create_component_object(clsid, iid, &library_, &object, err);
    if (SUCCEEDED(hr)) object_ = com_ptr<T>::adopt(static_cast<T*>(object));
    return hr;
  }

 private:
  library_handle library_;  // declared first so that it is closed last
  com_ptr<T> object_;
};

}  // namespace tarn
