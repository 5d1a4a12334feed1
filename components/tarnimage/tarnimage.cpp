// tarnimage.so: the XPS run-time library. XpsToPdfConvert renders every page of every document
// of an XPS package with libgxps into one cairo PDF. The other entry points exist for the
// loader and report that they have no function here. No exception leaves an entry point.
#include <cairo-pdf.h>
#include <cairo.h>
#include <fcntl.h>
#include <libgxps/gxps.h>
#include <unistd.h>

#include <cerrno>
#include <memory>
#include <random>
#include <string>

#include "convutils/tarnimage_api.h"

namespace tarn {
namespace {

// XPS measures in 1/96 inch, PDF in points.
constexpr double kPointsPerXpsUnit = 72.0 / 96.0;

struct gobject_unref {
  void operator()(gpointer object) const { g_object_unref(object); }
};
template <typename T>
using gobject_ptr = std::unique_ptr<T, gobject_unref>;

struct gerror_free {
  void operator()(GError* error) const { g_error_free(error); }
};
struct surface_destroy {
  void operator()(cairo_surface_t* surface) const { cairo_surface_destroy(surface); }
};
struct context_destroy {
  void operator()(cairo_t* cr) const { cairo_destroy(cr); }
};

// A new file beside the target that replaces it by rename() once complete; removed if it
// never gets that far. Created with 0666 so that the user's umask decides, as for any file.
class sibling_file {
 public:
  explicit sibling_file(const std::string& target) {
    const auto slash = target.rfind('/');
    const std::string folder = slash == std::string::npos ? "" : target.substr(0, slash + 1);
    std::random_device random;
    for (int attempt = 0; attempt < 16 && fd_ < 0; ++attempt) {
      path_ = folder + ".tarnimage-" + std::to_string(random()) + ".pdf.part";
      fd_ = ::open(path_.c_str(), O_CREAT | O_EXCL | O_WRONLY | O_CLOEXEC, 0666);
      if (fd_ < 0 && errno != EEXIST) break;
    }
  }
  ~sibling_file() {
    if (fd_ >= 0) ::close(fd_);
    if (!committed_) ::unlink(path_.c_str());
  }
  sibling_file(const sibling_file&) = delete;
  sibling_file& operator=(const sibling_file&) = delete;

  bool ok() const { return fd_ >= 0; }
  int fd() const { return fd_; }
  bool commit(const std::string& target) {
    const int fd = fd_;
    fd_ = -1;
    // No fsync: what matters is that no reader ever sees a partial file, which the rename
    // gives; the PDF is an intermediate file, and syncing cost a third of a conversion.
    if (::close(fd) != 0) return false;
    committed_ = ::rename(path_.c_str(), target.c_str()) == 0;
    return committed_;
  }

 private:
  std::string path_;
  int fd_ = -1;
  bool committed_ = false;
};

// cairo hands over many small pieces; they go out in blocks.
class buffered_output {
 public:
  explicit buffered_output(int fd) : fd_(fd) {}
  bool append(const unsigned char* data, size_t length) {
    buffer_.append(reinterpret_cast<const char*>(data), length);
    return buffer_.size() < kBlock || flush();
  }
  bool flush() {
    const char* data = buffer_.data();
    size_t left = buffer_.size();
    while (left > 0) {
      ssize_t n = ::write(fd_, data, left);
      if (n < 0 && errno == EINTR) continue;
      if (n <= 0) return false;
      data += n;
      left -= static_cast<size_t>(n);
    }
    buffer_.clear();
    return true;
  }

 private:
  static constexpr size_t kBlock = 64 * 1024;
  const int fd_;
  std::string buffer_;
};

cairo_status_t write_to(void* closure, const unsigned char* data, unsigned int length) {
  return static_cast<buffered_output*>(closure)->append(data, length) ? CAIRO_STATUS_SUCCESS
                                                                      : CAIRO_STATUS_WRITE_ERROR;
}

int render_page(GXPSPage* page, cairo_surface_t* surface) {
  gdouble width = 0, height = 0;
  gxps_page_get_size(page, &width, &height);
  if (width <= 0 || height <= 0) return kTarnImageRenderFailed;
  cairo_pdf_surface_set_size(surface, width * kPointsPerXpsUnit, height * kPointsPerXpsUnit);
  std::unique_ptr<cairo_t, context_destroy> cr(cairo_create(surface));
  cairo_scale(cr.get(), kPointsPerXpsUnit, kPointsPerXpsUnit);
  GError* raw_error = nullptr;
  const bool drawn = gxps_page_render(page, cr.get(), &raw_error);
  std::unique_ptr<GError, gerror_free> error(raw_error);
  if (!drawn) return kTarnImageRenderFailed;
  cairo_show_page(cr.get());
  return cairo_status(cr.get()) == CAIRO_STATUS_SUCCESS ? 0 : kTarnImageRenderFailed;
}

int xps_to_pdf(const char* source, const char* target) {
  if (source == nullptr || target == nullptr || *source == '\0' || *target == '\0')
    return kTarnImageBadArgument;
  gobject_ptr<GFile> file(g_file_new_for_path(source));
  GError* raw_error = nullptr;
  gobject_ptr<GXPSFile> xps(gxps_file_new(file.get(), &raw_error));
  std::unique_ptr<GError, gerror_free> error(raw_error);
  if (!xps) return kTarnImageUnreadable;

  sibling_file out(target);
  if (!out.ok()) return kTarnImageUnwritable;
  buffered_output stream(out.fd());
  std::unique_ptr<cairo_surface_t, surface_destroy> surface(
      cairo_pdf_surface_create_for_stream(write_to, &stream, 1, 1));
  int pages = 0;
  const guint documents = gxps_file_get_n_documents(xps.get());
  for (guint d = 0; d < documents; ++d) {
    raw_error = nullptr;
    gobject_ptr<GXPSDocument> document(gxps_file_get_document(xps.get(), d, &raw_error));
    error.reset(raw_error);
    if (!document) return kTarnImageUnreadable;
    const guint count = gxps_document_get_n_pages(document.get());
    for (guint p = 0; p < count; ++p) {
      raw_error = nullptr;
      gobject_ptr<GXPSPage> page(gxps_document_get_page(document.get(), p, &raw_error));
      error.reset(raw_error);
      if (!page) return kTarnImageUnreadable;
      if (int code = render_page(page.get(), surface.get()); code < 0) return code;
      ++pages;
    }
  }
  if (pages == 0) return kTarnImageUnreadable;
  cairo_surface_finish(surface.get());
  if (cairo_surface_status(surface.get()) != CAIRO_STATUS_SUCCESS || !stream.flush())
    return kTarnImageUnwritable;
  if (!out.commit(target)) return kTarnImageUnwritable;
  return pages;
}

}  // namespace
}  // namespace tarn

#define TARNIMAGE_EXPORT extern "C" __attribute__((visibility("default")))

TARNIMAGE_EXPORT int XpsToPdfConvert(const char* source, const char* target, int, int, int) {
  try {
    return tarn::xps_to_pdf(source, target);
  } catch (...) {
    return tarn::kTarnImageInternal;
  }
}

TARNIMAGE_EXPORT int SplitLayersEx(const char*, const char*, int, int, int) {
  return tarn::kTarnImageNotSupported;
}

TARNIMAGE_EXPORT int Backdrop(const char*, const char*, int, int, int) {
  return tarn::kTarnImageNotSupported;
}

TARNIMAGE_EXPORT int EngineConvert(const char*, const char*, int, int, int) {
  return tarn::kTarnImageNotSupported;
}
