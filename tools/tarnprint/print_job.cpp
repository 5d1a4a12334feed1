#include "print_job.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstring>

#include "office_client.h"
#include "pdf_file.h"
#include "shared_extension_cache.h"
#include "source_kind.h"

namespace tarn {
namespace {

namespace fs = std::filesystem;

// The temporary file's name for a signal handler, which may read only plain memory.
char g_temp_path[PATH_MAX + 1];

std::string quoted(const fs::path& path) { return "\"" + path.string() + "\""; }

print_result fail(print_exit code, std::string message) { return {code, std::move(message)}; }

// The temporary file beside the target; removed on destruction unless kept.
class temp_beside {
 public:
  // Creates ".NAME.XXXXXX.tmp" in the target's folder; false with *err on failure.
  bool create(const fs::path& target, std::string* err) {
    std::string pattern =
        (target.parent_path() / ("." + target.filename().string() + ".XXXXXX.tmp")).string();
    if (pattern.size() > PATH_MAX) {
      *err = "the path is too long";
      return false;
    }
    int fd = ::mkostemps(pattern.data(), 4, O_CLOEXEC);
    if (fd < 0) {
      *err = std::strerror(errno);
      return false;
    }
    ::close(fd);
    path_ = pattern;
    std::memcpy(g_temp_path, pattern.c_str(), pattern.size() + 1);
    return true;
  }
  ~temp_beside() {
    g_temp_path[0] = '\0';
    if (!path_.empty()) ::unlink(path_.c_str());
  }
  void keep() {
    g_temp_path[0] = '\0';
    path_.clear();
  }
  const fs::path& path() const { return path_; }

 private:
  fs::path path_;
};

// Reads up to kSniffBytes of `src`; false with *err when it can't be read as a file.
bool read_head(const fs::path& src, std::string* head, std::string* err) {
  struct stat st;
  if (::stat(src.c_str(), &st) != 0) {
    *err = std::strerror(errno);
    return false;
  }
  if (!S_ISREG(st.st_mode)) {
    *err = "not a file";
    return false;
  }
  int fd = ::open(src.c_str(), O_RDONLY | O_CLOEXEC);
  if (fd < 0) {
    *err = std::strerror(errno);
    return false;
  }
  head->resize(kSniffBytes);
  size_t got = 0;
  while (got < head->size()) {
    ssize_t n = ::read(fd, head->data() + got, head->size() - got);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) break;
    got += static_cast<size_t>(n);
  }
  const int read_errno = errno;
  ::close(fd);
  head->resize(got);
  if (got == 0 && st.st_size > 0) {
    *err = std::strerror(read_errno);
    return false;
  }
  return true;
}

print_result convert_in_office(const fs::path& src, const fs::path& temp, std::string_view head,
                               source_kind kind, const office_settings& settings) {
  office_job job{src, temp, "pdf", std::nullopt, kind != source_kind::text};
  if (kind == source_kind::text) job.csv = csv_layout_of(src, head);
  const office_outcome outcome = convert_with_office(job, settings);
  switch (outcome.status) {
    case office_status::ok:
      break;
    case office_status::failed:
      return fail(kPrintBadSource, "can't convert " + quoted(src) + ": " + outcome.message);
    case office_status::timed_out:
      return fail(kPrintTimedOut, "gave up on " + quoted(src) + ": " + outcome.message);
    case office_status::lost:
    case office_status::unavailable: {
      std::string message = "can't convert " + quoted(src) + ": " + outcome.message;
      // An office that dies at start leaves no reason tarnprint can read; this is the usual one.
      if (const std::string hint = shared_extension_cache_hint(); !hint.empty())
        message += ". " + hint;
      return fail(kPrintOfficeFailed, message);
    }
  }
  // The office says it saved; only a PDF with pages counts.
  std::string err;
  auto pages = pdf_page_count(temp, &err);
  if (!pages || *pages == 0)
    return fail(kPrintBadSource,
                "can't convert " + quoted(src) + ": the office made no usable PDF");
  return {};
}

}  // namespace

void remove_print_temp_file() {
  if (g_temp_path[0] != '\0') ::unlink(g_temp_path);
}

print_result print_to_pdf(const fs::path& src_arg, const fs::path& dst_arg,
                          const office_settings& settings) {
  if (src_arg.empty()) return fail(kPrintUsage, "the source path is empty");
  if (dst_arg.empty()) return fail(kPrintUsage, "the target path is empty");
  std::error_code ec;
  const fs::path src = fs::absolute(src_arg, ec);
  const fs::path dst = fs::absolute(dst_arg, ec);
  if (ec) return fail(kPrintBadTarget, "can't resolve " + quoted(dst_arg) + ": " + ec.message());

  std::string head, err;
  if (!read_head(src, &head, &err))
    return fail(kPrintBadSource, "can't read " + quoted(src) + ": " + err);
  const source_kind kind = sniff_source(head);
  if (kind == source_kind::empty) return fail(kPrintBadSource, quoted(src) + " is empty");
  if (kind == source_kind::unknown)
    return fail(kPrintBadSource,
                quoted(src) + " is not a PDF, an office document, an image or text");

  if (fs::is_directory(dst, ec)) return fail(kPrintBadTarget, quoted(dst) + " is a folder");
  // The office reads the names in file URLs as UTF-8; other bytes can't reach it.
  if (kind != source_kind::pdf && !is_utf8(src.string()))
    return fail(kPrintBadSource,
                "can't convert " + quoted(src) + ": the office takes only UTF-8 file names");
  if (kind != source_kind::pdf && !is_utf8(dst.string()))
    return fail(kPrintBadTarget,
                "can't write " + quoted(dst) + ": the office takes only UTF-8 file names");
  temp_beside temp;
  if (!temp.create(dst, &err))
    return fail(kPrintBadTarget, "can't write " + quoted(dst) + ": " + err);

  if (kind == source_kind::pdf) {
    switch (rewrite_pdf(src, temp.path(), &err)) {
      case rewrite_status::ok:
        break;
      case rewrite_status::bad_source:
        return fail(kPrintBadSource, "can't convert " + quoted(src) + ": it " + err);
      case rewrite_status::write_failed:
        return fail(kPrintBadTarget, "can't write " + quoted(dst) + ": " + err);
    }
  } else if (auto result = convert_in_office(src, temp.path(), head, kind, settings);
             result.code != kPrintOk) {
    return result;
  }

  // mkstemp made the file 0600; a PDF the user asked for gets the usual mode.
  const mode_t mask = ::umask(0);
  ::umask(mask);
  ::chmod(temp.path().c_str(), 0666 & ~mask);
  if (::rename(temp.path().c_str(), dst.c_str()) != 0)
    return fail(kPrintBadTarget, "can't write " + quoted(dst) + ": " + std::strerror(errno));
  temp.keep();
  return {};
}

}  // namespace tarn
