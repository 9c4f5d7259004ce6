#include "znv/session/storage_path_manager.h"

#include <gtest/gtest.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <functional>
#include <nlohmann/json.hpp>

#include "tests/support/test_support.h"
#include "znv/platform/filesystem.h"
#include "znv/platform/url_session.h"
#include "znv/session/network_session_manager.h"

namespace znv {
namespace {

constexpr uint64_t MiB = 1024 * 1024;

ZNVAccountConfigurationRef configuration(const std::string& identifier = "") {
    return std::make_shared<ZNVAccountConfiguration>(*ZNVURL::fromString("http://127.0.0.1:9/api/"),
                                                     identifier);
}

std::string stagedName(const std::optional<ZNVURL>& url) {
    return url ? url->lastPathComponent() : std::string("<none>");
}

bool exists(const ZNVURL& url) {
    struct stat st {};
    return ::lstat(url.path().c_str(), &st) == 0;
}

TEST(StoragePathManager, NamesStagedFiles) {
    auto live = ZNVStoragePathManager::managerForConfiguration(configuration());
    ASSERT_TRUE(live);
    auto batch = live->uploadURLForRemoteFile("R", ZNVIndexSet::withRange(16, 8), "chunk");
    EXPECT_EQ(stagedName(batch), "ZNVStorageUpload-live-R-16.chunk");
    EXPECT_EQ(batch->path(), ZNVPrivateTemporaryDirectory() + "/ZNVStorageUpload-live-R-16.chunk");
    EXPECT_TRUE(batch->isFileURL());
    EXPECT_EQ(stagedName(live->uploadURLForRemoteFile("R", std::nullopt, "json")),
              "ZNVStorageUpload-live-R.json");
    // An empty list names like none; only the smallest index counts.
    EXPECT_EQ(stagedName(live->uploadURLForRemoteFile("R", ZNVIndexSet(), "json")),
              "ZNVStorageUpload-live-R.json");
    EXPECT_EQ(stagedName(live->uploadURLForRemoteFile("R", ZNVIndexSet{7, 5, 6}, "chunk")),
              stagedName(live->uploadURLForRemoteFile("R", ZNVIndexSet{5}, "chunk")));
    // "live" and no identifier are the same account configuration.
    auto named = ZNVStoragePathManager::managerForConfiguration(configuration("live"));
    EXPECT_EQ(stagedName(named->uploadURLForRemoteFile("R", ZNVIndexSet{0}, "chunk")),
              "ZNVStorageUpload-live-R-0.chunk");
    auto beta = ZNVStoragePathManager::managerForConfiguration(configuration("beta"));
    EXPECT_EQ(stagedName(beta->uploadURLForRemoteFile("R", std::nullopt, "json")),
              "ZNVStorageUpload-beta-R.json");
}

TEST(StoragePathManager, RefusesWhatCannotNameAFile) {
    EXPECT_FALSE(ZNVStoragePathManager::managerForConfiguration(nullptr));
    struct Case {
        ZNVStoragePathManager manager;
        std::string id;
        std::string extension;
        std::string domain;
        int64_t code;
    };
    const Case cases[] = {
        // Each case also breaks every later rule: the first one is reported.
        {ZNVStoragePathManager(nullptr), "", "", NSCocoaErrorDomain, NSFileWriteUnknownError},
        {ZNVStoragePathManager(configuration()), "", "", NSURLErrorDomain,
         NSURLErrorCannotWriteToFile},
        {ZNVStoragePathManager(configuration()), "R", "", NSCocoaErrorDomain,
         NSFileWriteInvalidFileNameError},
        {ZNVStoragePathManager(configuration()), "../../x", "json", NSURLErrorDomain,
         NSURLErrorCannotWriteToFile},
        {ZNVStoragePathManager(configuration()), "..", "json", NSURLErrorDomain,
         NSURLErrorCannotWriteToFile},
    };
    const char* messages[] = {"a configuration is required", "empty file identifier",
                              "a file extension is required", nullptr, nullptr};
    for (size_t i = 0; i < std::size(cases); ++i) {
        ZNVErrorRef error;
        EXPECT_FALSE(cases[i].manager.uploadURLForRemoteFile(cases[i].id, std::nullopt,
                                                             cases[i].extension, &error));
        ASSERT_TRUE(error) << i;
        EXPECT_EQ(error->domain(), cases[i].domain) << i;
        EXPECT_EQ(error->code(), cases[i].code) << i;
        if (messages[i]) {
            EXPECT_EQ(error->localizedDescription(), messages[i]);
        }
    }
    // Staging reports the naming error and writes nothing.
    ZNVErrorRef error;
    EXPECT_FALSE(ZNVStoragePathManager(nullptr).createUploadFileForChunkDescriptions(
        nlohmann::json::object(), "R", &error));
    EXPECT_EQ(error->localizedDescription(), "a configuration is required");
}

TEST(StoragePathManager, StagesPrivateFilesWithoutFollowingLinks) {
    ZNVStoragePathManager manager(configuration());
    auto url = manager.uploadURLForRemoteFile("R", std::nullopt, "json");
    ASSERT_TRUE(url);
    // Someone plants a link at the name, aimed at a file of ours.
    std::string victim = test::makeTempDir("victim") + "/precious";
    test::writeFile(victim, "keep me");
    ASSERT_EQ(::symlink(victim.c_str(), url->path().c_str()), 0);

    nlohmann::json document = {{"expectedChunks", {{{"index", 0}, {"sizeInBytes", 5}}}}};
    ZNVErrorRef error;
    auto staged = manager.createUploadFileForChunkDescriptions(document, "R", &error);
    ASSERT_TRUE(staged) << (error ? error->description() : "");
    EXPECT_FALSE(error);
    EXPECT_EQ(*staged, *url);
    EXPECT_EQ(test::readFile(victim), "keep me");
    struct stat st {};
    ASSERT_EQ(::lstat(staged->path().c_str(), &st), 0);
    EXPECT_TRUE(S_ISREG(st.st_mode));
    EXPECT_EQ(st.st_mode & 0777, 0600u);
    // Compact JSON.
    EXPECT_EQ(test::readFile(staged->path()),
              R"({"expectedChunks":[{"index":0,"sizeInBytes":5}]})");

    // Staging the name again replaces the file.
    ASSERT_TRUE(manager.createUploadFileForChunkDescriptions({{"a", 1}}, "R"));
    EXPECT_EQ(test::readFile(staged->path()), R"({"a":1})");
}

// The batch body goes through the writer with the copy mode and statistics
// asked for; the body itself, in either mode, and a short source failing it
// are the chunk writer's tests.
TEST(StoragePathManager, StagesAChunkBatchThroughTheWriter) {
    std::string source = test::makeTempDir("big") + "/source.bin";
    test::writePatternFile(source, 2 * 4 * MiB + 1000, 21);
    std::vector<ZNVStorageChunkRef> batch;
    for (uint64_t i = 1; i < 3; ++i)
        batch.push_back(_chunkWithIndexForFileSize(i, 2 * 4 * MiB + 1000));
    auto writer = ZNVStorageChunkWriter::writerForChunks(batch, ZNVURL::fileURL(source));

    ZNVStoragePathManager manager(configuration("hand"));
    ZNVStorageChunkWriter::CopyStatistics stats;
    ZNVErrorRef error;
    auto staged = manager.createUploadFileForChunkWriter(
        *writer, "R", &error, ZNVStorageChunkWriter::CopyMode::ReadWrite, &stats);
    ASSERT_TRUE(staged) << (error ? error->description() : "");
    EXPECT_EQ(stagedName(staged), "ZNVStorageUpload-hand-R-1.chunk");
    EXPECT_EQ(stats.kernelCopiedBytes, 0u);
    EXPECT_EQ(stats.bufferedBytes, 4 * MiB + 1000);
    const std::string body = test::readFile(staged->path());
    EXPECT_TRUE(body.ends_with("\r\n--" + writer->boundaryToken() + "--\r\n"));
    const std::string content = test::readFile(source);
    EXPECT_NE(body.find(content.substr(4 * MiB, 4 * MiB)), std::string::npos);
    EXPECT_NE(body.find(content.substr(8 * MiB)), std::string::npos);
}

// A staging that fails once its file exists removes what it wrote, or a
// full disk would stay full: the body of a source shorter than its chunks,
// and bodies cut off by the file size limit (as by a full disk) in either
// copy mode and for the assembly.
TEST(StoragePathManager, AFailedStagingLeavesNothingBehind) {
    std::string source = test::makeTempDir("short") + "/source.bin";
    test::writePatternFile(source, 4 * MiB + 1000, 3);
    const auto firstTwoChunks = [&](uint64_t fileSize) {
        std::vector<ZNVStorageChunkRef> chunks{_chunkWithIndexForFileSize(0, fileSize),
                                               _chunkWithIndexForFileSize(1, fileSize)};
        return ZNVStorageChunkWriter::writerForChunks(chunks, ZNVURL::fileURL(source));
    };
    const auto shortSource = firstTwoChunks(8 * MiB);
    const auto wholeSource = firstTwoChunks(4 * MiB + 1000);
    ZNVStoragePathManager manager(configuration("full"));
    using Mode = ZNVStorageChunkWriter::CopyMode;
    struct Case {
        const char* what;
        rlim_t sizeLimit;
        std::function<std::optional<ZNVURL>(ZNVErrorRef*)> stage;
    };
    const Case cases[] = {
        {"short source", RLIM_INFINITY,
         [&](ZNVErrorRef* e) {
             return manager.createUploadFileForChunkWriter(*shortSource, "R", e);
         }},
        {"full, kernel-side copy", MiB,
         [&](ZNVErrorRef* e) {
             return manager.createUploadFileForChunkWriter(*wholeSource, "R", e);
         }},
        {"full, read and write", MiB,
         [&](ZNVErrorRef* e) {
             return manager.createUploadFileForChunkWriter(*wholeSource, "R", e, Mode::ReadWrite);
         }},
        {"full, assembly", 8,
         [&](ZNVErrorRef* e) {
             return manager.createUploadFileForChunkDescriptions({{"expectedChunks", {1, 2, 3}}},
                                                                 "R", e);
         }},
    };
    // Past the limit a write fails with EFBIG instead of killing the process.
    const auto previousHandler = ::signal(SIGXFSZ, SIG_IGN);
    struct rlimit unlimited {};
    ASSERT_EQ(::getrlimit(RLIMIT_FSIZE, &unlimited), 0);
    for (const auto& c : cases) {
        SCOPED_TRACE(c.what);
        struct rlimit limited = unlimited;
        limited.rlim_cur = c.sizeLimit;
        ASSERT_EQ(::setrlimit(RLIMIT_FSIZE, &limited), 0);
        ZNVErrorRef error;
        const auto staged = c.stage(&error);
        ASSERT_EQ(::setrlimit(RLIMIT_FSIZE, &unlimited), 0);
        EXPECT_FALSE(staged);
        EXPECT_TRUE(error);
        std::vector<std::string> left;
        for (const auto& entry :
             std::filesystem::directory_iterator(ZNVPrivateTemporaryDirectory()))
            if (entry.path().filename().string().starts_with("ZNVStorageUpload-full-"))
                left.push_back(entry.path().filename().string());
        EXPECT_TRUE(left.empty()) << left.front();
    }
    ::signal(SIGXFSZ, previousHandler);
}

// Removal classifies the task by its request: the assemble body and the
// batch body go, nothing else is touched.
TEST(StoragePathManager, RemovesWhatATaskStaged) {
    ZNVStoragePathManager manager(configuration());
    auto session = ZNVURLSession::create(ZNVURLSessionConfiguration::defaultSessionConfiguration());
    auto task = [&](const std::string& method, const std::string& path, const std::string& tag) {
        ZNVURLRequest request(*ZNVURL::fromString("http://127.0.0.1:9" + path));
        request.setHTTPMethod(method);
        request.setValue("Bearer t", "Authorization");
        auto t = session->dataTaskWithRequest(request);
        t->setTaskDescription(tag);
        return std::shared_ptr<ZNVURLSessionTask>(t);
    };
    auto stage = [&](const std::optional<ZNVIndexSet>& indices, const std::string& extension) {
        auto url = manager.uploadURLForRemoteFile("R", indices, extension);
        test::writeFile(url->path(), "x");
        return *url;
    };
    ZNVURL json = stage(std::nullopt, "json");
    ZNVURL batch16 = stage(ZNVIndexSet{16}, "chunk");
    ZNVURL batch8 = stage(ZNVIndexSet{8}, "chunk");

    ZNVErrorRef error;
    EXPECT_TRUE(manager.removeUploadFileForTask(
        task("PUT", "/api/files/R/fullfile", "upload entire file"), &error));
    EXPECT_TRUE(manager.removeUploadFileForTask(task("POST", "/api/files", "new remote file")));
    EXPECT_TRUE(exists(json) && exists(batch16) && exists(batch8));

    EXPECT_TRUE(
        manager.removeUploadFileForTask(task("PUT", "/api/files/R", "chunk index 16, 17, 18")));
    EXPECT_FALSE(exists(batch16));
    EXPECT_TRUE(exists(batch8));
    EXPECT_TRUE(manager.removeUploadFileForTask(
        task("POST", "/api/files/R/complete", "assemble remote file")));
    EXPECT_FALSE(exists(json));
    // Removing again is no failure.
    EXPECT_TRUE(manager.removeUploadFileForTask(
        task("POST", "/api/files/R/complete", "assemble remote file"), &error));
    EXPECT_FALSE(error);
    // A batch task without a tag names no batch file: the plain name is tried.
    EXPECT_TRUE(manager.removeUploadFileForTask(task("PUT", "/api/files/R", "")));
    EXPECT_TRUE(exists(batch8));
    // Without a configuration the name cannot be formed.
    EXPECT_FALSE(ZNVStoragePathManager(nullptr).removeUploadFileForTask(
        task("PUT", "/api/files/R", "chunk index 8"), &error));
    EXPECT_EQ(error->localizedDescription(), "a configuration is required");
    EXPECT_TRUE(exists(batch8));
    session->invalidateAndCancel();
}

}  // namespace
}  // namespace znv
