// Uploads end to end against the emulator, with the real 4 MiB chunk size: the
// chunk path (batches staged one ahead), the missing-chunk cycles, sources
// that change, and uploads restored from an archive. The whole-file path, the
// fallback from a failed whole file to chunks and the silent recovery of a
// refused batch are seen through the managers in tests/e2e.
#include <gtest/gtest.h>

#include <filesystem>
#include <map>
#include <nlohmann/json.hpp>

#include "tests/foundation/log_capture.h"
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
    std::shared_ptr<ZNVStorageUpload> make(const std::string& path) {
        return ZNVStorageUpload::create(ZNVURL::fileURL(path), "", harness.account, "", "", false,
                                        harness.session);
    }
    std::shared_ptr<ZNVStorageUpload> start(const std::string& path, bool forceChunks) {
        auto upload = make(path);
        upload->setForceChunkUploading(forceChunks);
        harness.router->add(upload);
        EXPECT_TRUE(upload->resume());
        return upload;
    }
    bool finished(const std::shared_ptr<ZNVStorageUpload>& upload) {
        return test::waitFor([&] { return upload->state() == ZNVNetworkTaskStateCompleted; },
                             std::chrono::seconds(120));
    }
    // Reconnects a decoded upload and runs it on chunks to its end.
    bool runRelaunched(const std::shared_ptr<ZNVStorageUpload>& restored) {
        restored->connectToAccount(harness.account, harness.session, nullptr);
        restored->setForceChunkUploading(true);
        harness.router->add(restored);
        return restored->resume() && finished(restored);
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

TEST_F(StorageUploadEmulatorTest,
       MissingChunksAreResentThreeTimesTheFourthConflictFailsAndACompletedUploadOutlivesItsSource) {
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

    // Three conflicts were recovered from: a fourth assembly was asked for.
    // Re-sent chunks being stored right is seen in tests/e2e.
    harness.emulator.clearFaults();
    const std::string second = writeSource("completes.bin", 5 * MiB);
    auto completed = start(second, true);
    ASSERT_TRUE(finished(completed));
    ASSERT_EQ(completed->error(), nullptr) << completed->rawError()->description();
    EXPECT_TRUE(test::filesEqual(harness.storedContentPath(completed->remoteFileID()), second));

    // A completed upload is history: its source may be deleted before the
    // next launch without turning it into a failure.
    ZNVBytes data = ZNVKeyedArchiver::archivedDataWithRootObject(*completed);
    fs::remove(second);
    auto restored = test::unarchivedTask<ZNVStorageUpload>(data);
    ASSERT_NE(restored, nullptr);
    EXPECT_EQ(restored->state(), ZNVNetworkTaskStateCompleted);
    EXPECT_EQ(restored->rawError(), nullptr);
    EXPECT_EQ(restored->remoteFileID(), completed->remoteFileID());
    EXPECT_EQ(restored->chunkCount(), 2u);
    EXPECT_EQ(restored->sourceFileSize(), 5 * MiB);
}

TEST_F(StorageUploadEmulatorTest, RestoredUploadWhoseSourceWasRenamedStillUploads) {
    const std::string source = writeSource("original name.bin", 6 * MiB);
    auto upload = make(source);
    // Archived (as at the end of a session), then the file is renamed and moved
    // into a subdirectory before the next launch restores the upload.
    ZNVBytes data = ZNVKeyedArchiver::archivedDataWithRootObject(*upload);
    const std::string renamed = fs::path(source).parent_path() / "moved" / "renamed.bin";
    fs::create_directories(fs::path(renamed).parent_path());
    ASSERT_EQ(upload->sourceURL()->path(), ZNVRealPath(source));
    fs::rename(source, renamed);
    // The live upload follows the file too, past what it remembered of the
    // old path.
    EXPECT_EQ(upload->sourceURL()->path(), ZNVRealPath(renamed));

    auto restored = test::unarchivedTask<ZNVStorageUpload>(data);
    ASSERT_NE(restored, nullptr);
    ASSERT_EQ(restored->error(), nullptr) << restored->rawError()->description();
    EXPECT_EQ(restored->sourceURL()->path(), ZNVRealPath(renamed));
    EXPECT_EQ(restored->remoteFilename(), "originalname.bin");
    ASSERT_TRUE(runRelaunched(restored));
    ASSERT_EQ(restored->error(), nullptr) << restored->rawError()->description();
    EXPECT_TRUE(test::filesEqual(harness.storedContentPath(restored->remoteFileID()), renamed));
}

// A source changed between two steps of its upload never completes: the
// upload is driven one step at a time (an unreachable network suspends it
// after every answer), the file is changed, and the next step must refuse.
TEST_F(StorageUploadEmulatorTest, ASourceChangedBetweenStepsFailsTheUpload) {
    enum class Change { Rewrite, Grow, Truncate };
    struct Case {
        const char* name;
        bool chunks;
        int stepsBefore;  // answers handled before the change (create = 1)
        Change change;
        const char* refusedPath;  // the request that must never be sent
    };
    const bool wholeFileFits = test::wholeFileUploadFits(33 * MiB);
    const std::vector<Case> cases = {
        {"rewritten before the second batch", true, 2, Change::Rewrite, "/complete"},
        {"truncated before the second batch", true, 2, Change::Truncate, "/complete"},
        {"grown before the assembly", true, 3, Change::Grow, "/complete"},
        {"rewritten before the whole file", false, 1, Change::Rewrite, "/fullfile"},
        {"grown before the whole file", false, 1, Change::Grow, "/fullfile"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        if (!c.chunks && !wholeFileFits) continue;
        harness.emulator.clearRequestLog();
        const std::string source = writeSource("changing.bin", 32 * MiB + 1000);  // 9 chunks
        harness.router->setReachable(false);
        auto upload = make(source);
        upload->setForceChunkUploading(c.chunks);
        harness.router->add(upload);
        // Chunks: an early create leaves every chunk to send; whole: a create
        // answered while unreachable leaves the full-file request next.
        if (c.chunks) {
            upload->resolveRemoteFileID();
        } else {
            ASSERT_TRUE(upload->resume());
        }
        int handled = 1;
        const auto suspendedAfter = [&](int steps) {
            return test::waitFor([&] {
                if (upload->state() != ZNVNetworkTaskStateSuspended ||
                    upload->remoteFileID().empty())
                    return false;
                const uint64_t left = upload->chunkIndicesToUpload().count();
                return left == (steps == 1 ? (c.chunks ? 9u : 0u) : steps == 2 ? 1u : 0u);
            });
        };
        ASSERT_TRUE(suspendedAfter(1));
        while (handled < c.stepsBefore) {
            ASSERT_TRUE(upload->resume());
            ASSERT_TRUE(suspendedAfter(++handled));
        }
        ASSERT_EQ(upload->rawError(), nullptr);

        switch (c.change) {
            case Change::Rewrite:  // same size, other bytes
                test::writePatternFile(source, 32 * MiB + 1000, 77);
                break;
            case Change::Grow:
                test::appendFile(source, "more");
                break;
            case Change::Truncate:
                fs::resize_file(source, 5 * MiB);
                break;
        }
        harness.router->setReachable(true);
        ASSERT_TRUE(upload->resume());
        ASSERT_TRUE(finished(upload));
        ASSERT_NE(upload->error(), nullptr);
        EXPECT_EQ(upload->error()->domain(), NSURLErrorDomain);
        EXPECT_EQ(upload->error()->code(), NSURLErrorFileDoesNotExist);
        EXPECT_EQ(upload->error()->localizedDescription(),
                  "The source of the upload has changed or moved.");
        const auto log = harness.emulator.requestLog();
        EXPECT_EQ(count(log, c.chunks ? "POST" : "PUT", c.refusedPath), 0u);
        EXPECT_FALSE(fs::exists(harness.storedContentPath(upload->remoteFileID())));
    }
}

// A whole file that grows while it is being sent is not reported complete,
// though the service stored what it read.
TEST_F(StorageUploadEmulatorTest, AWholeFileGrownWhileInFlightFails) {
    if (!test::wholeFileUploadFits(4 * MiB)) GTEST_SKIP() << "needs 512 MiB of free space";
    ASSERT_TRUE(harness.emulator.addFault({{"method", "PUT"},
                                           {"path", "/api/files/*/fullfile"},
                                           {"times", 1},
                                           {"action", "throttle"},
                                           {"bytesPerSecond", 2 * MiB}}));
    const std::string source = writeSource("growing.bin", 4 * MiB);
    auto upload = start(source, /*forceChunks=*/false);
    ASSERT_TRUE(test::waitFor([&] {
        for (const auto& entry : harness.emulator.requestLog()) {
            if (entry.value("method", "") == "PUT") return true;
        }
        return false;
    }));
    test::appendFile(source, "late");
    ASSERT_TRUE(finished(upload));
    ASSERT_NE(upload->error(), nullptr);
    EXPECT_EQ(upload->error()->localizedDescription(),
              "The source of the upload has changed or moved.");
    EXPECT_EQ(count(harness.emulator.requestLog(), "PUT", "/fullfile"), 1u);
}

// The identity survives the archive: an upload restored after its source was
// rewritten in place (same size) fails at its next step.
TEST_F(StorageUploadEmulatorTest, ARestoredUploadNoticesASourceRewrittenWhileItWasAway) {
    const std::string source = writeSource("away.bin", 3 * MiB);
    auto upload = make(source);
    ZNVBytes data = ZNVKeyedArchiver::archivedDataWithRootObject(*upload);
    test::writePatternFile(source, 3 * MiB, 99);
    auto restored = test::unarchivedTask<ZNVStorageUpload>(data);
    ASSERT_NE(restored, nullptr);
    ASSERT_EQ(restored->rawError(), nullptr) << "same size: only the next step can tell";
    ASSERT_TRUE(runRelaunched(restored));
    ASSERT_NE(restored->error(), nullptr);
    EXPECT_EQ(restored->error()->localizedDescription(),
              "The source of the upload has changed or moved.");
    EXPECT_EQ(count(harness.emulator.requestLog(), "PUT", "/files/" + restored->remoteFileID()),
              0u);
}

// The body of the next batch is staged while the current batch is on the
// wire, never more than one ahead, and sent as it was staged; a cancel in the
// middle, a retry and a missing-chunks answer each end with the source's
// bytes stored, a source rewritten meanwhile with a failure, and none of them
// leaves a body behind.
TEST_F(StorageUploadEmulatorTest, BatchesAreStagedOneAheadAndNoneIsLeftBehind) {
    test::LogCapture log(spdlog::level::debug);
    const std::string source = writeSource("ahead.bin", 64 * MiB + 1000);  // batches 0-7, 8-15, 16
    // The staged bodies of an upload, by what follows its remote file ID.
    const auto staged = [&](const std::shared_ptr<ZNVStorageUpload>& upload) {
        std::map<std::string, uint64_t> sizes;
        const std::string id = upload->remoteFileID();
        if (id.empty()) return sizes;
        for (const auto& entry : fs::directory_iterator(ZNVPrivateTemporaryDirectory())) {
            const std::string name = entry.path().filename().string();
            const size_t at = name.find(id);
            std::error_code ignored;
            if (at != std::string::npos)
                sizes[name.substr(at + id.size())] = entry.file_size(ignored);
        }
        return sizes;
    };
    // The multipart body of chunks 8-15, complete.
    uint64_t secondBody = 4 + 52 + 4;  // the closing delimiter
    for (int index = 8; index < 16; ++index) {
        secondBody += 4 * MiB + fmt::format(
                                    "\r\n--{}\r\nContent-Disposition: form-data; "
                                    "name=\"chunkData.{}\"; filename=\"{}.chunk\"\r\n"
                                    "Content-Type: application/octet-stream\r\n\r\n",
                                    std::string(52, 'x'), index, index)
                                    .size();
    }
    const std::map<std::string, uint64_t> firstHeldSecondReady = {{"-0.chunk", secondBody},
                                                                  {"-8.chunk", secondBody}};
    const auto stalledWithSecondReady = [&](const std::shared_ptr<ZNVStorageUpload>& upload) {
        return test::waitFor([&] {
            auto now = staged(upload);
            if (now.count("-0.chunk")) now["-0.chunk"] = secondBody;  // only its presence counts
            return upload->task() != nullptr && now == firstHeldSecondReady;
        });
    };
    const auto stallFirstBatch = [&] {
        return harness.emulator.addFault(
            {{"method", "PUT"}, {"path", "/api/files/*"}, {"times", 1}, {"action", "stall"}});
    };
    const auto storedIntact = [&](const std::shared_ptr<ZNVStorageUpload>& upload) {
        return finished(upload) && upload->error() == nullptr &&
               test::filesEqual(harness.storedContentPath(upload->remoteFileID()), source) &&
               test::waitFor([&] { return staged(upload).empty(); }, std::chrono::seconds(10));
    };

    // Whether the upload sent these chunks from a body staged ahead.
    const auto sentAhead = [&](const std::shared_ptr<ZNVStorageUpload>& upload,
                               const std::string& chunks) {
        const std::string tail = ": sending chunks " + chunks + " from the body staged ahead";
        for (const std::string& line : log.lines()) {
            if (line.starts_with("debug|") && line.ends_with(tail) &&
                line.find(upload->remoteFileID()) != std::string::npos)
                return true;
        }
        return false;
    };

    // Held on the wire: the second batch is staged, the third is not.
    ASSERT_TRUE(stallFirstBatch());
    auto upload = start(source, /*forceChunks=*/true);
    EXPECT_EQ(upload->chunkCount(), 17u);
    EXPECT_EQ(upload->sizeOfLastChunk(), 1000u);
    ASSERT_TRUE(stalledWithSecondReady(upload)) << staged(upload).size();
    harness.emulator.clearFaults();
    EXPECT_TRUE(storedIntact(upload));
    EXPECT_EQ(upload->progress()->completedUnitCount(), 172);
    auto requests = harness.emulator.requestLog();
    EXPECT_EQ(count(requests, "PUT", "/files/" + upload->remoteFileID()), 3u);
    EXPECT_EQ(count(requests, "POST", "/files/" + upload->remoteFileID() + "/complete"), 1u);
    EXPECT_EQ(count(requests, "PUT", "/fullfile"), 0u);
    EXPECT_TRUE(sentAhead(upload, "8, 9, 10, 11, 12, 13, 14, 15"));
    EXPECT_TRUE(sentAhead(upload, "16"));

    // Cancelled in the middle: nothing stays; a retry stages and sends it all again.
    ASSERT_TRUE(stallFirstBatch());
    auto cancelled = start(source, /*forceChunks=*/true);
    ASSERT_TRUE(stalledWithSecondReady(cancelled));
    cancelled->cancel();
    EXPECT_TRUE(test::waitFor([&] { return staged(cancelled).empty(); }, std::chrono::seconds(10)));
    EXPECT_TRUE(ZNVNetworkTask::errorIndicatesManuallyCancelledTask(cancelled->error()));
    harness.emulator.clearFaults();
    cancelled->retry();
    EXPECT_TRUE(storedIntact(cancelled));
    EXPECT_EQ(count(harness.emulator.requestLog(), "PUT", "/files/" + cancelled->remoteFileID()),
              4u);

    // The service misses ten chunks: they go again in two batches, the
    // second staged while the first is sent.
    ASSERT_TRUE(harness.emulator.addFault(
        {{"method", "POST"},
         {"path", "/api/files/*/complete"},
         {"times", 1},
         {"action", "missingChunks"},
         {"chunks", nlohmann::json::array({1u, 2u, 3u, 4u, 5u, 6u, 7u, 9u, 12u, 16u})}}));
    auto missing = start(source, /*forceChunks=*/true);
    EXPECT_TRUE(storedIntact(missing));
    requests = harness.emulator.requestLog();
    EXPECT_EQ(count(requests, "PUT", "/files/" + missing->remoteFileID()), 5u);
    EXPECT_EQ(count(requests, "POST", "/files/" + missing->remoteFileID() + "/complete"), 2u);
    EXPECT_TRUE(sentAhead(missing, "12, 16"));

    // Rewritten while the first batch is on the wire: the body staged ahead
    // holds the old bytes and is never sent.
    ASSERT_TRUE(stallFirstBatch());
    auto rewritten = start(source, /*forceChunks=*/true);
    ASSERT_TRUE(stalledWithSecondReady(rewritten));
    test::writePatternFile(source, 64 * MiB + 1000, 5);
    harness.emulator.clearFaults();
    ASSERT_TRUE(finished(rewritten));
    ASSERT_NE(rewritten->error(), nullptr);
    EXPECT_EQ(rewritten->error()->localizedDescription(),
              "The source of the upload has changed or moved.");
    EXPECT_EQ(count(harness.emulator.requestLog(), "PUT", "/files/" + rewritten->remoteFileID()),
              1u);
    EXPECT_TRUE(test::waitFor([&] { return staged(rewritten).empty(); }, std::chrono::seconds(10)));
}

}  // namespace
}  // namespace znv
