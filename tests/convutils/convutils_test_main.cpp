// The conversion and assistant tests start this binary again as the print helper or the
// assistant; the waits that keep an event loop running need an application object.
#include <gtest/gtest.h>

#include <QApplication>
#include <cstdlib>

#include "support/conversion.h"

int main(int argc, char** argv) {
  if (int code = 0; tarn::test::play_helper_program(argc, argv, &code)) return code;
  // Test discovery runs the binary without the tests' environment; a display is never needed.
  setenv("QT_QPA_PLATFORM", "offscreen", 0);
  QApplication app(argc, argv);
  testing::InitGoogleTest(&argc, argv);
  return RUN_ALL_TESTS();
}
