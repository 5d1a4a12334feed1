// The main of the tests that need a Qt application object (event loops, D-Bus, widgets). Built
// with TARN_TEST_PLAYS_HELPERS, the binary started as tarnprint or tarnassist plays that program.
#include <gtest/gtest.h>

#include <QApplication>
#include <cstdlib>

#ifdef TARN_TEST_PLAYS_HELPERS
#include "support/conversion.h"
#endif

int main(int argc, char** argv) {
#ifdef TARN_TEST_PLAYS_HELPERS
  if (int code = 0; tarn::test::play_helper_program(argc, argv, &code)) return code;
#endif
  // Test discovery runs the binary without the tests' environment and without a display.
  setenv("QT_QPA_PLATFORM", "offscreen", 0);
  QApplication app(argc, argv);
  testing::InitGoogleTest(&argc, argv);
  return RUN_ALL_TESTS();
}
