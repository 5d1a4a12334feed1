#include "dms/component_loader.h"

#include <dlfcn.h>
#include <unistd.h>

#include <optional>

#include "convutils/CConvRegKey.h"
#include "dms/com_text.h"
#include "log/trace.h"
#include "platform/trusted_path.h"

namespace tarn {
namespace {

std::string dl_error_text() {
  const char* text = dlerror();
  return text != nullptr ? text : "unknown reason";
}

std::string read_registration(reg_root root, std::string_view clsid) {
  CConvRegKey key(root, inproc_server_key(clsid), "", std::nullopt);
  const std::string* path = key.read_text();
  return path != nullptr ? *path : std::string();
}

HRESULT fail(HRESULT hr, std::string reason, std::string* err) {
  TARN_TRACE(kTraceError, "component loader: %s", reason.c_str());
  if (err != nullptr) *err = std::move(reason);
  return hr;
}

}  // namespace

void library_closer::operator()(void* handle) const {
  if (handle != nullptr) dlclose(handle);
}

std::string inproc_server_key(std::string_view clsid) {
  return "Software\\Classes\\CLSID\\" + std::string(clsid) + "\\InprocServer32";
}

std::string registered_library(std::string_view clsid) {
  std::string path = read_registration(reg_root::local_machine, clsid);
  return path.empty() ? read_registration(reg_root::current_user, clsid) : path;
}

HRESULT create_component_object(std::string_view clsid, const char* iid, library_handle* library,
                                void** object, std::string* err) {
  library->reset();
  *object = nullptr;
  const std::string id(clsid);
  const std::string path = registered_library(clsid);
  if (path.empty()) {
    return fail(REGDB_E_CLASSNOTREG,
                "class " + id + " is not registered (no " + inproc_server_key(clsid) +
                    " in the machine or the user store)",
                err);
  }
  // A relative name would be searched in the library path or the working folder.
  if (path.front() != '/') {
    return fail(kErrorModNotFound,
                "class " + id + ": registered library \"" + path + "\" is not an absolute path",
                err);
  }

  // A missing file is dlopen's to report.
  if (std::string why; ::access(path.c_str(), F_OK) == 0 && !trusted_path(path, &why)) {
    return fail(E_ACCESSDENIED, "class " + id + ": refusing to load " + path + ": " + why, err);
  }

  dlerror();
  library_handle loaded(dlopen(path.c_str(), RTLD_NOW | RTLD_LOCAL));
  if (!loaded) {
    return fail(kErrorModNotFound, "class " + id + ": can't load " + path + ": " + dl_error_text(),
                err);
  }
  dlerror();
  auto entry = reinterpret_cast<component_entry_fn>(dlsym(loaded.get(), kComponentEntryPoint));
  if (entry == nullptr) {
    return fail(kErrorProcNotFound,
                "class " + id + ": " + path + " has no entry point " + kComponentEntryPoint + ": " +
                    dl_error_text(),
                err);
  }

  void* made = nullptr;
  HRESULT hr = E_FAIL;
  try {
    hr = entry(id.c_str(), iid, kComponentAbiVersion, &made);
  } catch (...) {
    // The contract forbids it, but a broken library must not take the caller down.
    made = nullptr;
    hr = E_UNEXPECTED;
  }
  if (hr == kErrorAbiMismatch) {
    return fail(hr,
                "class " + id + ": " + path + " is built for another interface version than " +
                    std::to_string(kComponentAbiVersion),
                err);
  }
  if (FAILED(hr) || made == nullptr) {
    if (SUCCEEDED(hr)) hr = E_POINTER;
    return fail(hr,
                "class " + id + ": " + path + " refused interface " + guid_text(iid) + ": " +
                    hresult_text(hr),
                err);
  }
  *library = std::move(loaded);
  *object = made;
  return hr;
}

}  // namespace tarn
