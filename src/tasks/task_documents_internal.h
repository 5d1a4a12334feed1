// What the two tasks share: listing a command's documents, and naming an exception that
// ended a piece of work in a log line.
#pragma once

#include <exception>
#include <memory>
#include <set>
#include <string>
#include <vector>

#include "dms/DMS_connector_handler.h"
#include "dms/doc_description.h"

namespace tarn {

// The descriptions of `doc_refs`, in the set's order. A reference the connector refuses is left
// out; the wrapper has logged why.
inline std::vector<std::shared_ptr<doc_description>> list_documents(
    DMS_connector_handler* dms, const std::string& dms_connection, const std::string& dms_location,
    const std::set<std::string>& doc_refs) {
  std::vector<std::shared_ptr<doc_description>> documents;
  if (dms == nullptr) return documents;
  for (const auto& doc_ref : doc_refs) {
    if (auto doc = dms->get_file_info(dms_connection, dms_location, doc_ref))
      documents.push_back(std::move(doc));
  }
  return documents;
}

// The text of the exception being handled; call only inside a catch block.
inline std::string current_exception_text() {
  try {
    throw;
  } catch (const std::exception& e) {
    return e.what();
  } catch (...) {
    return "unknown exception";
  }
}

}  // namespace tarn
