#include "dms/com_text.h"

#include <gtest/gtest.h>

#include "dms/component_loader.h"

namespace tarn {
namespace {

TEST(com_text_test, ResultCodesReadAsTheLogShowsThem) {
  const struct {
    HRESULT hr;
    const char* text;
  } cases[] = {
      {S_OK, "S_OK"},
      {S_FALSE, "0x1 (Incorrect function.)"},
      {E_FAIL, "0x80004005 (Unspecified error)"},
      {REGDB_E_CLASSNOTREG, "0x80040154 (Class not registered)"},
      {kErrorAbiMismatch, "0x8004000f (Component built for another interface version)"},
      {E_INVALIDARG, "0x80070057 (The parameter is incorrect.)"},
      {kHrFileNotFound, "0x80070002 (The system cannot find the file specified.)"},
      {kHrPathNotFound, "0x80070003 (The system cannot find the path specified.)"},
      {kHrInvalidHandle, "0x80070006 (The handle is invalid.)"},
      {kHrInvalidData, "0x8007000d (The data is invalid.)"},
      {kHrWriteProtect, "0x80070013 (The media is write protected.)"},
      {kHrDiskFull, "0x80070070 (There is not enough space on the disk.)"},
      {kHrBusy, "0x800700aa (The requested resource is in use.)"},
      {kHrInvalidPassword, "0x8007056b (The specified network password is not correct.)"},
      {static_cast<HRESULT>(0x80041234u), "0x80041234 (unknown error)"},
      {2, "0x2 (unknown error)"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.text);
    EXPECT_EQ(hresult_text(c.hr), c.text);
  }
}

TEST(com_text_test, IdsReadInUpperCaseOrNotAtAll) {
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
