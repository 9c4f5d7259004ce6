#include "znv/foundation/network_utilities.h"

#include <dirent.h>
#include <gtest/gtest.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include <string>
#include <vector>

#include "tests/foundation/log_capture.h"
#include "tests/support/test_support.h"
#include "znv/platform/filesystem.h"
#include "znv/platform/uuid.h"

namespace znv {
namespace {

using test::LogCapture;

std::string repeat(const std::string& piece, size_t times) {
    std::string out;
    for (size_t i = 0; i < times; ++i)
        out += piece;
    return out;
}

bool exists(const std::string& path) {
    struct stat st {};
    return lstat(path.c_str(), &st) == 0;
}

std::vector<std::string> entries(const std::string& dir) {
    std::vector<std::string> names;
    if (DIR* d = opendir(dir.c_str())) {
        while (dirent* e = readdir(d)) {
            std::string n = e->d_name;
            if (n != "." && n != "..") names.push_back(n);
        }
        closedir(d);
    }
    return names;
}

// Index lists.

TEST(IndexList, TextForm) {
    EXPECT_EQ(ZNVNetworkUtilities_stringFromIndices({}), std::nullopt);
    EXPECT_EQ(ZNVNetworkUtilities_stringFromIndices({5}), "5");
    EXPECT_EQ(ZNVNetworkUtilities_stringFromIndices({7, 2, 0, 1}), "0, 1, 2, 7");
    EXPECT_EQ(ZNVNetworkUtilities_stringFromIndices({ZNVNotFound - 1}), "9223372036854775806");
}

// Any run of separators (commas and Unicode white space) between numbers;
// reading stops at the first thing that is neither and keeps what came before.
TEST(IndexList, Reading) {
    struct Case {
        std::string text;
        std::optional<ZNVIndexSet> expected;
    };
    const ZNVIndexSet all{0, 1, 2, 7};
    const Case cases[] = {
        {"0, 1, 2, 7", all},
        {"0,1,2,7", all},
        {"7 2\n 1,,0", all},
        {",, 0 ,\t1\n2\r\n7,", all},
        {"007, 2, 1, 0", all},
        {"0\u00A01\u30002\u20287", all},
        {",, 4 ,\t9\n", ZNVIndexSet{4, 9}},
        {"", std::nullopt},
        {" ,\n\t", std::nullopt},
        {"abc", std::nullopt},
        {"3, x, 4", ZNVIndexSet{3}},
        {"12abc 13", ZNVIndexSet{12}},
        {"1; 2", ZNVIndexSet{1}},
        {"1.5, 2", ZNVIndexSet{1}},
        // Signs end the list.
        {"-1, 2", std::nullopt},
        {"+1, 2", std::nullopt},
        {"4, -1, 2", ZNVIndexSet{4}},
        // The no-index marker and anything beyond 64 bits are not indices.
        {"9223372036854775806, 1", ZNVIndexSet{1, 9223372036854775806u}},
        {"1, 9223372036854775807, 2", ZNVIndexSet{1}},
        {"1, 18446744073709551616, 2", ZNVIndexSet{1}},
        {"5, 99999999999999999999999999999999999999", ZNVIndexSet{5}},
        // Malformed UTF-8 is not a separator.
        {"1, \xFF 2", ZNVIndexSet{1}},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(ZNVNetworkUtilities_indicesFromString(c.text), c.expected) << c.text;
    }
}

TEST(IndexList, HugeHostileListsStayFast) {
    // 300000 separate numbers, descending, with duplicates: a naive insertion
    // into the set's sorted ranges would be quadratic.
    std::string text;
    for (uint64_t i = 600000; i > 0; i -= 2)
        text += std::to_string(i) + ", " + std::to_string(i) + ",";
    auto set = ZNVNetworkUtilities_indicesFromString(text);
    ASSERT_TRUE(set);
    EXPECT_EQ(set->count(), 300000u);
    EXPECT_EQ(set->firstIndex(), 2u);
    EXPECT_EQ(set->lastIndex(), 600000u);

    // A long run collapses into one range and writes back in full.
    std::string run;
    for (int i = 0; i < 5000; ++i)
        run += std::to_string(i) + ",";
    auto runSet = ZNVNetworkUtilities_indicesFromString(run);
    ASSERT_TRUE(runSet);
    EXPECT_EQ(runSet->ranges().size(), 1u);
    auto written = ZNVNetworkUtilities_stringFromIndices(*runSet);
    ASSERT_TRUE(written);
    EXPECT_EQ(written->substr(0, 9), "0, 1, 2, ");
    EXPECT_EQ(written->substr(written->size() - 6), ", 4999");
}

// File names.

TEST(SanitizeFilename, KeepsLettersDigitsDotsAndHyphens) {
    struct Case {
        std::string name;
        std::optional<std::string> expected;
    };
    const Case cases[] = {
        {"My Report (final).pdf", "MyReportfinal.pdf"},
        {"***.txt", std::nullopt},
        {"a-b_c.mov", "a-bc.mov"},
        {"README", "README"},
        {"é.png", "é.png"},
        {"archive.tar.gz", "archive.tar.gz"},
        {"v1.2 (copy).txt", "v1.2copy.txt"},
        // A leading "-" rebuilds from the whole name without hyphens and
        // appends the extension again.
        {"-x.txt", "x.txt.txt"},
        {"-report.pdf", "report.pdf.pdf"},
        {"--a-b.c", "ab.c.c"},
        {" -x.txt", "x.txt.txt"},
        {"-x", "x"},
        // The extension is never sanitised.
        {"notes.t x*t", "notes.t x*t"},
        {"photo.JPEG", "photo.JPEG"},
        // Only what follows the last "/" can hold the extension.
        {"dir.d/file", "dir.dfile"},
        {"", std::nullopt},
        {".", std::nullopt},
        {"...", std::nullopt},
        {"._-.txt", std::nullopt},
        // Non-Latin scripts are letters too.
        {"Отчёт за 2024.docx", "Отчётза2024.docx"},
        {"Σύνοψη.pdf", "Σύνοψη.pdf"},
        {"資料 (最終版).xlsx", "資料最終版.xlsx"},
        {"写真_サンプル.jpg", "写真サンプル.jpg"},
        {"보고서 #3.hwp", "보고서3.hwp"},
        {"تقرير ٢٠٢٤.pdf", "تقرير٢٠٢٤.pdf"},
        {"דוח-שנתי.pdf", "דוח-שנתי.pdf"},
        {"नमस्ते दुनिया.txt", "नमस्तेदुनिया.txt"},
        {"สวัสดี.txt", "สวัสดี.txt"},
        {"Բարեւ.txt", "Բարեւ.txt"},
        // Decomposed accents keep their combining marks.
        {"Cafe\u0301 menu.pdf", "Cafe\u0301menu.pdf"},
        // Symbols, emoji, non-breaking and ideographic spaces go.
        {"smile \U0001F600\u00A0\u3000©.png", "smile.png"},
        {"\U0001F600.png", std::nullopt},
        // Malformed bytes are dropped, the rest survives; no crash.
        {"bad\xFF\xC3(name.txt", "badname.txt"},
        {"\xE4\xB8.txt", std::nullopt},
        // In the extension too (a Latin-1 name), so the name fits a JSON request.
        {"photo.jp\xE9g", "photo.jpg"},
        {"clip.\xE9\xFF", "clip"},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(ZNVNetworkUtilities_sanitizeFilename(c.name), c.expected) << c.name;
    }
}

TEST(SanitizeFilename, CutsTheBaseAtOneHundredUTF16Units) {
    const std::string letters150 = repeat("abcdefghij", 15);
    EXPECT_EQ(ZNVNetworkUtilities_sanitizeFilename(letters150 + ".jpg"),
              letters150.substr(0, 100) + ".jpg");
    // Dropped characters do not count; the extension is never cut.
    const std::string longExtension = repeat("e", 300);
    EXPECT_EQ(ZNVNetworkUtilities_sanitizeFilename(repeat("a b", 60) + "." + longExtension),
              repeat("ab", 50) + "." + longExtension);

    // Two-byte and three-byte UTF-8 characters are one unit each.
    EXPECT_EQ(ZNVNetworkUtilities_sanitizeFilename(repeat("é", 120) + ".txt"),
              repeat("é", 100) + ".txt");
    EXPECT_EQ(ZNVNetworkUtilities_sanitizeFilename(repeat("中", 130) + ".txt"),
              repeat("中", 100) + ".txt");

    // A character beyond the BMP is two units and is never split: at units
    // 99-100 it is kept whole, at 100-101 it is left out.
    const std::string wide = "\U00020000";
    EXPECT_EQ(ZNVNetworkUtilities_sanitizeFilename(repeat("a", 98) + wide + "zz.txt"),
              repeat("a", 98) + wide + ".txt");
    EXPECT_EQ(ZNVNetworkUtilities_sanitizeFilename(repeat("a", 99) + wide + "zz.txt"),
              repeat("a", 99) + ".txt");
    EXPECT_EQ(ZNVNetworkUtilities_sanitizeFilename(repeat(wide, 60) + ".txt"),
              repeat(wide, 50) + ".txt");
    // The cut also applies to the doubled form.
    EXPECT_EQ(ZNVNetworkUtilities_sanitizeFilename("-" + letters150 + ".pdf"),
              letters150.substr(0, 100) + ".pdf");
}

TEST(SanitizeFilename, LogsANameWithoutExtension) {
    LogCapture capture(spdlog::level::warn);
    EXPECT_EQ(ZNVNetworkUtilities_sanitizeFilename("README"), "README");
    EXPECT_EQ(ZNVNetworkUtilities_sanitizeFilename("notes.txt"), "notes.txt");
    EXPECT_EQ(capture.lines(),
              std::vector<std::string>{"warning|File name \"README\" does not have an extension."});
}

// URLs and identifiers.

TEST(BaseURL, GainsATrailingSlashOnlyWhenItHasAPath) {
    auto sanitize = [](const char* text) {
        return ZNVNetworkUtilities_sanitizeBaseURL(*ZNVURL::fromString(text)).absoluteString();
    };
    EXPECT_EQ(sanitize("https://storage.example/api/files"), "https://storage.example/api/files/");
    EXPECT_EQ(sanitize("https://storage.example/api/"), "https://storage.example/api/");
    EXPECT_EQ(sanitize("https://storage.example"), "https://storage.example");
    EXPECT_EQ(sanitize("http://127.0.0.1:8080/api"), "http://127.0.0.1:8080/api/");

    // Relative request paths then resolve below the base's last segment.
    ZNVURL base = ZNVNetworkUtilities_sanitizeBaseURL(*ZNVURL::fromString("http://h:1/v2/api"));
    EXPECT_EQ(ZNVURL::resolve("files/7/complete", base)->absoluteString(),
              "http://h:1/v2/api/files/7/complete");
}

TEST(LibraryURL, LivesUnderHomeLibraryNetworkNamedAfterTheConfiguration) {
    EXPECT_EQ(ZNVNetworkUtilities_sanitizedIdentifierForConfiguration(nullptr), "live");
    ZNVAccountConfiguration unnamed(*ZNVURL::fromString("http://h/api/"));
    EXPECT_EQ(ZNVNetworkUtilities_sanitizedIdentifierForConfiguration(&unnamed), "live");
    ZNVAccountConfiguration staging(*ZNVURL::fromString("http://h/api/"), "staging");
    EXPECT_EQ(ZNVNetworkUtilities_sanitizedIdentifierForConfiguration(&staging), "staging");

    const std::string home = getenv("HOME");
    EXPECT_EQ(ZNVNetworkUtilities_libraryURLWithFileName(""), std::nullopt);
    auto url = ZNVNetworkUtilities_libraryURLWithFileName("live state #2.state");
    ASSERT_TRUE(url);
    EXPECT_EQ(*url, ZNVURL::fileURL(home + "/Library/Network/live state #2.state"));

    // Free space is that of the file system holding the home directory.
    const uint64_t free = ZNVNetworkUtilities_freeSizeAvailableOnFileSystem();
    EXPECT_GT(free, 0u);
    const uint64_t again = ZNVFreeSpaceAtPath(home);
    EXPECT_LT(free > again ? free - again : again - free, uint64_t{256} << 20);
}

TEST(AppBundle, TextPrefixOfTheResolvedExecutableDirectory) {
    const std::string bundle = ZNVMainBundlePath();
    EXPECT_TRUE(ZNVNetworkUtilities_fileAtURLIsInAppBundle(ZNVURL::fileURL("/proc/self/exe")));
    EXPECT_TRUE(
        ZNVNetworkUtilities_fileAtURLIsInAppBundle(ZNVURL::fileURL(bundle + "/not-yet-there")));
    EXPECT_FALSE(ZNVNetworkUtilities_fileAtURLIsInAppBundle(
        *ZNVURL::fromString("http://h" + bundle + "/x")));

    const std::string home = getenv("HOME");
    test::writeFile(home + "/outside.txt", "x");
    EXPECT_FALSE(
        ZNVNetworkUtilities_fileAtURLIsInAppBundle(ZNVURL::fileURL(home + "/outside.txt")));

    // A link from outside into the bundle is inside.
    ASSERT_EQ(symlink(bundle.c_str(), (home + "/bundle-link").c_str()), 0);
    EXPECT_TRUE(
        ZNVNetworkUtilities_fileAtURLIsInAppBundle(ZNVURL::fileURL(home + "/bundle-link/x")));

    // A sibling whose name starts with the bundle's name matches as well.
    const std::string sibling = bundle + "-" + ZNVUUIDString();
    ASSERT_EQ(mkdir(sibling.c_str(), 0700), 0);
    EXPECT_TRUE(ZNVNetworkUtilities_fileAtURLIsInAppBundle(ZNVURL::fileURL(sibling + "/f")));
    rmdir(sibling.c_str());
}

// File operations.

TEST(FileOperations, SizeAndContentOfFiles) {
    const std::string dir = test::makeTempDir("read");
    test::writePatternFile(dir + "/data", 3 * 1024 * 1024 + 17, 3);
    ZNVErrorRef error;
    EXPECT_EQ(ZNVNetworkUtilities_sizeOfFileAtURL(ZNVURL::fileURL(dir + "/data"), &error),
              3u * 1024 * 1024 + 17);
    EXPECT_EQ(error, nullptr);
    ASSERT_EQ(symlink((dir + "/data").c_str(), (dir + "/link").c_str()), 0);
    EXPECT_EQ(ZNVNetworkUtilities_sizeOfFileAtURL(ZNVURL::fileURL(dir + "/link")),
              3u * 1024 * 1024 + 17);
    auto data = ZNVNetworkUtilities_loadDataFromURL(ZNVURL::fileURL(dir + "/data"), &error);
    ASSERT_TRUE(data);
    EXPECT_EQ(error, nullptr);
    EXPECT_TRUE(std::string(data->begin(), data->end()) == test::readFile(dir + "/data"));

    test::writeFile(dir + "/empty", "");
    auto empty = ZNVNetworkUtilities_loadDataFromURL(ZNVURL::fileURL(dir + "/empty"));
    ASSERT_TRUE(empty);
    EXPECT_TRUE(empty->empty());
    // Files that report no size are read to their end.
    auto proc = ZNVNetworkUtilities_loadDataFromURL(ZNVURL::fileURL("/proc/self/status"));
    ASSERT_TRUE(proc);
    EXPECT_NE(std::string(proc->begin(), proc->end()).find("Name:"), std::string::npos);

    EXPECT_EQ(ZNVNetworkUtilities_sizeOfFileAtURL(*ZNVURL::fromString("https://h/data"), &error),
              0u);
    ASSERT_TRUE(error);
    EXPECT_EQ(error->domain(), NSURLErrorDomain);
    EXPECT_EQ(error->code(), -1100);
    EXPECT_EQ(error->localizedDescription(), "the URL must refer to a file");

    // A missing file: 0 or nothing, and the same error (without an
    // out-parameter: no crash).
    for (int reader = 0; reader < 2; ++reader) {
        error = nullptr;
        const ZNVURL missing = ZNVURL::fileURL(dir + "/missing");
        if (reader == 0) {
            EXPECT_EQ(ZNVNetworkUtilities_sizeOfFileAtURL(missing, &error), 0u);
            EXPECT_EQ(ZNVNetworkUtilities_sizeOfFileAtURL(missing), 0u);
        } else {
            EXPECT_FALSE(ZNVNetworkUtilities_loadDataFromURL(missing, &error));
        }
        ASSERT_TRUE(error) << reader;
        EXPECT_EQ(error->domain(), NSCocoaErrorDomain);
        EXPECT_EQ(error->code(), NSFileReadNoSuchFileError);
    }
    for (const ZNVURL& unreadable :
         {ZNVURL::fileURL(dir, true), *ZNVURL::fromString("http://h/x")}) {
        error = nullptr;
        EXPECT_FALSE(ZNVNetworkUtilities_loadDataFromURL(unreadable, &error));
        EXPECT_TRUE(error) << unreadable.absoluteString();
    }
}

TEST(FileOperations, EnsureCreatesOnlyWhatIsMissing) {
    const std::string dir = test::makeTempDir("ensure");
    const std::string nested = dir + "/a/b/c/state";
    ZNVNetworkUtilities_ensureFileAtURL(ZNVURL::fileURL(nested));
    ASSERT_TRUE(exists(nested));
    EXPECT_EQ(test::readFile(nested), "");

    test::writeFile(nested, "keep me");
    ZNVNetworkUtilities_ensureFileAtURL(ZNVURL::fileURL(nested));
    EXPECT_EQ(test::readFile(nested), "keep me");

    // A dangling link is not followed to create a file elsewhere.
    ASSERT_EQ(symlink((dir + "/elsewhere").c_str(), (dir + "/dangling").c_str()), 0);
    ZNVNetworkUtilities_ensureFileAtURL(ZNVURL::fileURL(dir + "/dangling"));
    EXPECT_FALSE(exists(dir + "/elsewhere"));

    // A parent that cannot be a directory is logged.
    test::writeFile(dir + "/plain", "");
    LogCapture capture(spdlog::level::warn);
    ZNVNetworkUtilities_ensureFileAtURL(ZNVURL::fileURL(dir + "/plain/sub/file"));
    auto lines = capture.lines();
    ASSERT_EQ(lines.size(), 1u);
    EXPECT_EQ(lines[0].rfind("warning|failed to create subdirectory for file: ", 0), 0u)
        << lines[0];

    ZNVNetworkUtilities_ensureFileAtURL(*ZNVURL::fromString("http://h/x"));
}

TEST(FileOperations, RemoveClearsFilesAndDirectoriesAndLogsFailures) {
    const std::string dir = test::makeTempDir("remove");
    test::writeFile(dir + "/file", "x");
    ZNVNetworkUtilities_removeFileAtURL(ZNVURL::fileURL(dir + "/file"));
    EXPECT_FALSE(exists(dir + "/file"));

    ZNVNetworkUtilities_ensureFileAtURL(ZNVURL::fileURL(dir + "/tree/a/b/file"));
    ZNVNetworkUtilities_removeFileAtURL(ZNVURL::fileURL(dir + "/tree", true));
    EXPECT_FALSE(exists(dir + "/tree"));

    // A link is removed, not what it points to.
    test::writeFile(dir + "/target", "x");
    ASSERT_EQ(symlink((dir + "/target").c_str(), (dir + "/link").c_str()), 0);
    ZNVNetworkUtilities_removeFileAtURL(ZNVURL::fileURL(dir + "/link"));
    EXPECT_FALSE(exists(dir + "/link"));
    EXPECT_TRUE(exists(dir + "/target"));

    LogCapture capture(spdlog::level::warn);
    ZNVNetworkUtilities_removeFileAtURL(ZNVURL::fileURL(dir + "/missing"));
    ZNVNetworkUtilities_removeFileAtURL(*ZNVURL::fromString("http://h" + dir + "/target"));
    EXPECT_TRUE(capture.lines().empty());
    EXPECT_TRUE(exists(dir + "/target"));
    // Nothing, not even root, may remove this.
    ZNVNetworkUtilities_removeFileAtURL(ZNVURL::fileURL("/proc/self/status"));
    auto lines = capture.lines();
    ASSERT_EQ(lines.size(), 1u);
    EXPECT_EQ(lines[0].rfind("warning|failed to clear out file: ", 0), 0u) << lines[0];
}

// The replacement itself is ZNVReplaceFileDurably's (FileSystem tests): here
// only what the URL form adds.
TEST(FileOperations, ProtectedReplacementTakesFileURLsOnly) {
    const std::string dir = test::makeTempDir("protect");
    const ZNVURL source = ZNVURL::fileURL(dir + "/state.new");
    const ZNVURL target = ZNVURL::fileURL(dir + "/live.state");
    test::writeFile(source.path(), "new state");

    // Not file URLs: false, no error, nothing moved.
    ZNVErrorRef error;
    auto remote = *ZNVURL::fromString("https://h/live.state");
    EXPECT_FALSE(ZNVNetworkUtilities_copyFileAtURLToProtectedTarget(remote, target, &error));
    EXPECT_FALSE(ZNVNetworkUtilities_copyFileAtURLToProtectedTarget(source, remote, &error));
    EXPECT_EQ(error, nullptr);

    ASSERT_TRUE(ZNVNetworkUtilities_copyFileAtURLToProtectedTarget(source, target, &error));
    EXPECT_EQ(error, nullptr);
    EXPECT_EQ(test::readFile(target.path()), "new state");
    EXPECT_EQ(entries(dir), std::vector<std::string>{"live.state"});
}

}  // namespace
}  // namespace znv
