#include "quillon/base/url.h"

#include <gtest/gtest.h>

namespace quillon {
namespace {

TEST(UrlTest, FileURLsComponentsAndAppending) {
  Url file = Url::fileURL("/tmp/My Notes/ä.quillon");
  EXPECT_EQ(file.absoluteString(), "file:///tmp/My%20Notes/%C3%A4.quillon");
  EXPECT_EQ(file.path(), "/tmp/My Notes/ä.quillon");
  EXPECT_TRUE(file.isFileURL());
  EXPECT_FALSE(file.hasDirectoryPath());

  Url folder = Url::fileURL("/tmp/pkg/./Entities/../Changes", true);
  EXPECT_EQ(folder.absoluteString(), "file:///tmp/pkg/Changes/");
  EXPECT_EQ(folder.path(), "/tmp/pkg/Changes");
  EXPECT_EQ(Url::fileURL("/", true).absoluteString(), "file:///");
  // Paths already normal are taken as they are; dot segments and doubled
  // separators anywhere are resolved, names that merely begin with dots kept.
  for (auto [given, normal] :
       std::initializer_list<std::pair<const char*, const char*>>{{"/a/b", "/a/b"},
                                                                  {"/a/.b/..c", "/a/.b/..c"},
                                                                  {"/a/./b", "/a/b"},
                                                                  {"/a/../b", "/b"},
                                                                  {"/a//b", "/a/b"},
                                                                  {"/a/.", "/a"},
                                                                  {"/a/b/..", "/a"},
                                                                  {"//a", "/a"},
                                                                  {"/a/b/", "/a/b"}}) {
    EXPECT_EQ(Url::fileURL(given).absoluteString(), std::string("file://") + normal) << given;
  }

  // Components, extensions and appending keep one separator and encode.
  Url u = Url::fileURL("/a/b/Note.2026.json");
  EXPECT_EQ(u.lastPathComponent(), "Note.2026.json");
  EXPECT_EQ(u.pathExtension(), "json");
  EXPECT_EQ(u.pathComponents(), (std::vector<std::string>{"/", "a", "b", "Note.2026.json"}));
  EXPECT_EQ(u.deletingPathExtension().lastPathComponent(), "Note.2026");
  EXPECT_EQ(u.deletingLastPathComponent().absoluteString(), "file:///a/b/");
  EXPECT_EQ(Url::fileURL("/a/.hidden").pathExtension(), "");

  Url pkg = Url::fileURL("/docs/pkg", true);
  EXPECT_EQ(pkg.appending("Info.plist").absoluteString(), "file:///docs/pkg/Info.plist");
  EXPECT_EQ(pkg.appending("Cache", true).absoluteString(), "file:///docs/pkg/Cache/");
  EXPECT_EQ(Url::fileURL("/docs/pkg").appending("a b").path(), "/docs/pkg/a b");
  EXPECT_EQ(pkg.appending("x").appendingPathExtension("json").lastPathComponent(), "x.json");
}

TEST(UrlTest, RelativeURLsResolveAgainstTheirBase) {
  Url base = *Url::parse("https://example.org/dir/index.html");
  EXPECT_EQ(Url::parse("file.txt", &base)->absoluteString(), "https://example.org/dir/file.txt");
  EXPECT_EQ(Url::parse("../up/", &base)->absoluteString(), "https://example.org/up/");
  EXPECT_EQ(Url::parse("/root", &base)->absoluteString(), "https://example.org/root");
  Url relative = *Url::parse("file.txt", &base);
  EXPECT_EQ(relative.relativeString(), "file.txt");
  ASSERT_NE(relative.baseURL(), nullptr);
  // A string with a scheme ignores the base.
  EXPECT_EQ(Url::parse("mailto:a@b", &base)->baseURL(), nullptr);
  EXPECT_FALSE(Url::parse("has space"));
  EXPECT_FALSE(Url::parse(""));
}

}  // namespace
}  // namespace quillon
