// The PDF joining component's interface: open a PDF as a document, append further PDFs to
// it, save it. Paths are UTF-8; a document is named by the handle AttachOpen gives out.
#pragma once

#include <cstdint>
#include <string>

#include "dms/component.h"

namespace tarn {

constexpr const char* kClsidPdfAttach = "{F3D21E10-ACE3-4CD1-AA63-7226F6416B06}";
constexpr const char* kIidPdfAttach = "{0A9F733E-44F0-474C-9D73-ABB06B313DA2}";

// No document: what a handle holds before a successful AttachOpen.
constexpr int32_t kNoAttachDocument = -1;

// Flags of AttachInsert. 0: a damaged file that can be repaired is taken, as the qpdf command
// takes it.
constexpr int32_t kAttachInsertStrict = 1;  // refuse a file that reads only with repairs
// Flags of AttachSave. 0: written as is, object streams kept, not forced to disk (the gateway
// joins into its private temporary folder for the length of one task).
constexpr int32_t kAttachSaveLinearize = 1;  // web-optimised (linearized) output
constexpr int32_t kAttachSaveFlush = 2;      // on disk before it replaces the old file

// Methods in the order the gateway's contract lists them. Every method returns a failure code
// for bad input, never throws, and leaves the document as it was when it fails.
class IPdfAttach : public IUnknown {
 public:
  // Called once after creation. `producer`: the Producer entry written into every saved
  // document's information; "" keeps the first file's.
  virtual HRESULT AttachInit(const std::string& producer) = 0;
  // Closes every open document; nothing is saved.
  virtual HRESULT AttachTerm() = 0;
  // Opens the PDF at `path` as a new document and sets *handle; `password` opens an encrypted
  // file ("" for none). The file is read until the document is saved, so it must stay in place.
  virtual HRESULT AttachOpen(const std::string& path, int32_t* handle,
                             const std::string& password) = 0;
  // Writes document `handle` to `path`, through a temporary file beside it that then replaces
  // it, so `path` may be the file the document was opened from. `flags`: kAttachSave*.
  virtual HRESULT AttachSave(const std::string& path, int32_t handle, int32_t flags) = 0;
  // Adds pages of the PDF at `path` to document `handle`; all of them, or none on failure.
  //   password      opens an encrypted file; "" for none
  //   page_range    pages to take, e.g. "1-3,7,z" (z is the last page, r1 too); "" for all
  //   insert_after  page number of the document behind which they go, "0" in front; "" at
  //                 the end
  //   rotation      "90", "180", "270" (clockwise, added to the page's own); "" unchanged
  //   outline_title a bookmark at the document's top level to the first added page; "" none
  //   flags         kAttachInsert*
  virtual HRESULT AttachInsert(int32_t handle, const std::string& path, const std::string& password,
                               const std::string& page_range, const std::string& insert_after,
                               const std::string& rotation, const std::string& outline_title,
                               int32_t flags) = 0;
};

}  // namespace tarn
