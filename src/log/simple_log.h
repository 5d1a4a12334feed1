// The gateway's in-memory history for the "/logs" page: one start entry that never goes,
// then at most the 65 newest entries. Every entry also goes to the diagnostic channel.
// add() and render() may be called from any thread at the same time.
#pragma once

#include <cstdint>
#include <list>
#include <memory>
#include <string>

#include "platform/mutex.h"

namespace tarn {

class simple_log_entry {
 public:
  // Stamps the local time, as "Thu Nov 19 08:38:10 2026". A number of -1 means none.
  simple_log_entry(std::string text, int32_t number);

  const std::string& time() const { return time_; }
  const std::string& text() const { return text_; }
  int32_t number() const { return number_; }

 private:
  std::string time_;
  std::string text_;
  int32_t number_;
};

class simple_log {
 public:
  static constexpr size_t kMaxEntries = 65;

  explicit simple_log(const std::string& start_text);
  virtual ~simple_log();
  simple_log(const simple_log&) = delete;
  simple_log& operator=(const simple_log&) = delete;

  void add(std::unique_ptr<simple_log_entry> entry);
  void add(std::string text, int32_t number = -1) {
    add(std::make_unique<simple_log_entry>(std::move(text), number));
  }

  // The start line, a rule of 54 hyphens, then one line per entry, oldest first.
  std::string render() const;

 private:
  const std::unique_ptr<simple_log_entry> start_;
  mutable Mutex mu_;
  std::list<std::unique_ptr<simple_log_entry>> entries_ TARN_GUARDED_BY(mu_);
};

}  // namespace tarn
