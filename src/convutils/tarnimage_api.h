// The entry points of tarnimage.so, the XPS run-time library. C linkage; no exception leaves
// them. A result below 0 is a failure, one of the codes below.
#pragma once

extern "C" {

// Renders every page of `source` (an XPS or OXPS file) into the PDF `target`; the result is
// the number of pages. The target is written beside itself and renamed into place, so a
// failure leaves no partial file. The three integers are reserved.
typedef int (*tarnimage_xps_to_pdf_fn)(const char* source, const char* target, int flags,
                                       int option1, int option2);
// The library's other entry points share the shape; they report kTarnImageNotSupported.
typedef int (*tarnimage_split_layers_fn)(const char* source, const char* target, int flags,
                                         int option1, int option2);
typedef int (*tarnimage_backdrop_fn)(const char* source, const char* target, int flags, int option1,
                                     int option2);
typedef int (*tarnimage_engine_convert_fn)(const char* source, const char* target, int flags,
                                           int option1, int option2);
}

namespace tarn {

inline constexpr int kTarnImageBadArgument = -1;   // a null or empty path
inline constexpr int kTarnImageUnreadable = -2;    // missing, not an XPS package, no pages
inline constexpr int kTarnImageUnwritable = -3;    // the target's folder refuses the file
inline constexpr int kTarnImageRenderFailed = -4;  // a page could not be drawn
inline constexpr int kTarnImageNotSupported = -5;  // an entry point without a function here
inline constexpr int kTarnImageInternal = -6;      // anything unexpected, caught at the border

inline constexpr const char* kTarnImageLibrary = "tarnimage.so";

}  // namespace tarn
