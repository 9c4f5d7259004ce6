// The upload pipeline driven step by step with recorded service answers: the
// chunk layout, batches, the full-file and chunk paths, the recoveries of
// handleStorageResponse, early retrieval, progress, and the archive.
//
// The session manager here is never launched, so the requests the upload makes
// reach the emulator but their answers are never delivered: every step is
// driven by the recorded response the test hands in, and the test reads the
// request the upload made from its current URL session task.
#include <gtest/gtest.h>

#include <filesystem>
#include <nlohmann/json.hpp>

#include "tests/tasks/task_test_support.h"
#include "znv/foundation/error_handler.h"
#include "znv/foundation/network_utilities.h"
#include "znv/platform/filesystem.h"
#include "znv/platform/keyed_archive.h"
#include "znv/platform/progress.h"
#include "znv/protocol/internal/chunk_size_testing.h"
#include "znv/protocol/storage_chunk.h"

namespace znv {
namespace {

using test::EmulatorHarness;
namespace fs = std::filesystem;

ZNVErrorRef serverError(int64_t status) {
    return ZNVError::make(NSURLErrorDomain, NSURLErrorBadServerResponse,
                          {{NSLocalizedDescriptionKey, "status " + std::to_string(status)},
                           {ZNVURLErrorFailingStatusCodeKey, status}});
}

// The answer the service would give to `method` on base + `path`.
ZNVStorageResponseRef recorded(const std::string& method, const std::string& path,
                               const nlohmann::json& body = nlohmann::json::object(),
                               ZNVErrorRef error = nullptr,
                               std::optional<ZNVIndexSet> chunks = std::nullopt) {
    const std::string text = body.dump();
    return ZNVStorageResponse::responseForRequest(
        method, *ZNVURL::fromString("http://127.0.0.1:1/api/" + path), chunks,
        ZNVBytes(text.begin(), text.end()), std::move(error));
}

ZNVStorageResponseRef created(const std::string& id, uint64_t maxFullFile) {
    return recorded("POST", "files",
                    {{"fileId", id},
                     {"fileName", "x"},
                     {"uploadMethods",
                      {{{"name", "fullfile"}, {"maxBytesPerRequest", maxFullFile}},
                       {{"name", "chunks"}, {"maxBytesPerRequest", 4194304}}}}});
}

ZNVStorageResponseRef chunksSent(const std::string& id, const ZNVIndexSet& indices) {
    return recorded("PUT", "files/" + id, {{"fileId", id}}, nullptr, indices);
}

class StorageUploadTest : public ::testing::Test {
  protected:
    StorageUploadTest() : harness({}, /*launch=*/false) {
        internal::setMaximumChunkSizeForTesting(4);
    }
    ~StorageUploadTest() override { internal::setMaximumChunkSizeForTesting(0); }

    std::shared_ptr<ZNVStorageUpload> makeUpload(uint64_t size, bool video = false,
                                                 const std::string& name = "movie.mov") {
        const std::string path = test::makeTempDir("src") + "/" + name;
        test::writePatternFile(path, size, static_cast<uint32_t>(size));
        return ZNVStorageUpload::create(ZNVURL::fileURL(path), "", harness.account, "", "", video,
                                        harness.session);
    }
    // An upload whose remote file `id` exists already.
    std::shared_ptr<ZNVStorageUpload> uploadFor(const std::string& id, uint64_t size,
                                                bool video = false) {
        auto upload = makeUpload(size, video);
        upload->setRemoteFileID(id);
        return upload;
    }
    // Hands a recorded answer to the upload and waits for the request it
    // starts in response (requests are made on the account's thread).
    void answer(const std::shared_ptr<ZNVStorageUpload>& upload, const ZNVStorageResponseRef& r,
                bool reachable = true) {
        ASSERT_NE(r, nullptr);
        upload->handleStorageResponse(*r, reachable);
        harness.account->waitUntilIdle();
    }
    void settle() { harness.account->waitUntilIdle(); }
    static std::string tag(const std::shared_ptr<ZNVStorageUpload>& upload) {
        auto task = upload->task();
        return task ? task->taskDescription() : std::string("(none)");
    }

    EmulatorHarness harness;
};

TEST_F(StorageUploadTest, ChunkLayoutFollowsTheChunkSize) {
    auto ten = makeUpload(10);
    EXPECT_EQ(ten->chunkCount(), 3u);
    EXPECT_EQ(ten->sizeOfLastChunk(), 2u);
    EXPECT_EQ(ten->sourceFileSize(), 10u);
    EXPECT_EQ(ten->progress()->totalUnitCount(), 32);
    EXPECT_EQ(ten->state(), ZNVNetworkTaskStateSuspended);
    EXPECT_EQ(ten->remoteFilename(), "movie.mov");

    auto eight = makeUpload(8);
    EXPECT_EQ(eight->chunkCount(), 2u);
    EXPECT_EQ(eight->sizeOfLastChunk(), 4u);

    auto empty = makeUpload(0);
    ASSERT_NE(empty->error(), nullptr);
    EXPECT_EQ(empty->error()->code(), NSURLErrorCannotOpenFile);
    EXPECT_EQ(empty->error()->localizedDescription(), "empty file for upload");
    EXPECT_EQ(empty->state(), ZNVNetworkTaskStateCompleted);
    EXPECT_EQ(empty->progress()->totalUnitCount(), 2);

    // The assembly lists every chunk with its size, the last one short.
    ten->setRemoteFileID("F1");
    ten->assembleRemoteFile();
    settle();
    ASSERT_EQ(tag(ten), "assemble remote file");
    auto staged = std::dynamic_pointer_cast<ZNVURLSessionUploadTask>(ten->task());
    ASSERT_NE(staged, nullptr);
    auto body = nlohmann::json::parse(test::readFile(staged->fileURL().path()));
    std::vector<uint64_t> sizes;
    for (const auto& chunk : body["expectedChunks"])
        sizes.push_back(chunk["sizeInBytes"]);
    EXPECT_EQ(sizes, (std::vector<uint64_t>{4, 4, 2}));
}

TEST_F(StorageUploadTest, BatchesHoldAtMostEightChunksThenAssemble) {
    auto upload = makeUpload(80);  // 20 chunks
    ASSERT_TRUE(upload->resume());
    settle();
    EXPECT_EQ(upload->state(), ZNVNetworkTaskStateRunning);
    ASSERT_EQ(tag(upload), "new remote file");

    answer(upload, created("F1", 10));  // too large for one request
    EXPECT_EQ(upload->remoteFileID(), "F1");
    EXPECT_EQ(upload->maximumFullFileUploadSize(), 10u);
    EXPECT_EQ(tag(upload), "chunk index 0, 1, 2, 3, 4, 5, 6, 7");
    EXPECT_EQ(upload->pendingBatchChunkCount(), 8u);
    EXPECT_EQ(upload->progress()->completedUnitCount(), 1) << "the file ID counts one unit";

    answer(upload, chunksSent("F1", ZNVIndexSet::withRange(0, 8)));
    EXPECT_EQ(tag(upload), "chunk index 8, 9, 10, 11, 12, 13, 14, 15");
    EXPECT_EQ(upload->progress()->completedUnitCount(), 81);
    answer(upload, chunksSent("F1", ZNVIndexSet::withRange(8, 8)));
    EXPECT_EQ(tag(upload), "chunk index 16, 17, 18, 19");
    EXPECT_EQ(upload->pendingBatchChunkCount(), 4u);
    answer(upload, chunksSent("F1", ZNVIndexSet::withRange(16, 4)));
    EXPECT_EQ(tag(upload), "assemble remote file");
    EXPECT_TRUE(upload->chunkIndicesToUpload().empty());

    answer(upload, recorded("POST", "files/F1/complete", {{"fileId", "F1"}, {"isComplete", true}}));
    EXPECT_EQ(upload->state(), ZNVNetworkTaskStateCompleted);
    EXPECT_EQ(upload->error(), nullptr);
    EXPECT_EQ(upload->progress()->completedUnitCount(), 202);
}

TEST_F(StorageUploadTest, BatchSkipsGapsAndStopsAtAnIndexPastTheEnd) {
    auto upload = uploadFor("F2", 40);  // 10 chunks
    upload->beginUploadingChunksAtIndices({1, 3, 20});
    settle();
    EXPECT_EQ(tag(upload), "chunk index 1, 3");
    EXPECT_EQ(upload->pendingBatchChunkCount(), 2u);
    answer(upload, chunksSent("F2", {1, 3}));
    EXPECT_EQ(upload->chunkIndicesToUpload(), ZNVIndexSet({20}));
    EXPECT_EQ(tag(upload), "assemble remote file") << "chunk 20 is never sent";
}

TEST_F(StorageUploadTest, CreateAnswerChoosesTheWholeFileOnlyWhenItFitsAndIsAllowed) {
    if (!test::wholeFileUploadFits(1 << 20)) GTEST_SKIP() << "needs 512 MiB of free space";
    auto whole = makeUpload(40);
    whole->resume();
    settle();
    answer(whole, created("F3", 40));
    EXPECT_TRUE(whole->canUploadFullFile());
    EXPECT_EQ(tag(whole), "upload entire file");
    EXPECT_TRUE(whole->chunkIndicesToUpload().empty());
    whole->handleFullFileProgress(0.5f);
    EXPECT_EQ(whole->progress()->completedUnitCount(), 51) << "10 x 10 x 0.5 + 1";

    auto forced = makeUpload(40);
    forced->setForceChunkUploading(true);
    forced->resume();
    settle();
    answer(forced, created("F4", 1 << 20));
    EXPECT_FALSE(forced->canUploadFullFile());
    EXPECT_EQ(tag(forced), "chunk index 0, 1, 2, 3, 4, 5, 6, 7");

    auto small = makeUpload(40);
    small->setMaximumFullFileUploadSize(39);
    EXPECT_FALSE(small->canUploadFullFile());
}

TEST_F(StorageUploadTest, FullFileFailureFallsBackToChunksOnlyWhileReachable) {
    auto upload = uploadFor("F5", 12);  // 3 chunks
    answer(upload, recorded("PUT", "files/F5/fullfile", {}, serverError(500)));
    EXPECT_EQ(upload->error(), nullptr);
    EXPECT_EQ(tag(upload), "chunk index 0, 1, 2");
    EXPECT_EQ(upload->chunkIndicesToUpload(), ZNVIndexSet::withRange(0, 3));

    auto offline = uploadFor("F6", 12);
    answer(offline, recorded("PUT", "files/F6/fullfile", {}, serverError(500)), false);
    ASSERT_NE(offline->error(), nullptr);
    EXPECT_EQ(ZNVNetworkErrorHandler_serverStatusForError(offline->error()), 500);
    EXPECT_EQ(offline->state(), ZNVNetworkTaskStateCompleted);
    // Answers that arrive after a failure change nothing.
    answer(offline, chunksSent("F6", {0}));
    EXPECT_EQ(offline->state(), ZNVNetworkTaskStateCompleted);
}

TEST_F(StorageUploadTest, AssemblyConflictResendsMissingChunksThreeTimesThenFails) {
    auto upload = uploadFor("F7", 24);  // 6 chunks
    upload->assembleRemoteFile();
    settle();
    const nlohmann::json conflict = {{"message", "chunks are missing"},
                                     {"missingChunks", {{{"index", 5}}, {{"index", 2}}}}};
    for (int cycle = 0; cycle < 3; ++cycle) {
        ASSERT_EQ(tag(upload), "assemble remote file") << "cycle " << cycle;
        answer(upload, recorded("POST", "files/F7/complete", conflict, serverError(409)));
        EXPECT_EQ(tag(upload), "chunk index 2, 5") << "cycle " << cycle;
        EXPECT_EQ(upload->remainingAttemptsForFileCompletion(), 2u - cycle);
        answer(upload, chunksSent("F7", {2, 5}));
    }
    answer(upload, recorded("POST", "files/F7/complete", conflict, serverError(409)));
    ASSERT_NE(upload->error(), nullptr) << "the fourth conflict is the end";
    EXPECT_EQ(ZNVNetworkErrorHandler_serverStatusForError(upload->error()), 409);
    EXPECT_EQ(upload->state(), ZNVNetworkTaskStateCompleted);

    // A conflict that names no missing chunk fails at once.
    auto bare = uploadFor("F8", 24);
    answer(bare, recorded("POST", "files/F8/complete", {{"message", "x"}}, serverError(409)));
    EXPECT_NE(bare->error(), nullptr);
    // resetForResume restores the cycles.
    upload->resetForResume();
    EXPECT_EQ(upload->remainingAttemptsForFileCompletion(), 3u);
}

TEST_F(StorageUploadTest, AlreadyCompletedFileFinishesOrPostProcesses) {
    const nlohmann::json done = {{"message", "the file was already completed"}};
    auto plain = uploadFor("F9", 8);
    plain->beginUploadingChunksAtIndices({0, 1});
    settle();
    answer(plain, recorded("PUT", "files/F9", done, serverError(403), ZNVIndexSet{0, 1}));
    EXPECT_EQ(plain->state(), ZNVNetworkTaskStateCompleted);
    EXPECT_EQ(plain->error(), nullptr);

    auto video = uploadFor("F10", 8, /*video=*/true);
    video->assembleRemoteFile();
    settle();
    answer(video, recorded("POST", "files/F10/complete", done, serverError(403)));
    EXPECT_EQ(tag(video), "request video post processing");
    answer(video, recorded("POST", "files/F10/process", {{"fileId", "F10"}}));
    EXPECT_EQ(video->state(), ZNVNetworkTaskStateCompleted);
    EXPECT_EQ(video->error(), nullptr);

    // Without the message a 403 is an ordinary failure.
    auto refused = uploadFor("F11", 8);
    answer(refused, recorded("PUT", "files/F11", {{"message", "forbidden"}}, serverError(403)));
    EXPECT_NE(refused->error(), nullptr);
}

TEST_F(StorageUploadTest, SuccessWhileUnreachableKeepsTheProgressAndSuspends) {
    auto upload = uploadFor("F12", 40);  // 10 chunks
    upload->beginUploadingChunksAtIndices(ZNVIndexSet::withRange(0, 10));
    settle();
    answer(upload, chunksSent("F12", ZNVIndexSet::withRange(0, 8)), /*reachable=*/false);
    EXPECT_EQ(upload->chunkIndicesToUpload(), ZNVIndexSet({8, 9}));
    EXPECT_EQ(upload->state(), ZNVNetworkTaskStateSuspended);
    EXPECT_EQ(upload->task(), nullptr);
    EXPECT_EQ(upload->rawError(), nullptr);
    EXPECT_EQ(upload->pendingBatchChunkCount(), 0u);

    ASSERT_TRUE(upload->resume());
    settle();
    EXPECT_EQ(tag(upload), "chunk index 8, 9");
}

TEST_F(StorageUploadTest, EarlyRetrievalCreatesTheFileThenWaitsForItsTurn) {
    if (!test::wholeFileUploadFits(1 << 20)) GTEST_SKIP() << "needs 512 MiB of free space";
    auto upload = makeUpload(12);
    upload->resolveRemoteFileID();
    settle();
    EXPECT_TRUE(upload->needsEarlyActivation());
    EXPECT_EQ(tag(upload), "new remote file");
    upload->resolveRemoteFileID();  // already asked: nothing more

    answer(upload, created("F13", 1 << 20));
    EXPECT_FALSE(upload->needsEarlyActivation());
    EXPECT_EQ(upload->remoteFileID(), "F13");
    EXPECT_EQ(upload->state(), ZNVNetworkTaskStateSuspended);
    EXPECT_EQ(upload->task(), nullptr);
    EXPECT_EQ(upload->chunkIndicesToUpload(), ZNVIndexSet::withRange(0, 3));

    // Its turn comes: chunks, although the whole file would have been allowed.
    ASSERT_TRUE(upload->resume());
    settle();
    EXPECT_EQ(tag(upload), "chunk index 0, 1, 2");
    upload->resolveRemoteFileID();  // has an ID: nothing
    EXPECT_FALSE(upload->needsEarlyActivation());
}

TEST_F(StorageUploadTest, ChunkProgressCountsSentChunksTheIDAndTheBatchInFlight) {
    auto upload = uploadFor("F14", 16);  // 4 chunks, 42 units
    upload->beginUploadingChunksAtIndices({2, 3});
    settle();
    ASSERT_EQ(upload->pendingBatchChunkCount(), 2u);
    upload->handleChunkProgress(0.5f);
    EXPECT_EQ(upload->progress()->completedUnitCount(), 31);
    EXPECT_EQ(upload->progress()->totalUnitCount(), 42);
    upload->handleChunkProgress(0.99f);
    EXPECT_EQ(upload->progress()->completedUnitCount(), 40);
}

TEST_F(StorageUploadTest, ValidationNamesTheFirstMissingPiece) {
    const std::string path = test::makeTempDir("src") + "/a.bin";
    test::writePatternFile(path, 10);
    auto noAccount = ZNVStorageUpload::create(ZNVURL::fileURL(path), "", nullptr, "", "", false,
                                              harness.session);
    EXPECT_FALSE(noAccount->validateParameters());
    EXPECT_EQ(noAccount->rawError()->localizedDescription(), "an account is required");
    EXPECT_EQ(noAccount->rawError()->code(), NSURLErrorUserAuthenticationRequired);

    auto noSession = ZNVStorageUpload::create(ZNVURL::fileURL(path), "", harness.account, "", "",
                                              false, nullptr);
    noSession->resume();
    ASSERT_NE(noSession->error(), nullptr);
    EXPECT_EQ(noSession->error()->localizedDescription(), "a network session is required");

    const std::string inBundle =
        ZNVMainBundlePath() + "/znv-upload-test-" + std::to_string(::getpid()) + ".bin";
    test::writePatternFile(inBundle, 10);
    auto bundled = ZNVStorageUpload::create(ZNVURL::fileURL(inBundle), "", harness.account, "", "",
                                            false, harness.session);
    EXPECT_FALSE(bundled->validateParameters());
    EXPECT_EQ(bundled->error()->localizedDescription(),
              "file must be in the data container (not the bundle)");
    // Named through a link from outside, it is still the bundle's file.
    const fs::path link = fs::path(path).parent_path() / "link-into-bundle.bin";
    fs::create_symlink(inBundle, link);
    auto linked = ZNVStorageUpload::create(ZNVURL::fileURL(link.string()), "", harness.account, "",
                                           "", false, harness.session);
    EXPECT_FALSE(linked->validateParameters());
    ASSERT_NE(linked->rawError(), nullptr);
    EXPECT_EQ(linked->rawError()->code(), NSURLErrorBadURL);
    fs::remove(link);
    fs::remove(inBundle);

    // A name that sanitises to nothing cannot be created remotely.
    auto nameless = makeUpload(10, false, "***.bin");
    EXPECT_TRUE(nameless->resume());
    ASSERT_NE(nameless->error(), nullptr);
    EXPECT_EQ(nameless->error()->localizedDescription(), "failed to formulate a file name");
}

TEST_F(StorageUploadTest, ArchiveRoundTripKeepsThePipelineFields) {
    const std::string path = test::makeTempDir("src") + "/clip.mov";
    test::writePatternFile(path, 10);
    auto upload = ZNVStorageUpload::create(ZNVURL::fileURL(path), "remote.mov", harness.account,
                                           "shared-1", "hint-1", true, harness.session);
    upload->setRemoteFileID("F16");
    upload->beginUploadingChunksAtIndices({1, 2});
    settle();
    upload->setMaximumFullFileUploadSize(77);
    EXPECT_NE(upload->description().find(" for remote file F16"), std::string::npos);

    ZNVBytes data = ZNVKeyedArchiver::archivedDataWithRootObject(*upload);
    ASSERT_TRUE(upload->sourceURLBookmark().has_value()) << "made on first archiving";
    auto json = nlohmann::ordered_json::parse(data.begin(), data.end());
    std::vector<std::string> keys;
    for (const auto& item : json["$top"]["root"].items())
        keys.push_back(item.key());
    const std::vector<std::string> tail(keys.end() - 16, keys.end());
    EXPECT_EQ(tail,
              (std::vector<std::string>{
                  "remote file ID", "shared storage ID", "multiplexing hint", "source URL bookmark",
                  "chunk indices to upload", "chunk count", "size of last chunk",
                  "pending batch chunk count", "remote file name", "maximum full-file upload size",
                  "requires video post processing", "source device", "source inode", "source size",
                  "source modification time", "uploads chunks"}));

    ZNVErrorRef error;
    auto decoded = test::unarchivedTask<ZNVStorageUpload>(data, &error);
    ASSERT_NE(decoded, nullptr) << (error ? error->description() : "");
    EXPECT_EQ(decoded->rawError(), nullptr);
    EXPECT_EQ(decoded->state(), ZNVNetworkTaskStateSuspended);
    EXPECT_EQ(decoded->remoteFileID(), "F16");
    EXPECT_EQ(decoded->sharedStorageID(), "shared-1");
    EXPECT_EQ(decoded->multiplexingHint(), "hint-1");
    EXPECT_EQ(decoded->remoteFilename(), "remote.mov");
    EXPECT_EQ(decoded->chunkIndicesToUpload(), ZNVIndexSet({1, 2}));
    EXPECT_EQ(decoded->pendingBatchChunkCount(), 2u);
    EXPECT_EQ(decoded->maximumFullFileUploadSize(), 77u);
    EXPECT_TRUE(decoded->requiresVideoPostProcessing());
    EXPECT_TRUE(decoded->uploadsChunks());
    EXPECT_FALSE(decoded->forceChunkUploading());
    EXPECT_EQ(decoded->account(), nullptr) << "re-attached by connectToAccount";
    EXPECT_EQ(decoded->sourceURL(), upload->sourceURL());
    // Restored from a bookmark the application made through a linked
    // directory, the source is still named by its real path.
    const std::string linked = fs::path(path).parent_path().string() + "-link";
    fs::create_directory_symlink(fs::path(path).parent_path(), linked);
    upload->setSourceURLBookmark(ZNVBookmark::createData(ZNVURL::fileURL(linked + "/clip.mov")));
    auto viaLink = test::unarchivedTask<ZNVStorageUpload>(
        ZNVKeyedArchiver::archivedDataWithRootObject(*upload));
    ASSERT_NE(viaLink, nullptr);
    EXPECT_EQ(viaLink->sourceURL(), upload->sourceURL());

    decoded->connectToAccount(harness.account, harness.session, nullptr);
    EXPECT_EQ(decoded->account(), harness.account);
    EXPECT_EQ(decoded->session(), harness.session);
    upload->connectToAccount(nullptr, nullptr, nullptr);
    EXPECT_EQ(upload->account(), harness.account) << "only decoded uploads are re-attached";
}

TEST_F(StorageUploadTest, AnUploadOnChunksNeverFallsBackToTheWholeFileAfterARelaunch) {
    if (!test::wholeFileUploadFits(1 << 20)) GTEST_SKIP() << "needs 512 MiB of free space";
    // One upload was forced to chunks and killed before its first batch; the
    // other was refused whole, sent its only batch and was killed while
    // assembling. Both would fit whole; after the relaunch neither may send
    // the file whole.
    auto forced = makeUpload(4);
    forced->setForceChunkUploading(true);
    auto sent = makeUpload(4);
    for (const auto& [upload, id] : {std::pair{forced, "F21"}, std::pair{sent, "F22"}}) {
        upload->setMaximumFullFileUploadSize(1 << 20);
        upload->resume();
        settle();
        answer(upload, created(id, 1 << 20));
    }
    ASSERT_EQ(tag(forced), "chunk index 0");
    ASSERT_EQ(tag(sent), "upload entire file");
    answer(sent, recorded("PUT", "files/F22/fullfile", {}, serverError(500)));
    ASSERT_EQ(tag(sent), "chunk index 0");
    answer(sent, chunksSent("F22", {0}));
    ASSERT_EQ(tag(sent), "assemble remote file");
    EXPECT_TRUE(sent->chunkIndicesToUpload().empty());

    for (const auto& [upload, expected] :
         {std::pair{forced, "chunk index 0"}, std::pair{sent, "assemble remote file"}}) {
        ZNVBytes data = ZNVKeyedArchiver::archivedDataWithRootObject(*upload);
        auto decoded = test::unarchivedTask<ZNVStorageUpload>(data);
        ASSERT_NE(decoded, nullptr);
        EXPECT_TRUE(decoded->uploadsChunks());
        decoded->connectToAccount(harness.account, harness.session, nullptr);
        ASSERT_TRUE(decoded->resume());
        settle();
        EXPECT_EQ(tag(decoded), expected) << upload->remoteFileID();
    }
}

TEST_F(StorageUploadTest, DecodedUploadNoticesASourceThatGrewAcrossAChunkBoundary) {
    auto upload = makeUpload(8, false, "grows.bin");  // 2 full chunks
    ZNVBytes data = ZNVKeyedArchiver::archivedDataWithRootObject(*upload);
    test::appendFile(upload->sourceURL()->path(), "x");
    auto decoded = test::unarchivedTask<ZNVStorageUpload>(data);
    ASSERT_NE(decoded, nullptr);
    ASSERT_NE(decoded->error(), nullptr);
    EXPECT_EQ(decoded->error()->localizedDescription(),
              "The source of the upload has changed or moved.");
    EXPECT_EQ(decoded->error()->code(), NSURLErrorFileDoesNotExist);
    EXPECT_EQ(decoded->state(), ZNVNetworkTaskStateCompleted);
    EXPECT_EQ(decoded->chunkCount(), 3u);
    EXPECT_FALSE(decoded->resume()) << "a failed upload does not start";
}

}  // namespace
}  // namespace znv
