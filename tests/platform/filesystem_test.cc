#include "znv/platform/filesystem.h"

#include <dirent.h>
#include <gtest/gtest.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <string>
#include <vector>

#include "tests/support/test_support.h"

namespace znv {
namespace {

// Sets an environment variable for the scope of a test.
class ScopedEnv {
  public:
    ScopedEnv(const char* name, const std::string& value) : name_(name) {
        if (const char* old = getenv(name)) old_ = old, had_ = true;
        setenv(name, value.c_str(), 1);
    }
    ~ScopedEnv() {
        if (had_) {
            setenv(name_, old_.c_str(), 1);
        } else {
            unsetenv(name_);
        }
    }

  private:
    const char* name_;
    std::string old_;
    bool had_ = false;
};

std::vector<std::string> entries(const std::string& dir) {
    std::vector<std::string> names;
    DIR* d = opendir(dir.c_str());
    if (!d) return names;
    while (dirent* e = readdir(d)) {
        std::string n = e->d_name;
        if (n != "." && n != "..") names.push_back(n);
    }
    closedir(d);
    return names;
}

mode_t modeOf(const std::string& path) {
    struct stat st {};
    EXPECT_EQ(lstat(path.c_str(), &st), 0) << path;
    return st.st_mode & 07777;
}

TEST(FileSystem, HomeFallsBackToThePasswordDatabase) {
    EXPECT_EQ(ZNVHomeDirectory(), getenv("HOME"));
    ScopedEnv empty("HOME", "");
    std::string fallback = ZNVHomeDirectory();
    EXPECT_FALSE(fallback.empty());
    EXPECT_EQ(fallback.front(), '/');
}

TEST(FileSystem, PrivateTemporaryDirectoryIsCreatedPrivateAndReused) {
    std::string base = test::makeTempDir("tmpdir");
    ScopedEnv tmp("TMPDIR", base + "/");
    ZNVErrorRef error;
    std::string dir = ZNVPrivateTemporaryDirectory(&error);
    EXPECT_EQ(error, nullptr);
    EXPECT_EQ(dir, base + "/znv-" + std::to_string(geteuid()));
    EXPECT_EQ(modeOf(dir), 0700u);
    test::writeFile(dir + "/keep", "x");

    // Ours but opened up: narrowed again, content kept.
    chmod(dir.c_str(), 0777);
    EXPECT_EQ(ZNVPrivateTemporaryDirectory(&error), dir);
    EXPECT_EQ(modeOf(dir), 0700u);
    EXPECT_EQ(test::readFile(dir + "/keep"), "x");
}

TEST(FileSystem, PrivateTemporaryDirectoryRefusesWhatIsNotPrivate) {
    std::string base = test::makeTempDir("tmpdir");
    ScopedEnv tmp("TMPDIR", base);
    std::string expected = base + "/znv-" + std::to_string(geteuid());

    // A symbolic link planted by someone else, even to a directory of ours.
    std::string elsewhere = test::makeTempDir("elsewhere");
    ASSERT_EQ(symlink(elsewhere.c_str(), expected.c_str()), 0);
    ZNVErrorRef error;
    EXPECT_EQ(ZNVPrivateTemporaryDirectory(&error), "");
    ASSERT_TRUE(error);
    EXPECT_EQ(error->domain(), NSCocoaErrorDomain);
    EXPECT_NE(error->localizedDescription().find("symbolic link"), std::string::npos);
    EXPECT_EQ(modeOf(elsewhere), 0700u);
    unlink(expected.c_str());

    // A plain file in its place.
    test::writeFile(expected, "");
    error = nullptr;
    EXPECT_EQ(ZNVPrivateTemporaryDirectory(&error), "");
    EXPECT_TRUE(error);
    unlink(expected.c_str());

    // Somebody else's directory (needs the right to give it away).
    ASSERT_EQ(mkdir(expected.c_str(), 0700), 0);
    if (chown(expected.c_str(), geteuid() + 4242, static_cast<gid_t>(-1)) != 0) {
        GTEST_SKIP() << "cannot chown to another user here";
    }
    error = nullptr;
    EXPECT_EQ(ZNVPrivateTemporaryDirectory(&error), "");
    ASSERT_TRUE(error);
    EXPECT_NE(error->localizedDescription().find("another user"), std::string::npos);
}

TEST(FileSystem, DurableReplacementMovesTheSourceAndLeavesNothingBehind) {
    std::string dir = test::makeTempDir("replace");
    std::string source = dir + "/state.tmp";
    std::string target = dir + "/state";

    // Into a missing target, then over an existing one.
    test::writeFile(source, "first");
    ZNVErrorRef error;
    ASSERT_TRUE(ZNVReplaceFileDurably(source, target, &error)) << error->description();
    test::writeFile(source, "second, longer");
    ASSERT_TRUE(ZNVReplaceFileDurably(source, target, &error));
    EXPECT_EQ(test::readFile(target), "second, longer");
    EXPECT_EQ(entries(dir), std::vector<std::string>{"state"});

    // A missing source fails without touching the target.
    EXPECT_FALSE(ZNVReplaceFileDurably(source, target, &error));
    ASSERT_TRUE(error);
    EXPECT_EQ(error->domain(), NSCocoaErrorDomain);
    EXPECT_EQ(error->code(), NSFileReadNoSuchFileError);
    EXPECT_EQ(std::get<std::string>(*error->value(NSFilePathErrorKey)), source);
    EXPECT_EQ(test::readFile(target), "second, longer");

    // A target in a missing directory fails and keeps the source.
    test::writeFile(source, "third");
    EXPECT_FALSE(ZNVReplaceFileDurably(source, dir + "/missing/state", &error));
    EXPECT_EQ(error->code(), NSFileNoSuchFileError);
    EXPECT_EQ(test::readFile(source), "third");
}

TEST(FileSystem, BackgroundRemovalFreesTheNameAtOnceAndSweepsLeftovers) {
    std::string dir = test::makeTempDir("removal");
    // What a process that ended before its background removals ran left.
    test::writeFile(dir + "/.znv-removing-left-over", "old");
    test::writeFile(dir + "/staged.chunk", std::string(1 << 20, 'x'));
    test::writeFile(dir + "/kept", "kept");

    ZNVErrorRef error;
    ASSERT_TRUE(ZNVRemoveFileInBackground(dir + "/staged.chunk", &error));
    EXPECT_EQ(error, nullptr);
    struct stat st {};
    EXPECT_NE(stat((dir + "/staged.chunk").c_str(), &st), 0);  // gone from its name at once
    // The same name can be used again right away.
    test::writeFile(dir + "/staged.chunk", "new");
    EXPECT_TRUE(test::waitFor([&] { return entries(dir).size() == 2; }, std::chrono::seconds(10)));
    std::vector<std::string> left = entries(dir);
    std::sort(left.begin(), left.end());
    EXPECT_EQ(left, (std::vector<std::string>{"kept", "staged.chunk"}));
    EXPECT_EQ(test::readFile(dir + "/staged.chunk"), "new");

    // Nothing to remove is no failure; a name that cannot be moved is.
    EXPECT_TRUE(ZNVRemoveFileInBackground(dir + "/missing", &error));
    EXPECT_EQ(error, nullptr);
    test::writeFile(dir + "/plain", "");
    EXPECT_FALSE(ZNVRemoveFileInBackground(dir + "/plain/x", &error));
    ASSERT_TRUE(error);
    EXPECT_EQ(error->domain(), NSCocoaErrorDomain);
}

TEST(FileSystem, CreateDirectoriesMakesEveryLevel) {
    std::string base = test::makeTempDir("dirs");
    EXPECT_TRUE(ZNVCreateDirectories(base + "/a/b//c/"));
    EXPECT_TRUE(ZNVCreateDirectories(base + "/a/b/c"));
    struct stat st {};
    ASSERT_EQ(stat((base + "/a/b/c").c_str(), &st), 0);
    EXPECT_TRUE(S_ISDIR(st.st_mode));

    test::writeFile(base + "/file", "");
    ZNVErrorRef error;
    EXPECT_FALSE(ZNVCreateDirectories(base + "/file/sub", 0755, &error));
    EXPECT_TRUE(error);
    EXPECT_FALSE(ZNVCreateDirectories(base + "/file", 0755, &error));
}

TEST(FileSystem, BundleIdentifierAndFreeSpace) {
    // The test executable lives in the build directory.
    std::string exe = ZNVRealPath("/proc/self/exe");
    EXPECT_EQ(ZNVMainBundlePath() + "/znv_test_platform", exe);
    EXPECT_TRUE(ZNVMainBundleURL().hasDirectoryPath());
    EXPECT_EQ(ZNVMainBundleURL().path(), ZNVMainBundlePath());

    EXPECT_EQ(ZNVApplicationIdentifier(), "znv_test_platform");
    EXPECT_FALSE(ZNVSetApplicationIdentifier(""));
    EXPECT_TRUE(ZNVSetApplicationIdentifier("com.example.viewer"));
    EXPECT_FALSE(ZNVSetApplicationIdentifier("com.example.other"));
    EXPECT_EQ(ZNVApplicationIdentifier(), "com.example.viewer");

    EXPECT_GT(ZNVFreeSpaceAtPath(ZNVHomeDirectory()), 0u);
    ZNVErrorRef error;
    EXPECT_EQ(ZNVFreeSpaceAtPath("/no/such/place", &error), 0u);
    EXPECT_TRUE(error);
}

}  // namespace
}  // namespace znv
