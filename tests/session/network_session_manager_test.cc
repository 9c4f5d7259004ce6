#include "znv/session/network_session_manager.h"

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <nlohmann/json.hpp>
#include <thread>
#include <tuple>

#include "tests/session/session_test_support.h"
#include "znv/foundation/error_handler.h"
#include "znv/platform/filesystem.h"
#include "znv/protocol/storage_response.h"

namespace znv {
namespace {

using json = nlohmann::json;
using test::RecordingDelegate;
constexpr uint64_t MiB = 1024 * 1024;

json bodyJSON(const std::optional<ZNVBytes>& data) {
    return data ? json::parse(data->begin(), data->end(), nullptr, false) : json(nullptr);
}

bool exists(const ZNVURL& url) {
    struct stat st {};
    return ::lstat(url.path().c_str(), &st) == 0;
}

int64_t statusOf(const ZNVErrorRef& error) {
    return ZNVNetworkErrorHandler_serverStatusForError(error);
}

class SessionManagerTest : public ::testing::Test {
  protected:
    void SetUp() override {
        std::string failure;
        ASSERT_TRUE(emulator_.start(&failure)) << failure;
        configuration_ =
            std::make_shared<ZNVAccountConfiguration>(*ZNVURL::fromString(emulator_.baseURL()));
        delegate_ = std::make_shared<RecordingDelegate>();
        manager_ = ZNVNetworkSessionManager::create(configuration_, delegate_);
        ASSERT_TRUE(manager_);
        manager_->launch();
    }
    void TearDown() override {
        if (manager_) {
            manager_->invalidate();
            test::waitFor([&] { return !manager_->backgroundDelegate(); });
        }
    }

    // The emulator's log entries for a method and path, oldest first.
    std::vector<json> logged(const std::string& method, const std::string& path) {
        std::vector<json> entries;
        for (const json& entry : emulator_.requestLog()) {
            if (entry["method"] == method && entry["path"] == path) entries.push_back(entry);
        }
        return entries;
    }

    // Resumes the task and waits for its completion.
    RecordingDelegate::Completion run(const std::shared_ptr<ZNVURLSessionTask>& task) {
        EXPECT_TRUE(task);
        if (!task) return {};
        task->resume();
        auto completion = delegate_->waitForCompletion(task);
        EXPECT_TRUE(completion) << "no completion for " << task->taskDescription();
        return completion ? *completion : RecordingDelegate::Completion{};
    }

    std::string createRemoteFile(const std::string& name) {
        auto c = run(manager_->createRemoteFileWithName(name, std::nullopt, auth_, std::nullopt));
        EXPECT_FALSE(c.error);
        return bodyJSON(c.data).value("fileId", "");
    }

    emulator::Emulator emulator_;
    ZNVAccountConfigurationRef configuration_;
    std::shared_ptr<RecordingDelegate> delegate_;
    std::shared_ptr<ZNVNetworkSessionManager> manager_;
    ZNVAuthenticationRef auth_ = std::make_shared<ZNVAuthentication>("dev-token");
};

TEST(SessionManagerConstruction, NeedsConfigurationDelegateAndStorageURL) {
    auto delegate = std::make_shared<RecordingDelegate>();
    auto configuration = [](const std::string& url, const std::string& identifier = "") {
        return std::make_shared<ZNVAccountConfiguration>(
            url.empty() ? ZNVURL() : *ZNVURL::fromString(url), identifier);
    };
    EXPECT_FALSE(ZNVNetworkSessionManager::create(nullptr, delegate));
    EXPECT_FALSE(ZNVNetworkSessionManager::create(configuration("http://h/api/"), nullptr));
    EXPECT_FALSE(ZNVNetworkSessionManager::create(configuration(""), delegate));

    auto live = ZNVNetworkSessionManager::create(configuration("http://h/api"), delegate);
    ASSERT_TRUE(live);
    // The base URL gains its trailing slash so that "files" resolves below it.
    EXPECT_EQ(live->baseURL().absoluteString(), "http://h/api/");
    EXPECT_EQ(live->apiURLforRemoteFileID("F7").absoluteString(), "http://h/api/files/F7");
    EXPECT_EQ(live->apiURLforRemoteFileID("F:7@x!$&'()*+,;=-._~").absoluteString(),
              "http://h/api/files/F:7@x!$&'()*+,;=-._~");
    EXPECT_EQ(live->apiURLforRemoteFileID("\xC3\xA9").absoluteString(),
              "http://h/api/files/%C3%A9");
    const std::string app = ZNVApplicationIdentifier();
    ASSERT_FALSE(app.empty());
    EXPECT_EQ(live->formedBackgroundSessionIdentifier(), app + ".ZNVStorage");
    // Formed, never applied: the session is a foreground one.
    EXPECT_EQ(live->sessionIdentifier(), std::nullopt);
    EXPECT_EQ(live->backgroundDelegate(), delegate);
    EXPECT_NE(live->description().find("session: "), std::string::npos);

    auto beta = ZNVNetworkSessionManager::create(configuration("http://h/api/", "beta"), delegate);
    EXPECT_EQ(beta->formedBackgroundSessionIdentifier(), app + ".ZNVStorage.beta");
    EXPECT_EQ(beta->sessionIdentifier(), std::nullopt);
    // Both are dropped without invalidation: their sessions must wind down.
}

TEST(SessionManagerTags, AreReadFromTheSessionTaskAlone) {
    EXPECT_EQ(ZNVNetworkSessionManager::maximumChunkSize(), 4194304u);
    auto session = ZNVURLSession::create(ZNVURLSessionConfiguration::defaultSessionConfiguration());
    auto task = session->downloadTaskWithURL(*ZNVURL::fromString("http://127.0.0.1:9/x"));
    auto tagged = [&](const std::string& tag) {
        task->setTaskDescription(tag);
        return std::make_pair(ZNVNetworkSessionManager::chunkIndicesForTask(task),
                              ZNVNetworkSessionManager::taskIsForDownload(task));
    };
    EXPECT_EQ(tagged("chunk index 3, 4, 5"),
              std::make_pair(std::optional(ZNVIndexSet{3, 4, 5}), false));
    EXPECT_EQ(tagged("chunk index 9"), std::make_pair(std::optional(ZNVIndexSet{9}), false));
    EXPECT_EQ(tagged("chunk index"), std::make_pair(std::optional<ZNVIndexSet>(), false));
    EXPECT_EQ(tagged("Chunk index 1"), std::make_pair(std::optional<ZNVIndexSet>(), false));
    EXPECT_EQ(tagged("download"), std::make_pair(std::optional<ZNVIndexSet>(), true));
    EXPECT_EQ(tagged("resume download"), std::make_pair(std::optional<ZNVIndexSet>(), true));
    EXPECT_EQ(tagged("Download"), std::make_pair(std::optional<ZNVIndexSet>(), false));
    EXPECT_EQ(tagged("download "), std::make_pair(std::optional<ZNVIndexSet>(), false));
    EXPECT_EQ(tagged(""), std::make_pair(std::optional<ZNVIndexSet>(), false));
    EXPECT_FALSE(ZNVNetworkSessionManager::taskHasAuthentication(task));
    EXPECT_FALSE(ZNVNetworkSessionManager::chunkIndicesForTask(nullptr));
    EXPECT_FALSE(ZNVNetworkSessionManager::taskIsForDownload(nullptr));
    EXPECT_FALSE(ZNVNetworkSessionManager::taskHasAuthentication(nullptr));
    session->invalidateAndCancel();
}

TEST_F(SessionManagerTest, BackgroundWorkRunsInlineUntilLaunched) {
    auto delegate = std::make_shared<RecordingDelegate>();
    auto manager = ZNVNetworkSessionManager::create(configuration_, delegate);
    test::LogCapture log(spdlog::level::warn);
    std::thread::id ranOn;
    bool flagged = true;
    manager->performBackgroundSessionBlock([&] {
        ranOn = std::this_thread::get_id();
        flagged = manager->currentThreadIsBackgroundSessionThread();
    });
    EXPECT_EQ(ranOn, std::this_thread::get_id());
    EXPECT_FALSE(flagged);
    EXPECT_EQ(log.find("Background session queue"),
              "warning|Background session queue is suspended.");
    manager->performBackgroundSessionBlock(nullptr);  // nothing to do

    // A request made before launch completes only once the queue runs.
    auto task = manager->getInformationForRemoteFile("none", auth_);
    task->resume();
    test::waitFor([&] {
        return !logged("GET", "/api/files/none").empty() &&
               logged("GET", "/api/files/none")[0]["status"] != 0;
    });
    EXPECT_FALSE(delegate->completion(task->taskIdentifier()));

    manager->launch();
    std::mutex mutex;
    std::vector<int> order;
    std::atomic<bool> onQueue{true};
    for (int i = 0; i < 3; ++i) {
        manager->performBackgroundSessionBlock([&, i] {
            onQueue = onQueue && manager->currentThreadIsBackgroundSessionThread();
            std::lock_guard guard(mutex);
            order.push_back(i);
        });
    }
    ASSERT_TRUE(test::waitFor([&] {
        std::lock_guard guard(mutex);
        return order.size() == 3;
    }));
    EXPECT_EQ(order, (std::vector<int>{0, 1, 2}));
    EXPECT_TRUE(onQueue);
    auto completion = delegate->waitForCompletion(task);
    ASSERT_TRUE(completion);
    EXPECT_EQ(statusOf(completion->error), 404);
    EXPECT_TRUE(delegate->everythingOnCallbackQueue());
    manager->invalidate();
}

TEST_F(SessionManagerTest, ResponseBytesAreReplacedNotAppended) {
    auto task = manager_->session()->dataTaskWithRequest(
        ZNVURLRequest(*ZNVURL::fromString(emulator_.baseURL())));
    auto bytes = [](const std::string& s) { return ZNVBytes(s.begin(), s.end()); };
    manager_->didReceiveData(manager_->session(), task, bytes(R"({"a":)"));
    manager_->didReceiveData(manager_->session(), task, bytes(R"({"b":2})"));
    EXPECT_EQ(manager_->dataForTask(task->taskIdentifier()), bytes(R"({"b":2})"));
    manager_->setData(ZNVBytes(), task);
    EXPECT_FALSE(manager_->dataForTask(task->taskIdentifier()));
    manager_->setData(bytes("x"), task);
    manager_->setData(std::nullopt, task);
    EXPECT_FALSE(manager_->dataForTask(task->taskIdentifier()));
    manager_->setData(bytes("x"), nullptr);  // ignored
}

// Every storage operation, sent to the emulator: the request as it crossed the
// wire, the task's tag and kind, and the answer as the delegate receives it.
TEST_F(SessionManagerTest, AChunkedUploadCrossesTheWireAsBuilt) {
    std::string source = test::makeTempDir("src") + "/clip.mov";
    const uint64_t size = 9 * MiB + 77;  // chunks of 4 MiB, 4 MiB and 1 MiB + 77
    test::writePatternFile(source, size, 5);
    test::LogCapture log;

    // Create, with a shared storage ID and a multiplexing hint.
    auto createTask = manager_->createRemoteFileWithName("clip.mov", "shared-1", auth_, "hint-7");
    ASSERT_TRUE(createTask);
    EXPECT_EQ(createTask->kind(), ZNVURLSessionTask::Kind::Download);
    EXPECT_EQ(createTask->taskDescription(), "new remote file");
    EXPECT_EQ(bodyJSON(createTask->originalRequest().HTTPBody()),
              (json{{"fileName", "clip.mov"}, {"sharedStorageId", "shared-1"}}));
    auto created = run(createTask);
    ASSERT_FALSE(created.error);
    auto createResponse =
        ZNVStorageResponse::responseForTask(createTask, created.data, created.error);
    ASSERT_TRUE(createResponse);
    EXPECT_EQ(createResponse->type(), ZNVStorageResponseTypeNewRemoteFile);
    const std::string id = createResponse->remoteFileID();
    ASSERT_FALSE(id.empty());
    EXPECT_EQ(createResponse->maximumFullFileUploadSize(), 1ull << 30);
    auto createLog = logged("POST", "/api/files");
    ASSERT_EQ(createLog.size(), 1u);
    EXPECT_EQ(createLog[0]["status"], 201);
    EXPECT_EQ(createLog[0]["headers"]["Authorization"], "Bearer dev-...");  // the 201: all of it
    EXPECT_EQ(createLog[0]["headers"]["Accept"], "application/json");
    EXPECT_EQ(createLog[0]["headers"]["Content-Type"], "application/json");
    EXPECT_EQ(createLog[0]["headers"]["znvmultiplexinghint"], "hint-7");
    EXPECT_EQ(createLog[0]["bodySize"], createTask->originalRequest().HTTPBody().size());
    // The request log shows the JSON body; the completion log the answer.
    std::string requestEntry = log.find("POST " + emulator_.baseURL() + "files");
    EXPECT_NE(requestEntry.find(R"("fileName":"clip.mov")"), std::string::npos) << requestEntry;
    EXPECT_NE(requestEntry.find("Authorization: Bearer dev-..."), std::string::npos);

    // A batch of two chunks, not neighbours.
    std::vector<ZNVStorageChunkRef> first = {_chunkWithIndexForFileSize(0, size),
                                             _chunkWithIndexForFileSize(2, size)};
    auto batchTask = manager_->uploadChunks(first, ZNVURL::fileURL(source), id, auth_);
    ASSERT_TRUE(batchTask);
    EXPECT_EQ(batchTask->kind(), ZNVURLSessionTask::Kind::Upload);
    EXPECT_EQ(batchTask->taskDescription(), "chunk index 0, 2");
    auto staged = manager_->pathManager()->uploadURLForRemoteFile(id, ZNVIndexSet{0}, "chunk");
    ASSERT_TRUE(staged && exists(*staged));
    auto batch = run(batchTask);
    EXPECT_FALSE(batch.error);
    EXPECT_FALSE(exists(*staged));  // removed when the request ended
    auto batchResponse = ZNVStorageResponse::responseForTask(batchTask, batch.data, batch.error);
    EXPECT_EQ(batchResponse->type(), ZNVStorageResponseTypeUploadedChunk);
    EXPECT_EQ(batchResponse->localChunkIndicesToUpload(), (ZNVIndexSet{0, 2}));
    EXPECT_EQ(batchResponse->remoteChunkIndices(), (ZNVIndexSet{0, 2}));
    auto batchLog = logged("PUT", "/api/files/" + id);
    ASSERT_EQ(batchLog.size(), 1u);
    EXPECT_EQ(batchLog[0]["status"], 200);
    EXPECT_EQ(batchLog[0]["parts"], (json{"chunkData.0", "chunkData.2"}));
    EXPECT_EQ(batchLog[0]["headers"]["Content-Type"].get<std::string>().rfind(
                  "multipart/form-data; boundary=0xKhTmLbOuNdArY-", 0),
              0u);
    EXPECT_FALSE(delegate_->progress(batchTask->taskIdentifier()).empty());
    EXPECT_FLOAT_EQ(delegate_->progress(batchTask->taskIdentifier()).back(), 1.0f);
    std::string completionEntry = log.find("chunk indices: 0, 2");
    EXPECT_NE(completionEntry.find("session task: " + std::to_string(batchTask->taskIdentifier())),
              std::string::npos);

    // Assembling too early: a 409 that names the missing chunk.
    std::vector<uint64_t> sizes = {4 * MiB, 4 * MiB, MiB + 77};
    auto earlyTask = manager_->assembleRemoteFile(id, ZNVIndexSet{0, 1, 2}, sizes, auth_);
    ASSERT_TRUE(earlyTask);
    EXPECT_EQ(earlyTask->taskDescription(), "assemble remote file");
    auto stagedJSON = manager_->pathManager()->uploadURLForRemoteFile(id, std::nullopt, "json");
    const std::string stagedText = test::readFile(stagedJSON->path());
    EXPECT_EQ(json::parse(stagedText, nullptr, false),
              json::parse(R"({"expectedChunks": [{"index": 0, "sizeInBytes": 4194304},
                              {"index": 1, "sizeInBytes": 4194304},
                              {"index": 2, "sizeInBytes": 1048653}]})"));
    auto early = run(earlyTask);
    ASSERT_TRUE(early.error);
    EXPECT_EQ(early.error->domain(), NSURLErrorDomain);
    EXPECT_EQ(statusOf(early.error), 409);
    auto earlyResponse = ZNVStorageResponse::responseForTask(earlyTask, early.data, early.error);
    EXPECT_EQ(earlyResponse->type(), ZNVStorageResponseTypeAssembledRemoteFile);
    EXPECT_EQ(earlyResponse->missingRemoteChunkIndices(), (ZNVIndexSet{1}));
    EXPECT_FALSE(exists(*stagedJSON));
    EXPECT_NE(log.find(", 409 ").find("missingChunks"), std::string::npos);

    // The missing chunk, then a successful assembly.
    auto second = run(manager_->uploadChunks({_chunkWithIndexForFileSize(1, size)},
                                             ZNVURL::fileURL(source), id, auth_));
    EXPECT_FALSE(second.error);
    EXPECT_EQ(ZNVStorageResponse::responseForTask(second.task, second.data, nullptr)
                  ->remoteChunkIndices(),
              (ZNVIndexSet{0, 1, 2}));
    auto assembled = run(manager_->assembleRemoteFile(id, ZNVIndexSet{0, 1, 2}, sizes, auth_));
    ASSERT_FALSE(assembled.error);
    auto assembledResponse =
        ZNVStorageResponse::responseForTask(assembled.task, assembled.data, nullptr);
    EXPECT_TRUE(assembledResponse->remoteFileIsComplete());
    ASSERT_TRUE(assembledResponse->remoteContentURL());
    auto completeLog = logged("POST", "/api/files/" + id + "/complete");
    ASSERT_EQ(completeLog.size(), 2u);
    EXPECT_EQ(completeLog[1]["headers"]["Content-Type"], "application/json");

    // Information, post-processing.
    auto info = run(manager_->getInformationForRemoteFile(id, auth_));
    EXPECT_FALSE(info.error);
    EXPECT_EQ(info.task->taskDescription(), "information for remote file");
    auto infoResponse = ZNVStorageResponse::responseForTask(info.task, info.data, nullptr);
    EXPECT_EQ(infoResponse->type(), ZNVStorageResponseTypeRemoteFileInformation);
    EXPECT_TRUE(infoResponse->remoteFileIsComplete());
    auto processTask = manager_->postProcessRemoteVideoFile(id, auth_);
    ASSERT_TRUE(processTask);
    EXPECT_EQ(processTask->taskDescription(), "request video post processing");
    EXPECT_EQ(bodyJSON(processTask->originalRequest().HTTPBody()),
              json::parse(R"({"type": "encode", "values": {"outputType": "video/mp4"}})"));
    auto processed = run(processTask);
    EXPECT_FALSE(processed.error);
    EXPECT_EQ(ZNVStorageResponse::responseForTask(processTask, processed.data, nullptr)->type(),
              ZNVStorageResponseTypePostProcessedRemoteVideoFile);
    EXPECT_EQ(logged("POST", "/api/files/" + id + "/process")[0]["status"], 202);

    // The assembled file, downloaded without any authorisation, equals the
    // source: the emulator read every multipart body back correctly.
    auto downloadTask = manager_->downloadRemoteFile(*assembledResponse->remoteContentURL());
    ASSERT_TRUE(downloadTask);
    EXPECT_EQ(downloadTask->taskDescription(), "download");
    auto downloaded = run(downloadTask);
    EXPECT_FALSE(downloaded.error);
    EXPECT_FALSE(downloaded.data);  // a plain download's body went to the file
    auto content = delegate_->download(downloadTask->taskIdentifier());
    ASSERT_TRUE(content);
    EXPECT_TRUE(*content == test::readFile(source));
    EXPECT_FALSE(ZNVStorageResponse::responseForTask(downloadTask, std::nullopt, nullptr));
    auto contentLog = logged("GET", "/content/" + id);
    ASSERT_EQ(contentLog.size(), 1u);
    EXPECT_FALSE(contentLog[0]["headers"].contains("Authorization"));
    // No JSON "Accept" either (the transfer engine's own "*/*" may be there).
    EXPECT_NE(contentLog[0]["headers"].value("Accept", ""), "application/json");
    EXPECT_FLOAT_EQ(delegate_->progress(downloadTask->taskIdentifier()).back(), 1.0f);
    // Storage answers that arrive as downloads report no progress.
    EXPECT_TRUE(delegate_->progress(info.task->taskIdentifier()).empty());

    // Delete; the file is gone afterwards.
    auto deleted = run(manager_->deleteRemoteFile(id, auth_));
    EXPECT_FALSE(deleted.error);
    EXPECT_EQ(deleted.task->taskDescription(), "delete remote file");
    EXPECT_EQ(ZNVStorageResponse::responseForTask(deleted.task, deleted.data, nullptr)->type(),
              ZNVStorageResponseTypeDeletedRemoteFile);
    auto gone = run(manager_->getInformationForRemoteFile(id, auth_));
    EXPECT_EQ(statusOf(gone.error), 404);
    EXPECT_TRUE(delegate_->everythingOnCallbackQueue());
}

TEST_F(SessionManagerTest, AWholeFileUploadAndItsLog) {
    std::string source = test::makeTempDir("src") + "/whole.bin";
    test::writePatternFile(source, 3 * MiB, 9);
    const std::string id = createRemoteFile("whole.bin");
    ASSERT_FALSE(id.empty());
    // Without shared storage ID and hint: only the name, no hint header.
    auto createLog = logged("POST", "/api/files");
    EXPECT_FALSE(createLog[0]["headers"].contains("znvmultiplexinghint"));

    test::LogCapture log;
    auto longToken = std::make_shared<ZNVAuthentication>("abcdefgh");
    manager_->useAuthentication(longToken);
    auto uploadTask = manager_->uploadLocalFile(ZNVURL::fileURL(source), id, auth_);
    ASSERT_TRUE(uploadTask);
    EXPECT_EQ(uploadTask->taskDescription(), "upload entire file");
    EXPECT_EQ(uploadTask->kind(), ZNVURLSessionTask::Kind::Upload);
    std::string entry = log.find("PUT " + emulator_.baseURL() + "files/" + id + "/fullfile");
    EXPECT_EQ(entry, "info|\n   PUT " + emulator_.baseURL() + "files/" + id +
                         "/fullfile\n   Authorization: Bearer dev-...\n   Accept: "
                         "application/json\n   Content-Type: application/octet-stream\n   "
                         "session task: " +
                         std::to_string(uploadTask->taskIdentifier()));
    auto uploaded = run(uploadTask);
    EXPECT_FALSE(uploaded.error);
    auto response = ZNVStorageResponse::responseForTask(uploadTask, uploaded.data, nullptr);
    EXPECT_EQ(response->type(), ZNVStorageResponseTypeUploadedFullFile);
    EXPECT_TRUE(response->remoteFileIsComplete());
    auto putLog = logged("PUT", "/api/files/" + id + "/fullfile");
    ASSERT_EQ(putLog.size(), 1u);
    EXPECT_EQ(putLog[0]["headers"]["Content-Type"], "application/octet-stream");
    EXPECT_EQ(putLog[0]["bodySize"], 3 * MiB);
    EXPECT_FLOAT_EQ(delegate_->progress(uploadTask->taskIdentifier()).back(), 1.0f);

    // Shortened tokens: eight characters show four, three show whole.
    auto shortToken = std::make_shared<ZNVAuthentication>("abc");
    auto infoTask = manager_->getInformationForRemoteFile(id, longToken);
    EXPECT_EQ(log.find("GET " + emulator_.baseURL() + "files/" + id),
              "info|\n   GET " + emulator_.baseURL() + "files/" + id +
                  "\n   Authorization: Bearer abcd...\n   Accept: application/json\n   session "
                  "task: " +
                  std::to_string(infoTask->taskIdentifier()));
    infoTask->cancel();
    auto deleteTask = manager_->deleteRemoteFile(id, shortToken);
    EXPECT_NE(log.find("DELETE ").find("Authorization: Bearer abc\n"), std::string::npos);
    deleteTask->cancel();
    for (const std::string& line : log.lines()) {
        EXPECT_EQ(line.find("abcdefgh"), std::string::npos) << line;
    }
    // The cancelled tasks still complete through the delegate.
    auto cancelled = delegate_->waitForCompletion(deleteTask);
    ASSERT_TRUE(cancelled && cancelled->error);
    EXPECT_EQ(cancelled->error->code(), NSURLErrorCancelled);
}

TEST_F(SessionManagerTest, InputChecksComeFirstAndInOrder) {
    test::LogCapture log;
    auto none = std::make_shared<ZNVAuthentication>("");
    auto expectError = [](const ZNVErrorRef& error, int64_t code, const std::string& message) {
        ASSERT_TRUE(error) << message;
        EXPECT_EQ(error->domain(), NSURLErrorDomain) << message;
        EXPECT_EQ(error->code(), code) << message;
        EXPECT_EQ(error->localizedDescription(), message);
    };
    ZNVErrorRef error;

    // A missing token fails and keeps the token stored before.
    ASSERT_TRUE(manager_->useAuthentication(auth_));
    EXPECT_FALSE(manager_->useAuthentication(none, &error));
    expectError(error, NSURLErrorUserAuthenticationRequired, "missing access token");
    EXPECT_FALSE(manager_->useAuthentication(nullptr));
    EXPECT_EQ(manager_->accessToken(), "dev-token");
    EXPECT_FALSE(manager_->getInformationForRemoteFile("F", none, &error));
    expectError(error, NSURLErrorUserAuthenticationRequired, "missing access token");
    EXPECT_EQ(log.find("failed to create network task"),
              "error|failed to create network task in method: "
              "getInformationForRemoteFile:authentication:error:");

    // Input checks run before the authentication.
    EXPECT_FALSE(manager_->createRemoteFileWithName("", std::nullopt, none, std::nullopt, &error));
    expectError(error, NSURLErrorCannotCreateFile, "empty filename");
    // A remote file ID goes into the path as it is: one that would end or
    // leave its segment is refused by every operation, never sent elsewhere.
    for (const std::string& id :
         std::vector<std::string>{"", ".", "..", "F1/../x", "a?b=1", "a#b", "a%2Fb", "a b", "a\\b",
                                  std::string("a\0b", 3), "a\x1b[2J"}) {
        for (auto make : std::vector<std::function<std::shared_ptr<ZNVURLSessionTask>()>>{
                 [&] { return manager_->postProcessRemoteVideoFile(id, none, &error); },
                 [&] { return manager_->getInformationForRemoteFile(id, none, &error); },
                 [&] { return manager_->deleteRemoteFile(id, none, &error); },
                 [&] { return manager_->uploadLocalFile(ZNVURL::fileURL("/x"), id, none, &error); },
                 [&] {
                     return manager_->uploadChunks({}, ZNVURL::fileURL("/x"), id, none, &error);
                 },
                 [&] {
                     return manager_->assembleRemoteFile(id, ZNVIndexSet{0}, json{1}, none, &error);
                 },
             }) {
            EXPECT_FALSE(make());
            expectError(
                error, NSURLErrorCannotWriteToFile,
                id.empty() ? "empty file identifier" : "invalid file identifier \"" + id + "\"");
        }
    }

    // Assembly checks, in order.
    const std::vector<std::tuple<std::optional<ZNVIndexSet>, json, std::string>> assemblies = {
        {std::nullopt, json{1}, "chunk indices must be specified"},
        {ZNVIndexSet{0}, nullptr, "chunk sizes must be specified"},
        {ZNVIndexSet{0, 1}, json{10},
         "The count of chunk indices (2) doesn't match the count of chunk sizes (1)."},
        {ZNVIndexSet{0, 1}, json{10, "20"}, "chunk sizes must be unsigned integer values"},
        {ZNVIndexSet{0}, json{-1}, "chunk sizes must be unsigned integer values"},
    };
    for (const auto& [indices, sizes, message] : assemblies) {
        EXPECT_FALSE(manager_->assembleRemoteFile("F", indices, sizes, auth_, &error));
        expectError(error, NSURLErrorCannotCreateFile, message);
    }

    // A chunk batch that cannot be staged reports the writer's error.
    EXPECT_FALSE(manager_->uploadChunks({}, ZNVURL::fileURL("/x"), "F", auth_, &error));
    ASSERT_TRUE(error);
    EXPECT_EQ(error->localizedDescription(), "no chunks specified");

    // No local file: no task, and deliberately no error.
    error = ZNVError::withMessage("stale", 1, "stale");
    EXPECT_FALSE(manager_->uploadLocalFile(ZNVURL(), "F", auth_, &error));
    EXPECT_FALSE(error);

    // Downloads need a remote URL and no authentication.
    EXPECT_FALSE(manager_->downloadRemoteFile(ZNVURL(), &error));
    expectError(error, NSURLErrorBadURL, "empty remote URL");
    EXPECT_FALSE(manager_->downloadRemoteFile(ZNVURL::fileURL("/etc/hosts"), &error));
    expectError(error, NSURLErrorBadURL, "the remote URL may not be a local file");
    EXPECT_FALSE(manager_->resumeRemoteFileDownloadFromData(ZNVBytes(), &error));
    expectError(error, NSURLErrorUnknown, "empty resume data");
    EXPECT_EQ(emulator_.requestLog().size(), 0u);
}

TEST_F(SessionManagerTest, StagedBatchesStayOnlyWhenCancelled) {
    std::string source = test::makeTempDir("src") + "/small.bin";
    test::writePatternFile(source, 200, 2);
    std::vector<ZNVStorageChunkRef> batch;
    for (uint64_t i = 8; i < 16; ++i)
        batch.push_back(ZNVStorageChunk::create(i, 10, i * 10));

    auto task = manager_->uploadChunks(batch, ZNVURL::fileURL(source), "nope", auth_);
    ASSERT_TRUE(task);
    EXPECT_EQ(task->taskDescription(), "chunk index 8, 9, 10, 11, 12, 13, 14, 15");
    EXPECT_EQ(ZNVNetworkSessionManager::chunkIndicesForTask(task), ZNVIndexSet::withRange(8, 8));
    auto staged = manager_->pathManager()->uploadURLForRemoteFile("nope", ZNVIndexSet{8}, "chunk");
    ASSERT_TRUE(exists(*staged));
    // Cancelled before it was sent: the body stays for a restart.
    task->cancel();
    auto cancelled = delegate_->waitForCompletion(task);
    ASSERT_TRUE(cancelled && cancelled->error);
    EXPECT_EQ(cancelled->error->code(), NSURLErrorCancelled);
    EXPECT_TRUE(exists(*staged));

    // Sent to a file the service does not know: a 404, and the body goes.
    auto failed = run(manager_->uploadChunks(batch, ZNVURL::fileURL(source), "nope", auth_));
    EXPECT_EQ(statusOf(failed.error), 404);
    EXPECT_FALSE(exists(*staged));
}

TEST_F(SessionManagerTest, ListsItsLiveTasksAndInvalidationCancelsThemAndReleasesTheDelegate) {
    // Tasks that were made and never started are listed by kind, and
    // cancelled all the same.
    auto info = manager_->getInformationForRemoteFile("F", auth_);
    auto upload = manager_->uploadLocalFile(ZNVURL::fileURL("/dev/null"), "F", auth_);
    ASSERT_TRUE(info && upload);
    std::atomic<bool> called{false};
    size_t data = 9, uploads = 0, downloads = 0;
    manager_->getTasksWithCompletionHandler(
        [&](const auto& dataTasks, const auto& uploadTasks, const auto& downloadTasks) {
            data = dataTasks.size();
            uploads = uploadTasks.size();
            downloads = downloadTasks.size();
            called = true;
        });
    ASSERT_TRUE(test::waitFor([&] { return called.load(); }));
    EXPECT_EQ(data, 0u);
    EXPECT_EQ(uploads, 1u);
    EXPECT_EQ(downloads, 1u);

    test::LogCapture log;
    manager_->invalidate();
    for (const std::shared_ptr<ZNVURLSessionTask>& task :
         std::vector<std::shared_ptr<ZNVURLSessionTask>>{info, upload}) {
        auto completion = delegate_->waitForCompletion(task);
        ASSERT_TRUE(completion && completion->error);
        EXPECT_EQ(completion->error->code(), NSURLErrorCancelled);
    }
    ASSERT_TRUE(test::waitFor([&] { return !manager_->backgroundDelegate(); }));
    EXPECT_EQ(log.find("invalidated"), "info|URL session (null) was intentionally invalidated.");
    // Nothing can be made any more, and nothing is reported.
    ZNVErrorRef error;
    EXPECT_FALSE(manager_->getInformationForRemoteFile("F", auth_, &error));
    EXPECT_FALSE(error);
    EXPECT_EQ(emulator_.requestLog().size(), 0u);
}

// Answers read from download files are held to the in-memory limit: a create
// answered with 17 MiB fails with -1103 and hands on no data; one just under
// the limit is read.
TEST_F(SessionManagerTest, AnOversizedAnswerFailsTheRequestUnread) {
    for (const uint64_t padding : {17 * MiB, 15 * MiB}) {
        SCOPED_TRACE(padding);
        ASSERT_TRUE(emulator_.addFault(
            {{"method", "POST"},
             {"path", "/api/files"},
             {"times", 1},
             {"action", "status"},
             {"status", 201},
             {"body",
              {{"fileId", "F1"}, {"fileName", "big"}, {"padding", std::string(padding, 'a')}}}}));
        auto c = run(manager_->createRemoteFileWithName("big", std::nullopt, auth_, std::nullopt));
        if (padding > 16 * MiB) {
            ASSERT_NE(c.error, nullptr);
            EXPECT_EQ(c.error->domain(), NSURLErrorDomain);
            EXPECT_EQ(c.error->code(), NSURLErrorDataLengthExceedsMaximum);
            EXPECT_FALSE(c.data && !c.data->empty());
        } else {
            EXPECT_EQ(c.error, nullptr);
            EXPECT_EQ(bodyJSON(c.data).value("fileId", ""), "F1");
        }
    }
}

}  // namespace
}  // namespace znv
