// What a client's text may look like once it reaches "/logs" or standard error: one line of
// at most kMaxLogText bytes. A client could otherwise forge lines of the page, start its own
// journal record with "\n<0>", or grow the log by the size of its request.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>

namespace tarn {

inline constexpr size_t kMaxLogText = 1024;
// Ends a text that was cut; it counts towards kMaxLogText.
inline constexpr std::string_view kLogCutMark = "...(cut)";

// Control bytes become "\n", "\r", "\t" or "\xHH"; a text longer than `limit` after that is
// cut behind a whole character and ends in kLogCutMark. Backslashes stay as they are, so that
// a text already made safe comes out unchanged.
std::string log_safe(std::string_view text, size_t limit = kMaxLogText);

}  // namespace tarn
