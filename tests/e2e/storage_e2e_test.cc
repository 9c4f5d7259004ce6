// The library end to end against a real emulator: uploads by every path,
// the activation policy seen from outside, downloads, remote-file operations,
// fault recovery and stale answers.
#include <gtest/gtest.h>

#include <fstream>
#include <nlohmann/json.hpp>
#include <set>
#include <thread>

#include "tests/e2e/e2e_support.h"
#include "znv/platform/progress.h"
#include "znv/platform/url_session_resume_data.h"
#include "znv/protocol/internal/chunk_size_testing.h"
#include "znv/protocol/storage_response.h"
#include "znv/session/network_session_manager.h"

namespace znv {
namespace {

using test::LogCapture;
using test::TaskEventRecorder;

constexpr uint64_t kMiB = 1024 * 1024;

class StorageEndToEnd : public test::EmulatorTest {};

TEST_F(StorageEndToEnd, UploadsWholeByChunksAndWithVideoProcessing) {
    auto storage = makeStorage();
    TaskEventRecorder events(storage.get());
    const auto small = writeSource("small.bin", 300 * 1024 + 17, 1);
    const auto large = writeSource("large.bin", 9 * 4 * kMiB + 123, 2);  // 10 chunks, 2 batches
    const auto video = writeSource("clip.mov", 5 * kMiB, 3);

    auto whole = storage->uploadFromFile(ZNVURL::fileURL(small), false);
    auto chunked = storage->uploadFromFile(ZNVURL::fileURL(large), "", "", "", false, true);
    auto processed = storage->uploadFromFile(ZNVURL::fileURL(video), true);
    ASSERT_TRUE(whole && chunked && processed);
    ASSERT_TRUE(waitForCompletion({whole, chunked, processed}));

    for (const auto& [upload, source] :
         {std::pair{whole, small}, std::pair{chunked, large}, std::pair{processed, video}}) {
        EXPECT_EQ(upload->error(), nullptr) << upload->description();
        ASSERT_FALSE(upload->remoteFileID().empty());
        EXPECT_TRUE(test::filesEqual(remoteContentPath(upload->remoteFileID()), source));
        EXPECT_EQ(upload->progress()->completedUnitCount(), upload->progress()->totalUnitCount());
    }

    // The small file went up whole, the forced one in two batches and an
    // assembly, the video whole and then to post-processing.
    EXPECT_EQ(requests("PUT", "/api/files/" + whole->remoteFileID(), "/fullfile").size(), 1u);
    auto batches = requests("PUT", "/api/files/" + chunked->remoteFileID());
    std::erase_if(batches, [](const nlohmann::json& e) {
        return e.value("path", "").ends_with("/fullfile");
    });
    ASSERT_EQ(batches.size(), 2u);
    EXPECT_EQ(batches[0]["parts"].size(), 8u);
    EXPECT_EQ(batches[1]["parts"].size(), 2u);
    EXPECT_EQ(requests("POST", "/api/files/" + chunked->remoteFileID(), "/complete").size(), 1u);
    EXPECT_EQ(requests("POST", "/api/files/" + processed->remoteFileID(), "/process").size(), 1u);
    EXPECT_EQ(requests("POST", "/api/files/" + whole->remoteFileID(), "/process").size(), 0u);

    // Every notification reached the application on the main queue.
    EXPECT_EQ(events.count(ZNVNetwork_TaskDidCompleteNotification), 3u);
    EXPECT_FALSE(events.sawOffMainQueue());

    // Finished tasks stay until the application finishes them.
    EXPECT_EQ(storage->uploads().size(), 3u);
    storage->finishTask(whole);
    EXPECT_EQ(storage->uploads().size(), 2u);
}

TEST_F(StorageEndToEnd, NeverMoreThanTwoUploadsAndTwoDownloadsRun) {
    // Slow bodies make the transfers overlap for long enough to be seen.
    ASSERT_TRUE(emulator_->addFault({{"method", "PUT"},
                                     {"path", "/api/files/*/fullfile"},
                                     {"action", "throttle"},
                                     {"bytesPerSecond", 4 * kMiB}}));
    ASSERT_TRUE(emulator_->addFault({{"method", "GET"},
                                     {"path", "/content/*"},
                                     {"action", "throttle"},
                                     {"bytesPerSecond", 4 * kMiB}}));
    auto storage = makeStorage();
    TaskEventRecorder events(storage.get());

    std::vector<ZNVNetworkTaskRef> uploads;
    std::vector<std::string> sources;
    for (int i = 0; i < 5; ++i) {
        sources.push_back(writeSource("file" + std::to_string(i), 2 * kMiB + i, 10 + i));
        uploads.push_back(storage->uploadFromFile(ZNVURL::fileURL(sources.back()), false));
        ASSERT_NE(uploads.back(), nullptr);
    }

    ASSERT_TRUE(waitForCompletion(uploads));
    // The server's view: how many requests were in flight at once.
    EXPECT_EQ(maxRequestsInFlight("/api/files"), 2u) << "the uploads never overlapped, or more did";

    // Downloads of the finished files, with the same cap. No save runs during
    // the batch, so the journal keeps what it recorded for each finished one.
    storage->beginBatch();
    std::vector<ZNVNetworkTaskRef> downloads;
    for (const auto& upload : uploads) {
        auto url =
            ZNVURL::fromString(emulator_->rootURL() + "content/" +
                               std::static_pointer_cast<ZNVStorageUpload>(upload)->remoteFileID());
        downloads.push_back(storage->downloadFromRemoteFile(url.value()));
        ASSERT_NE(downloads.back(), nullptr);
    }
    ASSERT_TRUE(waitForCompletion(downloads));
    EXPECT_EQ(maxRequestsInFlight("/content/"), 2u);
    // Each finished download is journaled with the partial file it was moved
    // from, which a relaunch before the next save moves it back to.
    {
        std::ifstream journal(std::string(std::getenv("HOME")) + "/Library/Network/" +
                              configuration_->accountConfigurationIdentifier() + ".state.journal");
        std::set<std::string> from;
        for (std::string line; std::getline(journal, line);) {
            const auto entry = nlohmann::json::parse(line, nullptr, false);
            if (entry.is_object() && entry.contains("downloaded")) {
                from.insert(entry.value("from", ""));
            }
        }
        EXPECT_EQ(from.size(), downloads.size());
        for (const auto& path : from)
            EXPECT_TRUE(ZNVURLSessionResumeData::isPartialFilePath(path)) << path;
    }
    storage->commitBatch();

    ASSERT_TRUE(ZNVMainQueue::waitUntilDrained());
    EXPECT_EQ(events.maxRunningUploads(), 2u);
    EXPECT_EQ(events.maxRunningDownloads(), 2u);
    for (size_t i = 0; i < downloads.size(); ++i) {
        auto download = std::static_pointer_cast<ZNVNetworkDownload>(downloads[i]);
        EXPECT_EQ(download->error(), nullptr);
        ASSERT_TRUE(download->localFileURL().has_value());
        EXPECT_TRUE(test::filesEqual(download->localFileURL()->path(), sources[i]));
    }
    // The saves that recorded the completions flushed the moved files first.
    ASSERT_TRUE(storage->waitUntilStateIsWritten(std::chrono::seconds(10)));
    for (const auto& download : downloads)
        EXPECT_TRUE(download->takePathsToFlushBeforeSave().empty());
    // Finishing a download removes its file.
    const std::string local =
        std::static_pointer_cast<ZNVNetworkDownload>(downloads[0])->localFileURL()->path();
    storage->finishTask(downloads[0]);
    ASSERT_TRUE(storage->waitUntilStateIsWritten(std::chrono::seconds(10)));
    EXPECT_FALSE(std::filesystem::exists(local));
}

TEST_F(StorageEndToEnd, URLLookupAndDeletion) {
    auto storage = makeStorage();
    const auto source = writeSource("lookup.bin", 70000);
    auto upload = storage->uploadFromFile(ZNVURL::fileURL(source), false);
    ASSERT_TRUE(waitForCompletion({upload}));
    const std::string fileID = upload->remoteFileID();

    struct Answer {
        std::mutex mutex;
        int calls = 0;
        bool onMainQueue = true;
        std::optional<ZNVURL> url;
        bool deleted = false;
    };
    auto answer = std::make_shared<Answer>();
    auto lookUp = [&](const std::string& id) {
        storage->URLForRemoteFile(id, [answer](const std::optional<ZNVURL>& url) {
            std::lock_guard<std::mutex> lock(answer->mutex);
            answer->onMainQueue = answer->onMainQueue && ZNVMainQueue::isCurrent();
            answer->url = url;
            ++answer->calls;
        });
    };
    auto remove = [&](const std::string& id) {
        storage->deleteRemoteFile(id, [answer](bool deleted) {
            std::lock_guard<std::mutex> lock(answer->mutex);
            answer->onMainQueue = answer->onMainQueue && ZNVMainQueue::isCurrent();
            answer->deleted = deleted;
            ++answer->calls;
        });
    };
    auto calls = [&] {
        std::lock_guard<std::mutex> lock(answer->mutex);
        return answer->calls;
    };

    lookUp(fileID);
    ASSERT_TRUE(test::waitFor([&] { return calls() == 1; }));
    ASSERT_TRUE(answer->url.has_value());
    EXPECT_EQ(answer->url->absoluteString(), emulator_->rootURL() + "content/" + fileID);

    remove(fileID);
    ASSERT_TRUE(test::waitFor([&] { return calls() == 2; }));
    EXPECT_TRUE(answer->deleted);

    LogCapture log;
    remove(fileID);  // already gone: 404
    ASSERT_TRUE(test::waitFor([&] { return calls() == 3; }));
    EXPECT_FALSE(answer->deleted);
    EXPECT_TRUE(log.contains("failed to delete remote file: "));

    lookUp(fileID);  // unknown: no URL
    ASSERT_TRUE(test::waitFor([&] { return calls() == 4; }));
    EXPECT_FALSE(answer->url.has_value());
    EXPECT_TRUE(log.contains("failed to get information for remote file: "));
    EXPECT_TRUE(answer->onMainQueue);
    // Answers to one-shot requests are never taken for an upload's.
    EXPECT_FALSE(log.contains("no upload found for storage response"));
}

TEST_F(StorageEndToEnd, SignedOutStartsNothingUntilSignedIn) {
    account_->setStatus(ZNVAccountStatusSignedOut);
    LogCapture log;
    auto storage = makeStorage();
    auto first = storage->uploadFromFile(ZNVURL::fileURL(writeSource("a.bin", 1000)), false);
    auto second = storage->uploadFromFile(ZNVURL::fileURL(writeSource("b.bin", 2000)), false);
    ASSERT_TRUE(test::waitFor([&] {
        return log.count("Account must be signed in before uploads can be activated.") >= 2;
    }));
    EXPECT_TRUE(emulator_->requestLog().empty());
    EXPECT_EQ(first->state(), ZNVNetworkTaskStateSuspended);
    EXPECT_EQ(second->state(), ZNVNetworkTaskStateSuspended);

    account_->setStatus(ZNVAccountStatusSignedIn);
    ASSERT_TRUE(waitForCompletion({first, second}));
    EXPECT_EQ(first->error(), nullptr);
    EXPECT_EQ(second->error(), nullptr);
}

TEST_F(StorageEndToEnd, UnreachableNetworkHoldsUploadsUntilItReturns) {
    auto storage = makeStorage();
    auto reachability = test::manualReachability(storage);
    ASSERT_NE(reachability, nullptr);
    reachability->setReachable(false);
    LogCapture log;
    auto upload = storage->uploadFromFile(ZNVURL::fileURL(writeSource("held.bin", 5000)), false);
    ASSERT_TRUE(test::waitFor([&] {
        return log.contains("Network must be reachable before uploads can be activated.");
    }));
    EXPECT_TRUE(emulator_->requestLog().empty());
    EXPECT_EQ(upload->state(), ZNVNetworkTaskStateSuspended);

    reachability->setReachable(true);
    ASSERT_TRUE(waitForCompletion({upload}));
    EXPECT_EQ(upload->error(), nullptr);
}

TEST_F(StorageEndToEnd, RecoversFromServerErrorsAndConnectionResets) {
    // The first chunk request is answered 503, the second loses its connection
    // half-way; the upload recovers from both on its own.
    ASSERT_TRUE(emulator_->addFault({{"method", "PUT"},
                                     {"path", "/api/files/*"},
                                     {"action", "status"},
                                     {"status", 503},
                                     {"times", 1}}));
    ASSERT_TRUE(emulator_->addFault({{"method", "PUT"},
                                     {"path", "/api/files/*"},
                                     {"action", "reset"},
                                     {"afterBytes", 200000},
                                     {"times", 1}}));
    // A full-file upload answered 503 falls back to chunks.
    ASSERT_TRUE(emulator_->addFault({{"method", "PUT"},
                                     {"path", "/api/files/*/fullfile"},
                                     {"action", "status"},
                                     {"status", 503},
                                     {"times", 1}}));
    auto storage = makeStorage();
    TaskEventRecorder events(storage.get());
    const auto chunkedSource = writeSource("flaky.bin", 6 * kMiB, 21);
    const auto wholeSource = writeSource("fallback.bin", 3 * kMiB, 22);
    auto chunked = storage->uploadFromFile(ZNVURL::fileURL(chunkedSource), "", "", "", false, true);
    ASSERT_TRUE(waitForCompletion({chunked}));
    auto whole = storage->uploadFromFile(ZNVURL::fileURL(wholeSource), false);
    ASSERT_TRUE(waitForCompletion({whole}));

    EXPECT_EQ(chunked->error(), nullptr);
    EXPECT_TRUE(test::filesEqual(remoteContentPath(chunked->remoteFileID()), chunkedSource));
    auto attempts = requests("PUT", "/api/files/" + chunked->remoteFileID());
    ASSERT_EQ(attempts.size(), 3u);
    EXPECT_EQ(attempts[0]["status"], 503);
    EXPECT_EQ(attempts[2]["status"], 200);

    EXPECT_EQ(whole->error(), nullptr);
    EXPECT_TRUE(test::filesEqual(remoteContentPath(whole->remoteFileID()), wholeSource));
    EXPECT_EQ(requests("POST", "/api/files/" + whole->remoteFileID(), "/complete").size(), 1u);

    // The hidden errors showed as suspensions, never as failures.
    ASSERT_TRUE(ZNVMainQueue::waitUntilDrained());
    EXPECT_GE(events.count(ZNVNetwork_TaskDidSuspendNotification), 2u);
}

TEST_F(StorageEndToEnd, AWholeFileAskedToComeBackLaterGoesOnInChunksAfterTheWait) {
    // Waits as the service asks, not scaled down as elsewhere in the tests.
    ZNVNetworkTask::setRecoveryDelayScale(1.0);
    struct RestoreScale {
        ~RestoreScale() { ZNVNetworkTask::setRecoveryDelayScale(0.0); }
    } restoreScale;
    ASSERT_TRUE(emulator_->addFault({{"method", "PUT"},
                                     {"path", "/api/files/*/fullfile"},
                                     {"action", "status"},
                                     {"status", 503},
                                     {"headers", {{"Retry-After", "1"}}},
                                     {"times", 1}}));
    auto storage = makeStorage();
    const auto source = writeSource("later.bin", 5 * kMiB, 23);
    auto upload = storage->uploadFromFile(ZNVURL::fileURL(source), false);
    ASSERT_TRUE(waitForCompletion({upload}));
    EXPECT_EQ(upload->error(), nullptr);
    EXPECT_TRUE(test::filesEqual(remoteContentPath(upload->remoteFileID()), source));

    const std::string file = "/api/files/" + upload->remoteFileID();
    auto puts = requests("PUT", file);
    ASSERT_EQ(puts.size(), 2u);
    EXPECT_EQ(puts[0]["path"], file + "/fullfile");
    EXPECT_EQ(puts[0]["status"], 503);
    EXPECT_EQ(puts[1]["path"], file);
    EXPECT_EQ(puts[1]["parts"].size(), 2u);
    EXPECT_GE(puts[1]["startMs"].get<int64_t>() - puts[0]["endMs"].get<int64_t>(), 1000);
}

TEST_F(StorageEndToEnd, MissingChunksAreSentAgainAndCompletedFilesAreAccepted) {
    ASSERT_TRUE(emulator_->addFault({{"method", "POST"},
                                     {"path", "/api/files/*/complete"},
                                     {"action", "missingChunks"},
                                     {"chunks", nlohmann::json::array({1u})},
                                     {"times", 1}}));
    LogCapture log;
    auto storage = makeStorage();
    const auto source = writeSource("gaps.bin", 3 * 4 * kMiB, 31);  // chunks 0, 1, 2
    auto upload = storage->uploadFromFile(ZNVURL::fileURL(source), "", "", "", false, true);
    ASSERT_TRUE(waitForCompletion({upload}));
    EXPECT_EQ(upload->error(), nullptr);
    EXPECT_TRUE(test::filesEqual(remoteContentPath(upload->remoteFileID()), source));
    EXPECT_TRUE(log.contains("Attempting to re-upload chunks for the following indices: "));
    auto puts = requests("PUT", "/api/files/" + upload->remoteFileID());
    ASSERT_EQ(puts.size(), 2u);
    EXPECT_EQ(puts[1]["parts"].size(), 1u);
    EXPECT_EQ(requests("POST", "/api/files/" + upload->remoteFileID(), "/complete").size(), 2u);

    // A chunk batch answered "already completed" completes the upload as is.
    ASSERT_TRUE(emulator_->addFault({{"method", "PUT"},
                                     {"path", "/api/files/*"},
                                     {"action", "alreadyCompleted"},
                                     {"times", 1}}));
    auto again = storage->uploadFromFile(ZNVURL::fileURL(source), "", "", "", false, true);
    ASSERT_TRUE(waitForCompletion({again}));
    EXPECT_EQ(again->error(), nullptr);
    EXPECT_TRUE(log.contains("The remote file is already assembled."));
    EXPECT_TRUE(requests("POST", "/api/files/" + again->remoteFileID(), "/complete").empty());
}

TEST_F(StorageEndToEnd, AnAnswerOfASupersededSessionTaskIsIgnored) {
    // The second batch stalls, so the upload sits on its newest session task.
    ASSERT_TRUE(emulator_->addFault({{"method", "PUT"},
                                     {"path", "/api/files/*"},
                                     {"action", "stall"},
                                     {"skip", 1},
                                     {"times", 1}}));
    auto storage = makeStorage();
    const auto source = writeSource("stale.bin", 9 * 4 * kMiB, 41);  // batches 0-7 and 8
    auto upload = storage->uploadFromFile(ZNVURL::fileURL(source), "", "", "", false, true);

    std::shared_ptr<ZNVURLSessionTask> firstBatch;
    ASSERT_TRUE(test::waitFor(
        [&] {
            auto task = upload->task();
            if (task && task->taskDescription() == "chunk index 0, 1, 2, 3, 4, 5, 6, 7")
                firstBatch = task;
            return firstBatch && upload->chunkIndicesToUpload() == ZNVIndexSet{8} &&
                   upload->task() && upload->task() != firstBatch;
        },
        std::chrono::seconds(60)));

    // The first batch's answer arrives once more, now for an old session task.
    LogCapture log;
    const std::string body = R"({"fileId":")" + upload->remoteFileID() +
                             R"(","uploadedChunks":[{"index":0},{"index":1}]})";
    auto session = storage->sessionManager();
    auto delivered = std::make_shared<std::atomic<bool>>(false);
    session->performBackgroundSessionBlock([storage, session, firstBatch, body, delivered] {
        storage->didCompleteWithData(session, firstBatch, ZNVBytes(body.begin(), body.end()),
                                     nullptr);
        *delivered = true;
    });
    ASSERT_TRUE(test::waitFor([&] { return delivered->load(); }));
    EXPECT_TRUE(log.contains("ignoring response for old session task " +
                             std::to_string(firstBatch->taskIdentifier()) +
                             ": chunk index 0, 1, 2, 3, 4, 5, 6, 7"));
    EXPECT_FALSE(log.contains("no upload found for storage response"));
    EXPECT_EQ(upload->chunkIndicesToUpload(), ZNVIndexSet{8});
    EXPECT_EQ(upload->state(), ZNVNetworkTaskStateRunning);

    // Let the stalled batch go: the upload restarts it and finishes.
    upload->cancelTaskWithRecoverableErrorMessage("stalled in a test");
    ASSERT_TRUE(waitForCompletion({upload}));
    EXPECT_EQ(upload->error(), nullptr);
    EXPECT_TRUE(test::filesEqual(remoteContentPath(upload->remoteFileID()), source));
}

// A queue whose saves never reach the disk once its uploads are under way,
// as when the process is killed before the next save: the service's answers
// are recorded beside the state file before the uploads act on them, so a
// relaunch knows the remote files created, the chunks acknowledged and the
// whole files refused. Chunks are 4 KiB here: a 300,000-byte file in chunks
// takes ten batches.
class UnsavedRelaunch : public test::EmulatorTest {
  protected:
    void SetUp() override {
        test::EmulatorTest::SetUp();
        internal::setMaximumChunkSizeForTesting(4096);
        state_ = test::statePath(configuration_->accountConfigurationIdentifier());
    }
    void TearDown() override {
        test::EmulatorTest::TearDown();
        internal::setMaximumChunkSizeForTesting(0);
    }

    // Adds the uploads (forced to chunks where asked) with their state
    // saved, lets them run without any later save landing until `until`,
    // ends the manager, and puts the saved file back. The request log then
    // starts empty, for the relaunch.
    void runUnsaved(const std::vector<std::pair<std::string, bool>>& uploads,
                    const std::function<bool()>& until) {
        std::weak_ptr<ZNVStorage> ended;
        {
            auto storage = makeStorage();
            ended = storage;
            auto reachability = test::manualReachability(storage);
            ASSERT_NE(reachability, nullptr);
            reachability->setReachable(false);
            for (const auto& [source, chunks] : uploads)
                storage->uploadFromFile(ZNVURL::fileURL(source), "", "", "", false, chunks);
            ASSERT_TRUE(storage->waitUntilStateIsWritten());
            EXPECT_EQ(storage->stateSaveError(), nullptr);
            // From here on no save lands: a directory stands where it would go.
            std::filesystem::rename(state_, state_ + ".kept");
            std::filesystem::create_directories(state_ + "/in-the-way");
            reachability->setReachable(true);
            ASSERT_TRUE(test::waitFor(until, std::chrono::seconds(60)));
            storage->invalidateClientAndCancelTasks();
            ASSERT_TRUE(storage->waitUntilStateIsWritten());
            // The manager knows that the queue on disk is not the one it held.
            EXPECT_NE(storage->stateSaveError(), nullptr);
            storages_.clear();
        }
        // Whatever the ended manager still saves fails too, before the file is back.
        ASSERT_TRUE(test::waitFor([&] {
            ZNVMainQueue::waitUntilDrained();
            return ended.expired();
        }));
        ASSERT_TRUE(ZNVStateWriter::waitForEarlierSaves(state_, std::chrono::seconds(10)));
        std::filesystem::remove_all(state_);
        std::filesystem::rename(state_ + ".kept", state_);
        emulator_->clearFaults();
        emulator_->clearRequestLog();
    }

    size_t creates() const { return requests("POST", "/api/files", "/api/files").size(); }

    // Relaunches, waits for every restored upload and checks each remote
    // file against its source; the uploads, in queue order.
    std::vector<std::shared_ptr<ZNVStorageUpload>> relaunch(
        const std::vector<std::string>& sources) {
        auto relaunched = makeStorage();
        std::vector<std::shared_ptr<ZNVStorageUpload>> uploads;
        for (const auto& task : relaunched->tasks())
            uploads.push_back(std::dynamic_pointer_cast<ZNVStorageUpload>(task));
        EXPECT_EQ(uploads.size(), sources.size())
            << "the file holds the uploads as they were added";
        if (uploads.size() != sources.size()) return {};
        EXPECT_TRUE(waitForCompletion(relaunched->tasks()));
        EXPECT_EQ(creates(), 0u) << "a remote file was created again";
        for (size_t i = 0; i < uploads.size(); ++i) {
            EXPECT_EQ(uploads[i]->error(), nullptr);
            EXPECT_TRUE(
                test::filesEqual(remoteContentPath(uploads[i]->remoteFileID()), sources[i]));
        }
        // Once a save holds what was recorded, the record goes.
        EXPECT_TRUE(relaunched->waitUntilStateIsWritten());
        EXPECT_TRUE(
            test::waitFor([&] { return std::filesystem::file_size(state_ + ".journal") == 0; }));
        return uploads;
    }

    std::string state_;
};

TEST_F(UnsavedRelaunch, CreatesNothingTwiceAndResendsOnlyTheBatchInFlight) {
    // One upload goes whole; the other, in chunks, has its first batch
    // acknowledged and its second held on the wire.
    const std::vector<std::string> sources = {writeSource("whole.bin", 300000, 43),
                                              writeSource("chunks.bin", 300000, 44)};
    ASSERT_TRUE(emulator_->addFault({{"method", "PUT"},
                                     {"path", "/api/files/*"},
                                     {"action", "stall"},
                                     {"skip", 1},
                                     {"times", 1}}));
    runUnsaved({{sources[0], false}, {sources[1], true}}, [&] {
        return requests("PUT", "/api/files/", "/fullfile").size() == 1 &&
               requests("PUT", "/api/files/").size() == 3;
    });

    // The whole one is sent again (and found complete); the chunked one sends
    // the nine batches from the one that was in flight, then asks once for
    // the assembly.
    const auto uploads = relaunch(sources);
    ASSERT_EQ(uploads.size(), 2u);
    EXPECT_EQ(requests("POST", "/api/files/", "/complete").size(), 1u);
    EXPECT_EQ(requests("PUT", "/api/files/" + uploads[1]->remoteFileID()).size(), 9u)
        << "an acknowledged batch was sent again";
}

TEST_F(UnsavedRelaunch, AWholeFileRefusedIsNotSentWholeAgain) {
    // The whole file is refused; the upload goes on in chunks, the first
    // batch held on the wire.
    const std::vector<std::string> sources = {writeSource("refused.bin", 300000, 45)};
    ASSERT_TRUE(emulator_->addFault(
        {{"method", "PUT"}, {"path", "/api/files/*/fullfile"}, {"status", 413}, {"times", 1}}));
    ASSERT_TRUE(emulator_->addFault(
        {{"method", "PUT"}, {"path", "/api/files/*"}, {"action", "stall"}, {"times", 1}}));
    runUnsaved({{sources[0], false}}, [&] { return requests("PUT", "/api/files/").size() == 2; });

    const auto uploads = relaunch(sources);
    ASSERT_EQ(uploads.size(), 1u);
    EXPECT_TRUE(requests("PUT", "/api/files/", "/fullfile").empty());
    EXPECT_EQ(requests("PUT", "/api/files/" + uploads[0]->remoteFileID()).size(), 10u);
}

TEST_F(UnsavedRelaunch, ChunksReportedMissingAreSentAgainAfterTheirAcknowledgement) {
    // Two batches acknowledged, then the assembly reports chunk 1 missing;
    // its second sending is held on the wire.
    const std::vector<std::string> sources = {writeSource("missing.bin", 40000, 46)};
    ASSERT_TRUE(emulator_->addFault({{"method", "POST"},
                                     {"path", "/api/files/*/complete"},
                                     {"action", "missingChunks"},
                                     {"chunks", {1}},
                                     {"times", 1}}));
    ASSERT_TRUE(emulator_->addFault({{"method", "PUT"},
                                     {"path", "/api/files/*"},
                                     {"action", "stall"},
                                     {"skip", 2},
                                     {"times", 1}}));
    runUnsaved({{sources[0], true}}, [&] { return requests("PUT", "/api/files/").size() == 3; });

    // The acknowledgement of chunk 1 comes before the report that it is
    // missing: the relaunch sends it, then asks once for the assembly.
    const auto uploads = relaunch(sources);
    ASSERT_EQ(uploads.size(), 1u);
    const auto sent = requests("PUT", "/api/files/" + uploads[0]->remoteFileID());
    ASSERT_EQ(sent.size(), 1u);
    EXPECT_EQ(sent[0].value("parts", nlohmann::json::array()),
              nlohmann::json::array({"chunkData.1"}))
        << sent[0].dump();
    EXPECT_EQ(requests("POST", "/api/files/", "/complete").size(), 1u);
}

}  // namespace
}  // namespace znv
