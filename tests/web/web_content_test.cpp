#include "web/web_content.h"

#include <gtest/gtest.h>

#include "platform/self_exe.h"

namespace tarn {
namespace {

TEST(web_content_test, TypeComesFromTheLastDotBehindTheLastSlash) {
  const struct {
    const char* path;
    const char* type;
  } cases[] = {
      {"/w/www-data/a.js", "application/javascript"},
      {"/w/www-data/a.gif", "image/gif"},
      {"/w/www-data/a.htm", "text/html"},
      {"/w/www-data/a.html", "text/html"},
      {"/w/www-data/a.jpg", "image/jpeg"},
      {"/w/www-data/a.png", "image/png"},
      {"/w/www-data/a.css", "text/css"},
      {"/w/www-data/a.tar.js", "application/javascript"},
      {"/w/www-data/.css", "text/css"},
      {"/w/www-data/a.JS", "text/plain"},
      {"/w/www-data/a.jpeg", "text/plain"},
      {"/w/www-data/a.", "text/plain"},
      {"/w/www-data/README", "text/plain"},
      {"/w/site.d/www-data/logs", "text/plain"},
      {"/w/www-data/a.css?x=1", "text/plain"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.path);
    EXPECT_STREQ(content_type_of(c.path), c.type);
  }
}

TEST(web_content_test, UriIsAppendedToTheRootByteForByte) {
  EXPECT_EQ(file_path_of_uri("/w/www-data", "/", "/index.html"), "/w/www-data/index.html");
  EXPECT_EQ(file_path_of_uri("/w/www-data", "/sub/", "/index.html"), "/w/www-data/sub/");
  EXPECT_EQ(file_path_of_uri("/w/www-data", "/a%20b+c?d#e", "/index.html"),
            "/w/www-data/a%20b+c?d#e");
}

TEST(web_content_test, RootLiesBesideTheProgram) {
  EXPECT_EQ(web_root(), self_exe_path().parent_path().string() + "/www-data");
}

}  // namespace
}  // namespace tarn
