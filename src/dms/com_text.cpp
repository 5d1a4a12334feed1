#include "dms/com_text.h"

#include <cctype>
#include <cstdint>
#include <cstdio>

namespace tarn {
namespace {

struct hresult_message {
  uint32_t code;
  const char* text;
};

// Windows' texts for these codes, without the trailing line break; 0x8004000F is our own code
// for a component library built for another interface version.
constexpr hresult_message kMessages[] = {
    {0x00000001u, "Incorrect function."},
    {0x80004001u, "Not implemented"},
    {0x80004002u, "No such interface supported"},
    {0x80004003u, "Invalid pointer"},
    {0x80004004u, "Operation aborted"},
    {0x80004005u, "Unspecified error"},
    {0x8000FFFFu, "Catastrophic failure"},
    {0x8004000Fu, "Component built for another interface version"},
    {0x80040111u, "ClassFactory cannot supply requested class"},
    {0x80040154u, "Class not registered"},
    {0x80070002u, "The system cannot find the file specified."},
    {0x80070003u, "The system cannot find the path specified."},
    {0x80070005u, "Access is denied."},
    {0x80070006u, "The handle is invalid."},
    {0x8007000Du, "The data is invalid."},
    {0x8007000Eu, "Not enough memory resources are available to complete this operation."},
    {0x80070013u, "The media is write protected."},
    {0x80070020u,
     "The process cannot access the file because it is being used by another process."},
    {0x80070050u, "The file exists."},
    {0x80070057u, "The parameter is incorrect."},
    {0x80070070u, "There is not enough space on the disk."},
    {0x8007007Bu, "The filename, directory name, or volume label syntax is incorrect."},
    {0x8007007Eu, "The specified module could not be found."},
    {0x8007007Fu, "The specified procedure could not be found."},
    {0x800700AAu, "The requested resource is in use."},
    {0x800700B7u, "Cannot create a file when that file already exists."},
    {0x8007056Bu, "The specified network password is not correct."},
};

const char* message_of(uint32_t code) {
  for (const auto& message : kMessages)
    if (message.code == code) return message.text;
  return "unknown error";
}

}  // namespace

std::string hresult_text(HRESULT hr) {
  if (hr == S_OK) return "S_OK";
  const auto code = static_cast<uint32_t>(hr);
  char hex[16];
  std::snprintf(hex, sizeof hex, "0x%x", code);
  return std::string(hex) + " (" + message_of(code) + ")";
}

std::string guid_text(std::string_view id) {
  // 8-4-4-4-12 hex digits in braces.
  static constexpr std::string_view kShape = "{XXXXXXXX-XXXX-XXXX-XXXX-XXXXXXXXXXXX}";
  if (id.size() != kShape.size()) return "n/a";
  std::string text(id);
  for (size_t i = 0; i < kShape.size(); ++i) {
    const unsigned char c = static_cast<unsigned char>(text[i]);
    if (kShape[i] == 'X') {
      if (!std::isxdigit(c)) return "n/a";
      text[i] = static_cast<char>(std::toupper(c));
    } else if (text[i] != kShape[i]) {
      return "n/a";
    }
  }
  return text;
}

}  // namespace tarn
