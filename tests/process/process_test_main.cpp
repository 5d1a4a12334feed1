// The process tests need a QApplication: the main window, the signal notifier and the
// queued quit of the event loop live on it.
#include <gtest/gtest.h>

#include <QApplication>
#include <cstdlib>

int main(int argc, char** argv) {
  // Test discovery runs the binary outside CTest's environment, and without a display.
  setenv("QT_QPA_PLATFORM", "offscreen", 0);
  QApplication app(argc, argv);
  ::testing::InitGoogleTest(&argc, argv);
  return RUN_ALL_TESTS();
}
