// The record of one document as it moves through a task: the store's properties first, then
// the local copy, the PDF and the connector's ids. Shared by the task's list and the dialogs
// on the task's thread only.
#pragma once

#include <filesystem>
#include <string>

namespace tarn {

class doc_description {
 public:
  explicit doc_description(std::string ref) : doc_ref(std::move(ref)) {}
  virtual ~doc_description() = default;

  // The PDF's file name in the store, and in the save prompt.
  std::string pdf_name() const { return name + ".pdf"; }
  // The source document's name in the save prompt.
  std::string source_name() const { return name + "." + extension; }

  const std::string doc_ref;
  std::string name;        // without extension
  std::string extension;   // without the dot
  std::string doc_number;
  std::string version;
  std::string folder;
  std::filesystem::path local_file;  // empty: not fetched
  std::filesystem::path pdf_file;
  std::string item_id;
  std::string saved_item_id;  // empty: nothing stored
};

}  // namespace tarn
