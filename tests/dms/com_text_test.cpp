#include "dms/com_text.h"

#include <gtest/gtest.h>

namespace tarn {
namespace {

// The known codes and the ids show in DMS_connector_handler_test's log lines.
TEST(com_text_test, UnknownResultCodesReadAsTheirNumber) {
  EXPECT_EQ(hresult_text(static_cast<HRESULT>(0x80041234u)), "0x80041234 (unknown error)");
  EXPECT_EQ(hresult_text(2), "0x2 (unknown error)");
}

}  // namespace
}  // namespace tarn
