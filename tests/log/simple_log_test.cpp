#include "log/simple_log.h"

#include <gtest/gtest.h>

#include <regex>
#include <sstream>
#include <thread>
#include <vector>

namespace tarn {
namespace {

std::vector<std::string> lines_of(const std::string& text) {
  std::vector<std::string> lines;
  std::istringstream in(text);
  for (std::string line; std::getline(in, line);) lines.push_back(line);
  return lines;
}

TEST(simple_log, RendersStartLineRuleAndNumberedEntries) {
  simple_log log("Vantu Tarn (version 5.0) GateWay started");
  log.add("TarnGateWayHandler()", -1);
  log.add("send_command(CREATE_PDF, \"a\", \"b\", \"d1\")", 0);
  log.add("minus two\n[0] forged", -2);
  log.add("", 7);
  // ctime's form: "Thu Nov 19 08:38:10 2026", the day padded with a blank.
  const std::string time =
      R"([A-Z][a-z]{2} [A-Z][a-z]{2} [ 1-3][0-9] [0-9]{2}:[0-9]{2}:[0-9]{2} [0-9]{4}, )";
  const std::string text = log.render();
  EXPECT_TRUE(std::regex_match(
      text, std::regex(time + R"(Vantu Tarn \(version 5\.0\) GateWay started\n-{54}\n)" +
                       R"(\[\.\.\.\] )" + time + R"(TarnGateWayHandler\(\)\n\[0\] )" + time +
                       R"(send_command\(CREATE_PDF, "a", "b", "d1"\)\n\[-2\] )" + time +
                       R"(minus two\\n\[0\] forged\n\[7\] )" + time + "\n")))
      << text;
}

TEST(simple_log, KeepsTheStartEntryAndThe65NewestAlsoFromManyThreads) {
  simple_log log("start");
  std::vector<std::thread> threads;
  for (int t = 0; t < 4; ++t) {
    threads.emplace_back([&log, t] {
      for (int i = 0; i < 2000; ++i) {
        log.add("thread " + std::to_string(t), i);
        if (i % 100 == 0) log.render();
      }
    });
  }
  for (auto& thread : threads) thread.join();
  EXPECT_EQ(lines_of(log.render()).size(), 2u + 65u);
  for (int i = 0; i < 66; ++i) log.add("entry " + std::to_string(i), i);
  const auto lines = lines_of(log.render());
  ASSERT_EQ(lines.size(), 2u + 65u);
  EXPECT_NE(lines[0].find(", start"), std::string::npos);
  EXPECT_EQ(lines[2].rfind("[1] ", 0), 0u);
  EXPECT_EQ(lines.back().rfind("[65] ", 0), 0u);
}

}  // namespace
}  // namespace tarn
