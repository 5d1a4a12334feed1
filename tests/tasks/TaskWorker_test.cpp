#include "tasks/TaskWorker.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <QCoreApplication>
#include <atomic>
#include <fstream>
#include <memory>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "support/test_env.h"

namespace tarn {
namespace {

// The main window's part: run the worker's slot on each wake-up.
class test_window : public QObject {
 public:
  TaskWorker* worker = nullptr;
  int wakeups = 0;

  bool event(QEvent* e) override {
    if (e->type() != kRunPendingEvent) return QObject::event(e);
    ++wakeups;
    if (worker != nullptr) worker->run_pending();
    return true;
  }
};

// True while thread `tid` of this process sleeps, here: waits for a lock.
bool is_sleeping(pid_t tid) {
  std::ifstream stat("/proc/self/task/" + std::to_string(tid) + "/stat");
  std::string line;
  std::getline(stat, line);
  const size_t paren = line.rfind(") ");
  return paren != std::string::npos && paren + 2 < line.size() && line[paren + 2] == 'S';
}

class TaskWorker_test : public test::sandboxed_test {
 protected:
  void SetUp() override { window_.worker = worker_.get(); }
  void run_events() { QCoreApplication::sendPostedEvents(&window_, kRunPendingEvent); }
  std::function<void()> record(const std::string& name) {
    return [this, name] { ran_.push_back(name); };
  }

  test_window window_;
  std::unique_ptr<TaskWorker> worker_ = std::make_unique<TaskWorker>(&window_);
  std::vector<std::string> ran_;
};

// The waiting task throws: it is reported, and still empties the slot.
TEST_F(TaskWorker_test, PostWhileATaskWaitsIsDroppedAndTheEmptiedSlotTakesTheNext) {
  env_.set_env("TARN_TRACE", "85");
  QCoreApplication::postEvent(&window_, new QEvent(kRunPendingEvent));  // stray: runs nothing
  run_events();
  worker_->post([] { throw std::runtime_error("disk gone"); });
  worker_->post(record("dropped"));
  testing::internal::CaptureStderr();
  run_events();
  const std::string trace = testing::internal::GetCapturedStderr();
  EXPECT_NE(trace.find("TaskWorker: a task ended with an exception: disk gone"), std::string::npos)
      << trace;
  EXPECT_EQ(window_.wakeups, 2);

  worker_->post(record("next"));
  run_events();
  EXPECT_EQ(ran_, std::vector<std::string>{"next"});
}

TEST_F(TaskWorker_test, PostDuringATaskWaitsForItsEndThenRuns) {
  std::atomic<pid_t> poster_tid{0};
  std::atomic<bool> post_returned{false};
  std::thread poster;
  worker_->post([&] {
    ran_.push_back("first");
    poster = std::thread([&] {
      poster_tid = ::gettid();
      worker_->post(record("second"));
      post_returned = true;
    });
    // Hold the task until the poster sleeps in post(), or has wrongly come back from it.
    while (!post_returned && !(poster_tid != 0 && is_sleeping(poster_tid))) {
      std::this_thread::yield();
    }
    EXPECT_FALSE(post_returned) << "post() returned while a task ran";
  });
  run_events();
  poster.join();
  run_events();
  EXPECT_EQ(ran_, (std::vector<std::string>{"first", "second"}));
}

TEST_F(TaskWorker_test, PostGivesUpWhenATaskOutlastsTheWait) {
  worker_ = std::make_unique<TaskWorker>(&window_, std::chrono::milliseconds(50));
  window_.worker = worker_.get();
  bool handed_over = true;
  worker_->post([&] {
    std::thread poster([&] { handed_over = worker_->post(record("late")); });
    poster.join();  // the task outlasts the poster's wait
  });
  run_events();
  run_events();
  EXPECT_FALSE(handed_over);
  EXPECT_EQ(ran_, std::vector<std::string>());
}

TEST_F(TaskWorker_test, TaskStillWaitingAtTheEndIsDestroyedUnrun) {
  auto token = std::make_shared<int>(0);
  worker_->post([this, token] { ran_.push_back("late"); });
  worker_.reset();
  window_.worker = nullptr;
  EXPECT_EQ(token.use_count(), 1);
  run_events();
  EXPECT_TRUE(ran_.empty());
}

}  // namespace
}  // namespace tarn
