#include "convutils/ConvUtils.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <thread>
#include <cerrno>
#include <cstdio>
#include <random>

#include "convutils/CConvRegKey.h"
#include "platform/ascii_text.h"
#include "platform/private_temp.h"
#include "platform/unique_fd.h"

namespace tarn {
namespace {

constexpr const char* kPrintHelperKey = "Software\\Vantu\\PDF\\V1\\TarnPrint";
constexpr DWORD kDefaultHelperTimeout = 300;
constexpr DWORD kDefaultConvertTimeout = 120;  // tarnprint's own
constexpr DWORD kMaxHelperTimeout = 86400;
constexpr DWORD kHelperMargin = 60;

bool exists(const std::string& path) { return ::access(path.c_str(), F_OK) == 0; }

std::string extension_for(const std::string& name) {
  if (name.empty()) return ".pdf";
  const auto slash = name.rfind('/');
  const auto dot = name.rfind('.');
  if (dot == std::string::npos || (slash != std::string::npos && dot < slash)) return "";
  std::string ext = name.substr(dot);
  const std::string lower = ascii_lower(ext);
  return lower == ".xps" || lower == ".oxps" || lower == ".pdf" ? ext : ".pdf";
}

}  // namespace

bool GetUniqueTempFile(std::string* buffer) {
  const auto dir = private_temp_dir();
  if (!dir) return false;
  const std::string ext = extension_for(*buffer);
  std::random_device random;
  for (int attempt = 0; attempt < 10; ++attempt) {
    char stem[16];
    std::snprintf(stem, sizeof stem, "ss_%08x", static_cast<unsigned>(random()));
    // The ".tmp" file keeps a second caller off the same number while this one looks.
    const std::string reserved = (*dir / (std::string(stem) + ".tmp")).string();
    unique_fd fd(::open(reserved.c_str(), O_CREAT | O_EXCL | O_WRONLY | O_CLOEXEC, 0600));
    if (!fd) continue;
    *buffer = (*dir / (std::string(stem) + ext)).string();
    const bool free = !exists(*buffer);
    ::unlink(reserved.c_str());
    if (free) return true;
  }
  return false;
}

bool ReadInstallPath(std::string* path, int /*mode*/) {
  CConvRegKey key(reg_root::local_machine, kProductKey, "InstallPath", std::string());
  const std::string* text = key.read_text();
  path->clear();
  if (text == nullptr || text->empty()) return false;
  *path = *text;
  // Callers put file names right behind it.
  if (path->back() != '/') *path += '/';
  return true;
}

std::string FindInstalledFile(const std::string& folder, const std::string& file_name,
                              const std::string& subfolder) {
  // No folder must not turn into a search of the current directory.
  if (folder.empty()) return "";
  auto join = [](std::string base, const std::string& step) {
    if (step.empty()) return base;
    if (!base.empty() && base.back() != '/') base += '/';
    return base + step;
  };
  const std::string below = join(join(folder, subfolder), file_name);
  if (exists(below)) return below;
  const std::string beside = join(folder, file_name);
  if (exists(beside)) return beside;
  return "";
}

std::chrono::seconds print_helper_convert_timeout() {
  for (reg_root root : {reg_root::current_user, reg_root::local_machine}) {
    const DWORD set =
        CConvRegKey(root, kPrintHelperKey, "ConvertTimeoutSeconds", DWORD{0}).read_as_number();
    if (set >= 1 && set <= kMaxHelperTimeout) return std::chrono::seconds(set);
  }
  return std::chrono::seconds(kDefaultConvertTimeout);
}

std::chrono::seconds print_helper_timeout() {
  const DWORD set =
      CConvRegKey(reg_root::current_user, kGatewayKey, "print_helper_timeout", DWORD{0})
          .read_as_number();
  if (set != 0) return std::chrono::seconds(set);
  // Never before the helper's own time-out, which ends a slow document cleanly and says why.
  return std::max(std::chrono::seconds(kDefaultHelperTimeout),
                  print_helper_convert_timeout() + std::chrono::seconds(kHelperMargin));
}

unsigned print_helper_parallelism() {
  for (reg_root root : {reg_root::current_user, reg_root::local_machine}) {
    const DWORD set =
        CConvRegKey(root, kPrintHelperKey, "OfficePoolSize", DWORD{0}).read_as_number();
    if (set >= 1 && set <= kMaxOfficePool) return set;
  }
  return std::clamp(std::thread::hardware_concurrency(), 1u, kMaxOfficePool);
}

}  // namespace tarn
