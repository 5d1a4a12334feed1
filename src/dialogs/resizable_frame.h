// The size memory of a resizable dialog, free of any toolkit: the minimum size is the size at
// opening, the last size is stored as one REG_DWORD (height in the upper 16 bits, width in the
// lower 16) and restored at the next opening. Used on the dialog's thread only.
#pragma once

#include <cstdint>
#include <functional>
#include <optional>
#include <string_view>

namespace tarn {

struct frame_size {
  int32_t width = 0;
  int32_t height = 0;
  bool operator==(const frame_size&) const = default;
};

// Width in the lower 16 bits, height in the upper 16; neither survives above 65535.
uint32_t pack_frame_size(frame_size size);
frame_size unpack_frame_size(uint32_t packed);

// Where the size comes from and goes to: the registry for a dialog of this process, the
// question's JSON for one shown by a child process.
struct frame_size_io {
  std::function<frame_size()> load;
  std::function<void(frame_size)> store;
};

// The value `value_name` under HKCU "Software\Vantu\PDF\V1\" + subkey, default 0 by 0.
frame_size_io registry_frame_size(std::string_view subkey, std::string_view value_name);

// The size to show a restored dialog at: the stored size, no smaller than the minimum and no
// larger than the screen (the screen wins over the minimum).
frame_size fit_frame_size(frame_size stored, frame_size minimum, frame_size screen);

class resizable_frame {
 public:
  explicit resizable_frame(frame_size_io io, bool resizable = true);
  // Stores the current size when the frame was restored and has a size; on OK and Cancel alike.
  ~resizable_frame();
  resizable_frame(const resizable_frame&) = delete;
  resizable_frame& operator=(const resizable_frame&) = delete;

  bool resizable() const { return resizable_; }
  // The dialog has its opening size: that becomes the minimum.
  void on_init(frame_size opening);
  // Every resize, with the window's new size; a size with no area (a minimised window) is
  // passed over.
  void on_size(frame_size size);
  // Reads the stored size and marks the frame restored; empty when nothing (or 0 in either
  // half) is stored, so the dialog keeps its opening size.
  std::optional<frame_size> restore_size();

  frame_size minimum() const { return minimum_; }
  frame_size current() const { return current_; }

 private:
  const bool resizable_;
  frame_size minimum_;
  bool size_restored_ = false;
  frame_size current_;
  frame_size_io io_;
};

}  // namespace tarn
