// CREATE_PDF of ten mixed office documents, merged, through the whole product: from the POST
// of the command to the last item closed after the merged PDF was stored, on the real gateway,
// the local document store, tarnprint's warm office and the qpdf joiner. The merge question
// comes up on a private Xvfb and is answered with xdotool; the time it stood open is the
// user's, read from the gateway's own trace lines, and is left out. The baseline, in the same
// run and on the same files: one `soffice --headless --convert-to pdf` run for all ten plus one
// `qpdf --empty --pages` join. Prints the medians, the ratio, and where the gateway's time goes.
//
//   build/bench/create_pdf_bench [--rounds N]
#include <fcntl.h>
#include <sys/inotify.h>
#include <poll.h>
#include <signal.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <map>
#include <set>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include <nlohmann/json.hpp>
#include <thrift/TOutput.h>
#include <thrift/protocol/TJSONProtocol.h>
#include <thrift/transport/THttpClient.h>
#include <thrift/transport/TSocket.h>
#include <CLI/CLI.hpp>

#include "TarnGateWay.h"

#include "platform/child_process.h"
#include "platform/unique_fd.h"
#include "support/conversion.h"
#include "support/run_program.h"
#include "bench_support.h"

namespace tarn {
namespace {

namespace fs = std::filesystem;
using bench::median;
using clock_type = std::chrono::steady_clock;
using namespace std::chrono_literals;

// Thrown, not exited on, so that the gateway, Xvfb and the office this run started end too.
struct bench_failure {
  std::string why;
};
[[noreturn]] void fail(const std::string& why) { throw bench_failure{why}; }

// Ends the warm office that tarnprint started below `tmp`, however the run ends.
struct office_guard {
  std::filesystem::path tmp;
  ~office_guard() { test::end_office_worker(tmp); }
};

double ms_between(clock_type::time_point a, clock_type::time_point b) {
  return std::chrono::duration<double, std::milli>(b - a).count();
}

void write_text(const fs::path& path, const std::string& text) {
  std::ofstream(path, std::ios::binary | std::ios::trunc) << text;
}

test::program_result must_run(const std::vector<std::string>& argv,
                              std::chrono::milliseconds timeout = 120s) {
  test::program_result r = test::run_program(argv, "", timeout);
  if (r.exit_code != 0) fail(argv[0] + " failed (" + std::to_string(r.exit_code) + "): " + r.err);
  return r;
}

const char* kWords[] = {"gateway", "document", "ledger", "quarter", "report", "revenue",
                        "forecast", "review", "meeting", "printer", "archive", "Grüße"};

std::string sentence(int seed, int words) {
  std::string text;
  for (int i = 0; i < words; ++i) text += (i ? " " : "") + std::string(kWords[(seed * 7 + i * 5) % 12]);
  return text + ".";
}

std::string flat_odf(const char* mime, const std::string& body) {
  return std::string(R"(<?xml version="1.0" encoding="UTF-8"?>)"
                     R"(<office:document xmlns:office="urn:oasis:names:tc:opendocument:xmlns:office:1.0" )"
                     R"(xmlns:text="urn:oasis:names:tc:opendocument:xmlns:text:1.0" )"
                     R"(xmlns:table="urn:oasis:names:tc:opendocument:xmlns:table:1.0" )"
                     R"(xmlns:draw="urn:oasis:names:tc:opendocument:xmlns:drawing:1.0" )"
                     R"(xmlns:svg="urn:oasis:names:tc:opendocument:xmlns:svg-compatible:1.0" )"
                     R"(office:version="1.2" office:mimetype=")") +
         mime + "\"><office:body>" + body + "</office:body></office:document>";
}

// Ten documents of a few pages each: text, spreadsheet and presentation formats in their
// binary, XML and ODF forms, RTF, HTML and plain text. The binary ones are made by soffice
// from flat ODF, untimed.
std::vector<fs::path> make_documents(const fs::path& dir, const std::string& profile) {
  fs::create_directories(dir / "flat");
  std::string text = "<office:text>";
  std::string rtf = "{\\rtf1\\ansi{\\fonttbl\\f0 Times;}\\f0 ";
  std::string html = "<html><head><meta charset=\"utf-8\"></head><body><h1>Report</h1>";
  std::string plain;
  for (int p = 0; p < 60; ++p) {
    text += "<text:p>" + sentence(p, 40) + "</text:p>";
    rtf += sentence(p + 1, 40) + "\\par ";
    html += "<p>" + sentence(p + 2, 40) + "</p>";
    plain += sentence(p + 3, 40) + "\n\n";
  }
  write_text(dir / "flat" / "report.fodt",
             flat_odf("application/vnd.oasis.opendocument.text", text + "</office:text>"));
  std::string sheet = "<office:spreadsheet><table:table table:name=\"Ledger\">";
  for (int r = 0; r < 150; ++r) {
    sheet += "<table:table-row>";
    for (int c = 0; c < 6; ++c)
      sheet += c % 2 ? "<table:table-cell office:value-type=\"float\" office:value=\"" +
                           std::to_string(r * 6 + c) + "\"><text:p>" + std::to_string(r * 6 + c) +
                           "</text:p></table:table-cell>"
                     : "<table:table-cell office:value-type=\"string\"><text:p>" +
                           std::string(kWords[(r + c) % 12]) + "</text:p></table:table-cell>";
    sheet += "</table:table-row>";
  }
  write_text(dir / "flat" / "ledger.fods",
             flat_odf("application/vnd.oasis.opendocument.spreadsheet",
                      sheet + "</table:table></office:spreadsheet>"));
  std::string slides = "<office:presentation>";
  for (int s = 0; s < 4; ++s)
    slides += "<draw:page draw:name=\"s" + std::to_string(s) +
              "\"><draw:frame svg:x=\"2cm\" svg:y=\"2cm\" svg:width=\"22cm\" svg:height=\"12cm\">"
              "<draw:text-box><text:p>" + sentence(s, 12) + "</text:p><text:p>" +
              sentence(s + 1, 12) + "</text:p></draw:text-box></draw:frame></draw:page>";
  write_text(dir / "flat" / "slides.fodp",
             flat_odf("application/vnd.oasis.opendocument.presentation",
                      slides + "</office:presentation>"));

  const std::string soffice = "/usr/bin/soffice";
  const struct {
    const char* flat;
    const char* format;
  } made[] = {{"report.fodt", "docx"}, {"report.fodt", "doc"},   {"report.fodt", "odt"},
              {"ledger.fods", "xlsx"}, {"ledger.fods", "ods"},   {"slides.fodp", "pptx"},
              {"slides.fodp", "odp"}};
  for (const auto& m : made)
    must_run({soffice, profile, "--headless", "--norestore", "--convert-to", m.format, "--outdir",
              (dir / m.format).string(), (dir / "flat" / m.flat).string()});
  std::vector<fs::path> docs;
  for (const auto& m : made) {
    const fs::path from = dir / m.format / (fs::path(m.flat).stem().string() + "." + m.format);
    const fs::path to = dir / (std::string(m.format) + "-" + from.filename().string());
    fs::rename(from, to);
    docs.push_back(to);
  }
  write_text(dir / "rtf-memo.rtf", rtf + "}");
  write_text(dir / "html-page.html", html + "</body></html>");
  write_text(dir / "txt-notes.txt", plain);
  for (const char* name : {"rtf-memo.rtf", "html-page.html", "txt-notes.txt"})
    docs.push_back(dir / name);
  return docs;
}

// The gateway's standard error, read as it grows; each line stamped with the time it came.
class trace_reader {
 public:
  explicit trace_reader(const fs::path& file)
      : file_(file), inotify_(inotify_init1(IN_CLOEXEC | IN_NONBLOCK)) {
    if (!inotify_ || inotify_add_watch(inotify_.get(), file.c_str(), IN_MODIFY) < 0)
      fail("can't watch " + file.string());
  }

  struct line {
    clock_type::time_point at;
    std::string text;  // after "[85] info FILE:LINE: "
  };

  // Waits until a line satisfies `done`; every line read meanwhile is kept.
  template <typename Done>
  bool wait_for(Done done, std::chrono::milliseconds deadline) {
    const auto end = clock_type::now() + deadline;
    for (;;) {
      for (; checked_ < lines_.size(); ++checked_)
        if (done(lines_[checked_])) return ++checked_, true;
      const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(end - clock_type::now());
      if (left.count() <= 0) return false;
      pollfd p{inotify_.get(), POLLIN, 0};
      poll(&p, 1, static_cast<int>(std::min<long long>(left.count(), 100)));
      char events[4096];
      while (read(inotify_.get(), events, sizeof(events)) > 0) {
      }
      take();
    }
  }

  const std::vector<line>& lines() const { return lines_; }
  void forget() {
    take();
    lines_.clear();
    checked_ = 0;
  }

 private:
  void take() {
    std::ifstream in(file_, std::ios::binary);
    in.seekg(static_cast<std::streamoff>(offset_));
    std::string chunk((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    const auto now = clock_type::now();
    size_t begin = 0;
    for (size_t end; (end = chunk.find('\n', begin)) != std::string::npos; begin = end + 1) {
      std::string text = chunk.substr(begin, end - begin);
      const size_t colon = text.find(": ");
      if (text.starts_with("[85] ") && colon != std::string::npos) text = text.substr(colon + 2);
      lines_.push_back({now, text});
    }
    offset_ += begin;
  }

  const fs::path file_;
  unique_fd inotify_;
  size_t offset_ = 0;
  std::vector<line> lines_;
  size_t checked_ = 0;
};

bool starts(const trace_reader::line& l, std::string_view prefix) {
  return l.text.starts_with(prefix);
}

// The phases of one command, in ms.
struct round_result {
  double total = 0;        // POST to the last item closed, minus the question's time
  double question = 0;     // the question on screen, left out of total
  double ok_to_stored = 0;  // from the user's OK to the merged PDF stored
  std::map<std::string, double> phases;
};

// One CREATE_PDF of all ten, merged. Returns its phases.
// `think` is how long the user looks at the question before pressing OK.
round_result run_command(trace_reader& trace, const std::vector<std::string>& refs,
                         const std::string& display, int round,
                         std::chrono::milliseconds think = 0ms) {
  trace.forget();
  // The user answers "combine" as the dialog was left; only OK is pressed.
  auto user = child_process::start(
      {"/bin/sh", "-c",
       "DISPLAY=\"$0\" /usr/bin/xdotool search --sync --onlyvisible --name '^Merge items to one "
       "PDF$' windowfocus --sync %1 && sleep \"$1\" && DISPLAY=\"$0\" /usr/bin/xdotool key Return",
       display, std::to_string(think.count() / 1000.0)});
  const std::set<std::string> set(refs.begin(), refs.end());
  // The client a browser page would be: Thrift's JSON protocol over HTTP.
  auto socket = std::make_shared<apache::thrift::transport::TSocket>("localhost", 9090);
  auto http = std::make_shared<apache::thrift::transport::THttpClient>(socket, "localhost", "/");
  TarnWwySrv::TarnGateWayClient client(
      std::make_shared<apache::thrift::protocol::TJSONProtocol>(http));
  const auto posted = clock_type::now();
  http->open();
  client.send_command(TarnWwySrv::command_type::CREATE_PDF, "", "", set);
  http->close();
  const auto replied = clock_type::now();

  // Closing ends the road: one close for each document's item and one for the stored PDF.
  size_t closes = 0;
  if (!trace.wait_for(
          [&](const trace_reader::line& l) {
            return starts(l, "DMS_connector_handler::close_dms_file() -> ") &&
                   ++closes == refs.size() + 1;
          },
          300s))
    fail("round " + std::to_string(round) + " never closed its items");
  const auto closed = trace.lines().back().at;
  if (user->wait_for(10s) != std::optional<int>(0)) fail("xdotool didn't answer the question");

  // Phase marks: the first line of each step, by the order of the road.
  std::vector<std::pair<std::string, clock_type::time_point>> marks = {{"post", posted},
                                                                       {"reply", replied}};
  const trace_reader::line *shown = nullptr, *ok = nullptr;
  auto first = [&](std::string_view prefix) -> const trace_reader::line* {
    for (const auto& l : trace.lines())
      if (starts(l, prefix)) return &l;
    return nullptr;
  };
  for (const auto& l : trace.lines())
    if (starts(l, "itemData[")) shown = &l;
  ok = first("OnOK()");
  const auto* fetch = first("DMS_connector_handler::download_file(");
  const auto* convert = first("Cmd line: ");
  const auto* save = first("DMS_connector_handler::save_file_to_DMS(");
  const auto* saved = first("DMS_connector_handler::save_file_to_DMS() -> ");
  if (!shown || !ok || !fetch || !convert || !save || !saved) fail("a step is missing from the trace");
  round_result r;
  r.question = ms_between(shown->at, ok->at);
  r.ok_to_stored = ms_between(ok->at, saved->at);
  r.total = ms_between(posted, closed) - r.question;
  r.phases["1 POST to reply"] = ms_between(posted, replied);
  r.phases["2 usage event, 10 descriptions, dialog up"] = ms_between(replied, shown->at);
  r.phases["3 after OK to first fetch"] = ms_between(ok->at, fetch->at);
  r.phases["4 fetch 10 (copy out of the store)"] = ms_between(fetch->at, convert->at);
  r.phases["5 convert 10 (tarnprint) + attach"] = ms_between(convert->at, save->at);
  r.phases["6 store the merged PDF"] = ms_between(save->at, saved->at);
  r.phases["7 close 11 items, delete PDFs"] = ms_between(saved->at, closed);
  return r;
}

// The baseline: one soffice run for all ten, then one qpdf join. ms.
double run_baseline(const std::vector<fs::path>& docs, const std::string& profile,
                    const fs::path& out) {
  fs::create_directories(out);
  std::vector<std::string> convert = {"/usr/bin/soffice", profile,        "--headless", "--norestore",
                                      "--convert-to",     "pdf",          "--outdir",   out.string()};
  for (const auto& doc : docs) convert.push_back(doc.string());
  std::vector<std::string> join = {"/usr/bin/qpdf", "--empty", "--pages"};
  for (const auto& doc : docs) join.push_back((out / (doc.stem().string() + ".pdf")).string());
  join.insert(join.end(), {"--", (out / "joined.pdf").string()});
  const auto begin = clock_type::now();
  must_run(convert);
  must_run(join);
  return ms_between(begin, clock_type::now());
}

int pages_of(const fs::path& pdf) {
  return std::atoi(must_run({"/usr/bin/qpdf", "--show-npages", pdf.string()}).out.c_str());
}

int run(int rounds);

}  // namespace
}  // namespace tarn

int main(int argc, char** argv) {
  using namespace tarn;
  CLI::App app{
      "Times CREATE_PDF of ten mixed office documents, merged, through the real gateway on port\n"
      "9090 (POST to the last item closed; the question's time on screen left out) against one\n"
      "soffice --convert-to pdf run for the ten plus one qpdf join, in the same run. Prints\n"
      "medians after a warm-up round, the ratio, and the median time of each step. Needs Xvfb,\n"
      "xdotool, soffice and qpdf; port 9090 must be free.",
      "create_pdf_bench"};
  int rounds = 5;
  app.add_option("--rounds", rounds, "timed rounds")->check(CLI::Range(1, 50));
  CLI11_PARSE(app, argc, argv);
  try {
    return run(rounds);
  } catch (const bench_failure& failure) {
    std::cerr << "create_pdf_bench: " << failure.why << "\n";
  } catch (const std::exception& e) {
    std::cerr << "create_pdf_bench: " << e.what() << "\n";
  }
  return 1;
}

namespace tarn {
namespace {

int run(int rounds) {
  for (const char* tool : {"/usr/bin/Xvfb", "/usr/bin/xdotool", "/usr/bin/soffice", "/usr/bin/qpdf"})
    if (access(tool, X_OK) != 0)
      fail(std::string(tool) + " is missing; scripts/install-deps.sh test installs it");

  bench::sandbox box("create-pdf-bench");
  const fs::path root = box.root();
  box.keep();  // until the run is through
  std::cerr << "working in " << root << " (kept when the run fails)\n";
  office_guard office{box.tmp()};
  setenv("TARN_TRACE", "85", 1);
  unsetenv("WAYLAND_DISPLAY");
  unsetenv("QT_QPA_PLATFORM");

  const std::string profile = "-env:UserInstallation=file://" + (root / "soffice-profile").string();
  std::cerr << "making ten documents\n";
  const auto docs = make_documents(root / "in", profile);

  // A private X server for the question, on a number it picks itself.
  int number_pipe[2];
  if (pipe2(number_pipe, O_CLOEXEC) != 0) fail("pipe failed");
  auto xvfb = child_process::start({"/usr/bin/Xvfb", "-displayfd", "1", "-noreset", "-nolisten",
                                    "tcp", "-screen", "0", "1280x1024x24"},
                                   {.stdout_fd = number_pipe[1]});
  close(number_pipe[1]);
  std::string number;
  for (char c; read(number_pipe[0], &c, 1) == 1 && c != '\n';) number += c;
  close(number_pipe[0]);
  if (!xvfb || number.empty()) fail("Xvfb didn't start");
  const std::string display = ":" + number;
  setenv("DISPLAY", display.c_str(), 1);

  const std::string tarnctl = test::dist_program("tarnctl");
  must_run({tarnctl, "setup"});
  // The question opens on "combine", so that OK alone answers it.
  for (const auto& [value, data] : {std::pair{"do_merge", "1"}, {"how_to_save", "1"}})
    must_run({tarnctl, "reg", "add", "HKCU\\Software\\Vantu\\PDF\\V1\\iManage", "/v", value, "/t",
              "REG_DWORD", "/d", data, "/f"});
  std::vector<std::string> import = {tarnctl, "dms", "import", "--json"};
  for (const auto& doc : docs) import.push_back(doc.string());
  std::vector<std::string> refs;
  for (const auto& entry : nlohmann::json::parse(must_run(import).out))
    refs.push_back(entry.at("ref"));

  // Thrift would print the refused connection that is the good outcome here.
  apache::thrift::GlobalOutput.setOutputFunction([](const char*) {});
  try {
    apache::thrift::transport::TSocket probe("localhost", 9090);
    probe.open();
    fail("something already listens on port 9090");
  } catch (const apache::thrift::transport::TTransportException&) {
  }
  const fs::path err = root / "gateway.err";
  unique_fd err_fd(open(err.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600));
  auto gateway = child_process::start({test::dist_program("tarngateway")},
                                      {.stdout_fd = err_fd.get(), .stderr_fd = err_fd.get()});
  if (!gateway) fail("can't start the gateway");
  trace_reader trace(err);
  // The start line comes before the server thread has bound the port.
  const auto give_up = clock_type::now() + 30s;
  for (;;) {
    try {
      apache::thrift::transport::TSocket probe("localhost", 9090);
      probe.open();
      break;
    } catch (const apache::thrift::transport::TTransportException&) {
      if (clock_type::now() > give_up || gateway->poll_exit()) fail("the gateway didn't start");
      std::this_thread::sleep_for(20ms);
    }
  }

  std::cerr << "warm-up round (starts the office)\n";
  run_command(trace, refs, display, 0);
  run_baseline(docs, profile, root / "baseline-0");

  std::vector<round_result> ours;
  std::vector<double> baseline;
  int baseline_pages = 0;
  for (int round = 1; round <= rounds; ++round) {
    std::cerr << "round " << round << " of " << rounds << "\n";
    const fs::path out = root / ("baseline-" + std::to_string(round));
    baseline.push_back(run_baseline(docs, profile, out));
    baseline_pages = pages_of(out / "joined.pdf");
    ours.push_back(run_command(trace, refs, display, round));
  }

  // The cold case: the offices are gone when the command comes, and the user takes 1.5 s over
  // the question, during which the offices load.
  test::end_office_worker(box.tmp());
  std::cerr << "cold round (no office running; the question answered after 1.5 s)\n";
  const round_result cold = run_command(trace, refs, display, rounds + 1, 1500ms);

  // Every step done: each round stored one merged PDF, all of the same pages, and left nothing.
  const auto list = nlohmann::json::parse(must_run({tarnctl, "dms", "list", "--json"}).out);
  std::set<int> merged_pages;
  int merged = 0;
  for (const auto& d : list) {
    if (d.at("extension") != "pdf") continue;
    const fs::path check = root / "check" / std::to_string(++merged);
    fs::create_directories(check);
    must_run({tarnctl, "dms", "export", d.at("ref"), check.string()});
    for (const auto& entry : fs::directory_iterator(check)) merged_pages.insert(pages_of(entry.path()));
  }
  // The warm-up round, the timed rounds and the cold one.
  if (merged != rounds + 2) fail("expected " + std::to_string(rounds + 2) + " merged PDFs, found " +
                                 std::to_string(merged));
  if (merged_pages.size() != 1 || *merged_pages.begin() < static_cast<int>(docs.size()))
    fail("the merged PDFs differ in pages or lack documents");
  for (auto it = fs::recursive_directory_iterator(box.tmp()); it != fs::recursive_directory_iterator();
       ++it) {
    if (it.depth() == 0 && it->path().filename() == "tarnoffice") {
      it.disable_recursion_pending();
      continue;
    }
    if (it->is_regular_file()) fail("left behind: " + it->path().string());
  }

  gateway->signal(SIGTERM);
  gateway->wait_for(10s);
  xvfb->signal(SIGTERM);
  xvfb->wait_for(10s);

  std::vector<double> totals, questions;
  std::vector<double> warm_ok_to_stored;
  for (const auto& r : ours) {
    totals.push_back(r.total), questions.push_back(r.question);
    warm_ok_to_stored.push_back(r.ok_to_stored);
  }
  const double base = median(baseline), mine = median(totals);
  std::printf("median of %d rounds, 10 documents (%s): %d pages merged, %d by soffice + qpdf\n",
              rounds, "docx doc odt xlsx ods pptx odp rtf html txt", *merged_pages.begin(),
              baseline_pages);
  std::printf("%-52s %12s %10s %7s\n", "case", "baseline ms", "ours ms", "ratio");
  std::printf("%-52s %12.1f %10.1f %7.3f\n", "CREATE_PDF 10 docs merged vs soffice + qpdf", base,
              mine, mine / base);
  std::printf("%-52s %12.1f %10.1f %7.3f\n", "OK to stored: cold (answered after 1.5 s) vs warm",
              median(warm_ok_to_stored), cold.ok_to_stored,
              cold.ok_to_stored / median(warm_ok_to_stored));
  std::printf("\nwhere the gateway's time goes (median ms; the question stood open %.1f ms, "
              "left out)\n",
              median(questions));
  for (const auto& [phase, _] : ours.front().phases) {
    std::vector<double> values;
    for (const auto& r : ours) values.push_back(r.phases.at(phase));
    std::printf("  %-50s %10.1f\n", phase.c_str(), median(values));
  }
  box.keep(false);  // removed once the office has ended
  return 0;
}

}  // namespace
}  // namespace tarn
