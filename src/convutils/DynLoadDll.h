// Libraries loaded at run time. DynLoadDll owns the dlopen handle; a subclass names the entry
// points it needs and resolves them all, or the library counts as missing. Not thread-safe:
// the one TarnImageDll belongs to the thread that runs tasks.
#pragma once

#include <dlfcn.h>

#include <memory>
#include <string>

#include "convutils/tarnimage_api.h"

namespace tarn {

struct dl_closer {
  void operator()(void* handle) const { dlclose(handle); }
};
using module_handle = std::unique_ptr<void, dl_closer>;

class DynLoadDll {
 public:
  DynLoadDll() = default;
  DynLoadDll(const DynLoadDll&) = delete;
  DynLoadDll& operator=(const DynLoadDll&) = delete;
  virtual ~DynLoadDll() = default;

  // Forgets every resolved entry point.
  virtual void clear() = 0;
  // Looks the entry points up in the module; false (reason in *err) if one is missing.
  virtual bool resolve(std::string* err) = 0;

  bool is_loaded() const { return module_ != nullptr; }
  // Unloads what is loaded, takes `module` and resolves. When resolving fails the module is
  // released again and the result is false.
  bool attach(module_handle module, std::string* err);
  // Subclasses call this from their destructor, where clear() still reaches them.
  void unload();

 protected:
  void* symbol(const char* name) const { return module_ ? dlsym(module_.get(), name) : nullptr; }

 private:
  module_handle module_;
};

class TarnImageDll : public DynLoadDll {
 public:
  ~TarnImageDll() override { unload(); }
  void clear() override;
  bool resolve(std::string* err) override;

  tarnimage_split_layers_fn SplitLayersEx = nullptr;
  tarnimage_xps_to_pdf_fn XpsToPdfConvert = nullptr;
  tarnimage_backdrop_fn Backdrop = nullptr;
  tarnimage_engine_convert_fn EngineConvert = nullptr;
};

// Places tried by LoadFromProgramOrInstall, in this order.
enum load_place : int {
  kLoadProgramFolder = 1,
  kLoadInstallFolder = 2,
  kLoadInstallX64 = 4,
  kLoadInstallBin = 8,
  kLoadInstallPlugins = 16,
};

// dlopens `file_name` from the first place of `mask` where it loads; null with the reasons
// in *err when none does.
module_handle LoadFromProgramOrInstall(const std::string& file_name, int mask, std::string* err);

// The process's one TarnImageDll: unloaded until the first ConvertXpsToPdf succeeds in loading
// it, then kept.
TarnImageDll& tarn_image_dll();

}  // namespace tarn
