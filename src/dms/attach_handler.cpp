#include "dms/attach_handler.h"

namespace tarn {

attach_handler::attach_handler() = default;

attach_handler::~attach_handler() {
  // Nothing was opened: saving would write to no file of ours.
  if (!component_ || first_file_.empty()) {
    component_.reset();
    return;
  }
  try {
    if (auto attach = component_.query(kIidPdfAttach)) {
      attach->AttachSave(first_file_.string(), handle_, 0);
      attach->AttachTerm();
    }
  } catch (...) {
    // Only our own path copies can throw here; the component never does.
  }
  component_.reset();
}

bool attach_handler::attach_file(const std::filesystem::path& path) {
  try {
    if (!component_) {
      // A failure isn't reported: the next file tries again.
      if (SUCCEEDED(component_.create(kClsidPdfAttach, kIidPdfAttach))) {
        if (auto attach = component_.query(kIidPdfAttach)) attach->AttachInit("");
      }
    }
    HRESULT hr = E_FAIL;
    if (auto attach = component_.query(kIidPdfAttach)) {
      if (handle_ == kNoAttachDocument) {
        int32_t handle = kNoAttachDocument;
        hr = attach->AttachOpen(path.string(), &handle, "");
        if (SUCCEEDED(hr)) {
          handle_ = handle;
          first_file_ = path;
        }
      } else {
        hr = attach->AttachInsert(handle_, path.string(), "", "", "", "", "", 0);
      }
    }
    return SUCCEEDED(hr);
  } catch (...) {
    return false;
  }
}

}  // namespace tarn
