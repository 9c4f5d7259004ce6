#include "znv/platform/url.h"

#include <gtest/gtest.h>

namespace znv {
namespace {

TEST(URL, ParsesComponentsOfHttpURL) {
    auto url = ZNVURL::fromString("http://127.0.0.1:8080/api/files/abc%20d?x=1");
    ASSERT_TRUE(url);
    EXPECT_EQ(url->scheme(), "http");
    EXPECT_EQ(url->host(), "127.0.0.1");
    EXPECT_EQ(url->port(), "8080");
    EXPECT_EQ(url->path(), "/api/files/abc d");
    EXPECT_EQ(url->query(), "x=1");
    EXPECT_EQ(url->pathComponents(), (std::vector<std::string>{"/", "api", "files", "abc d"}));
    EXPECT_EQ(url->lastPathComponent(), "abc d");
    EXPECT_FALSE(url->isFileURL());
}

TEST(URL, RejectsTextThatIsNotAnAbsoluteURL) {
    EXPECT_FALSE(ZNVURL::fromString(""));
    EXPECT_FALSE(ZNVURL::fromString("files/7"));
    EXPECT_FALSE(ZNVURL::fromString("http://"));
}

TEST(URL, FileURLsRoundTripPathsWithSpecialCharacters) {
    ZNVURL url = ZNVURL::fileURL("/tmp/a dir/résumé #1.pdf");
    EXPECT_TRUE(url.isFileURL());
    EXPECT_EQ(url.path(), "/tmp/a dir/résumé #1.pdf");
    EXPECT_EQ(url.lastPathComponent(), "résumé #1.pdf");
    EXPECT_EQ(url.pathExtension(), "pdf");
    EXPECT_EQ(url.deletingLastPathComponent().path(), "/tmp/a dir");
    EXPECT_EQ(url.deletingPathExtension().lastPathComponent(), "résumé #1");
    auto reparsed = ZNVURL::fromString(url.absoluteString());
    ASSERT_TRUE(reparsed);
    EXPECT_EQ(reparsed->path(), url.path());
}

TEST(URL, ExtensionRules) {
    EXPECT_EQ(ZNVURL::fileURL("/a/.hidden").pathExtension(), "");
    EXPECT_EQ(ZNVURL::fileURL("/a/archive.tar.gz").pathExtension(), "gz");
    EXPECT_EQ(ZNVURL::fileURL("/a/noext").pathExtension(), "");
    EXPECT_EQ(ZNVURL::fileURL("/a/trailing.").pathExtension(), "");
}

TEST(URL, ResolvesRelativeReferencesAgainstBasesWithAndWithoutSlash) {
    auto withSlash = ZNVURL::fromString("http://h:1/api/");
    auto withoutSlash = ZNVURL::fromString("http://h:1/api");
    ASSERT_TRUE(withSlash && withoutSlash);
    EXPECT_EQ(ZNVURL::resolve("files/7", *withSlash)->absoluteString(), "http://h:1/api/files/7");
    // Without the trailing slash the last segment is replaced, as RFC 3986 says.
    EXPECT_EQ(ZNVURL::resolve("files/7", *withoutSlash)->absoluteString(), "http://h:1/files/7");
    EXPECT_EQ(ZNVURL::resolve("/content/9", *withSlash)->absoluteString(), "http://h:1/content/9");
    EXPECT_EQ(ZNVURL::resolve("https://other/x", *withSlash)->absoluteString(), "https://other/x");
}

TEST(URL, AppendingComponents) {
    auto base = ZNVURL::fromString("http://h/api");
    ASSERT_TRUE(base);
    EXPECT_EQ(base->appendingPathComponent("").absoluteString(), "http://h/api/");
    EXPECT_EQ(base->appendingPathComponent("a b").absoluteString(), "http://h/api/a%20b");
    auto bare = ZNVURL::fromString("http://h");
    ASSERT_TRUE(bare);
    EXPECT_EQ(bare->path(), "");
    EXPECT_EQ(bare->absoluteString(), "http://h");
}

TEST(URL, AppendingKeepsSlashesAsSeparatorsAndTheQuery) {
    auto base = ZNVURL::fromString("http://h/api");
    ASSERT_TRUE(base);
    ZNVURL nested = base->appendingPathComponent("files/7 b");
    EXPECT_EQ(nested.absoluteString(), "http://h/api/files/7%20b");
    EXPECT_EQ(nested.pathComponents(), (std::vector<std::string>{"/", "api", "files", "7 b"}));
    EXPECT_EQ(base->appendingPathComponent("dir", true).absoluteString(), "http://h/api/dir/");
    EXPECT_EQ(base->appendingPathComponent("dir/", true).absoluteString(), "http://h/api/dir/");

    auto withQuery = ZNVURL::fromString("http://h/api?x=1");
    ASSERT_TRUE(withQuery);
    EXPECT_EQ(withQuery->appendingPathComponent("files").absoluteString(),
              "http://h/api/files?x=1");
    EXPECT_EQ(ZNVURL::fileURL("/a/b").appendingPathComponent("c/d.txt").path(), "/a/b/c/d.txt");
}

TEST(URL, ResolutionEncodesAndClimbs) {
    auto base = ZNVURL::fromString("http://h:1/api/");
    ASSERT_TRUE(base);
    EXPECT_EQ(ZNVURL::resolve("files/a b", *base)->absoluteString(), "http://h:1/api/files/a%20b");
    EXPECT_EQ(ZNVURL::resolve("../x", *base)->absoluteString(), "http://h:1/x");
    EXPECT_EQ(ZNVURL::resolve("files/7?x=1", *base)->query(), "x=1");
    EXPECT_FALSE(ZNVURL::resolve("files/7", ZNVURL()));
}

}  // namespace
}  // namespace znv
