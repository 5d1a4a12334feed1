#include "dialogs/resizable_frame.h"

#include <algorithm>

#include "convutils/CConvRegKey.h"
#include "dialogs/dialog_keys.h"

namespace tarn {

uint32_t pack_frame_size(frame_size size) {
  return (static_cast<uint32_t>(size.height) << 16) | (static_cast<uint32_t>(size.width) & 0xFFFF);
}

frame_size unpack_frame_size(uint32_t packed) {
  return {static_cast<int32_t>(packed & 0xFFFF), static_cast<int32_t>(packed >> 16)};
}

frame_size_io registry_frame_size(std::string_view subkey, std::string_view value_name) {
  const std::string key = dialog_key(subkey);
  const std::string name(value_name);
  return {
      [key, name] {
        return unpack_frame_size(
            CConvRegKey(reg_root::current_user, key, name, pack_frame_size({})).read_as_number());
      },
      [key, name](frame_size size) {
        CConvRegKey(reg_root::current_user, key, name, 0).write_number(pack_frame_size(size));
      },
  };
}

frame_size fit_frame_size(frame_size stored, frame_size minimum, frame_size screen) {
  frame_size fitted{std::max(stored.width, minimum.width), std::max(stored.height, minimum.height)};
  if (screen.width > 0) fitted.width = std::min(fitted.width, screen.width);
  if (screen.height > 0) fitted.height = std::min(fitted.height, screen.height);
  return fitted;
}

resizable_frame::resizable_frame(frame_size_io io, bool resizable)
    : resizable_(resizable), io_(std::move(io)) {}

resizable_frame::~resizable_frame() {
  if (resizable_ && size_restored_ && current_.width >= 1 && current_.height >= 1 && io_.store)
    io_.store(current_);
}

void resizable_frame::on_init(frame_size opening) {
  if (resizable_) minimum_ = opening;
}

void resizable_frame::on_size(frame_size size) {
  if (!resizable_ || size.width == -1 || size.height == -1) return;
  if (static_cast<int64_t>(size.width) * size.height == 0) return;
  current_ = size;
}

std::optional<frame_size> resizable_frame::restore_size() {
  size_restored_ = true;
  if (!io_.load) return std::nullopt;
  const frame_size stored = io_.load();
  if (static_cast<int64_t>(stored.width) * stored.height == 0) return std::nullopt;
  return stored;
}

}  // namespace tarn
