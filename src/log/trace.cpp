#include "log/trace.h"

#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <string_view>

#include "log/log_text.h"

namespace tarn {
namespace {

// True when standard error is the journal's stream (systemd sets JOURNAL_STREAM to its
// device and inode); the journal then reads a "<N>" priority prefix.
bool stderr_is_journal() {
  const char* stream = std::getenv("JOURNAL_STREAM");
  if (stream == nullptr) return false;
  struct stat st;
  if (fstat(STDERR_FILENO, &st) != 0) return false;
  return std::string_view(stream) ==
         std::to_string(st.st_dev) + ":" + std::to_string(st.st_ino);
}

}  // namespace

bool isTraceLogEnabled(int channel) {
  const char* list = std::getenv("TARN_TRACE");
  if (list == nullptr) return false;
  std::string_view rest(list);
  while (!rest.empty()) {
    size_t end = rest.find_first_of(", :;");
    std::string_view item = rest.substr(0, end);
    if (item == "all") return true;
    int value = 0;
    auto [ptr, ec] = std::from_chars(item.data(), item.data() + item.size(), value);
    if (ec == std::errc() && ptr == item.data() + item.size() && value == channel) return true;
    if (end == std::string_view::npos) break;
    rest.remove_prefix(end + 1);
  }
  return false;
}

void TraceLogPrintAll(int channel, traceLogLevel level, const char* file, int line,
                      const char* format, ...) {
  static const bool journal = stderr_is_journal();
  static constexpr const char* kPriority[] = {"<6>", "<4>", "<3>"};
  static constexpr const char* kLevelName[] = {"info", "warning", "error"};
  const int index = level >= kTraceProgress && level <= kTraceError ? level : kTraceError;

  std::string text;
  va_list args;
  va_start(args, format);
  va_list copy;
  va_copy(copy, args);
  int size = std::vsnprintf(nullptr, 0, format, copy);
  va_end(copy);
  if (size > 0) {
    // More than the line can show is never formatted: the cut comes later all the same.
    const size_t kept = std::min(static_cast<size_t>(size), kMaxLogText + 1);
    text.resize(kept + 1);
    std::vsnprintf(text.data(), text.size(), format, args);
    text.resize(kept);
  }
  va_end(args);

  std::string out;
  if (journal) out += kPriority[index];
  out += "[";
  out += std::to_string(channel);
  out += "] ";
  out += kLevelName[index];
  out += " ";
  out += file != nullptr ? file : "?";
  out += ":";
  out += std::to_string(line);
  out += ": ";
  out += log_safe(text);
  out += "\n";
  const int saved = errno;
  for (size_t done = 0; done < out.size();) {
    ssize_t n = ::write(STDERR_FILENO, out.data() + done, out.size() - done);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) break;
    done += static_cast<size_t>(n);
  }
  errno = saved;
}

}  // namespace tarn
