#include "tasks/open_cassistant_task.h"

#include <fcntl.h>
#include <stdlib.h>
#include <unistd.h>

#include <QStringDecoder>
#include <cerrno>
#include <cstring>
#include <fstream>
#include <stdexcept>
#include <system_error>
#include <utility>

#include "convutils/ConvUtils.h"
#include "convutils/usage_reporter.h"
#include "platform/private_temp.h"
#include "platform/unique_fd.h"
#include "tasks/task_documents_internal.h"

namespace tarn {
namespace {

namespace fs = std::filesystem;

constexpr const char* kWhere = "ERROR: open_cassistant_task::do_work() ";
constexpr int kListNameTries = 10;

std::string list_row_text(const std::string& path) {
  QStringDecoder decode(QStringDecoder::Utf8, QStringDecoder::Flag::ConvertInitialBom);
  const QString text = decode(QByteArrayView(path.data(), static_cast<qsizetype>(path.size())));
  if (decode.hasError()) return path;
  for (QChar c : text) {
    if (c.unicode() > 0xFF) return path;
  }
  const QByteArray latin1 = text.toLatin1();
  return std::string(latin1.constData(), static_cast<size_t>(latin1.size()));
}

// Compared element by element, so that a trailing separator doesn't count.
bool same_folder(const fs::path& a, const fs::path& b) {
  auto elements = [](const fs::path& path) {
    std::vector<fs::path> out;
    for (const auto& element : path.lexically_normal()) {
      if (!element.empty()) out.push_back(element);
    }
    return out;
  };
  return elements(a) == elements(b);
}

// A row can't hold a line break: the path would end the row.
bool fits_in_a_row(const fs::path& path) {
  return path.native().find_first_of("\r\n") == std::string::npos;
}

}  // namespace

std::string assistant_list_text(const std::vector<fs::path>& paths) {
  std::string text = "[FILES]\r\nCount=" + std::to_string(paths.size()) + "\r\nDelete=1\r\n";
  for (size_t i = 0; i < paths.size(); ++i) {
    text += std::to_string(i + 1) + "=\"" + list_row_text(paths[i].native()) + "\"\r\n";
  }
  return text;
}

open_cassistant_task::open_cassistant_task(std::shared_ptr<simple_log> log,
                                           std::shared_ptr<DMS_connector_handler> dms,
                                           std::string dms_connection, std::string dms_location,
                                           std::set<std::string> doc_refs)
    : log_(std::move(log)),
      dms_(std::move(dms)),
      dms_connection_(std::move(dms_connection)),
      dms_location_(std::move(dms_location)),
      doc_refs_(std::move(doc_refs)) {}

void open_cassistant_task::do_work() {
  // The offices load while the documents are fetched and copied for the assistant.
  WarmPrintHelper();
  try {
    send_usage_event("iManage 10", "Open", "Tarn Assistant");
  } catch (...) {
    log_failure("");
  }

  fs::path list;
  bool launched = false;
  try {
    auto documents = list_documents(dms_.get(), dms_connection_, dms_location_, doc_refs_);
    if (documents.empty()) {
      log(std::string(kWhere) + "nothing to do.");
      return;
    }
    for (const auto& doc : documents) fetch(*doc);

    // A failed document keeps its place, as an empty row that counts.
    std::vector<fs::path> paths;
    for (const auto& doc : documents) {
      fs::path path = doc->local_file;
      if (!fits_in_a_row(path)) {
        log(std::string(kWhere) + "can't list file: \"" + doc->doc_ref + "\"");
        if (copies_.count(path)) remove_own_file(path);
        copies_.erase(path);
        path.clear();
      }
      paths.push_back(std::move(path));
    }
    if (copies_.empty()) remove_copies();

    // Without a whole list the assistant can't find the copies, nor delete them.
    if (!write_list(paths, &list)) remove_copies();
    // The path is the assistant's whole command line, unquoted. Without a list it would
    // have nothing to work on.
    if (!list.empty()) {
      launched = LaunchConverter(list.string(), false, nullptr);
      if (!launched) log(std::string(kWhere) + "can't start the assistant");
    }
  } catch (...) {
    log_failure("");
  }
  if (!launched) {
    remove_copies();
    if (!list.empty()) remove_own_file(list);
  }
}

void open_cassistant_task::fetch(doc_description& doc) {
  doc.item_id = dms_->download_file(dms_connection_, dms_location_, doc.doc_ref);
  if (doc.item_id.empty()) {
    log(std::string(kWhere) + "can't download file: \"" + doc.doc_ref + "\"");
    return;
  }
  try {
    fs::path local = dms_->get_localfilename(dms_connection_, doc.item_id);
    if (!local.empty()) doc.local_file = copy_to_temp(local);
  } catch (...) {
    log_failure(doc.doc_ref);
  }
  // Closed before anything else happens to the document: the assistant works on the copy.
  dms_->close_dms_file(dms_connection_, doc.item_id);
}

fs::path open_cassistant_task::copy_to_temp(const fs::path& source) {
  std::string err;
  const std::optional<fs::path> temp = private_temp_dir(&err);
  if (!temp) throw std::runtime_error("no temporary folder: " + err);
  if (same_folder(source.parent_path(), *temp)) return source;
  if (copies_dir_.empty()) {
    std::string pattern = (*temp / (std::string(kAssistantCopiesPrefix) + "XXXXXX")).string();
    if (::mkdtemp(pattern.data()) == nullptr)
      throw std::system_error(errno, std::generic_category(), "mkdtemp " + pattern);
    copies_dir_ = pattern;
  }
  // Only a copy of this command can hold the name, from a document of the same file name: it
  // is replaced by a whole copy, made beside it and renamed over it.
  const fs::path target = copies_dir_ / source.filename();
  const fs::path part = target.native() + ".part";
  try {
    fs::copy_file(source, part, fs::copy_options::overwrite_existing);
    fs::rename(part, target);
  } catch (...) {
    std::error_code ec;
    fs::remove(part, ec);
    throw;
  }
  copies_.insert(target);
  return target;
}

bool open_cassistant_task::write_list(const std::vector<fs::path>& paths, fs::path* list) {
  std::string name;
  if (!GetUniqueTempFile(&name)) {
    list->clear();
    log(std::string(kWhere) + "can't name the list file in the temporary folder");
    return false;
  }
  // The name was free a moment ago; the folder may be shared, so the file is made only if
  // it still is, and never through a link.
  unique_fd fd;
  for (int attempt = 0; !fd && attempt < kListNameTries; ++attempt) {
    if (attempt > 0) {
      name.clear();
      if (!GetUniqueTempFile(&name)) break;
    }
    *list = fs::path(name).replace_extension("txt");
    fd.reset(::open(list->c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0600));
    if (!fd && errno != EEXIST) break;
  }
  if (!fd) {
    log(std::string(kWhere) + "can't create \"" + list->string() + "\": " + std::strerror(errno));
    list->clear();
    return false;
  }
  const std::string text = assistant_list_text(paths);
  size_t written = 0;
  while (written < text.size()) {
    const ssize_t n = ::write(fd.get(), text.data() + written, text.size() - written);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) break;
    written += static_cast<size_t>(n);
  }
  if (written == text.size() && ::close(fd.release()) == 0) return true;
  const int error = errno;
  log(std::string(kWhere) + "can't write \"" + list->string() + "\": " + std::strerror(error));
  remove_own_file(*list);
  list->clear();
  return false;
}

void open_cassistant_task::remove_own_file(const fs::path& path) noexcept {
  std::error_code ec;
  fs::remove(path, ec);
  if (ec) {
    try {
      log(std::string(kWhere) + "can't remove \"" + path.string() + "\": " + ec.message());
    } catch (...) {
    }
  }
}

void open_cassistant_task::remove_copies() noexcept {
  for (const auto& copy : copies_) remove_own_file(copy);
  copies_.clear();
  if (copies_dir_.empty()) return;
  if (::rmdir(copies_dir_.c_str()) != 0) remove_own_file(copies_dir_);
  copies_dir_.clear();
}

void open_cassistant_task::log(const std::string& text) const {
  if (log_) log_->add(text, -1);
}

void open_cassistant_task::log_failure(const std::string& doc_ref) const noexcept {
  try {
    const std::string what = current_exception_text();
    log(std::string(kWhere) + (doc_ref.empty() ? "failed: " : "failed for \"" + doc_ref + "\": ") +
        what);
  } catch (...) {
    // Out of memory while logging: the work goes on without the line.
  }
}

}  // namespace tarn
