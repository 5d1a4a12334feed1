#include "process/signal_watcher.h"

#include <gtest/gtest.h>
#include <signal.h>
#include <unistd.h>

#include <QEventLoop>
#include <QTimer>
#include <thread>
#include <vector>

namespace tarn {
namespace {

constexpr int kSignals[] = {SIGTERM, SIGINT, SIGHUP};

// Runs the event loop until `count` signals have come, or fails after five seconds.
std::vector<int> collect(int count, const std::function<void()>& send) {
  std::vector<int> seen;
  QEventLoop loop;
  bool off_thread = false;
  const auto main_thread = std::this_thread::get_id();
  signal_watcher watcher([&](int signo) {
    seen.push_back(signo);
    off_thread |= std::this_thread::get_id() != main_thread;
    if (static_cast<int>(seen.size()) == count) loop.quit();
  });
  EXPECT_TRUE(watcher.active());
  send();
  QTimer::singleShot(5000, &loop, [&] {
    ADD_FAILURE() << "only " << seen.size() << " of " << count << " signals arrived";
    loop.quit();
  });
  loop.exec();
  EXPECT_FALSE(off_thread) << "the callback ran off the main thread";
  return seen;
}

// Raised all before the loop runs, on this thread and on another.
TEST(signal_watcher_test, EachSignalReachesTheMainThreadFromAnyThread) {
  const auto raise_all = [] {
    for (int signo : kSignals) raise(signo);
  };
  const std::vector<int> all(std::begin(kSignals), std::end(kSignals));
  EXPECT_EQ(collect(3, raise_all), all);
  EXPECT_EQ(collect(3, [&] { std::thread(raise_all).join(); }), all) << "from another thread";
}

TEST(signal_watcher_test, DefaultActionsComeBackWithTheWatcher) {
  auto handler_of = [](int signo) {
    struct sigaction action {};
    sigaction(signo, nullptr, &action);
    return action.sa_handler;
  };
  {
    signal_watcher watcher([](int) {});
    for (int signo : kSignals) EXPECT_NE(handler_of(signo), SIG_DFL) << strsignal(signo);
  }
  for (int signo : kSignals) EXPECT_EQ(handler_of(signo), SIG_DFL) << strsignal(signo);
}

}  // namespace
}  // namespace tarn
