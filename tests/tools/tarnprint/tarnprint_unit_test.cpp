// tarnprint's own judgement of a source and of the office profile, without an office.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <optional>
#include <ranges>

#include "office_profile.h"
#include "source_kind.h"
#include "support/test_env.h"

namespace tarn {
namespace {

namespace fs = std::filesystem;
using namespace std::string_literals;

TEST(source_kind_test, JudgesByContent) {
  const struct {
    const char* label;
    std::string head;
    source_kind kind;
  } cases[] = {
      {"empty", "", source_kind::empty},
      {"pdf after junk", std::string(700, 'x') + "%PDF-1.4\n", source_kind::pdf},
      {"pdf marker too late", std::string(1100, 'x') + "%PDF-1.4\n", source_kind::text},
      {"zip package", "PK\x03\x04\x14\x00\x06\x00"s, source_kind::package},
      {"ole2", "\xD0\xCF\x11\xE0\xA1\xB1\x1A\xE1\x00\x00"s, source_kind::package},
      {"rtf", "{\\rtf1\\ansi Hello}", source_kind::package},
      {"png", "\x89PNG\r\n\x1A\n\x00\x00\x00\x0DIHDR"s, source_kind::image},
      {"jpeg", "\xFF\xD8\xFF\xE0\x00\x10JFIF"s, source_kind::image},
      {"gif87", "GIF87a\x10\x00"s, source_kind::image},
      {"gif89", "GIF89a\x10\x00"s, source_kind::image},
      {"tiff little-endian", "II*\x00\x08\x00\x00\x00"s, source_kind::image},
      {"tiff big-endian", "MM\x00*\x00\x00\x00\x08"s, source_kind::image},
      {"latin-1 text", "Gr\xFC\xDF\x65 aus K\xF6ln\r\n", source_kind::text},
      {"utf-16 with bom", "\xFF\xFEH\x00i\x00"s, source_kind::text},
      {"nul byte", "abc\x00\x64\x65\x66"s, source_kind::unknown},
      {"control characters", std::string(50, 'a') + "\x01\x02\x03", source_kind::unknown},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.label);
    EXPECT_EQ(sniff_source(c.head), c.kind);
  }
}

TEST(source_kind_test, Utf8CheckKnowsCutSequencesOnlyWhenAsked) {
  EXPECT_FALSE(is_utf8("Gr\xC3\xBC\xC3"));
  EXPECT_TRUE(is_utf8("Gr\xC3\xBC\xC3", /*allow_cut_end=*/true));
  EXPECT_FALSE(is_utf8("caf\xE9.txt", true));
  EXPECT_FALSE(is_utf8("\xC0\xAF", true));  // overlong "/"
}

TEST(source_kind_test, CsvLayoutFromNameAndFirstLine) {
  const struct {
    const char* name;
    std::string head;
    std::optional<int> separator;  // nullopt: not read as CSV
    int charset;
  } cases[] = {
      {"a.csv.txt", "x,y\n", std::nullopt, 0},   {"a.csv", "name,amount\n1;2;3;4\n", ',', 76},
      {"A.CSV", "name;amount;total\n", ';', 76}, {"a.csv", "name\tamount\n", '\t', 76},
      {"a.csv", "\"1,5\";\"2,5\";x\n", ';', 76}, {"a.csv", "\xEF\xBB\xBFname;amount\n", ';', 76},
      {"a.csv", "K\xF6ln;M\xFCnchen\n", ';', 1}, {"a.csv", "\xFF\xFEn\x00;\x00"s, ',', 65535},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(std::string(c.name) + " " + c.head);
    auto layout = csv_layout_of(c.name, c.head);
    ASSERT_EQ(layout.has_value(), c.separator.has_value());
    if (!layout) continue;
    EXPECT_EQ(layout->separator, *c.separator);
    EXPECT_EQ(layout->charset, c.charset);
  }
}

size_t count(std::string_view text, std::string_view what) {
  return std::ranges::distance(std::views::split(text, what)) - 1;
}

using office_profile_test = test::sandboxed_test;

// Whatever the profile held before, each forced setting is there once, with its value, and the
// office's own entries stay.
TEST_F(office_profile_test, ForcesItsSettingsAndKeepsTheRest) {
  const std::string head =
      "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<oor:items "
      "xmlns:oor=\"http://openoffice.org/2001/registry\">\n";
  const std::string own =
      "<item oor:path=\"/org.openoffice.Setup/Office\"><prop oor:name=\"ooSetupInstCompleted\" "
      "oor:op=\"fuse\"><value>true</value></prop></item>\n";
  const std::string lax =
      "<item oor:path=\"/org.openoffice.Office.Common/Security/Scripting\"><prop "
      "oor:name=\"MacroSecurityLevel\" oor:op=\"fuse\"><value>0</value></prop></item>\n"
      "<item oor:path=\"/org.openoffice.Office.Writer/Content/Update\"><prop oor:name=\"Link\" "
      "oor:op=\"fuse\"><value>2</value></prop></item>\n"
      "<item oor:path=\"/org.openoffice.Setup/Product\"><prop oor:name=\"ooSetupLastVersion\" "
      "oor:op=\"fuse\"><value>7.3</value></prop></item>\n";
  const struct {
    const char* label;
    std::optional<std::string> before;
    bool keeps_own;
  } cases[] = {
      {"new profile", std::nullopt, false},
      {"values changed since", head + lax + own + lax + "</oor:items>\n", true},
      {"damaged file", "garbage", false},
  };
  const fs::path profile = env_.root() / "profile";
  const fs::path file = profile / "user" / "registrymodifications.xcu";
  for (const auto& c : cases) {
    SCOPED_TRACE(c.label);
    fs::remove_all(profile);
    if (c.before) test::write_file(file, *c.before);
    std::string err;
    // A second start adds nothing.
    ASSERT_TRUE(prepare_office_profile(profile, "7.4", &err)) << err;
    ASSERT_TRUE(prepare_office_profile(profile, "7.4", &err)) << err;
    const std::string after = test::read_file(file);
    EXPECT_EQ(count(after, own), c.keeps_own ? 1u : 0u);
    EXPECT_EQ(count(after, "oor:name=\"MacroSecurityLevel\""), 1u) << after;
    EXPECT_EQ(count(after, "oor:name=\"Link\""), 2u) << after;  // text and spreadsheets
    EXPECT_EQ(count(after, "<value>0</value>"), 1u) << "only Writer's link mode: never";
    EXPECT_EQ(count(after, "<value>3</value>"), 1u) << "the highest macro security";
    EXPECT_EQ(count(after, "ooSetupLastVersion"), 1u) << after;
    EXPECT_EQ(count(after, "<value>7.4</value>"), 1u) << "the installed version";
    EXPECT_EQ(after.substr(after.size() - 13), "</oor:items>\n");
  }
  EXPECT_THAT(installed_office_version("/usr/lib/libreoffice/program"),
              testing::MatchesRegex("[0-9]+\\.[0-9]+"));
}

}  // namespace
}  // namespace tarn
