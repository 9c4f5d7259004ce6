#include "znv/platform/url.h"

#include <gtest/gtest.h>

#include <array>
#include <optional>
#include <random>

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

// A file URL is made without the parser: whatever the path, it must be the
// URL the parser makes of the same text.
TEST(URL, FileURLsAreWhatTheParserMakesOfTheirText) {
    std::mt19937 random(20261124);
    const std::string alphabet = "/./../a-Z_~!$&'()*+,;=:@%?# \t\x01\x7f\xc3\xa9\xff";
    for (int round = 0; round < 2000; ++round) {
        std::string path = round % 3 == 0 ? "" : "/";
        const int length = static_cast<int>(random() % 24);
        for (int i = 0; i < length; ++i)
            path.push_back(alphabet[random() % alphabet.size()]);
        for (bool isDirectory : {false, true}) {
            const ZNVURL made = ZNVURL::fileURL(path, isDirectory);
            const auto parsed = ZNVURL::fromString(made.absoluteString());
            ASSERT_TRUE(parsed) << made.absoluteString();
            EXPECT_EQ(made, *parsed);
            EXPECT_EQ(made.scheme(), parsed->scheme());
            EXPECT_EQ(made.host(), parsed->host()) << made.absoluteString();
            EXPECT_EQ(made.port(), parsed->port());
            EXPECT_EQ(made.query(), parsed->query());
            EXPECT_EQ(made.path(), parsed->path());
            EXPECT_EQ(made.pathComponents(), parsed->pathComponents());
            EXPECT_EQ(made.hasDirectoryPath(), parsed->hasDirectoryPath());
            EXPECT_TRUE(made.isFileURL());
        }
    }
}

TEST(URL, ExtensionRules) {
    for (const auto& [path, extension] :
         std::vector<std::pair<std::string, std::string>>{{"/a/.hidden", ""},
                                                          {"/a/archive.tar.gz", "gz"},
                                                          {"/a/noext", ""},
                                                          {"/a/trailing.", ""}})
        EXPECT_EQ(ZNVURL::fileURL(path).pathExtension(), extension) << path;
}

// Rows of (base, reference, result): a leading '+' appends the reference as a
// path component instead of resolving it. Without its trailing slash a base
// loses its last segment on resolution, as RFC 3986 says.
TEST(URL, ResolvingAndAppendingEncodeClimbAndKeepTheQuery) {
    for (const auto& [text, reference, expected] : std::vector<std::array<std::string, 3>>{
             {"http://h:1/api/", "files/7", "http://h:1/api/files/7"},
             {"http://h:1/api", "files/7", "http://h:1/files/7"},
             {"http://h:1/api/", "/content/9", "http://h:1/content/9"},
             {"http://h:1/api/", "https://other/x", "https://other/x"},
             {"http://h:1/api/", "files/a b", "http://h:1/api/files/a%20b"},
             {"http://h:1/api/", "../x", "http://h:1/x"},
             {"http://h:1/api/", "files/7?x=1", "http://h:1/api/files/7?x=1"},
             {"http://h/api", "+", "http://h/api/"},
             {"http://h/api", "+a b", "http://h/api/a%20b"},
             {"http://h/api", "+files/7 b", "http://h/api/files/7%20b"},
             {"http://h/api?x=1", "+files", "http://h/api/files?x=1"}}) {
        SCOPED_TRACE(text + " " + reference);
        auto base = ZNVURL::fromString(text);
        ASSERT_TRUE(base);
        auto result = reference.starts_with('+')
                          ? std::optional(base->appendingPathComponent(reference.substr(1)))
                          : ZNVURL::resolve(reference, *base);
        ASSERT_TRUE(result);
        EXPECT_EQ(result->absoluteString(), expected);
    }
    EXPECT_FALSE(ZNVURL::resolve("files/7", ZNVURL()));
    auto base = ZNVURL::fromString("http://h/api");
    ASSERT_TRUE(base);
    EXPECT_EQ(base->appendingPathComponent("files/7 b").pathComponents(),
              (std::vector<std::string>{"/", "api", "files", "7 b"}));
    EXPECT_EQ(base->appendingPathComponent("dir", true).absoluteString(), "http://h/api/dir/");
    EXPECT_EQ(base->appendingPathComponent("dir/", true).absoluteString(), "http://h/api/dir/");
    EXPECT_EQ(ZNVURL::fileURL("/a/b").appendingPathComponent("c/d.txt").path(), "/a/b/c/d.txt");
    auto bare = ZNVURL::fromString("http://h");
    ASSERT_TRUE(bare && bare->path().empty());
    EXPECT_EQ(bare->absoluteString(), "http://h");
}

}  // namespace
}  // namespace znv
