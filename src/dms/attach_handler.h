// Joins a series of PDF files into one through the PDF joining component. The merge is
// finished by the destructor: only then is the joined file written, over the first file that
// could be opened (joined_file()). Used on the task's thread only.
#pragma once

#include <cstdint>
#include <filesystem>

#include "dms/IPdfAttach.h"
#include "dms/component_loader.h"

namespace tarn {

class attach_handler {
 public:
  // Creates no component yet.
  attach_handler();
  // Saves the joined document to the first opened file and ends the component; does nothing
  // when no file was ever given. Failures show only in the file.
  virtual ~attach_handler();
  attach_handler(const attach_handler&) = delete;
  attach_handler& operator=(const attach_handler&) = delete;

  // Opens the first file as the document, appends every later one. A file that fails is left
  // out; if it was to be the first, the next file takes its place. True when the component took
  // the file. The file must stay in place until this object is destroyed.
  bool attach_file(const std::filesystem::path& path);

  // The file the joined document goes to: the first one attached; empty while none is.
  const std::filesystem::path& joined_file() const { return first_file_; }

 private:
  component<IPdfAttach> component_;   // created by the first attach_file()
  std::filesystem::path first_file_;  // where the joined document is saved
  int32_t handle_ = kNoAttachDocument;
};

}  // namespace tarn
