#include "convutils/DynLoadDll.h"

#include <unistd.h>

#include "convutils/ConvUtils.h"
#include "log/trace.h"
#include "platform/self_exe.h"
#include "platform/trusted_path.h"

namespace tarn {
namespace {

template <typename Fn>
bool resolve_one(void* found, const char* name, Fn* into, std::string* err) {
  *into = reinterpret_cast<Fn>(found);
  if (found == nullptr && err != nullptr) *err = std::string("no entry point ") + name;
  return found != nullptr;
}

}  // namespace

bool DynLoadDll::attach(module_handle module, std::string* err) {
  unload();
  module_ = std::move(module);
  if (!resolve(err)) {
    unload();
    return false;
  }
  return true;
}

void DynLoadDll::unload() {
  module_.reset();
  clear();
}

void TarnImageDll::clear() {
  SplitLayersEx = nullptr;
  XpsToPdfConvert = nullptr;
  Backdrop = nullptr;
  EngineConvert = nullptr;
}

bool TarnImageDll::resolve(std::string* err) {
  return resolve_one(symbol("SplitLayersEx"), "SplitLayersEx", &SplitLayersEx, err) &&
         resolve_one(symbol("XpsToPdfConvert"), "XpsToPdfConvert", &XpsToPdfConvert, err) &&
         resolve_one(symbol("Backdrop"), "Backdrop", &Backdrop, err) &&
         resolve_one(symbol("EngineConvert"), "EngineConvert", &EngineConvert, err);
}

module_handle LoadFromProgramOrInstall(const std::string& file_name, int mask, std::string* err) {
  std::string install;
  if ((mask & ~kLoadProgramFolder) != 0 && !ReadInstallPath(&install, 1))
    ReadInstallPath(&install, 0);
  const struct {
    int bit;
    std::string folder;
  } places[] = {
      {kLoadProgramFolder, self_exe_dir()},
      {kLoadInstallFolder, install},
      {kLoadInstallX64, install.empty() ? "" : install + "x64/"},
      {kLoadInstallBin, install.empty() ? "" : install + "bin/"},
      {kLoadInstallPlugins, install.empty() ? "" : install + "bin/Plug-ins/"},
  };
  std::string reasons;
  for (const auto& place : places) {
    if ((mask & place.bit) == 0 || place.folder.empty()) continue;
    const std::string path = place.folder + file_name;
    if (::access(path.c_str(), F_OK) != 0) continue;
    reasons += reasons.empty() ? "" : "; ";
    if (std::string why; !trusted_path(path, &why)) {
      reasons += "refusing to load " + path + ": " + why;
      continue;
    }
    if (void* handle = dlopen(path.c_str(), RTLD_NOW | RTLD_LOCAL)) return module_handle(handle);
    const char* why = dlerror();
    reasons += why != nullptr ? why : path;
  }
  if (err != nullptr) *err = reasons.empty() ? "not found" : reasons;
  return nullptr;
}

TarnImageDll& tarn_image_dll() {
  static TarnImageDll dll;
  return dll;
}

bool ConvertXpsToPdf(const std::string& source, const std::string& target, int flags, int option1,
                     int option2) {
  TarnImageDll& dll = tarn_image_dll();
  if (!dll.is_loaded()) {
    std::string err;
    module_handle module =
        LoadFromProgramOrInstall(kTarnImageLibrary, kLoadProgramFolder | kLoadInstallFolder, &err);
    if (!module || !dll.attach(std::move(module), &err)) {
      TARN_TRACE(kTraceError, "Can't load %s: %s", kTarnImageLibrary, err.c_str());
      return false;
    }
  }
  if (dll.XpsToPdfConvert == nullptr) return false;
  const int result = dll.XpsToPdfConvert(source.c_str(), target.c_str(), flags, option1, option2);
  if (result < 0) {
    TARN_TRACE(kTraceError, "XpsToPdfConvert failed (%d): %s", result, source.c_str());
    return false;
  }
  return true;
}

}  // namespace tarn
