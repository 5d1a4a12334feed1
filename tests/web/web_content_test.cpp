#include "web/web_content.h"

#include <gtest/gtest.h>

#include <vector>

namespace tarn {
namespace {

TEST(web_content_test, TypeComesFromTheLastDotBehindTheLastSlash) {
  const std::pair<const char*, std::vector<const char*>> cases[] = {
      {"application/javascript", {"/a.js", "/a.tar.js"}},
      {"text/html", {"/a.htm", "/a.html"}},
      {"text/css", {"/a.css", "/.css"}},
      {"text/plain", {"/a.JS", "/a.jpeg", "/a.", "/w/README", "/site.d/logs", "/a.css?x=1"}}};
  for (const auto& [type, paths] : cases) {
    for (const char* path : paths) EXPECT_STREQ(content_type_of(path), type) << path;
  }
}

TEST(web_content_test, UriIsAppendedToTheRootByteForByte) {
  EXPECT_EQ(file_path_of_uri("/w/www-data", "/", "/index.html"), "/w/www-data/index.html");
  EXPECT_EQ(file_path_of_uri("/w/www-data", "/sub/", "/index.html"), "/w/www-data/sub/");
  EXPECT_EQ(file_path_of_uri("/w/www-data", "/a%20b+c?d#e", "/index.html"),
            "/w/www-data/a%20b+c?d#e");
}

}  // namespace
}  // namespace tarn
