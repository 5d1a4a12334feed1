#include "log/simple_log.h"

#include <ctime>

#include "log/log_text.h"
#include "log/trace.h"

namespace tarn {
namespace {

std::string ctime_text() {
  std::time_t now = std::time(nullptr);
  std::tm local{};
  localtime_r(&now, &local);
  char buffer[30] = {};
  if (asctime_r(&local, buffer) == nullptr) return std::string();
  std::string text(buffer);
  if (!text.empty() && text.find('\n') == text.size() - 1) text.pop_back();
  return text;
}

void render_line(std::string& out, const simple_log_entry& entry) {
  out += entry.time();
  out += ", ";
  out += entry.text();
  out += '\n';
}

}  // namespace

simple_log_entry::simple_log_entry(std::string text, int32_t number)
    : time_(ctime_text()), text_(log_safe(text)), number_(number) {}

simple_log::simple_log(const std::string& start_text)
    : start_(std::make_unique<simple_log_entry>(start_text, -1)) {}

simple_log::~simple_log() = default;

void simple_log::add(std::unique_ptr<simple_log_entry> entry) {
  if (!entry) return;
  TARN_TRACE(kTraceProgress, "%s", entry->text().c_str());
  std::unique_ptr<simple_log_entry> dropped;
  MutexLock lock(mu_);
  // Keep 64 before the new one, so that 65 remain; the dropped entry is freed outside the lock.
  while (entries_.size() > kMaxEntries - 1) {
    dropped = std::move(entries_.front());
    entries_.pop_front();
  }
  entries_.push_back(std::move(entry));
}

std::string simple_log::render() const {
  std::string out;
  render_line(out, *start_);
  out += "------------------------------------------------------\n";
  MutexLock lock(mu_);
  for (const auto& entry : entries_) {
    if (entry->number() == -1) {
      out += "[...] ";
    } else {
      out += "[";
      out += std::to_string(entry->number());
      out += "] ";
    }
    render_line(out, *entry);
  }
  return out;
}

}  // namespace tarn
