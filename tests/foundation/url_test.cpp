// Url: resolution against a base, file URLs, path operations as Foundation performs them, and the
// object URIs of the store.
#include "foundation/url.h"

#include <gtest/gtest.h>

namespace tesselune {
namespace {

Url url(std::string_view text) {
  auto u = Url::parse(text);
  EXPECT_TRUE(u) << text;
  return u.value_or(Url());
}

TEST(UrlTest, ResolvesReferencesAsRfc3986) {
  Url base = url("http://a/b/c/d;p?q");
  // The normal and abnormal examples of RFC 3986, section 5.4.
  std::vector<std::pair<const char*, const char*>> cases = {
      {"g", "http://a/b/c/g"},
      {"./g", "http://a/b/c/g"},
      {"g/", "http://a/b/c/g/"},
      {"/g", "http://a/g"},
      {"//g", "http://g"},
      {"?y", "http://a/b/c/d;p?y"},
      {"g?y", "http://a/b/c/g?y"},
      {"#s", "http://a/b/c/d;p?q#s"},
      {"", "http://a/b/c/d;p?q"},
      {".", "http://a/b/c/"},
      {"..", "http://a/b/"},
      {"../g", "http://a/b/g"},
      {"../..", "http://a/"},
      {"../../../g", "http://a/g"},
      {"/./g", "http://a/g"},
      {"g;x=1/../y", "http://a/b/c/y"},
      {"g:h", "g:h"},
  };
  for (const auto& [reference, expected] : cases) {
    auto u = Url::parse(reference, base);
    ASSERT_TRUE(u) << reference;
    EXPECT_EQ(u->absoluteString(), expected) << reference;
    EXPECT_EQ(u->relativeString(), reference);
  }
}

TEST(UrlTest, RelativeToAHostWithoutPathGetsARootSlash) {
  auto u = Url::parse("foo.xml", url("https://www.example.com"));
  ASSERT_TRUE(u);
  EXPECT_EQ(u->absoluteString(), "https://www.example.com/foo.xml");
  EXPECT_EQ(u->host(), "www.example.com");
  EXPECT_EQ(u->scheme(), "https");
  // Equality is on the parts, not the resolved text, as NSURL's isEqual:.
  EXPECT_NE(*u, url("https://www.example.com/foo.xml"));
  EXPECT_EQ(u->absoluteUrl(), url("https://www.example.com/foo.xml"));
}

TEST(UrlTest, RejectsWhatUrlWithStringRejects) {
  for (const char* bad : {"a b", "http://x/%zz", "http://x/%4", "tab\there", "{braces}", "caf\xc3\xa9"}) {
    EXPECT_FALSE(Url::parse(bad)) << bad;
  }
  EXPECT_TRUE(Url::parse("http://x/%41"));
}

TEST(UrlTest, FileUrlsEscapeAndMarkDirectories) {
  Url folder = Url::fileUrl("/Users/me/Library/Tesselune Data Library", true);
  EXPECT_EQ(folder.absoluteString(), "file:///Users/me/Library/Tesselune%20Data%20Library/");
  EXPECT_TRUE(folder.isFileUrl());
  EXPECT_TRUE(folder.hasDirectoryPath());
  EXPECT_EQ(folder.path(), "/Users/me/Library/Tesselune Data Library");
  EXPECT_EQ(folder.lastPathComponent(), "Tesselune Data Library");
  Url odd = Url::fileUrl("/tmp/a?b#c%d", false);
  EXPECT_EQ(odd.absoluteString(), "file:///tmp/a%3Fb%23c%25d");
  EXPECT_EQ(odd.path(), "/tmp/a?b#c%d");
  Url relative = Url::fileUrl("emptyURL", false);
  EXPECT_TRUE(relative.path().starts_with("/"));
  EXPECT_TRUE(relative.path().ends_with("/emptyURL"));
}

TEST(UrlTest, AppendingAndDeletingPathComponents) {
  Url library = Url::fileUrl("/home/me/Library", true);
  Url store = library.appendingPathComponent("TesseluneStore.tesselune", false);
  EXPECT_EQ(store.absoluteString(), "file:///home/me/Library/TesseluneStore.tesselune");
  EXPECT_EQ(store.pathExtension(), "tesselune");
  Url temporary = library.appendingPathComponent("temporaryFiles", true);
  EXPECT_EQ(temporary.absoluteString(), "file:///home/me/Library/temporaryFiles/");
  EXPECT_EQ(Url::fileUrl("/a/b", false).appendingPathComponent("c d", false).absoluteString(),
            "file:///a/b/c%20d");

  EXPECT_EQ(url("file:///a/b/c").deletingLastPathComponent().absoluteString(), "file:///a/b/");
  EXPECT_EQ(url("file:///a/b/c/").deletingLastPathComponent().absoluteString(), "file:///a/b/");
  EXPECT_EQ(url("file:///a").deletingLastPathComponent().absoluteString(), "file:///");
  EXPECT_EQ(url("file:///").deletingLastPathComponent().absoluteString(), "file:///../");
  EXPECT_EQ(url("http://h/x?q=1").deletingLastPathComponent().absoluteString(), "http://h/");
}

TEST(UrlTest, PathComponentsDecodeEachSegment) {
  Url u = url("file:///a/b%20c/d/");
  EXPECT_EQ(u.pathComponents(), (std::vector<std::string>{"/", "a", "b c", "d"}));
  EXPECT_EQ(url("file:///").pathComponents(), (std::vector<std::string>{"/"}));
  EXPECT_EQ(url("file:///").lastPathComponent(), "/");
  EXPECT_EQ(url("file:///x/.hidden").pathExtension(), "");
  EXPECT_EQ(url("file:///x/a.tar.gz").pathExtension(), "gz");
  EXPECT_EQ(url("http://user@host:8080/p").port(), 8080);
  EXPECT_EQ(url("http://user@host:8080/p").host(), "host");
}

TEST(UrlTest, ObjectUrisOfTheStore) {
  Url permanent = url("x-coredata://0AD863BA-7584-40CF-8896-BD87B3280C34/Chromatogram/p12");
  EXPECT_EQ(permanent.scheme(), "x-coredata");
  EXPECT_EQ(permanent.host(), "0AD863BA-7584-40CF-8896-BD87B3280C34");
  EXPECT_EQ(permanent.pathComponents(), (std::vector<std::string>{"/", "Chromatogram", "p12"}));
  Url temporary = url("x-coredata:///Chromatogram/t0AD863BA-7584-40CF-8896-BD87B3280C342");
  EXPECT_EQ(temporary.host(), "");
  EXPECT_EQ(temporary.lastPathComponent(), "t0AD863BA-7584-40CF-8896-BD87B3280C342");
}

TEST(UrlTest, RelativePathBelowAFolder) {
  Url library = Url::fileUrl("/data/Tesselune Data Library", true);
  EXPECT_EQ(Url::fileUrl("/data/Tesselune Data Library/run 1/raw", true).relativePathFrom(library),
            "run 1/raw/");
  EXPECT_FALSE(Url::fileUrl("/data/Tesselune Data Library2/x", false).relativePathFrom(library));
  EXPECT_FALSE(url("http://data/Tesselune%20Data%20Library/x").relativePathFrom(library));
}

}  // namespace
}  // namespace tesselune
