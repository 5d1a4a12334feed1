#include "platform/child_process.h"

#include <dirent.h>
#include <fcntl.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>

#include <fstream>
#include <sstream>

#include "platform/process_launch.h"
#include "platform/self_exe.h"
#include "support/test_env.h"

namespace tarn {
namespace test {

// Signals 32 and 33, which the C library keeps for itself, in a mask of /proc/PID/status.
constexpr unsigned long long kLibcSignals = 0x180000000ull;

// Writes what this probe child inherited to argv[2]: descriptors above 2, blocked and ignored
// signals, standard input, its arguments, then parent, session and nice value.
int run_probe(int argc, char** argv) {
  std::ostringstream report;
  report << "fds=";
  DIR* dir = opendir("/proc/self/fd");
  while (dirent* entry = readdir(dir))
    if (int fd = std::atoi(entry->d_name); fd > 2 && fd != dirfd(dir)) report << fd << " ";
  closedir(dir);
  std::ifstream status("/proc/self/status");
  for (std::string line; std::getline(status, line);)
    if (line.starts_with("SigBlk:") || line.starts_with("SigIgn:"))
      report << "\n"
             << line.substr(0, 7) << (std::stoull(line.substr(8), nullptr, 16) & ~kLibcSignals);
  report << "\nstdin=" << std::filesystem::read_symlink("/proc/self/fd/0").string();
  for (int i = 3; i < argc; ++i) report << "\narg=" << argv[i];
  report << "\n--\nppid=" << getppid() << " leader=" << (getsid(0) == getpid())
         << " nice=" << getpriority(PRIO_PROCESS, 0);
  std::ofstream(argv[2]) << report.str();
  return 0;
}

}  // namespace test

namespace {

// Splits a report into what every child must show and the part that varies.
std::pair<std::string, std::string> read_report(const std::filesystem::path& file) {
  const std::string text = test::read_file(file);
  const auto cut = text.find("\n--\n");
  return {text.substr(0, cut), text.substr(cut + 4)};
}

std::string clean_report(const std::vector<std::string>& args) {
  std::string text = "fds=\nSigBlk:0\nSigIgn:0\nstdin=/dev/null";
  for (const auto& arg : args) text += "\narg=" + arg;
  return text;
}

// Each test leaves descriptors without O_CLOEXEC open, blocks SIGTERM and ignores SIGPIPE, as
// a careless host process might; none of it may reach a child.
class child_process_test : public test::sandboxed_test {
 protected:
  void SetUp() override {
    ASSERT_EQ(pipe(leaky_pipe_), 0);
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
  }

  const std::string self_ = self_exe_path().string();
  int leaky_pipe_[2] = {-1, -1};
  sigset_t old_mask_;
  sighandler_t old_pipe_ = SIG_DFL;
};

TEST_F(child_process_test, ChildGetsItsArgumentsWholeInheritsNothingAndIsAlwaysReaped) {
  const std::vector<std::string> tricky = {"with blank", "with \"quotes\"", "trailing\\",
                                           "",           "Grüße 日本",      "a\\\"b"};
  std::string line;
  for (const auto& arg : tricky) line += quote_argument(arg) + " ";
  std::vector<std::string> argv = {self_, "--probe", (env_.tmp() / "report").string()};
  for (const auto& arg : split_command_line(line)) argv.push_back(arg);
  auto child = child_process::start(argv);
  ASSERT_TRUE(child);
  EXPECT_EQ(child->wait(), 0);
  const auto [common, varies] = read_report(env_.tmp() / "report");
  EXPECT_EQ(common, clean_report(tricky));
  EXPECT_EQ(varies.rfind("ppid=" + std::to_string(getpid()) + " ", 0), 0u) << varies;

  // SIGTERM is blocked here; the child must still die of it.
  EXPECT_EQ(child_process::start({"/bin/sh", "-c", "exit 3"})->wait(), 3);
  EXPECT_EQ(child_process::start({"/bin/sh", "-c", "kill -TERM $$; exit 9"})->wait(), 143);
  auto paused = child_process::start({"/bin/sleep", "600"});
  EXPECT_EQ(paused->wait_for(std::chrono::milliseconds(0)), std::nullopt);
  const pid_t pid = paused->pid();
  paused.reset();
  EXPECT_EQ(kill(pid, 0), -1) << "the destructor left pid " << pid << " behind";

  std::string err;
  EXPECT_FALSE(child_process::start({"/nonexistent/tarnprint"}, {}, &err));
  EXPECT_EQ(err, "can't start /nonexistent/tarnprint: No such file or directory");
}

TEST_F(child_process_test, DetachedProgramIsNobodysZombieAndInheritsNothing) {
  const auto fifo = env_.tmp() / "report";
  ASSERT_EQ(mkfifo(fifo.c_str(), 0600), 0);
  std::string err;
  ASSERT_TRUE(spawn_detached({self_, "--probe", fifo.string(), "x y"}, {.nice_increment = 5}, &err))
      << err;
  // The intermediate process is reaped before spawn_detached returns; the probe isn't ours.
  EXPECT_TRUE(waitpid(-1, nullptr, WNOHANG) == -1 && errno == ECHILD);
  const auto [common, varies] = read_report(fifo);
  EXPECT_EQ(common, clean_report({"x y"}));
  EXPECT_EQ(varies.find("ppid=" + std::to_string(getpid()) + " "), std::string::npos);
  EXPECT_NE(varies.find(" leader=1 nice=" + std::to_string(getpriority(PRIO_PROCESS, 0) + 5)),
            std::string::npos)
      << varies;

  EXPECT_FALSE(spawn_detached({"/nonexistent/tarnassist"}, {}, &err));
  EXPECT_EQ(err, "can't start /nonexistent/tarnassist: No such file or directory");
}

TEST(process_launch_test, SplitsLikeTheStartedProgramsRuntime) {
  const std::pair<const char*, std::vector<std::string>> cases[] = {
      {"  \t ", {}},
      {R"("ab\"c" "\\" d)", {"ab\"c", "\\", "d"}},
      {R"(a\\\b d"e f"g h)", {"a\\\\\\b", "de fg", "h"}},
      {R"(a\\\"b c d)", {"a\\\"b", "c", "d"}},
      {R"(a\\\\"b c" d e)", {"a\\\\b c", "d", "e"}},
      {R"(a"b"" c d)", {"ab\" c d"}},
      {R"(x "" "unclosed runs to the end)", {"x", "", "unclosed runs to the end"}},
      {"\"Grüße/日本.docx\"", {"Grüße/日本.docx"}},
  };
  for (const auto& [line, args] : cases) EXPECT_EQ(split_command_line(line), args) << line;
  // An ordinary path only gains its quotes, as the helper's command line always had them.
  EXPECT_EQ(quote_argument("/home/u/My Docs/a b.docx"), "\"/home/u/My Docs/a b.docx\"");
}

}  // namespace
}  // namespace tarn
