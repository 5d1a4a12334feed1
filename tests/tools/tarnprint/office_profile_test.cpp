#include "office_profile.h"

#include <gtest/gtest.h>

#include <optional>

#include "support/test_env.h"

namespace tarn {
namespace {

namespace fs = std::filesystem;

size_t count(const std::string& text, const std::string& what) {
  size_t n = 0;
  for (size_t at = text.find(what); at != std::string::npos; at = text.find(what, at + 1)) ++n;
  return n;
}

class office_profile_test : public test::sandboxed_test {};

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
      "oor:op=\"fuse\"><value>2</value></prop></item>\n";
  const struct {
    const char* label;
    std::optional<std::string> before;
    bool keeps_own;
  } cases[] = {
      {"new profile", std::nullopt, false},
      {"office's entries", head + own + "</oor:items>\n", true},
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
    ASSERT_TRUE(prepare_office_profile(profile, &err)) << err;
    ASSERT_TRUE(prepare_office_profile(profile, &err)) << err;  // a second start adds nothing
    const std::string after = test::read_file(file);
    EXPECT_EQ(count(after, own), c.keeps_own ? 1u : 0u);
    EXPECT_EQ(count(after, "oor:name=\"MacroSecurityLevel\""), 1u) << after;
    EXPECT_EQ(count(after, "oor:name=\"Link\""), 2u) << after;  // text and spreadsheets
    EXPECT_EQ(count(after, "<value>0</value>"), 1u) << "only Writer's link mode: never";
    EXPECT_EQ(count(after, "<value>3</value>"), 1u) << "the highest macro security";
    EXPECT_EQ(after.substr(after.size() - 13), "</oor:items>\n");
  }
}

}  // namespace
}  // namespace tarn
