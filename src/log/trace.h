// The diagnostic channel: one line per call on standard error (the journal under systemd),
// with level, source file and line, and text. A channel is switched on by listing its number
// in TARN_TRACE, e.g. TARN_TRACE=85; "all" switches every channel on.
#pragma once

namespace tarn {

enum traceLogLevel { kTraceProgress = 0, kTraceWarning = 1, kTraceError = 2 };

constexpr int kTraceChannel = 85;

bool isTraceLogEnabled(int channel);

// Writes the line with one write(2), so lines of concurrent threads never interleave.
void TraceLogPrintAll(int channel, traceLogLevel level, const char* file, int line,
                      const char* format, ...) __attribute__((format(printf, 5, 6)));

}  // namespace tarn

// Prints on channel 85 with the caller's file and line; arguments are not evaluated when
// the channel is off.
#define TARN_TRACE(level, ...)                                                        \
  do {                                                                                \
    if (::tarn::isTraceLogEnabled(::tarn::kTraceChannel))                             \
      ::tarn::TraceLogPrintAll(::tarn::kTraceChannel, level, __FILE__, __LINE__, __VA_ARGS__); \
  } while (0)
