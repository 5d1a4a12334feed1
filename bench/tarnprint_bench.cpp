// Ten documents of mixed kinds to PDF: ten tarnprint runs (once starting the warm office, once
// on the warm office) against ten cold `soffice --headless --convert-to pdf` runs and one soffice
// run converting all ten, all in this run, on the same inputs, each with a private profile; plus
// the peak memory of the warm office (VmHWM) and of soffice; and ten in one tarnassist list on a
// cold office pool, with the pool's memory per office and in total. Prints the median of each over the
// rounds and the ratios. Runs in a private sandbox (HOME, TMPDIR, registry), removed at the end.
//
//   build/bench/tarnprint_bench [--rounds N]
#include <fcntl.h>
#include <spawn.h>
#include <stdlib.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <QImage>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <iostream>
#include <sstream>
#include <string>
#include <vector>
#include <CLI/CLI.hpp>

#include "bench_support.h"
#include "office_client.h"
#include "office_paths.h"
#include "pdf_file.h"

extern char** environ;

namespace tarn {
namespace {

namespace fs = std::filesystem;
using bench::median;
using clock = std::chrono::steady_clock;

struct run_stats {
  double ms = 0;
  long max_rss_kb = 0;  // of the program and the children it waited for
  bool ok = false;
};

std::string find_program(const std::string& name) {
  std::string dirs = std::getenv("PATH") != nullptr ? std::getenv("PATH") : "/usr/bin:/bin";
  std::istringstream in(dirs);
  for (std::string dir; std::getline(in, dir, ':');)
    if (::access((fs::path(dir) / name).c_str(), X_OK) == 0) return fs::path(dir) / name;
  return "";
}

run_stats run_timed(const std::vector<std::string>& args) {
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_addopen(&actions, 1, "/dev/null", O_WRONLY, 0);
  posix_spawn_file_actions_addopen(&actions, 2, "/dev/null", O_WRONLY, 0);
  std::vector<char*> argv;
  for (const auto& arg : args) argv.push_back(const_cast<char*>(arg.c_str()));
  argv.push_back(nullptr);
  run_stats stats;
  const auto begin = clock::now();
  pid_t pid;
  const int rc = ::posix_spawn(&pid, argv[0], &actions, nullptr, argv.data(), environ);
  posix_spawn_file_actions_destroy(&actions);
  if (rc != 0) return stats;
  int status = 0;
  rusage usage{};
  ::wait4(pid, &status, 0, &usage);
  stats.ms = std::chrono::duration<double, std::milli>(clock::now() - begin).count();
  stats.max_rss_kb = usage.ru_maxrss;
  stats.ok = WIFEXITED(status) && WEXITSTATUS(status) == 0;
  return stats;
}

void write_text(const fs::path& path, const std::string& text) {
  std::ofstream(path, std::ios::binary | std::ios::trunc) << text;
}

const char* kWords[] = {"gateway", "document", "Grüße",  "ledger",  "quarter", "report",
                        "revenue", "forecast", "review", "meeting", "printer", "archive"};

std::string sentence(int seed, int words) {
  std::string text;
  for (int i = 0; i < words; ++i) {
    if (i) text += ' ';
    text += kWords[(seed * 7 + i * 5) % 12];
  }
  return text + ".";
}

std::string xml_head(const char* mime) {
  return std::string(R"(<?xml version="1.0" encoding="UTF-8"?>
<office:document xmlns:office="urn:oasis:names:tc:opendocument:xmlns:office:1.0" xmlns:text="urn:oasis:names:tc:opendocument:xmlns:text:1.0" xmlns:table="urn:oasis:names:tc:opendocument:xmlns:table:1.0" xmlns:draw="urn:oasis:names:tc:opendocument:xmlns:drawing:1.0" xmlns:svg="urn:oasis:names:tc:opendocument:xmlns:svg-compatible:1.0" office:version="1.2" office:mimetype=")") +
         mime + "\"><office:body>";
}

// Ten documents of about seven pages each, made by the warm office from flat ODF where a
// binary format is needed.
std::vector<fs::path> make_inputs(const fs::path& dir, const office_settings& settings) {
  fs::create_directories(dir);
  std::string text = xml_head("application/vnd.oasis.opendocument.text") + "<office:text>";
  for (int p = 0; p < 140; ++p) text += "<text:p>" + sentence(p, 40) + "</text:p>";
  write_text(dir / "source.fodt", text + "</office:text></office:body></office:document>");
  std::string sheet = xml_head("application/vnd.oasis.opendocument.spreadsheet") +
                      "<office:spreadsheet><table:table table:name=\"Ledger\">";
  std::string csv;
  for (int r = 0; r < 300; ++r) {
    sheet += "<table:table-row>";
    for (int c = 0; c < 6; ++c) {
      const std::string cell = c % 2 ? std::to_string(r * 6 + c) : kWords[(r + c) % 12];
      sheet += c % 2 ? "<table:table-cell office:value-type=\"float\" office:value=\"" + cell +
                           "\"><text:p>" + cell + "</text:p></table:table-cell>"
                     : "<table:table-cell office:value-type=\"string\"><text:p>" + cell +
                           "</text:p></table:table-cell>";
      csv += cell + (c == 5 ? "\n" : ",");
    }
    sheet += "</table:table-row>";
  }
  write_text(dir / "source.fods",
             sheet + "</table:table></office:spreadsheet></office:body></office:document>");
  std::string slides =
      xml_head("application/vnd.oasis.opendocument.presentation") + "<office:presentation>";
  for (int s = 0; s < 7; ++s)
    slides += "<draw:page draw:name=\"s" + std::to_string(s) +
              "\"><draw:frame svg:x=\"2cm\" svg:y=\"2cm\" svg:width=\"22cm\" svg:height=\"12cm\">"
              "<draw:text-box><text:p>" +
              sentence(s, 12) + "</text:p><text:p>" + sentence(s + 1, 12) +
              "</text:p></draw:text-box></draw:frame></draw:page>";
  write_text(dir / "source.fodp",
             slides + "</office:presentation></office:body></office:document>");

  std::vector<fs::path> docs;
  const struct {
    const char* flat;
    const char* format;
  } made[] = {{"fodt", "docx"}, {"fodt", "doc"}, {"fodt", "odt"},
              {"fods", "xlsx"}, {"fods", "xls"}, {"fodp", "pptx"}};
  for (const auto& m : made) {
    const fs::path out = dir / (std::string(m.format) + "-doc." + m.format);
    const auto outcome = convert_with_office(
        {dir / ("source." + std::string(m.flat)), out, m.format, std::nullopt, false}, settings);
    if (outcome.status != office_status::ok) {
      std::cerr << "tarnprint_bench: can't make " << out << ": " << outcome.message << "\n";
      std::exit(1);
    }
    docs.push_back(out);
  }
  std::string rtf = "{\\rtf1\\ansi{\\fonttbl\\f0 Times;}\\f0 ";
  std::string html = "<html><body><h1>Report</h1>";
  for (int p = 0; p < 140; ++p) {
    rtf += sentence(p, 40) + "\\par ";
    html += "<p>" + sentence(p, 40) + "</p>";
  }
  write_text(dir / "rtf-doc.rtf", rtf + "}");
  write_text(dir / "html-doc.html", html + "</body></html>");
  write_text(dir / "csv-doc.csv", csv);
  QImage image(1200, 900, QImage::Format_RGB32);
  for (int y = 0; y < image.height(); ++y)
    for (int x = 0; x < image.width(); ++x) image.setPixel(x, y, qRgb(x % 256, y % 256, 90));
  image.save(QString::fromStdString((dir / "png-doc.png").string()), "PNG");
  for (const char* name : {"rtf-doc.rtf", "html-doc.html", "csv-doc.csv", "png-doc.png"})
    docs.push_back(dir / name);
  return docs;
}

size_t pages_in(const fs::path& dir) {
  size_t pages = 0;
  for (const auto& entry : fs::directory_iterator(dir)) {
    std::string err;
    pages += pdf_page_count(entry.path(), &err).value_or(0);
  }
  return pages;
}

// A field of /proc/PID/FILE in kB ("VmHWM:", "VmRSS:" of status, "Pss:" of smaps_rollup).
long proc_kb(const std::string& pid, const char* file, const char* field) {
  std::ifstream in("/proc/" + pid + "/" + file);
  for (std::string line; std::getline(in, line);)
    if (line.rfind(field, 0) == 0) return std::strtol(line.c_str() + std::strlen(field), nullptr, 10);
  return 0;
}

// The running offices of the pool: their peak (VmHWM) and present (VmRSS) resident memory, and
// their proportional share (Pss), which counts the pages they share only once in the sum.
struct pool_memory {
  int offices = 0;
  long peak_max_kb = 0, peak_sum_kb = 0, rss_sum_kb = 0, pss_sum_kb = 0;
};
pool_memory measure_pool() {
  pool_memory m;
  std::string err;
  auto paths = office_runtime(&err);
  if (!paths) return m;
  for (const std::string slot : {"", "office-1", "office-2", "office-3"}) {
    std::ifstream pid_file(paths->dir / slot / "office.pid");
    std::string pid;
    if (!(pid_file >> pid) || ::access(("/proc/" + pid).c_str(), F_OK) != 0) continue;
    const long peak = proc_kb(pid, "status", "VmHWM:");
    ++m.offices;
    m.peak_max_kb = std::max(m.peak_max_kb, peak);
    m.peak_sum_kb += peak;
    m.rss_sum_kb += proc_kb(pid, "status", "VmRSS:");
    m.pss_sum_kb += proc_kb(pid, "smaps_rollup", "Pss:");
  }
  return m;
}

// Ten documents in one tarnassist list, the offices' start included: ms, and the pages made.
double run_assistant(const std::vector<fs::path>& docs, const fs::path& list, size_t* pages) {
  std::string text = "[FILES]\r\nCount=10\r\nDelete=0\r\n";
  for (size_t i = 0; i < docs.size(); ++i)
    text += std::to_string(i + 1) + "=\"" + docs[i].string() + "\"\r\n";
  write_text(list, text);
  const fs::path out = fs::path(std::getenv("HOME")) / "Documents" / "Tarn PDF";
  fs::remove_all(out);
  const auto stats = run_timed({std::string(TARN_DIST_DIR) + "/tarnassist", list});
  *pages = fs::exists(out) ? pages_in(out) : 0;
  if (!stats.ok) {
    std::cerr << "tarnprint_bench: tarnassist failed\n";
    std::exit(1);
  }
  return stats.ms;
}


struct round_result {
  double tarnprint_cold = 0, tarnprint_warm = 0, assistant = 0, soffice_each = 0, soffice_all = 0;
  long vmhwm_kb = 0, soffice_rss_kb = 0, soffice_all_rss_kb = 0;
  pool_memory pool;
  size_t pages_ours = 0, pages_assistant = 0, pages_soffice = 0;
};

round_result run_round(const std::vector<fs::path>& docs, const fs::path& root, int round) {
  round_result r;
  const std::string tarnprint = std::string(TARN_DIST_DIR) + "/tarnprint";
  const std::string soffice = find_program("soffice");
  const std::string profile = "-env:UserInstallation=" + file_url(root / "soffice-profile");
  const fs::path out = root / ("round-" + std::to_string(round));
  for (const char* sub : {"cold", "warm", "each", "all"}) fs::create_directories(out / sub);
  bool ok = true;

  std::string err;
  stop_office(std::chrono::seconds(10), &err);  // the assistant starts the pool afresh
  r.assistant = run_assistant(docs, out / "list.txt", &r.pages_assistant);
  r.pool = measure_pool();
  stop_office(std::chrono::seconds(10), &err);  // the first run below starts it afresh
  for (int pass = 0; pass < 2; ++pass) {
    const char* sub = pass == 0 ? "cold" : "warm";
    double total = 0;
    for (const auto& doc : docs) {
      const auto stats = run_timed(
          {tarnprint, "/p", doc, out / sub / (doc.stem().string() + ".pdf"), "/noviewpdf"});
      ok = ok && stats.ok;
      total += stats.ms;
    }
    (pass == 0 ? r.tarnprint_cold : r.tarnprint_warm) = total;
  }
  r.vmhwm_kb = measure_pool().peak_max_kb;
  r.pages_ours = pages_in(out / "warm");
  stop_office(std::chrono::seconds(10), &err);

  for (const auto& doc : docs) {
    const auto stats = run_timed({soffice, profile, "--headless", "--norestore", "--convert-to",
                                  "pdf", "--outdir", out / "each", doc});
    ok = ok && stats.ok;
    r.soffice_each += stats.ms;
    r.soffice_rss_kb = std::max(r.soffice_rss_kb, stats.max_rss_kb);
  }
  std::vector<std::string> all = {soffice,        profile, "--headless", "--norestore",
                                  "--convert-to", "pdf",   "--outdir",   out / "all"};
  for (const auto& doc : docs) all.push_back(doc);
  const auto stats = run_timed(all);
  r.soffice_all = stats.ms;
  r.soffice_all_rss_kb = stats.max_rss_kb;
  r.pages_soffice = pages_in(out / "all");
  if (!ok || !stats.ok ||
      std::distance(fs::directory_iterator(out / "all"), fs::directory_iterator()) != 10) {
    std::cerr << "tarnprint_bench: a conversion failed in round " << round << "\n";
    std::exit(1);
  }
  return r;
}

}  // namespace
}  // namespace tarn

int main(int argc, char** argv) {
  using namespace tarn;
  CLI::App app{
      "Times ten documents of mixed kinds to PDF through tarnprint (ten runs from a cold start\n"
      "of the warm office, ten on the warm office) against ten cold soffice --convert-to runs\n"
      "and one soffice run for all ten; prints medians, the ratios and peak memory.",
      "tarnprint_bench"};
  int rounds = 3;
  app.add_option("--rounds", rounds, "timed rounds")->check(CLI::Range(1, 50));
  CLI11_PARSE(app, argc, argv);
  if (find_program("soffice").empty()) {
    std::cerr << "tarnprint_bench: soffice is missing; scripts/install-deps.sh installs it\n";
    return 1;
  }

  bench::sandbox box("tarnprint-bench");
  const fs::path root = box.root();
  ::unsetenv("XDG_RUNTIME_DIR");

  office_settings settings = read_office_settings();
  settings.worker_program = std::string(TARN_DIST_DIR) + "/tarnoffice";
  std::cerr << "making ten documents in " << root << "\n";
  const auto docs = make_inputs(root / "in", settings);
  // An untimed soffice run makes its profile, so the cold runs measure start-up, not set-up.
  run_timed({find_program("soffice"), "-env:UserInstallation=" + file_url(root / "soffice-profile"),
             "--headless", "--norestore", "--convert-to", "pdf", "--outdir", root / "warm-up",
             docs.front()});

  std::vector<round_result> results;
  for (int round = 1; round <= rounds; ++round) {
    std::cerr << "round " << round << " of " << rounds << "\n";
    results.push_back(run_round(docs, root, round));
  }
  std::string err;
  stop_office(std::chrono::seconds(10), &err);

  auto med = [&](auto field) {
    std::vector<double> values;
    for (const auto& r : results) values.push_back(static_cast<double>(r.*field));
    return median(values);
  };
  const double cold = med(&round_result::tarnprint_cold), warm = med(&round_result::tarnprint_warm);
  const double each = med(&round_result::soffice_each), all = med(&round_result::soffice_all);
  std::printf("median of %d rounds\n", rounds);
  std::printf("%-52s %12s %10s %7s\n", "case", "baseline ms", "ours ms", "ratio");
  auto row = [](const char* name, double base, double ours) {
    std::printf("%-52s %12.1f %10.1f %7.3f\n", name, base, ours, ours / base);
  };
  row("10 docs: tarnprint incl. warm-up vs 10 cold soffice", each, cold);
  row("10 docs: tarnprint on warm office vs 10 cold soffice", each, warm);
  row("10 docs: tarnprint incl. warm-up vs 1 soffice for 10", all, cold);
  row("10 docs: tarnprint on warm office vs 1 soffice for 10", all, warm);
  row("10 docs: one tarnassist list, offices' start incl.", each, med(&round_result::assistant));
  std::printf("%-52s %12s %10s %7s\n", "peak memory", "baseline MB", "ours MB", "ratio");
  const double office_mb = med(&round_result::vmhwm_kb) / 1024;
  row("warm office VmHWM vs cold soffice max RSS", med(&round_result::soffice_rss_kb) / 1024,
      office_mb);
  row("warm office VmHWM vs soffice for 10 max RSS", med(&round_result::soffice_all_rss_kb) / 1024,
      office_mb);
  const double soffice_mb = med(&round_result::soffice_all_rss_kb) / 1024;
  auto pool_med = [&](long pool_memory::*field) {
    std::vector<double> values;
    for (const auto& r : results) values.push_back(static_cast<double>(r.pool.*field) / 1024);
    return median(values);
  };
  const auto& pool = results.front().pool;
  std::printf("after the tarnassist list, %d offices running:\n", pool.offices);
  row("  peak of the largest office vs soffice for 10", soffice_mb, pool_med(&pool_memory::peak_max_kb));
  row("  sum of the offices' peaks vs soffice for 10", soffice_mb, pool_med(&pool_memory::peak_sum_kb));
  row("  sum of the offices' RSS now vs soffice for 10", soffice_mb, pool_med(&pool_memory::rss_sum_kb));
  row("  sum of the offices' PSS now vs soffice for 10", soffice_mb, pool_med(&pool_memory::pss_sum_kb));
  std::printf("pages written: tarnprint %zu, tarnassist %zu, soffice %zu (per round)\n",
              results.front().pages_ours, results.front().pages_assistant,
              results.front().pages_soffice);
  return 0;
}
