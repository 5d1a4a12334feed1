// One library of the local document store: a SQLite catalogue of documents, their versions and
// the links between documents, and one content file per version, all under
// ${XDG_DATA_HOME:-~/.local/share}/vantu/dms/<library>/. Each change is one transaction whose
// content file is written and synced first, so a crash or a full disk leaves every version
// either whole or absent. Several processes may use a library at once; one object belongs to
// one thread at a time.
#pragma once

#include <cstdint>
#include <filesystem>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "platform/sqlite_handle.h"

namespace tarn {

// The outcome of a store operation, for callers that branch on the cause.
enum class store_status { ok, not_found, invalid, read_only, no_space, busy, failed };

// What a system error (errno) means for the store's caller.
store_status status_of_errno(int error);

struct stored_version {
  std::string library;
  int64_t number = 0;
  int32_t version = 0;
  std::string name;       // without extension
  std::string extension;  // without the dot; may be empty
  std::string folder;
  int64_t size = 0;
  std::string created;  // UTC, "2026-11-23T10:15:00Z"
  std::string content;  // file name of the content, below the library's folder
  int32_t version_count = 0;

  std::string ref() const;
  // name.extension, or the name alone without an extension.
  std::string file_name() const;
};

// A document linked to another: "source" when the other was made from it, "derived" when it
// was made from the other.
struct related_document {
  std::string relation;
  stored_version latest;
};

// What a new document or version is made of.
struct new_content {
  std::filesystem::path source;  // a regular file, copied into the store
  std::string name;
  std::string extension;
  std::string folder;  // for a new document; a version stays in its document's folder
};

class local_store {
 public:
  // `create` makes the library when missing; otherwise a missing library is not_found.
  // Null with the cause in *status and the path at fault in *err on failure.
  static std::unique_ptr<local_store> open(const std::string& library, bool create,
                                           store_status* status, std::string* err);
  // ${XDG_DATA_HOME:-~/.local/share}/vantu/dms
  static std::filesystem::path root_dir();
  // The names of the libraries that have a catalogue, sorted.
  static std::vector<std::string> libraries();

  ~local_store();
  local_store(const local_store&) = delete;
  local_store& operator=(const local_store&) = delete;

  const std::string& library() const { return library_; }
  const std::filesystem::path& dir() const { return dir_; }

  // Version `version` of document `number`; 0 asks for the latest.
  store_status find(int64_t number, int32_t version, stored_version* out, std::string* err);
  // The latest version of each document, by number; all folders unless `folder` is given.
  store_status list(const std::optional<std::string>& folder, std::vector<stored_version>* out,
                    std::string* err);
  // Every version of document `number`, oldest first.
  store_status versions(int64_t number, std::vector<stored_version>* out, std::string* err);
  store_status related(int64_t number, std::vector<related_document>* out, std::string* err);

  // Where the content of `v` is now. After a crash between the commit and the move out of
  // incoming/, that is where the file still waits until the next change moves it.
  std::filesystem::path content_path(const stored_version& v) const;

  // A new document, version 1, linked to document `related_to` when given (which must exist).
  store_status add_document(const new_content& content, std::optional<int64_t> related_to,
                            stored_version* out, std::string* err);
  // A new version of document `number`, after its latest one.
  store_status add_version(int64_t number, const new_content& content, stored_version* out,
                           std::string* err);

 private:
  local_store(std::string library, std::filesystem::path dir, sqlite_db db);

  store_status write_version(std::optional<int64_t> number, const new_content& content,
                             std::optional<int64_t> related_to, stored_version* out,
                             std::string* err);
  void finish_interrupted_writes();
  store_status sqlite_failure(const std::string& what, std::string* err) const;

  std::string library_;
  std::filesystem::path dir_;
  sqlite_db db_;
};

}  // namespace tarn
