#include "dms/com_text.h"

#include <gtest/gtest.h>

namespace tarn {
namespace {

// The known codes' messages show in DMS_connector_handler_test's log lines.
TEST(com_text_test, ResultCodesAndIdsReadAsTheLogShowsThem) {
  EXPECT_EQ(hresult_text(S_OK), "S_OK");
  EXPECT_EQ(hresult_text(static_cast<HRESULT>(0x80041234u)), "0x80041234 (unknown error)");
  EXPECT_EQ(hresult_text(2), "0x2 (unknown error)");
  EXPECT_EQ(guid_text("{3d91bb51-50a8-4de6-a8ad-fe23da9e7c97}"),
            "{3D91BB51-50A8-4DE6-A8AD-FE23DA9E7C97}");
  for (const char* bad :
       {"", "3D91BB51-50A8-4DE6-A8AD-FE23DA9E7C97", "{3D91BB51-50A8-4DE6-A8AD-FE23DA9E7C9G}",
        "{3D91BB51-50A8-4DE6-A8AD-FE23DA9E7C97}x", "{3D91BB51+50A8-4DE6-A8AD-FE23DA9E7C97}"}) {
    SCOPED_TRACE(bad);
    EXPECT_EQ(guid_text(bad), "n/a");
  }
}

}  // namespace
}  // namespace tarn
