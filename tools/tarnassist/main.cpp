// tarnassist: the conversion assistant. Reads the list file the gateway hands over, converts
// each listed file to PDF into the user's documents folder, and with Delete=1 cleans up the
// hand-over: each copy once its PDF exists, and the list itself once nothing is left to retry.
#include <fcntl.h>
#include <signal.h>
#include <sys/signalfd.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <QCoreApplication>
#include <QStandardPaths>
#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <iostream>
#include <mutex>
#include <sstream>
#include <thread>

#include "assistant.h"
#include "convutils/ConvUtils.h"
#include "list_file.h"
#include "notify/desktop_notifier.h"
#include "notify/outcome_text.h"
#include "platform/private_temp.h"
#include "platform/process_launch.h"
#include "platform/self_exe.h"
#include "platform/unique_fd.h"
#include "platform/user_dirs.h"

namespace tarn {
namespace {

namespace fs = std::filesystem;

constexpr int kExitOk = 0;
constexpr int kExitSomeFailed = 1;
constexpr int kExitBadInput = 2;
constexpr int kExitInterrupted = 130;
constexpr const char* kOutputFolder = "Tarn PDF";
constexpr const char* kProgressSlot = "progress";
// How long the last notification offers to open the folder; the PDFs are all done by then.
constexpr std::chrono::seconds kOfferOpenFolder(60);

constexpr const char* kDescription =
    "Converts the files named in a list file to PDF.\n\n"
    "The list is what the Vantu Tarn gateway hands over:\n"
    "  [FILES]\n"
    "  Count=2\n"
    "  Delete=1\n"
    "  1=\"/run/user/1000/tarn/contract.docx\"\n"
    "  2=\"/run/user/1000/tarn/offer.xps\"\n"
    "Each file becomes a PDF of the same name in the \"Tarn PDF\" folder of your documents\n"
    "folder (xdg-user-dir DOCUMENTS, else ~/Documents); an existing PDF is never replaced, the\n"
    "new one is called \"name (2).pdf\" and so on. Documents go through tarnprint, XPS and\n"
    "OXPS files through tarnimage.so, both from tarnassist's own folder.\n\n"
    "With Delete=1 each listed copy that lies in the private temporary folder, or in a folder\n"
    "\"tarnassist-*\" there, is deleted once its PDF exists, and that folder with its last copy.\n"
    "The list file itself is deleted when every file is done; when some failed\n"
    "it is rewritten to name only those, so that running tarnassist on it again retries them.\n"
    "Without Delete=1 neither the files nor the list are touched.\n\n"
    "A desktop notification shows the progress and, at the end, where the PDFs are, with a\n"
    "button that opens the folder for a minute (xdg-open). Without a session bus it shows\n"
    "nothing. Notifications=0 under HKCU\\Software\\Vantu\\PDF\\V1\\TarnGateWay switches it off.\n\n"
    "Exit codes: 0 every file converted, 1 some failed, 2 bad usage or an unreadable list,\n"
    "130 interrupted.";

std::string seconds_text(std::chrono::steady_clock::duration elapsed) {
  char text[32];
  std::snprintf(text, sizeof text, "%.1f s", std::chrono::duration<double>(elapsed).count());
  return text;
}

bool read_bytes(const fs::path& file, std::string* bytes, std::string* err) {
  std::ifstream in(file, std::ios::binary);
  if (!in) {
    *err = std::strerror(errno);
    return false;
  }
  std::ostringstream out;
  out << in.rdbuf();
  *bytes = out.str();
  return true;
}

// Rewrites the list beside itself and renames it into place, so that it is never half written.
bool rewrite_list(const fs::path& file, const std::string& bytes, std::string* err) {
  const fs::path temp = file.string() + ".new";
  {
    std::ofstream out(temp, std::ios::binary | std::ios::trunc);
    out << bytes;
    out.close();
    if (!out) {
      *err = "can't write " + temp.string();
      ::unlink(temp.c_str());
      return false;
    }
  }
  if (::rename(temp.c_str(), file.c_str()) != 0) {
    *err = "can't replace " + file.string() + ": " + std::strerror(errno);
    ::unlink(temp.c_str());
    return false;
  }
  return true;
}

// A hand-over copy lies in the temporary folder, or in the folder of its command there.
bool is_hand_over_copy(const fs::path& file, const std::optional<fs::path>& dir, bool* own_folder) {
  if (!dir) return false;
  std::error_code ec;
  const fs::path parent = fs::weakly_canonical(file.parent_path(), ec);
  if (ec) return false;
  const fs::path temp = fs::weakly_canonical(*dir, ec);
  if (ec) return false;
  *own_folder = parent.parent_path() == temp &&
                parent.filename().string().starts_with(kAssistantCopiesPrefix);
  return parent == temp || *own_folder;
}

// The interrupting signals are taken through a descriptor, so that a wait for the helper can
// watch for them and clean up before stopping.
unique_fd block_interrupts() {
  sigset_t set;
  sigemptyset(&set);
  sigaddset(&set, SIGINT);
  sigaddset(&set, SIGTERM);
  sigaddset(&set, SIGHUP);
  sigprocmask(SIG_BLOCK, &set, nullptr);
  return unique_fd(signalfd(-1, &set, SFD_CLOEXEC | SFD_NONBLOCK));
}

bool interrupt_pending(int signal_fd) {
  signalfd_siginfo info;
  return signal_fd >= 0 && ::read(signal_fd, &info, sizeof info) == sizeof info;
}

struct row_outcome {
  bool done = false;
  bool reported = false;  // by the main thread, once done
  conversion result;
  std::string source;  // the path tried, empty when the row names none that exists
  std::chrono::steady_clock::duration took{};
};

std::string source_of(const list_row& row) {
  for (const auto& candidate : candidate_paths(row))
    if (::access(candidate.c_str(), F_OK) == 0) return candidate;
  return row.path;
}

std::string name_of(const list_row& row, const std::string& source) {
  return source.empty() ? "row " + std::to_string(row.number) : fs::path(source).filename().string();
}

row_outcome convert_row(assistant& worker, const list_row& row) {
  row_outcome outcome;
  const auto begin = std::chrono::steady_clock::now();
  outcome.source = source_of(row);
  if (!row.present) {
    outcome.result.reason = "missing from the list";
    outcome.result.why = left_out_reason::not_fetched;
  } else if (outcome.source.empty()) {
    outcome.result.reason = "no file (the gateway could not fetch this document)";
    outcome.result.why = left_out_reason::not_fetched;
  } else {
    outcome.result = worker.convert(outcome.source);
  }
  outcome.took = std::chrono::steady_clock::now() - begin;
  outcome.done = true;
  return outcome;
}

// Turns the progress notification into the result, and opens the folder when the person
// asks for it within a while. An interrupted run offers nothing: someone wants it to stop.
void tell_the_end(desktop_notifier& notes, const fs::path& out_dir, size_t converted,
                  size_t total, const std::vector<left_out_document>& left_out,
                  bool interrupted) {
  notification end;
  end.summary = interrupted ? "Conversion interrupted" : "Conversion done";
  end.body = std::to_string(converted) + " of " + std::to_string(total) + " PDFs made, in " +
             out_dir.string();
  if (!left_out.empty()) end.body += "\n" + left_out_text(left_out);
  end.urgent = !left_out.empty();
  if (!interrupted) {
    end.actions = {{"default", "Open folder"}};
    end.expire = kOfferOpenFolder;
  }
  notes.show(kProgressSlot, end);
  if (interrupted || notes.wait_for_action(kProgressSlot, kOfferOpenFolder) != "default") return;
  std::string err = "xdg-open not found";
  const QString opener = QStandardPaths::findExecutable("xdg-open");
  if (opener.isEmpty() || !spawn_detached({opener.toStdString(), out_dir.string()}, {}, &err))
    std::cerr << "tarnassist: can't open " << out_dir.string() << ": " << err << "\n";
}

int run(const fs::path& list_path) {
  std::string bytes, err;
  if (!read_bytes(list_path, &bytes, &err)) {
    std::cerr << "tarnassist: can't read " << list_path.string() << ": " << err << "\n";
    return kExitBadInput;
  }
  assist_list list;
  if (!parse_list(bytes, &list, &err)) {
    std::cerr << "tarnassist: " << list_path.string() << ": " << err << "\n";
    return kExitBadInput;
  }
  const fs::path out_dir = documents_dir() / kOutputFolder;
  if (!make_dirs(out_dir, 0777)) {
    std::cerr << "tarnassist: can't create " << out_dir.string() << ": " << std::strerror(errno)
              << "\n";
    return kExitBadInput;
  }
  // Only the gateway's hand-over copies are ever deleted, never a file the list merely names.
  const std::optional<fs::path> temp_dir = private_temp_dir();

  // Blocked before the notifier's threads exist, so that they inherit the mask.
  unique_fd interrupts = block_interrupts();
  std::unique_ptr<desktop_notifier> notes;
  if (!list.rows.empty() && notifications_enabled()) {
    notes = std::make_unique<desktop_notifier>(
        "Vantu Tarn assistant", [](const std::string& why) { std::cerr << "tarnassist: " << why << "\n"; });
  }
  std::vector<left_out_document> left_out;
  assistant worker(out_dir, self_exe_dir() + kPrintHelperProgram, interrupts.get(),
                   print_helper_timeout());
  const auto started = std::chrono::steady_clock::now();
  const size_t total = list.rows.size();
  size_t converted = 0, failed = 0;
  std::vector<list_row> retry;
  bool interrupted = false;
  // The rows are converted by several threads at once, as many as the print helper has
  // offices; the lines come out in the list's order.
  std::vector<row_outcome> outcomes(total);
  std::mutex mu;
  std::condition_variable changed;
  size_t next_row = 0;        // guarded by mu
  size_t threads_ended = 0;   // guarded by mu
  bool stopping = false;      // guarded by mu
  auto convert_rows = [&] {
    for (;;) {
      size_t i;
      {
        std::scoped_lock lock(mu);
        if (stopping || next_row == total) break;
        i = next_row++;
      }
      row_outcome outcome = convert_row(worker, list.rows[i]);
      std::scoped_lock lock(mu);
      stopping = stopping || outcome.result.interrupted;
      outcomes[i] = std::move(outcome);
      changed.notify_all();
    }
    std::scoped_lock lock(mu);
    ++threads_ended;
    changed.notify_all();
  };
  const size_t thread_count = std::min<size_t>(std::max<size_t>(total, 1), print_helper_parallelism());
  std::vector<std::thread> threads;
  for (size_t t = 0; t < thread_count; ++t) threads.emplace_back(convert_rows);
  for (size_t i = 0; i < total && !interrupted; ++i) {
    const list_row& row = list.rows[i];
    if (notes) {
      notes->show(kProgressSlot, {"Converting " + std::to_string(i + 1) + " of " +
                                  std::to_string(total) + ": " + name_of(row, source_of(row))});
    }
    {
      std::unique_lock lock(mu);
      changed.wait(lock, [&] { return outcomes[i].done || threads_ended == thread_count; });
      if (!outcomes[i].done) break;  // the threads stopped before this row
    }
    outcomes[i].reported = true;
    const conversion& result = outcomes[i].result;
    const std::string& source = outcomes[i].source;
    const std::string name = name_of(row, source);
    std::cout << "[" << (i + 1) << "/" << total << "] " << name;
    interrupted = result.interrupted || interrupt_pending(interrupts.get());
    if (interrupted) {
      std::scoped_lock lock(mu);
      stopping = true;
    }
    if (!result.ok) {
      ++failed;
      if (!result.interrupted) left_out.push_back({name, result.why, result.limit});
      std::cout << ": failed: " << result.reason << "\n";
      if (!source.empty() && ::access(source.c_str(), F_OK) == 0) retry.push_back(row);
      continue;
    }
    ++converted;
    std::cout << " -> " << result.output.filename().string() << " ("
              << seconds_text(outcomes[i].took) << ")";
    bool own_folder = false;
    if (list.delete_copies) {
      if (!is_hand_over_copy(source, temp_dir, &own_folder)) {
        std::cout << ", copy kept (not in the temporary folder)";
      } else if (::unlink(source.c_str()) != 0) {
        std::cout << ", copy not deleted: " << std::strerror(errno);
      } else if (own_folder) {
        // The command's folder goes with its last copy.
        ::rmdir(fs::path(source).parent_path().c_str());
      }
    }
    std::cout << "\n" << std::flush;
  }
  {
    std::scoped_lock lock(mu);
    stopping = true;
  }
  for (auto& thread : threads) thread.join();
  // A row another thread finished after the interruption counts as not tried: its PDF goes,
  // and its copy stays for the next run.
  for (auto& outcome : outcomes)
    if (outcome.done && !outcome.reported && outcome.result.ok)
      ::unlink(outcome.result.output.c_str());

  const size_t skipped = total - converted - failed;
  std::cout << (interrupted ? "Interrupted: " : "Done: ") << converted << " of " << total
            << " converted";
  if (failed > 0) std::cout << ", " << failed << " failed";
  if (skipped > 0) std::cout << ", " << skipped << " not tried";
  std::cout << ", in " << out_dir.string() << " ("
            << seconds_text(std::chrono::steady_clock::now() - started) << ")\n";

  if (list.delete_copies && !interrupted) {
    if (retry.empty()) {
      if (::unlink(list_path.c_str()) != 0)
        std::cerr << "tarnassist: can't delete " << list_path.string() << ": "
                  << std::strerror(errno) << "\n";
    } else if (rewrite_list(list_path, format_list(retry, true), &err)) {
      std::cout << "The " << retry.size() << " failed file(s) stay listed in " << list_path.string()
                << "; run tarnassist on it again to retry.\n";
    } else {
      std::cerr << "tarnassist: " << err << "\n";
    }
  }
  if (notes) tell_the_end(*notes, out_dir, converted, total, left_out, interrupted);
  if (interrupted) return kExitInterrupted;
  return failed > 0 ? kExitSomeFailed : kExitOk;
}

}  // namespace
}  // namespace tarn

int main(int argc, char** argv) {
  CLI::App app(tarn::kDescription, "tarnassist");
  std::vector<std::string> words;
  app.add_option("LISTFILE", words, "The list file")->required();
  try {
    app.parse(argc, argv);
  } catch (const CLI::CallForHelp& e) {
    return app.exit(e);
  } catch (const CLI::ParseError& e) {
    std::cerr << "tarnassist: " << e.what() << "\nRun with --help for how to use it.\n";
    return tarn::kExitBadInput;
  }
  // The gateway passes the list's path as the whole, unquoted command line; a path with
  // blanks then arrives as several words.
  std::string path;
  for (const auto& word : words) path += (path.empty() ? "" : " ") + word;
  if (words.size() > 1 && ::access(path.c_str(), F_OK) != 0) {
    std::cerr << "tarnassist: expected one list file, got " << words.size()
              << " arguments (and no file \"" << path << "\")\n";
    return tarn::kExitBadInput;
  }
  // Qt's D-Bus module, behind the notifications, expects an application object.
  QCoreApplication qt(argc, argv);
  return tarn::run(path);
}
