// tarnprint's side of the warm office: hands one document to the user's tarnoffice worker
// over its socket, starting the worker when none runs, and kills a worker that hangs.
#pragma once

#include <chrono>
#include <filesystem>
#include <optional>
#include <string>

#include "office_settings.h"
#include "source_kind.h"

namespace tarn {

struct office_job {
  std::filesystem::path src;  // absolute: the worker has a folder of its own
  std::filesystem::path dst;
  std::string format = "pdf";  // a LibreOfficeKit format name: pdf, docx, xlsx, pptx, ...
  std::optional<csv_layout> csv;
  // The office is to judge the file by its content alone, not by its name: for binary kinds,
  // whose name may lie (LibreOffice reads anything named *.txt as text).
  bool by_content = false;
};

enum class office_status {
  ok,           // the office wrote dst
  failed,       // the office could not read or write the document
  timed_out,    // the document took longer than the time-out; the worker was killed
  lost,         // the worker ended while it held the document
  unavailable,  // no worker could be started or reached
};

struct office_outcome {
  office_status status = office_status::unavailable;
  std::string message;  // why, when not ok
};

// Converts one document. Waits at most the time-out for the document once the worker has taken
// it up, and the time-out plus a minute for it to be taken up (a worker's start, or documents
// of other runs ahead of it); a worker that misses either is killed and the next call starts a
// fresh one. A worker that goes away before taking the document up is replaced once.
office_outcome convert_with_office(const office_job& job, const office_settings& settings);

// Starts the offices of the pool that aren't running (as many as memory allows) and returns
// once each listens, before it has loaded. False with *err when one can't be started.
bool warm_offices(const office_settings& settings, std::string* err);

// Ends the user's worker if one listens: asks it to quit, and kills it when it hasn't gone
// within `wait`. False with *err when it is still there.
bool stop_office(std::chrono::milliseconds wait, std::string* err);

}  // namespace tarn
