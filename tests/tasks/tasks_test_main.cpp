// The task tests need a Qt application: the worker wakes its window through Qt's event queue,
// and the print helper is waited for with the event loop running. Started as tarnprint or
// tarnassist, the binary plays that program instead (support/conversion.h).
#include <gtest/gtest.h>

#include <QCoreApplication>

#include "support/conversion.h"

int main(int argc, char** argv) {
  if (int code = 0; tarn::test::play_helper_program(argc, argv, &code)) return code;
  QCoreApplication app(argc, argv);
  ::testing::InitGoogleTest(&argc, argv);
  return RUN_ALL_TESTS();
}
