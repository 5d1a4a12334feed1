// Texts of result codes and class ids for log lines.
#pragma once

#include <string>
#include <string_view>

#include "dms/hresult.h"

namespace tarn {

// "S_OK" for 0; otherwise "0x" + the 32-bit pattern in lower-case hex + " (" + its text + ")",
// e.g. "0x80004005 (Unspecified error)". Linux has no system message table for these codes, so
// the texts of the codes that components and the loader return come from a table that keeps
// the Windows wording; any other code reads "unknown error".
std::string hresult_text(HRESULT hr);

// A class or interface id in its registry spelling, "{XXXXXXXX-XXXX-XXXX-XXXX-XXXXXXXXXXXX}"
// with upper-case digits, whatever case `id` has; "n/a" when `id` isn't a well-formed id.
std::string guid_text(std::string_view id);

}  // namespace tarn
