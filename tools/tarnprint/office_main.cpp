// tarnoffice: the warm office that tarnprint starts on first use and talks to over a socket.
// It is not meant to be started by hand; --help says what it does.
#include <sys/stat.h>
#include <unistd.h>

#include <CLI/CLI.hpp>

#include <iostream>

#include "network_namespace.h"
#include "office_worker.h"

int main(int argc, char** argv) {
  CLI::App app{
      "tarnoffice: keeps one LibreOffice loaded for this user and converts the documents that\n"
      "tarnprint runs hand it over the socket office.sock in RUNTIME_DIR. tarnprint starts it\n"
      "on first use; it exits after MAX documents (a fresh one takes over), after SECONDS\n"
      "without work, or when asked to. Its log is office.log in RUNTIME_DIR. Where the system\n"
      "allows it, the office runs in a network namespace of its own, with no way out.\n"
      "Exit codes: 0 done, 1 could not start, 2 bad command line, 3 a document hung."};
  app.name("tarnoffice");
  std::string runtime_dir;
  tarn::worker_options options;
  long long idle_seconds = options.idle.count();
  app.add_option("--runtime-dir", runtime_dir, "the user's private tarnoffice folder")->required();
  app.add_option("--max-conversions", options.max_conversions, "documents before exiting")
      ->check(CLI::Range(1u, 100000u));
  app.add_option("--idle-seconds", idle_seconds, "idle time before exiting")
      ->check(CLI::Range(0LL, 86400LL));
  bool isolate_network = true;
  app.add_option("--isolate-network", isolate_network,
                 "1: run the office without network where the system allows it; 0: don't");
  app.add_option("--ready-fd", options.ready_fd,
                 "a descriptor that gets one byte once the socket listens");
  app.add_flag("--prime", options.prime,
               "once loaded, convert a small text document, so that the first real one is quick");
  try {
    app.parse(argc, argv);
  } catch (const CLI::ParseError& e) {
    return app.exit(e) == 0 ? 0 : 2;
  }
  options.idle = std::chrono::seconds(idle_seconds);
  options.paths.dir = runtime_dir;
  struct stat st;
  if (::lstat(runtime_dir.c_str(), &st) != 0 || !S_ISDIR(st.st_mode) || st.st_uid != ::getuid() ||
      (st.st_mode & 077) != 0) {
    std::cerr << "tarnoffice: " << runtime_dir << " is not a private folder of this user's\n";
    return 1;
  }
  // Before the worker starts any thread: a user namespace takes a single-threaded process.
  std::string why;
  if (isolate_network && !tarn::leave_network(&why)) {
    std::cerr << "tarnoffice " << ::getpid() << ": the office keeps the network (" << why
              << "); only its profile's settings keep documents from fetching anything\n";
  }
  tarn::run_office_worker(options);
}
