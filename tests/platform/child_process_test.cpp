#include "platform/child_process.h"

#include <dirent.h>
#include <fcntl.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <fstream>
#include <sstream>

#include "platform/process_launch.h"
#include "platform/self_exe.h"
#include "support/test_env.h"

namespace tarn {
namespace test {

// Writes what this probe child inherited to argv[2]: descriptors above 2, parent, session,
// nice value, blocked and ignored signals, standard input, then its remaining arguments.
int run_probe(int argc, char** argv) {
  std::string fds;
  if (DIR* dir = opendir("/proc/self/fd")) {
    while (dirent* entry = readdir(dir)) {
      const int fd = std::atoi(entry->d_name);
      if (entry->d_name[0] != '.' && fd > 2 && fd != dirfd(dir)) fds += std::to_string(fd) + " ";
    }
    closedir(dir);
  }
  std::ostringstream report;
  report << "fds=" << fds << "\nppid=" << getppid() << "\nleader=" << (getsid(0) == getpid())
         << "\nnice=" << getpriority(PRIO_PROCESS, 0) << "\n";
  // Through the C library, which hides the two signals it reserves for itself.
  sigset_t mask;
  sigprocmask(SIG_SETMASK, nullptr, &mask);
  std::string blocked, ignored;
  for (int sig = 1; sig < SIGRTMAX; ++sig) {
    struct sigaction action;
    if (sigismember(&mask, sig) == 1) blocked += std::to_string(sig) + " ";
    if (sigaction(sig, nullptr, &action) == 0 && action.sa_handler == SIG_IGN)
      ignored += std::to_string(sig) + " ";
  }
  report << "blocked=" << blocked << "\nignored=" << ignored << "\n";
  char target[256] = {};
  (void)!readlink("/proc/self/fd/0", target, sizeof target - 1);
  report << "stdin=" << target << "\n";
  for (int i = 3; i < argc; ++i) report << "arg=" << argv[i] << "\n";
  std::ofstream(argv[2]) << report.str();
  return 0;
}

}  // namespace test

namespace {

std::string expected_report(const std::vector<std::string>& args) {
  std::string text = "fds=\nblocked=\nignored=\nstdin=/dev/null\n";
  for (const auto& arg : args) text += "arg=" + arg + "\n";
  return text;
}

// Splits a probe's report into the part that must be the same for every child and the rest.
std::string common_part(const std::string& report, std::string* rest) {
  std::istringstream in(report);
  std::string common;
  for (std::string line; std::getline(in, line);) {
    const bool varies = line.rfind("ppid=", 0) == 0 || line.rfind("leader=", 0) == 0 ||
                        line.rfind("nice=", 0) == 0;
    (varies ? *rest : common) += line + "\n";
  }
  return common;
}

// Each test leaves descriptors without O_CLOEXEC open, blocks SIGTERM and ignores SIGPIPE, as
// a careless host process might; none of it may reach a child.
class child_process_test : public test::sandboxed_test {
 protected:
  void SetUp() override {
    ASSERT_EQ(pipe(leaky_pipe_), 0);
    leaky_file_ = open("/proc/self/status", O_RDONLY);
    sigset_t term;
    sigemptyset(&term);
    sigaddset(&term, SIGTERM);
    pthread_sigmask(SIG_BLOCK, &term, &old_mask_);
    old_pipe_ = signal(SIGPIPE, SIG_IGN);
  }
  void TearDown() override {
    signal(SIGPIPE, old_pipe_);
    pthread_sigmask(SIG_SETMASK, &old_mask_, nullptr);
    close(leaky_pipe_[0]);
    close(leaky_pipe_[1]);
    close(leaky_file_);
  }

  const std::vector<std::string> tricky_ = {"plain", "with blank", "with \"quotes\"",
                                            "trailing\\", "Grüße 日本", "", "a\\\"b"};

 private:
  int leaky_pipe_[2] = {-1, -1};
  int leaky_file_ = -1;
  sigset_t old_mask_;
  sighandler_t old_pipe_ = SIG_DFL;
};

TEST_F(child_process_test, ChildGetsItsArgumentsWholeAndInheritsNothingElse) {
  std::string line;
  for (const auto& arg : tricky_) line += quote_argument(arg) + " ";
  std::vector<std::string> argv = {self_exe_path().string(), "--probe",
                                   (env_.tmp() / "report").string()};
  for (const auto& arg : split_command_line(line)) argv.push_back(arg);

  auto child = child_process::start(argv);
  ASSERT_TRUE(child);
  EXPECT_EQ(child->wait(), 0);
  std::string rest;
  EXPECT_EQ(common_part(test::read_file(env_.tmp() / "report"), &rest), expected_report(tricky_));
  EXPECT_NE(rest.find("ppid=" + std::to_string(getpid()) + "\n"), std::string::npos) << rest;
}

TEST_F(child_process_test, DetachedProgramIsNobodysZombieAndInheritsNothing) {
  const auto fifo = env_.tmp() / "report";
  ASSERT_EQ(mkfifo(fifo.c_str(), 0600), 0);
  std::string err;
  ASSERT_TRUE(spawn_detached({self_exe_path().string(), "--probe", fifo.string(), "x y"},
                             {.nice_increment = 5}, &err))
      << err;
  // The intermediate process is reaped before spawn_detached returns; the probe isn't ours.
  EXPECT_EQ(waitpid(-1, nullptr, WNOHANG), -1);
  EXPECT_EQ(errno, ECHILD);

  std::string rest;
  EXPECT_EQ(common_part(test::read_file(fifo), &rest), expected_report({"x y"}));
  EXPECT_EQ(rest.find("ppid=" + std::to_string(getpid()) + "\n"), std::string::npos) << rest;
  EXPECT_NE(rest.find("leader=1\n"), std::string::npos) << rest;
  EXPECT_NE(rest.find("nice=" + std::to_string(getpriority(PRIO_PROCESS, 0) + 5) + "\n"),
            std::string::npos)
      << rest;

  EXPECT_FALSE(spawn_detached({"/nonexistent/tarnassist"}, {}, &err));
  EXPECT_EQ(err, "can't start /nonexistent/tarnassist: No such file or directory");
}

TEST_F(child_process_test, ReportsHowTheChildEndedAndNeverLeavesAZombie) {
  const struct {
    std::vector<std::string> argv;
    int code;
  } cases[] = {
      {{"/bin/sh", "-c", "exit 0"}, 0},
      {{"/bin/sh", "-c", "exit 3"}, 3},
      // SIGTERM is blocked here; the child must still die of it.
      {{"/bin/sh", "-c", "kill -TERM $$; exit 9"}, 128 + SIGTERM},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.argv.back());
    auto child = child_process::start(c.argv);
    ASSERT_TRUE(child);
    EXPECT_EQ(child->wait(), c.code);
    EXPECT_EQ(child->poll_exit(), c.code);
  }

  auto paused = child_process::start({self_exe_path().string(), "--probe-pause"});
  ASSERT_TRUE(paused);
  EXPECT_EQ(paused->wait_for(std::chrono::milliseconds(0)), std::nullopt);
  const pid_t pid = paused->pid();
  paused.reset();
  EXPECT_EQ(kill(pid, 0), -1) << "the destructor left pid " << pid << " behind";
  EXPECT_EQ(errno, ESRCH);

  std::string err;
  EXPECT_FALSE(child_process::start({"/nonexistent/tarnprint"}, {}, &err));
  EXPECT_EQ(err, "can't start /nonexistent/tarnprint: No such file or directory");
}

}  // namespace
}  // namespace tarn
