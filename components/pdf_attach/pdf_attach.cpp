// The PDF joining component on qpdf: the IPdfAttach object and the library's entry point.
// Every method turns qpdf's exceptions into a failure code and a line on the diagnostic
// channel; nothing is thrown across the library's border.
#include <qpdf/QPDFExc.hh>
#include <qpdf/QPDFSystemError.hh>

#include <cerrno>
#include <map>
#include <memory>
#include <new>
#include <stdexcept>

#include "attach_document.h"
#include "dms/IPdfAttach.h"
#include "dms/unknown_impl.h"
#include "log/trace.h"

namespace tarn {
namespace {

HRESULT hresult_of_errno(int code) {
  switch (code) {
    case ENOENT:
      return kHrFileNotFound;
    case ENOTDIR:
      return kHrPathNotFound;
    case EACCES:
    case EPERM:
      return E_ACCESSDENIED;
    case EROFS:
      return kHrWriteProtect;
    case ENOSPC:
    case EDQUOT:
      return kHrDiskFull;
    case ENOMEM:
      return E_OUTOFMEMORY;
    default:
      return E_FAIL;
  }
}

// Runs one method's work; an exception becomes its code and one diagnostic line.
template <class Work>
HRESULT guarded(const char* method, const std::string& path, Work&& work) noexcept {
  const char* what = "unknown exception";
  HRESULT hr = E_UNEXPECTED;
  try {
    return work();
  } catch (const QPDFSystemError& e) {
    hr = hresult_of_errno(e.getErrno());
    what = e.what();
  } catch (const QPDFExc& e) {
    hr = e.getErrorCode() == qpdf_e_password ? kHrInvalidPassword : E_FAIL;
    what = e.what();
  } catch (const std::invalid_argument& e) {
    hr = E_INVALIDARG;
    what = e.what();
  } catch (const std::bad_alloc& e) {
    hr = E_OUTOFMEMORY;
    what = e.what();
  } catch (const std::exception& e) {
    hr = E_FAIL;
    what = e.what();
  } catch (...) {
  }
  TARN_TRACE(kTraceError, "pdf_attach: %s \"%s\": %s", method, path.c_str(), what);
  return hr;
}

class pdf_attach final : public unknown_impl<IPdfAttach> {
 public:
  pdf_attach() : unknown_impl(kIidPdfAttach) {}

  HRESULT AttachInit(const std::string& producer) override {
    return guarded("AttachInit", producer, [&] {
      producer_ = producer;
      return S_OK;
    });
  }

  HRESULT AttachTerm() override {
    return guarded("AttachTerm", "", [&] {
      documents_.clear();
      return S_OK;
    });
  }

  HRESULT AttachOpen(const std::string& path, int32_t* handle,
                     const std::string& password) override {
    if (handle == nullptr) return E_POINTER;
    return guarded("AttachOpen", path, [&] {
      auto document = attach_document::open(path, password);
      documents_.emplace(next_handle_, std::move(document));
      *handle = next_handle_++;
      return S_OK;
    });
  }

  HRESULT AttachSave(const std::string& path, int32_t handle, int32_t flags) override {
    return guarded("AttachSave", path, [&] {
      auto found = documents_.find(handle);
      if (found == documents_.end()) return kHrInvalidHandle;
      found->second->save(path, (flags & kAttachSaveLinearize) != 0,
                          (flags & kAttachSaveFlush) != 0, producer_);
      return S_OK;
    });
  }

  HRESULT AttachInsert(int32_t handle, const std::string& path, const std::string& password,
                       const std::string& page_range, const std::string& insert_after,
                       const std::string& rotation, const std::string& outline_title,
                       int32_t flags) override {
    return guarded("AttachInsert", path, [&] {
      auto found = documents_.find(handle);
      if (found == documents_.end()) return kHrInvalidHandle;
      insert_options options{password, page_range,    insert_after,
                             rotation, outline_title, (flags & kAttachInsertStrict) != 0};
      found->second->insert(path, options);
      return S_OK;
    });
  }

 private:
  std::string producer_;
  std::map<int32_t, std::unique_ptr<attach_document>> documents_;
  int32_t next_handle_ = 1;
};

}  // namespace
}  // namespace tarn

extern "C" __attribute__((visibility("default"))) tarn::HRESULT tarn_create_instance(
    const char* clsid, const char* iid, uint32_t abi_version, void** object) {
  using namespace tarn;
  try {
    return create_component<pdf_attach>(kClsidPdfAttach, clsid, iid, abi_version, object);
  } catch (...) {
    return E_OUTOFMEMORY;
  }
}
