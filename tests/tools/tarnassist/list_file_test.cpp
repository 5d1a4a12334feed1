#include "list_file.h"

#include <gtest/gtest.h>

namespace tarn {
namespace {

TEST(list_file_test, ReadsTheGatewaysListAndToleratesItsVariants) {
  const struct {
    const char* name;
    std::string bytes;
    std::vector<std::string> paths;  // "-" for a row that is missing
    bool delete_copies;
  } cases[] = {
      {"as written", "[FILES]\r\nCount=2\r\nDelete=1\r\n1=\"/t/a b.docx\"\r\n2=\"/t/\xe9.pdf\"\r\n",
       {"/t/a b.docx", "/t/\xc3\xa9.pdf"}, true},
      {"LF, case, blanks, order", "[files]\ncount = 3\n3=\"/c\"\n 1 = \"/a\" \n", {"/a", "-", "/c"},
       false},
      {"empty row and quotes inside", "[FILES]\r\nCount=2\r\n1=\"\"\r\n2=\"/t/say \"hi\".txt\"\r\n",
       {"", "/t/say \"hi\".txt"}, false},
      {"other sections, rows past Count", "[X]\r\n1=\"/x\"\r\n[FILES]\r\nCount=1\r\n1=/a\r\n2=/b\r\n",
       {"/a"}, false},
      {"no files", "[FILES]\r\nCount=0\r\nDelete=1\r\n", {}, true},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    assist_list list;
    std::string err;
    ASSERT_TRUE(parse_list(c.bytes, &list, &err)) << err;
    std::vector<std::string> paths;
    for (const auto& row : list.rows) paths.push_back(row.present ? row.path : "-");
    EXPECT_EQ(paths, c.paths);
    EXPECT_EQ(list.delete_copies, c.delete_copies);
  }
}

TEST(list_file_test, RefusesAListItCantTrust) {
  const struct {
    std::string bytes;
    const char* err;
  } cases[] = {
      {"", "no [FILES] section"},
      {"Count=1\r\n1=\"/a\"\r\n", "no [FILES] section"},
      {"[FILES]\r\n1=\"/a\"\r\n", "no Count= line in [FILES]"},
      {"[FILES]\r\nCount=-1\r\n", "line 2: Count must be a number from 0 to 100000, got \"-1\""},
      {"[FILES]\r\nCount=2x\r\n", "line 2: Count must be a number from 0 to 100000, got \"2x\""},
      {"[FILES]\r\nCount=1\r\n/a/b.docx\r\n", "line 3: expected KEY=VALUE, got \"/a/b.docx\""},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.bytes);
    assist_list list;
    std::string err;
    EXPECT_FALSE(parse_list(c.bytes, &list, &err));
    EXPECT_EQ(err, c.err);
  }
}

TEST(list_file_test, RewrittenListKeepsTheRawPathsRenumbered) {
  assist_list list;
  std::string err;
  ASSERT_TRUE(parse_list("[FILES]\r\nCount=3\r\nDelete=1\r\n1=\"/a\"\r\n2=\"/\xe9\"\r\n3=\"/c\"\r\n",
                         &list, &err));
  EXPECT_EQ(format_list({list.rows[1], list.rows[2]}, true),
            "[FILES]\r\nCount=2\r\nDelete=1\r\n1=\"/\xe9\"\r\n2=\"/c\"\r\n");
  EXPECT_EQ(candidate_paths(list.rows[1]), (std::vector<std::string>{"/\xc3\xa9", "/\xe9"}));
  EXPECT_EQ(candidate_paths(list.rows[0]), std::vector<std::string>{"/a"});
}

}  // namespace
}  // namespace tarn
