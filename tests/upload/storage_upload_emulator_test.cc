// Uploads end to end against the emulator, with the real 4 MiB chunk size: the
// chunk path and the full-file path, the fallback from one to the other, the
// missing-chunk cycles, and uploads restored from an archive.
#include <gtest/gtest.h>

#include <filesystem>
#include <nlohmann/json.hpp>

#include "tests/tasks/task_test_support.h"
#include "znv/foundation/error_handler.h"
#include "znv/foundation/network_utilities.h"
#include "znv/platform/filesystem.h"
#include "znv/platform/keyed_archive.h"
#include "znv/platform/progress.h"

namespace znv {
namespace {

using test::EmulatorHarness;
namespace fs = std::filesystem;

constexpr uint64_t MiB = 1 << 20;

class StorageUploadEmulatorTest : public ::testing::Test {
  protected:
    std::string writeSource(const std::string& name, uint64_t size) {
        const std::string path = test::makeTempDir("src") + "/" + name;
        test::writePatternFile(path, size, static_cast<uint32_t>(size % 9973));
        return path;
    }
    std::shared_ptr<ZNVStorageUpload> start(const std::string& path, bool forceChunks) {
        auto upload = ZNVStorageUpload::create(ZNVURL::fileURL(path), "", harness.account, "", "",
                                               false, harness.session);
        upload->setForceChunkUploading(forceChunks);
        harness.router->add(upload);
        EXPECT_TRUE(upload->resume());
        return upload;
    }
    bool finished(const std::shared_ptr<ZNVStorageUpload>& upload) {
        return test::waitFor([&] { return upload->state() == ZNVNetworkTaskStateCompleted; },
                             std::chrono::seconds(120));
    }
    // Requests of the log whose method and path end match.
    static size_t count(const nlohmann::json& log, const std::string& method,
                        const std::string& pathSuffix) {
        size_t n = 0;
        for (const auto& entry : log) {
            const std::string path = entry.value("path", "");
            if (entry.value("method", "") == method && path.size() >= pathSuffix.size() &&
                path.compare(path.size() - pathSuffix.size(), pathSuffix.size(), pathSuffix) == 0) {
                ++n;
            }
        }
        return n;
    }

    EmulatorHarness harness;
};

TEST_F(StorageUploadEmulatorTest, FortyMebibytesThroughTheChunkPath) {
    const std::string source = writeSource("forty.bin", 40 * MiB);
    auto upload = start(source, /*forceChunks=*/true);
    EXPECT_EQ(upload->chunkCount(), 10u);
    EXPECT_EQ(upload->sizeOfLastChunk(), 4 * MiB);
    ASSERT_TRUE(finished(upload));
    ASSERT_EQ(upload->error(), nullptr) << upload->rawError()->description();
    EXPECT_TRUE(test::filesEqual(harness.storedContentPath(upload->remoteFileID()), source));
    EXPECT_EQ(upload->progress()->completedUnitCount(), 102);

    const auto log = harness.emulator.requestLog();
    const std::string id = upload->remoteFileID();
    EXPECT_EQ(count(log, "PUT", "/files/" + id), 2u) << "batches of 8 and 2 chunks";
    EXPECT_EQ(count(log, "POST", "/files/" + id + "/complete"), 1u);
    EXPECT_EQ(count(log, "PUT", "/fullfile"), 0u);
}

TEST_F(StorageUploadEmulatorTest, TenMebibytesThroughTheFullFilePath) {
    if (ZNVNetworkUtilities_freeSizeAvailableOnFileSystem() <
        ZNVStorageUploadFreeSpaceMargin + 10 * MiB) {
        GTEST_SKIP() << "the whole-file path needs 512 MiB of free space beyond the file";
    }
    const std::string source = writeSource("ten.bin", 10 * MiB);
    auto upload = start(source, /*forceChunks=*/false);
    ASSERT_TRUE(finished(upload));
    ASSERT_EQ(upload->error(), nullptr) << upload->rawError()->description();
    EXPECT_TRUE(test::filesEqual(harness.storedContentPath(upload->remoteFileID()), source));
    EXPECT_TRUE(upload->chunkIndicesToUpload().empty());
    EXPECT_EQ(upload->progress()->completedUnitCount(), upload->progress()->totalUnitCount());

    const auto log = harness.emulator.requestLog();
    EXPECT_EQ(count(log, "PUT", "/files/" + upload->remoteFileID() + "/fullfile"), 1u);
    EXPECT_EQ(count(log, "POST", "/complete"), 0u) << "a whole file needs no assembly";
}

TEST_F(StorageUploadEmulatorTest, ShortLastChunkAndFallbackFromAFailedFullFile) {
    if (ZNVNetworkUtilities_freeSizeAvailableOnFileSystem() <
        ZNVStorageUploadFreeSpaceMargin + 10 * MiB) {
        GTEST_SKIP() << "the whole-file path needs 512 MiB of free space beyond the file";
    }
    ASSERT_TRUE(harness.emulator.addFault({{"method", "PUT"},
                                           {"path", "/api/files/*/fullfile"},
                                           {"times", 1},
                                           {"action", "status"},
                                           {"status", 500}}));
    const std::string source = writeSource("three.bin", 8 * MiB + 1000);
    auto upload = start(source, /*forceChunks=*/false);
    EXPECT_EQ(upload->chunkCount(), 3u);
    EXPECT_EQ(upload->sizeOfLastChunk(), 1000u);
    EXPECT_EQ(upload->progress()->totalUnitCount(), 32);
    ASSERT_TRUE(finished(upload));
    ASSERT_EQ(upload->error(), nullptr) << upload->rawError()->description();
    EXPECT_TRUE(test::filesEqual(harness.storedContentPath(upload->remoteFileID()), source));

    const auto log = harness.emulator.requestLog();
    const std::string id = upload->remoteFileID();
    EXPECT_EQ(count(log, "PUT", "/files/" + id + "/fullfile"), 1u);
    EXPECT_EQ(count(log, "PUT", "/files/" + id), 1u) << "then all three chunks in one batch";
    EXPECT_EQ(count(log, "POST", "/files/" + id + "/complete"), 1u);
}

TEST_F(StorageUploadEmulatorTest, MissingChunksAreResentThreeTimesAndTheFourthConflictFails) {
    ASSERT_TRUE(harness.emulator.addFault({{"method", "POST"},
                                           {"path", "/api/files/*/complete"},
                                           {"times", 4},
                                           {"action", "missingChunks"},
                                           {"chunks", nlohmann::json::array({1u})}}));
    const std::string source = writeSource("conflict.bin", 2 * MiB);
    auto failing = start(source, true);
    ASSERT_TRUE(finished(failing));
    ASSERT_NE(failing->error(), nullptr);
    EXPECT_EQ(ZNVNetworkErrorHandler_serverStatusForError(failing->error()), 409);
    const auto log = harness.emulator.requestLog();
    EXPECT_EQ(count(log, "POST", "/files/" + failing->remoteFileID() + "/complete"), 4u);

    // Three conflicts are recovered from.
    harness.emulator.clearFaults();
    ASSERT_TRUE(harness.emulator.addFault({{"method", "POST"},
                                           {"path", "/api/files/*/complete"},
                                           {"times", 3},
                                           {"action", "missingChunks"},
                                           {"chunks", nlohmann::json::array({1u})}}));
    const std::string second = writeSource("recovers.bin", 5 * MiB);
    auto recovering = start(second, true);
    ASSERT_TRUE(finished(recovering));
    ASSERT_EQ(recovering->error(), nullptr) << recovering->rawError()->description();
    EXPECT_TRUE(test::filesEqual(harness.storedContentPath(recovering->remoteFileID()), second));
}

TEST_F(StorageUploadEmulatorTest, RestoredUploadWhoseSourceWasRenamedStillUploads) {
    const std::string source = writeSource("original name.bin", 6 * MiB);
    auto upload = ZNVStorageUpload::create(ZNVURL::fileURL(source), "", harness.account, "", "",
                                           false, harness.session);
    // Archived (as at the end of a session), then the file is renamed and moved
    // into a subdirectory before the next launch restores the upload.
    ZNVBytes data = ZNVKeyedArchiver::archivedDataWithRootObject(*upload);
    const std::string renamed = fs::path(source).parent_path() / "moved" / "renamed.bin";
    fs::create_directories(fs::path(renamed).parent_path());
    fs::rename(source, renamed);

    auto restored = std::dynamic_pointer_cast<ZNVStorageUpload>(
        ZNVKeyedUnarchiver::unarchivedObjectOfClasses({"ZNVNetworkTask"}, data));
    ASSERT_NE(restored, nullptr);
    ASSERT_EQ(restored->error(), nullptr) << restored->rawError()->description();
    EXPECT_EQ(restored->sourceURL()->path(), ZNVRealPath(renamed));
    EXPECT_EQ(restored->remoteFilename(), "originalname.bin");
    restored->connectToAccount(harness.account, harness.session, nullptr);
    restored->setForceChunkUploading(true);
    harness.router->add(restored);
    ASSERT_TRUE(restored->resume());
    ASSERT_TRUE(finished(restored));
    ASSERT_EQ(restored->error(), nullptr) << restored->rawError()->description();
    EXPECT_TRUE(test::filesEqual(harness.storedContentPath(restored->remoteFileID()), renamed));
}

TEST_F(StorageUploadEmulatorTest, RestoredUploadWhoseSourceGrewPastAChunkBoundaryFails) {
    const std::string source = writeSource("grows.bin", 4 * MiB);
    auto upload = ZNVStorageUpload::create(ZNVURL::fileURL(source), "", harness.account, "", "",
                                           false, harness.session);
    ZNVBytes data = ZNVKeyedArchiver::archivedDataWithRootObject(*upload);
    {
        std::FILE* file = std::fopen(source.c_str(), "ab");
        ASSERT_NE(file, nullptr);
        std::fputc('!', file);
        std::fclose(file);
    }
    auto restored = std::dynamic_pointer_cast<ZNVStorageUpload>(
        ZNVKeyedUnarchiver::unarchivedObjectOfClasses({"ZNVNetworkTask"}, data));
    ASSERT_NE(restored, nullptr);
    ASSERT_NE(restored->error(), nullptr);
    EXPECT_EQ(restored->error()->localizedDescription(),
              "The source of the upload has changed or moved.");
    restored->connectToAccount(harness.account, harness.session, nullptr);
    EXPECT_FALSE(restored->resume()) << "a failed upload does not start";
}

TEST_F(StorageUploadEmulatorTest, InterruptedChunkBatchIsRecoveredSilently) {
    // The first chunk batch is refused with 503, which a task retries on its own.
    ASSERT_TRUE(harness.emulator.addFault({{"method", "PUT"},
                                           {"path", "/api/files/*"},
                                           {"times", 1},
                                           {"action", "status"},
                                           {"status", 503}}));
    const std::string source = writeSource("retry.bin", 3 * MiB);
    auto upload = start(source, true);
    ASSERT_TRUE(test::waitFor([&] { return upload->rawError() != nullptr; }));
    EXPECT_EQ(upload->error(), nullptr);
    EXPECT_EQ(upload->state(), ZNVNetworkTaskStateSuspended);
    upload->automaticallyRecoverFromError();
    EXPECT_EQ(upload->remainingAttemptsForAutomaticErrorRecovery(), 4u);
    ASSERT_TRUE(upload->resume());
    ASSERT_TRUE(finished(upload));
    ASSERT_EQ(upload->error(), nullptr) << upload->rawError()->description();
    EXPECT_TRUE(test::filesEqual(harness.storedContentPath(upload->remoteFileID()), source));
}

}  // namespace
}  // namespace znv
