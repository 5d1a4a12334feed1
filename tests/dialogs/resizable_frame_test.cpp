#include "dialogs/resizable_frame.h"

#include "dialog_test_support.h"

namespace tarn {
namespace {

class resizable_frame_test : public test::sandboxed_test {};

TEST_F(resizable_frame_test, PacksHeightHighWidthLowAndFitsTheScreen) {
  EXPECT_EQ(pack_frame_size({65536 + 5, 10}), 0x000A0005u) << "the width is masked";
  EXPECT_EQ(pack_frame_size({10, 65536 + 7}), 0x0007000Au) << "the height's top falls off";
  EXPECT_EQ(unpack_frame_size(0xFFFFFFFF), (frame_size{65535, 65535}));

  const frame_size minimum{600, 400}, screen{1920, 1080};
  EXPECT_EQ(fit_frame_size({700, 500}, minimum, screen), (frame_size{700, 500}));
  EXPECT_EQ(fit_frame_size({300, 200}, minimum, screen), minimum);
  EXPECT_EQ(fit_frame_size({5000, 300}, minimum, screen), (frame_size{1920, 400}));
  EXPECT_EQ(fit_frame_size({700, 500}, minimum, {0, 0}), (frame_size{700, 500}));
}

// From the value stored before a dialog's life to the value stored after it.
TEST_F(resizable_frame_test, RestoresASizeWithAreaAndStoresOnlyAfterARestore) {
  const struct {
    const char* what;
    std::optional<uint32_t> before;
    bool resizable, restore;
    std::vector<frame_size> resizes;
    std::optional<frame_size> restored;
    std::optional<uint32_t> after;
  } cases[] = {
      {"first run", {}, true, true, {{600, 400}, {800, 500}}, {}, 0x01F40320},
      {"restored", 0x01F40320, true, true, {{820, 510}}, frame_size{800, 500}, 0x01FE0334},
      {"no width stored", 0x01F40000, true, true, {}, {}, 0x01F40000},
      {"no height stored", 0x00000320, true, true, {}, {}, 0x00000320},
      {"minimised last", {}, true, true, {{800, 500}, {0, 0}, {-1, 300}}, {}, 0x01F40320},
      {"never restored", {}, true, false, {{800, 500}}, {}, {}},
      {"not resizable", {}, false, true, {{800, 500}}, {}, {}},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.what);
    test::scoped_test_env fresh;
    if (c.before) test::store("merge_dialog_size", *c.before);
    {
      resizable_frame frame(registry_frame_size("iManage", "merge_dialog_size"), c.resizable);
      frame.on_init({600, 400});
      if (c.restore) {
        EXPECT_EQ(frame.restore_size(), c.restored);
      }
      for (const auto& size : c.resizes) frame.on_size(size);
    }
    EXPECT_EQ(test::stored("merge_dialog_size"), c.after);
  }
}

}  // namespace
}  // namespace tarn
