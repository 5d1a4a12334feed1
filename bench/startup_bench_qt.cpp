// The bare-QApplication baseline of startup_bench: says "ready" once the application object
// exists, then runs its event loop until a signal ends it.
#include <QApplication>
#include <cstdio>

int main(int argc, char** argv) {
  QApplication app(argc, argv);
  std::printf("ready\n");
  std::fflush(stdout);
  return app.exec();
}
