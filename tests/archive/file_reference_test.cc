#include "znv/platform/file_reference.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <filesystem>
#include <string>

#include "tests/support/test_support.h"

namespace znv {
namespace {

namespace fs = std::filesystem;
using test::makeTempDir;
using test::writeFile;

// A folder tree for one test: root/a/b/file.txt with siblings around it.
class FileReferenceTest : public ::testing::Test {
  protected:
    void SetUp() override {
        root_ = fs::canonical(makeTempDir("ref")).string();
        fs::create_directories(root_ + "/a/b");
        fs::create_directories(root_ + "/a/c");
        file_ = root_ + "/a/b/file.txt";
        writeFile(file_, "payload");
    }

    ZNVFileReference reference() {
        ZNVErrorRef error;
        auto ref = ZNVFileReference::create(file_, &error);
        EXPECT_TRUE(ref) << (error ? error->description() : "");
        return *ref;
    }

    static void move(const std::string& from, const std::string& to) {
        ASSERT_EQ(::rename(from.c_str(), to.c_str()), 0) << from << " -> " << to;
    }

    std::string root_;
    std::string file_;
};

TEST_F(FileReferenceTest, CreationNeedsAnExistingFileAndResolvesSymbolicLinks) {
    ZNVErrorRef error;
    EXPECT_FALSE(ZNVFileReference::create(root_ + "/a/b/missing", &error));
    ASSERT_TRUE(error);
    EXPECT_EQ(error->domain(), NSCocoaErrorDomain);
    EXPECT_EQ(error->code(), NSFileReadNoSuchFileError);
    EXPECT_EQ(error->stringValue(NSFilePathErrorKey), root_ + "/a/b/missing");
    EXPECT_FALSE(ZNVFileReference::create("", &error));
    EXPECT_TRUE(error);
    EXPECT_FALSE(ZNVFileReference::createFromURL(*ZNVURL::fromString("https://h/x"), &error));
    EXPECT_TRUE(error);

    // Through a link to the folder and a link to the file, the reference
    // names the file itself at its real path.
    fs::create_directory_symlink(root_ + "/a/b", root_ + "/linkdir");
    fs::create_symlink(file_, root_ + "/linkfile");
    for (const std::string& path : {root_ + "/linkdir/file.txt", root_ + "/linkfile"}) {
        auto ref = ZNVFileReference::create(path, &error);
        ASSERT_TRUE(ref) << path;
        EXPECT_FALSE(error);
        EXPECT_EQ(ref->lastKnownPath(), file_);
        EXPECT_EQ(ref->inode(), reference().inode());
    }
    struct stat st {};
    ASSERT_EQ(::stat(file_.c_str(), &st), 0);
    EXPECT_EQ(reference().inode(), st.st_ino);
    EXPECT_EQ(reference().device(), st.st_dev);
}

TEST_F(FileReferenceTest, FollowsTheFileThroughRenamesAndMoves) {
    ZNVFileReference ref = reference();
    EXPECT_EQ(ref.resolvePath(), file_);

    struct Step {
        const char* what;
        std::string to;
    };
    const std::vector<Step> steps = {
        {"renamed in its folder", root_ + "/a/b/renamed.txt"},
        {"moved into a subfolder", root_ + "/a/b/sub/deeper.txt"},
        {"moved into the parent folder", root_ + "/a/up.txt"},
        {"moved into a sibling folder", root_ + "/a/c/sibling.txt"},
        {"moved two levels up", root_ + "/top.txt"},
        {"moved back", file_},
    };
    fs::create_directories(root_ + "/a/b/sub");
    std::string current = file_;
    for (const Step& step : steps) {
        SCOPED_TRACE(step.what);
        move(current, step.to);
        current = step.to;
        // The reference keeps its last known path; each resolution searches.
        EXPECT_EQ(ref.resolvePath(), current);
        auto url = ZNVFilePathURL(ref.referenceURL());
        ASSERT_TRUE(url);
        EXPECT_EQ(url->path(), current);
    }

    // The folder holding the file is renamed: the search starts at the
    // nearest ancestor that still exists.
    move(root_ + "/a/b", root_ + "/a/b-renamed");
    EXPECT_EQ(ref.resolvePath(), root_ + "/a/b-renamed/file.txt");

    // Moved away and another file put at its old path: the original wins.
    fs::create_directories(root_ + "/a/b");
    move(root_ + "/a/b-renamed/file.txt", root_ + "/a/c/moved.txt");
    writeFile(file_, "a different file with the old name");
    EXPECT_EQ(ref.resolvePath(), root_ + "/a/c/moved.txt");
}

TEST_F(FileReferenceTest, DeletedOrReplacedFilesDoNotResolve) {
    ZNVFileReference ref = reference();

    // Another file put in its place (made before the original goes away, so
    // it cannot reuse the inode number) is not the referenced file.
    std::string replacement = root_ + "/a/b/replacement";
    writeFile(replacement, "payload");
    move(replacement, file_);
    EXPECT_FALSE(ref.isAt(file_));
    EXPECT_EQ(ref.resolvePath(), std::nullopt);

    // A later file that reused the inode number has another birth time (where
    // the file system records one).
    ZNVFileReference current = reference();
    if (current.birthNanoseconds() != 0) {
        ZNVFileReference older(current.device(), current.inode(), file_,
                               current.birthNanoseconds() - 1);
        EXPECT_FALSE(older.isAt(file_));
        EXPECT_EQ(older.resolvePath(), std::nullopt);
    }

    // Deleted.
    ZNVFileReference second = reference();
    ASSERT_EQ(::unlink(file_.c_str()), 0);
    EXPECT_EQ(second.resolvePath(), std::nullopt);
    EXPECT_EQ(ZNVFilePathURL(second.referenceURL()), std::nullopt);
}

TEST_F(FileReferenceTest, SearchIsBoundedAndDoesNotFollowLinks) {
    ZNVFileReference ref = reference();
    ZNVFileReference::SearchLimits tight{/*ascend=*/1, /*descend=*/1, /*maxEntries=*/1000};

    // Too deep below the last known folder for the limits.
    fs::create_directories(root_ + "/a/b/x/y/z");
    move(file_, root_ + "/a/b/x/y/z/deep.txt");
    EXPECT_EQ(ref.resolvePath(tight), std::nullopt);
    EXPECT_EQ(ref.resolvePath(), root_ + "/a/b/x/y/z/deep.txt");  // the default reaches it

    // Too few entries allowed to get there.
    EXPECT_EQ(ref.resolvePath({3, 3, 2}), std::nullopt);

    // Reachable only through a symbolic link: not found.
    std::string outside = makeTempDir("outside");
    move(root_ + "/a/b/x/y/z/deep.txt", outside + "/away.txt");
    fs::create_directory_symlink(outside, root_ + "/a/b/link");
    EXPECT_EQ(ref.resolvePath(tight), std::nullopt);
    // A link to the file itself at the old path is not the file either.
    fs::create_symlink(outside + "/away.txt", file_);
    EXPECT_EQ(ref.resolvePath(tight), std::nullopt);
}

TEST_F(FileReferenceTest, ReferenceURLCarriesTheWholeReference) {
    std::string odd = root_ + "/a/b/odd name #1 ?&path=x %41 é+.txt";
    writeFile(odd, "x");
    auto ref = ZNVFileReference::create(odd);
    ASSERT_TRUE(ref);
    ZNVURL url = ref->referenceURL();
    EXPECT_TRUE(url.isFileURL());
    EXPECT_TRUE(ZNVFileReference::isFileReferenceURL(url));
    EXPECT_FALSE(ZNVFileReference::isFileReferenceURL(ZNVURL::fileURL(odd)));
    EXPECT_EQ(ZNVFileReference::fromReferenceURL(url), ref);
    EXPECT_EQ(ZNVFilePathURL(url), ZNVURL::fileURL(odd));
    auto viaURL = ZNVFileReferenceURL(ZNVURL::fileURL(odd));
    ASSERT_TRUE(viaURL);
    EXPECT_EQ(*viaURL, url);

    // A plain file URL is its own path URL; other URLs have none.
    EXPECT_EQ(ZNVFilePathURL(ZNVURL::fileURL(odd)), ZNVURL::fileURL(odd));
    EXPECT_EQ(ZNVFilePathURL(*ZNVURL::fromString("http://h/x")), std::nullopt);
    for (const char* bad :
         {"file:///.file/id=1?birth=0&path=%2Fx", "file:///.file/id=a.b?birth=0&path=%2Fx",
          "file:///.file/id=1.2?path=%2Fx", "file:///.file/id=1.2?birth=0&path=rel",
          "file:///.file/id=1.99999999999999999999999?birth=0&path=%2Fx"}) {
        EXPECT_EQ(ZNVFileReference::fromReferenceURL(*ZNVURL::fromString(bad)), std::nullopt)
            << bad;
        EXPECT_EQ(ZNVFilePathURL(*ZNVURL::fromString(bad)), std::nullopt) << bad;
    }
}

TEST_F(FileReferenceTest, BookmarkRecordsTheFileAndResolvesAfterAMove) {
    ZNVErrorRef error;
    auto data = ZNVBookmark::createData(ZNVURL::fileURL(file_), &error);
    ASSERT_TRUE(data) << (error ? error->description() : "");
    EXPECT_FALSE(error);

    struct stat st {};
    ASSERT_EQ(::stat(file_.c_str(), &st), 0);
    auto bookmark = ZNVBookmark::fromData(*data, &error);
    ASSERT_TRUE(bookmark);
    EXPECT_EQ(bookmark->fileSize(), 7u);
    auto mtimeNs = std::chrono::duration_cast<std::chrono::nanoseconds>(
                       bookmark->modificationDate().time_since_epoch())
                       .count();
    EXPECT_EQ(mtimeNs, int64_t(st.st_mtim.tv_sec) * 1000000000 + st.st_mtim.tv_nsec);
    EXPECT_EQ(bookmark->reference().lastKnownPath(), file_);
    EXPECT_EQ(bookmark->data(), *data);

    bool stale = true;
    EXPECT_EQ(ZNVBookmark::resolveData(*data, &stale, &error), ZNVURL::fileURL(file_));
    EXPECT_FALSE(stale);

    // Growing the file later does not change what the bookmark recorded.
    writeFile(file_, "payload and more");
    move(file_, root_ + "/a/c/elsewhere.txt");
    EXPECT_EQ(ZNVBookmark::resolveData(*data, &stale, &error),
              ZNVURL::fileURL(root_ + "/a/c/elsewhere.txt"));
    EXPECT_TRUE(stale);
    EXPECT_FALSE(error);
    EXPECT_EQ(ZNVBookmark::fromData(*data)->fileSize(), 7u);

    ASSERT_EQ(::unlink((root_ + "/a/c/elsewhere.txt").c_str()), 0);
    EXPECT_FALSE(ZNVBookmark::resolveData(*data, &stale, &error));
    ASSERT_TRUE(error);
    EXPECT_EQ(error->domain(), NSCocoaErrorDomain);
    EXPECT_EQ(error->code(), NSFileNoSuchFileError);
    EXPECT_EQ(error->stringValue(NSFilePathErrorKey), file_);

    EXPECT_FALSE(ZNVBookmark::createData(ZNVURL::fileURL(file_), &error));
    EXPECT_EQ(error->code(), NSFileReadNoSuchFileError);
    EXPECT_FALSE(ZNVBookmark::createData(*ZNVURL::fromString("https://h/f"), &error));
    EXPECT_TRUE(error);

    // A file name that is not UTF-8 is kept byte for byte.
    std::string latin1 = root_ + "/a/b/\xff\xfe-latin1-\xe9.bin";
    writeFile(latin1, "bytes");
    auto latin1Data = ZNVBookmark::createData(ZNVURL::fileURL(latin1));
    ASSERT_TRUE(latin1Data);
    auto url = ZNVBookmark::resolveData(*latin1Data, &stale);
    ASSERT_TRUE(url);
    EXPECT_EQ(url->path(), latin1);
    EXPECT_FALSE(stale);
}

TEST_F(FileReferenceTest, DamagedBookmarkDataIsAnError) {
    auto valid = ZNVBookmark::createData(ZNVURL::fileURL(file_));
    ASSERT_TRUE(valid);
    auto json = nlohmann::json::parse(valid->begin(), valid->end());
    auto bytes = [](const std::string& text) { return ZNVBytes(text.begin(), text.end()); };
    // The valid bookmark with members replaced; a null member is removed.
    auto with = [&](const nlohmann::json& patch) {
        auto copy = json;
        copy.merge_patch(patch);
        return bytes(copy.dump());
    };
    std::vector<std::pair<std::string, ZNVBytes>> cases = {
        {"empty", {}},
        {"not JSON", bytes("bookmark")},
        {"truncated", ZNVBytes(valid->begin(), valid->begin() + valid->size() / 2)},
        {"array", bytes("[]")},
        {"an archive, not a bookmark", bytes(R"({"$archiver":"ZNVKeyedArchiver"})")},
        {"future version", with({{"version", 2}})},
        {"no inode", with({{"inode", nullptr}})},
        {"negative inode", with({{"inode", -1}})},
        {"device as text", with({{"device", "2049"}})},
        {"no size", with({{"size", nullptr}})},
        {"no modification time", with({{"modificationTimeNanoseconds", nullptr}})},
        {"no path", with({{"path", nullptr}})},
        {"relative path", with({{"path", "a/b/file.txt"}})},
        {"path data not base64", with({{"path", nullptr}, {"pathData", "*"}})},
        {"huge", ZNVBytes(1 << 20, ' ')},
        {"deep", bytes(std::string(100000, '[') + std::string(100000, ']'))},
    };
    for (const auto& [name, data] : cases) {
        SCOPED_TRACE(name);
        ZNVErrorRef error;
        bool stale = true;
        EXPECT_NO_THROW(EXPECT_FALSE(ZNVBookmark::resolveData(data, &stale, &error)));
        ASSERT_TRUE(error);
        EXPECT_EQ(error->domain(), NSCocoaErrorDomain);
        EXPECT_EQ(error->code(), NSFileReadCorruptFileError);
        EXPECT_FALSE(stale);
    }
}

}  // namespace
}  // namespace znv
