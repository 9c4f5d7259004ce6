// The URL session against the storage emulator on loopback (and a tiny local
// server for redirects and oversized bodies).
#include <gtest/gtest.h>
#include <httplib.h>
#include <sys/stat.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <set>
#include <thread>
#include <tuple>

#include <nlohmann/json.hpp>

#include "tests/support/test_support.h"
#include "tests/url_session/session_harness.h"
#include "znv/platform/filesystem.h"
#include "znv/platform/url_session.h"
#include "znv/platform/url_session_resume_data.h"

namespace znv::test {
namespace {

using Kind = SessionEvent::Kind;
using json = nlohmann::json;

ZNVURL url(const std::string& text) {
    return ZNVURL::fromString(text).value();
}

ZNVBytes bytes(const std::string& text) {
    return ZNVBytes(text.begin(), text.end());
}

std::vector<std::string> listDirectory(const std::string& path) {
    std::vector<std::string> names;
    for (const auto& entry : std::filesystem::directory_iterator(path))
        names.push_back(entry.path().filename().string());
    std::sort(names.begin(), names.end());
    return names;
}

int64_t errorCode(const std::optional<SessionEvent>& completion) {
    if (!completion) return 1;  // never completed
    return completion->error ? completion->error->code() : 0;
}

class URLSessionTest : public ::testing::Test {
  protected:
    void SetUp() override {
        std::string error;
        ASSERT_TRUE(emulator_.start(&error)) << error;
        downloads_ = makeTempDir("downloads");
        queue_ = std::make_shared<ZNVOperationQueue>("delegate");
        delegate_ = std::make_shared<RecordingDelegate>(downloads_);
        delegate_->setQueue(queue_);
    }

    void TearDown() override {
        if (session_ && !session_->isInvalidated()) {
            session_->invalidateAndCancel();
            EXPECT_TRUE(delegate_->waitForInvalid());
        }
        queue_->waitUntilAllOperationsAreFinished();
    }

    std::shared_ptr<ZNVURLSession> makeSession(
        ZNVURLSessionConfiguration configuration =
            ZNVURLSessionConfiguration::defaultSessionConfiguration()) {
        session_ = ZNVURLSession::create(configuration, delegate_, queue_);
        return session_;
    }

    ZNVURLRequest apiRequest(const std::string& method, const std::string& path) {
        ZNVURLRequest request(url(emulator_.baseURL() + path));
        request.setHTTPMethod(method);
        request.setValue("Bearer dev-token", "Authorization");
        request.setValue("application/json", "Accept");
        return request;
    }

    // The request log entries for one method and path prefix.
    std::vector<json> logged(const std::string& method, const std::string& pathPrefix) {
        std::vector<json> found;
        for (const auto& entry : emulator_.requestLog()) {
            if (entry.value("method", "") == method &&
                entry.value("path", "").rfind(pathPrefix, 0) == 0) {
                found.push_back(entry);
            }
        }
        return found;
    }

    // Starts a task and waits for its completion: 0, the error's code, or 1
    // if it never completed.
    int64_t run(const std::shared_ptr<ZNVURLSessionTask>& task) {
        task->resume();
        return errorCode(delegate_->waitForCompletion(task->taskIdentifier()));
    }

    // What a download handed over: the content of the file of the callback
    // just before its completion.
    std::string downloadedBody(uint64_t task) {
        auto events = delegate_->eventsFor(task);
        if (events.size() < 2 || events[events.size() - 2].kind != Kind::Finished)
            return "<no file handed over right before the completion>";
        return readFile(events[events.size() - 2].text);
    }

    std::string loggedHeader(const json& entry, const std::string& name) {
        for (const auto& [key, value] : entry.at("headers").items()) {
            if (strcasecmp(key.c_str(), name.c_str()) == 0) return value.get<std::string>();
        }
        return {};
    }

    emulator::Emulator emulator_;
    std::string downloads_;
    std::shared_ptr<ZNVOperationQueue> queue_;
    std::shared_ptr<RecordingDelegate> delegate_;
    std::shared_ptr<ZNVURLSession> session_;
};

TEST_F(URLSessionTest, DataTasksCarryRequestsAndDeliverResponseAndWholeBody) {
    auto session = makeSession();
    std::string id = createRemoteFile(emulator_, "first.bin");
    emulator_.clearRequestLog();

    auto get = session->dataTaskWithRequest(apiRequest("GET", "files/" + id));
    ZNVURLRequest post = apiRequest("POST", "files");
    std::string parameters = json{{"fileName", "second.bin"}}.dump();
    post.setHTTPBody(bytes(parameters));
    post.setValue("application/json", "content-type");
    auto create = session->dataTaskWithRequest(post);
    ASSERT_TRUE(get && create);
    EXPECT_EQ(get->taskIdentifier() + 1, create->taskIdentifier());
    EXPECT_EQ(get->state(), ZNVURLSessionTaskStateSuspended);
    EXPECT_EQ(create->originalRequest().valueForHTTPHeaderField("Content-Type"),
              "application/json");

    std::vector<int64_t> states;
    std::mutex statesMutex;
    get->addObserver("state", [&](const ZNVKeyValueChangeRecord&) {
        std::lock_guard guard(statesMutex);
        states.push_back(get->state());
    });

    // Nothing is sent for a suspended task.
    queue_->waitUntilAllOperationsAreFinished();
    EXPECT_TRUE(logged("GET", "/api/files/").empty());

    get->resume();
    create->resume();
    auto fetched = delegate_->waitForCompletion(get->taskIdentifier());
    auto created = delegate_->waitForCompletion(create->taskIdentifier());
    ASSERT_EQ(errorCode(fetched), 0);
    ASSERT_EQ(errorCode(created), 0);
    EXPECT_EQ(fetched->a, ZNVURLSessionTaskStateCompleted);

    auto response = get->response();
    ASSERT_TRUE(response);
    EXPECT_EQ(response->statusCode(), 200);
    EXPECT_EQ(response->MIMEType(), "application/json");
    EXPECT_EQ(response->URL().absoluteString(), emulator_.baseURL() + "files/" + id);
    EXPECT_TRUE(response->valueForHTTPHeaderField("CONTENT-TYPE").has_value());
    EXPECT_EQ(ZNVHTTPURLResponse::localizedStringForStatusCode(response->statusCode()), "no error");

    // The body arrives once, whole, before the completion, on the delegate queue.
    auto events = delegate_->eventsFor(get->taskIdentifier());
    ASSERT_EQ(events.size(), 2u);
    EXPECT_EQ(events[0].kind, Kind::Data);
    EXPECT_EQ(json::parse(events[0].text).at("fileId"), id);
    EXPECT_EQ(events[1].kind, Kind::Completed);
    for (const auto& event : delegate_->events())
        EXPECT_TRUE(event.onDelegateQueue);
    {
        std::lock_guard guard(statesMutex);
        EXPECT_EQ(states, (std::vector<int64_t>{ZNVURLSessionTaskStateRunning,
                                                ZNVURLSessionTaskStateCompleted}));
    }

    // The in-memory body went out with its headers, and its progress was told.
    EXPECT_EQ(create->response()->statusCode(), 201);
    auto posts = logged("POST", "/api/files");
    ASSERT_EQ(posts.size(), 1u);
    EXPECT_EQ(posts[0].at("bodySize"), parameters.size());
    // The log keeps four characters of the token; the 201 says it matched.
    EXPECT_EQ(loggedHeader(posts[0], "Authorization"), "Bearer dev-...");
    EXPECT_EQ(loggedHeader(posts[0], "Content-Type"), "application/json");
    EXPECT_EQ(loggedHeader(posts[0], "Accept"), "application/json");
    EXPECT_EQ(delegate_->totalSent(create->taskIdentifier()),
              static_cast<int64_t>(parameters.size()));
    EXPECT_EQ(create->countOfBytesSent(), static_cast<int64_t>(parameters.size()));
}

// A request goes out once per task: a kept-alive connection that the server
// drops after reading a create is a lost connection for the caller, not a
// second create that libcurl sends by itself on a new connection.
TEST_F(URLSessionTest, ARequestIsNeverSentTwiceByOneTask) {
    auto session = makeSession();
    std::string id = createRemoteFile(emulator_, "first.bin");
    ASSERT_EQ(run(session->dataTaskWithRequest(apiRequest("GET", "files/" + id))), 0);
    emulator_.clearRequestLog();
    ASSERT_TRUE(emulator_.addFault(
        {{"method", "POST"}, {"path", "/api/files"}, {"action", "reset"}, {"times", 1}}));
    auto create = [&] {
        ZNVURLRequest post = apiRequest("POST", "files");
        post.setHTTPBody(bytes(json{{"fileName", "second.bin"}}.dump()));
        post.setValue("application/json", "Content-Type");
        return session->dataTaskWithRequest(post);
    };
    EXPECT_EQ(run(create()), NSURLErrorNetworkConnectionLost);
    EXPECT_EQ(logged("POST", "/api/files").size(), 1u);
    // The next task goes out on a connection that works.
    EXPECT_EQ(run(create()), 0);
    EXPECT_EQ(logged("POST", "/api/files").size(), 2u);
}

TEST_F(URLSessionTest, UploadStreamsFileWithThrottledProgress) {
    auto session = makeSession();
    const uint64_t size = 8 << 20;
    std::string source = makeTempDir("upload") + "/source.bin";
    writePatternFile(source, size, 7);
    std::string id = createRemoteFile(emulator_, "source.bin");

    ZNVURLRequest request = apiRequest("PUT", "files/" + id + "/fullfile");
    request.setValue("application/octet-stream", "Content-Type");
    auto task = session->uploadTaskWithRequest(request, ZNVURL::fileURL(source));
    EXPECT_EQ(task->countOfBytesExpectedToSend(), static_cast<int64_t>(size));
    auto started = std::chrono::steady_clock::now();
    task->resume();
    auto completion = delegate_->waitForCompletion(task->taskIdentifier(), 60);
    auto elapsed = std::chrono::steady_clock::now() - started;
    ASSERT_EQ(errorCode(completion), 0);
    EXPECT_EQ(task->response()->statusCode(), 200);
    EXPECT_EQ(task->countOfBytesSent(), static_cast<int64_t>(size));

    // Progress adds up, only grows, ends at the size, and is throttled.
    int64_t sum = 0;
    int64_t last = 0;
    size_t callbacks = 0;
    bool sawData = false;
    for (const auto& event : delegate_->eventsFor(task->taskIdentifier())) {
        if (event.kind == Kind::Data) sawData = true;
        if (event.kind != Kind::Sent) continue;
        EXPECT_FALSE(sawData) << "progress after the body";
        ++callbacks;
        sum += event.a;
        EXPECT_GT(event.b, last);
        EXPECT_EQ(event.c, static_cast<int64_t>(size));
        last = event.b;
    }
    EXPECT_EQ(sum, static_cast<int64_t>(size));
    EXPECT_EQ(last, static_cast<int64_t>(size));
    auto tenths = std::chrono::duration_cast<std::chrono::milliseconds>(elapsed).count() / 100;
    EXPECT_LE(callbacks, size / (64 * 1024) + static_cast<size_t>(tenths) + 2);
    EXPECT_TRUE(sawData);

    // What the emulator stored is the file.
    httplib::Client client("127.0.0.1", emulator_.port());
    auto content = client.Get(("/content/" + id).c_str());
    ASSERT_TRUE(content);
    EXPECT_TRUE(content->body == readFile(source));
}

TEST_F(URLSessionTest, HeavyUploadOf512MiBKeepsMemoryFlat) {
    auto session = makeSession();
    const uint64_t size = 512ull << 20;
    std::string source = makeTempDir("heavy") + "/big.bin";
    writePatternFile(source, size, 11);
    std::string id = createRemoteFile(emulator_, "big.bin");
    std::string target = emulator_.baseURL() + "files/" + id + "/fullfile";

    ZNVURLRequest request(url(target));
    request.setHTTPMethod("PUT");
    request.setValue("Bearer dev-token", "Authorization");
    request.setValue("application/octet-stream", "Content-Type");
    auto task = session->uploadTaskWithRequest(request, ZNVURL::fileURL(source));
    uint64_t before = currentRSS();
    uint64_t highest = before;
    auto started = std::chrono::steady_clock::now();
    task->resume();
    bool done = waitFor(
        [&] {
            highest = std::max(highest, currentRSS());
            return task->state() == ZNVURLSessionTaskStateCompleted;
        },
        std::chrono::minutes(5));
    double seconds =
        std::chrono::duration<double>(std::chrono::steady_clock::now() - started).count();
    ASSERT_TRUE(done);
    ASSERT_FALSE(task->error()) << task->error()->description();
    EXPECT_EQ(task->response()->statusCode(), 200);
    double growth = static_cast<double>(highest - before) / (1 << 20);
    double rate = static_cast<double>(size) / (1 << 20) / seconds;
    std::printf(
        "[ heavy    ] 512 MiB upload: %.1f MiB/s, resident memory %.1f MiB before, "
        "at most %.1f MiB during (+%.1f MiB)\n",
        rate, static_cast<double>(before) / (1 << 20), static_cast<double>(highest) / (1 << 20),
        growth);
    // The emulator runs in this process and streams the body to disk too.
    EXPECT_LT(growth, 48.0);
}

TEST_F(URLSessionTest, DownloadReportsProgressAndHandsOverAPrivateFileAlsoOfAnErrorPage) {
    auto session = makeSession();
    std::string content = patternBytes(3 << 20, 3);
    std::string source = putFileOnEmulator(emulator_, content);

    auto task = session->downloadTaskWithURL(url(source));
    ASSERT_EQ(run(task), 0);

    int64_t last = 0;
    for (const auto& event : delegate_->eventsFor(task->taskIdentifier())) {
        if (event.kind != Kind::Written) continue;
        EXPECT_EQ(event.b - last, event.a);
        EXPECT_EQ(event.c, static_cast<int64_t>(content.size()));
        last = event.b;
    }
    EXPECT_EQ(last, static_cast<int64_t>(content.size()));
    EXPECT_TRUE(downloadedBody(task->taskIdentifier()) == content);
    EXPECT_TRUE(delegate_->lastLocationWasPrivate());
    EXPECT_EQ(ZNVURL::fileURL(delegate_->lastLocation()).deletingLastPathComponent().path(),
              ZNVPrivateTemporaryDirectory());

    // A file the delegate leaves in place is removed once the callback returns.
    delegate_->setMovesDownloads(false);
    ASSERT_EQ(run(session->downloadTaskWithURL(url(source))), 0);
    std::string left = delegate_->lastLocation();
    EXPECT_NE(left, "");
    struct stat info {};
    EXPECT_NE(stat(left.c_str(), &info), 0) << left << " is still there";

    // An HTTP error status is an answer, not a failure: the error page is the file.
    delegate_->setMovesDownloads(true);
    auto missing = session->downloadTaskWithURL(url(emulator_.rootURL() + "content/nothing"));
    ASSERT_EQ(run(missing), 0);
    EXPECT_EQ(missing->response()->statusCode(), 404);
    EXPECT_EQ(ZNVHTTPURLResponse::localizedStringForStatusCode(409), "conflict");
    EXPECT_NE(downloadedBody(missing->taskIdentifier()).find("no content"), std::string::npos);
}

// A download kept in memory never touches the private directory: its body
// (cut at the limit, with the count of all that arrived) reaches a delegate
// that takes it in memory; one that only knows files still gets a file.
TEST_F(URLSessionTest, DownloadKeptInMemoryHandsOverItsBodyWithoutAFile) {
    struct MemoryDelegate : RecordingDelegate {
        using RecordingDelegate::RecordingDelegate;
        void didFinishDownloadingData(const std::shared_ptr<ZNVURLSession>&,
                                      const std::shared_ptr<ZNVURLSessionDownloadTask>&,
                                      const ZNVBytes& data, int64_t totalBytes) override {
            std::lock_guard guard(mutex);
            bodies.emplace_back(std::string(data.begin(), data.end()), totalBytes);
        }
        std::mutex mutex;
        std::vector<std::pair<std::string, int64_t>> bodies;
    };
    const std::string content = patternBytes(300000, 9);
    const std::string source = putFileOnEmulator(emulator_, content);
    auto memory = std::make_shared<MemoryDelegate>(downloads_);
    memory->setQueue(queue_);
    session_ = ZNVURLSession::create(ZNVURLSessionConfiguration::defaultSessionConfiguration(),
                                     memory, queue_);
    const auto before = listDirectory(ZNVPrivateTemporaryDirectory());
    for (uint64_t limit : {uint64_t{1} << 20, uint64_t{1000}}) {
        auto task = session_->downloadTaskWithURL(url(source));
        task->keepBodyInMemory(limit);
        task->resume();
        ASSERT_EQ(errorCode(memory->waitForCompletion(task->taskIdentifier())), 0);
    }
    {
        std::lock_guard guard(memory->mutex);
        ASSERT_EQ(memory->bodies.size(), 2u);
        EXPECT_TRUE(memory->bodies[0].first == content);
        EXPECT_EQ(memory->bodies[1].first, content.substr(0, 1000));
        EXPECT_EQ(memory->bodies[1].second, static_cast<int64_t>(content.size()));
    }
    EXPECT_EQ(listDirectory(ZNVPrivateTemporaryDirectory()), before);
    session_->invalidateAndCancel();
    EXPECT_TRUE(memory->waitForInvalid());

    // The default hands a delegate that knows only files a file of the body.
    auto session = makeSession();
    auto task = session->downloadTaskWithURL(url(source));
    task->keepBodyInMemory(uint64_t{1} << 20);
    ASSERT_EQ(run(task), 0);
    EXPECT_TRUE(downloadedBody(task->taskIdentifier()) == content);
}

class ResumeTest : public URLSessionTest {
  protected:
    // Starts a slow download of `content` and cancels it with resume data
    // once some of it has arrived.
    ZNVBytes cancelMidway(const std::string& source, size_t contentSize) {
        emulator_.addFault({{"method", "GET"},
                            {"path", "/content/*"},
                            {"action", "throttle"},
                            {"bytesPerSecond", 1 << 20},
                            {"times", 1}});
        auto task = session_->downloadTaskWithURL(url(source));
        task->resume();
        EXPECT_TRUE(waitFor([&] { return delegate_->totalWritten(task->taskIdentifier()) > 0; }));

        ZNVBytes resumeData;
        std::atomic<bool> handled{false};
        task->cancelByProducingResumeData([&](const ZNVBytes& data) {
            resumeData = data;
            delegate_->add(Kind::ResumeData, task->taskIdentifier(),
                           static_cast<int64_t>(data.size()), 0, 0);
            handled = true;
        });
        EXPECT_GE(task->state(), ZNVURLSessionTaskStateCanceling);
        auto completion = delegate_->waitForCompletion(task->taskIdentifier());
        EXPECT_TRUE(handled.load());
        EXPECT_EQ(errorCode(completion), NSURLErrorCancelled);
        if (completion && completion->error) {
            EXPECT_EQ(completion->error->stringValue(NSURLErrorFailingURLStringErrorKey), source);
        }
        auto events = delegate_->eventsFor(task->taskIdentifier());
        EXPECT_EQ(events[events.size() - 2].kind, Kind::ResumeData);
        EXPECT_TRUE(events[events.size() - 2].onDelegateQueue);
        EXPECT_FALSE(resumeData.empty());
        auto info = ZNVURLSessionResumeData::decode(resumeData);
        EXPECT_TRUE(info && info->bytesReceived > 0 &&
                    info->bytesReceived < static_cast<int64_t>(contentSize));
        return resumeData;
    }
};

// Resumed with the validator it was cancelled with, a download continues with
// a range; with one that no longer matches (the file changed on the server) it
// starts over. Either way the file is the content.
TEST_F(ResumeTest, CancelledDownloadResumesWithARangeOrStartsOverWhenTheFileChanged) {
    makeSession();
    std::string content = patternBytes(2 << 20, 5);
    std::string source = putFileOnEmulator(emulator_, content);
    for (bool changed : {false, true}) {
        SCOPED_TRACE(changed ? "changed validator" : "same validator");
        ZNVBytes resumeData = cancelMidway(source, content.size());
        auto info = ZNVURLSessionResumeData::decode(resumeData).value();
        const int64_t offset = info.bytesReceived;
        if (changed) {
            info.etag = "\"changed\"";
            info.lastModified.clear();
            resumeData = ZNVURLSessionResumeData::encode(info);
        }
        emulator_.clearRequestLog();

        auto resumed = session_->downloadTaskWithResumeData(resumeData);
        ASSERT_TRUE(resumed);
        EXPECT_EQ(resumed->originalRequest().URL().absoluteString(), source);
        ASSERT_EQ(run(resumed), 0);
        EXPECT_EQ(resumed->response()->statusCode(), changed ? 200 : 206);

        auto events = delegate_->eventsFor(resumed->taskIdentifier());
        ASSERT_FALSE(events.empty());
        EXPECT_EQ(events.front().kind, Kind::Resumed);
        EXPECT_EQ(events.front().a, changed ? 0 : offset);
        if (!changed) {
            EXPECT_EQ(events.front().c, static_cast<int64_t>(content.size()));
        }
        EXPECT_EQ(delegate_->totalWritten(resumed->taskIdentifier()),
                  static_cast<int64_t>(content.size()));
        EXPECT_TRUE(readFile(downloads_ + "/task-" + std::to_string(resumed->taskIdentifier())) ==
                    content);

        auto requests = logged("GET", "/content/");
        ASSERT_EQ(requests.size(), 1u);
        EXPECT_EQ(loggedHeader(requests[0], "Range"), "bytes=" + std::to_string(offset) + "-");
        if (changed) {
            EXPECT_EQ(loggedHeader(requests[0], "If-Range"), "\"changed\"");
        } else {
            EXPECT_FALSE(loggedHeader(requests[0], "If-Range").empty());
        }
        EXPECT_EQ(requests[0].at("status"), changed ? 200 : 206);
        // Only the headers the request asked for: no "Accept" of libcurl's.
        EXPECT_FALSE(requests[0].at("headers").contains("Accept")) << requests[0].dump();
    }
}

// The partial files in the session's private temporary directory.
std::set<std::string> partialFiles() {
    std::set<std::string> files;
    std::error_code error;
    for (const auto& entry :
         std::filesystem::directory_iterator(ZNVPrivateTemporaryDirectory(), error)) {
        if (entry.path().filename().string().starts_with("ZNVDownload-"))
            files.insert(entry.path().string());
    }
    return files;
}

// Resume data read from a running transfer describes a file that keeps
// filling. Used while that transfer still writes, it starts a file of its own
// (two writers would interleave two bodies); used once the transfer stopped,
// it continues from all the file holds, not from where it was read.
TEST_F(ResumeTest, RunningResumeDataContinuesFromAllTheFileHoldsAndNeverSharesAWriter) {
    makeSession();
    std::string content = patternBytes(2 << 20, 8);
    std::string source = putFileOnEmulator(emulator_, content);
    const std::set<std::string> before = partialFiles();
    emulator_.addFault({{"method", "GET"},
                        {"path", "/content/*"},
                        {"action", "throttle"},
                        {"bytesPerSecond", 1 << 20},
                        {"times", 1}});
    auto first = session_->downloadTaskWithURL(url(source));
    first->resume();
    ASSERT_TRUE(waitFor([&] { return delegate_->totalWritten(first->taskIdentifier()) > 0; }));
    const ZNVBytes running = first->runningResumeData();
    auto info = ZNVURLSessionResumeData::decode(running);
    ASSERT_TRUE(info.has_value());
    EXPECT_TRUE(info->growing);
    EXPECT_EQ(info->bytesReceived, 0);
    EXPECT_EQ(info->expectedTotalBytes, static_cast<int64_t>(content.size()));

    emulator_.clearRequestLog();
    auto early = session_->downloadTaskWithResumeData(running);
    ASSERT_EQ(run(early), 0);
    EXPECT_TRUE(readFile(downloads_ + "/task-" + std::to_string(early->taskIdentifier())) ==
                content);
    auto requests = logged("GET", "/content/");
    ASSERT_EQ(requests.size(), 1u);
    EXPECT_EQ(loggedHeader(requests[0], "Range"), "");

    // Stopped, the transfer leaves its file as a killed process would.
    std::atomic<bool> stopped{false};
    first->cancelByProducingResumeData([&](const ZNVBytes&) { stopped = true; });
    delegate_->waitForCompletion(first->taskIdentifier());
    ASSERT_TRUE(stopped.load());
    const auto held = static_cast<int64_t>(std::filesystem::file_size(info->partialFile));
    ASSERT_GT(held, 0);
    ASSERT_LT(held, static_cast<int64_t>(content.size()));

    emulator_.clearRequestLog();
    auto resumed = session_->downloadTaskWithResumeData(running);
    ASSERT_EQ(run(resumed), 0);
    EXPECT_EQ(resumed->response()->statusCode(), 206);
    auto events = delegate_->eventsFor(resumed->taskIdentifier());
    ASSERT_FALSE(events.empty());
    EXPECT_EQ(events.front().kind, Kind::Resumed);
    EXPECT_EQ(events.front().a, held);
    EXPECT_TRUE(readFile(downloads_ + "/task-" + std::to_string(resumed->taskIdentifier())) ==
                content);
    requests = logged("GET", "/content/");
    ASSERT_EQ(requests.size(), 1u);
    EXPECT_EQ(loggedHeader(requests[0], "Range"), "bytes=" + std::to_string(held) + "-");
    EXPECT_EQ(partialFiles(), before);
}

// Each way a transfer can fail becomes its own URL error: an emulator that
// holds one request unanswered and resets the connection of another after
// 1 MiB of its body, a closed port, schemes this engine does not speak (also
// behind a redirect, which is followed only to HTTP), a body file that is not
// there, and an answer one byte over what a data task may keep in memory.
TEST_F(URLSessionTest, TransportFailuresBecomeURLErrorsWithTheFailingURL) {
    EmulatorProcess faulty(
        {"--fault", R"({"method": "GET", "path": "/api/files/stalled", "action": "stall"})",
         "--fault", R"({"method": "PUT", "path": "/api/files/*/fullfile", "action": "reset",
             "afterBytes": 1048576})"});
    ASSERT_TRUE(faulty.running());
    LocalServer server(patternBytes(1000, 4));
    ZNVURLSessionConfiguration configuration =
        ZNVURLSessionConfiguration::defaultSessionConfiguration();
    configuration.timeoutIntervalForRequest = 0.5;
    configuration.maximumInMemoryBodyBytes = 999;
    auto session = makeSession(configuration);
    auto request = [&](const std::string& method, const std::string& path) {
        ZNVURLRequest request(url(faulty.baseURL() + path));
        request.setHTTPMethod(method);
        request.setValue("Bearer dev-token", "Authorization");
        return request;
    };
    auto plain = [&](const std::string& text) {
        return session->dataTaskWithRequest(ZNVURLRequest(url(text)));
    };
    std::string source = makeTempDir("reset") + "/source.bin";
    writePatternFile(source, 4 << 20, 9);
    std::string id = createRemoteFile(faulty.port(), "reset.bin");
    std::string refusedURL = "http://127.0.0.1:" + std::to_string(closedPort()) + "/x";

    auto refused = plain(refusedURL);
    auto stalled = session->dataTaskWithRequest(request("GET", "files/stalled"));
    auto oversized = plain(server.url("/payload"));
    auto unsupported = plain("ftp://127.0.0.1/x");
    ZNVURLRequest injecting = request("GET", "files/" + id);
    injecting.setValue("Bearer dev-token\r\nX-Injected: yes", "Authorization");
    const std::vector<std::pair<std::shared_ptr<ZNVURLSessionTask>, int64_t>> expected = {
        {refused, NSURLErrorCannotConnectToHost},
        {stalled, NSURLErrorTimedOut},
        {session->uploadTaskWithRequest(request("PUT", "files/" + id + "/fullfile"),
                                        ZNVURL::fileURL(source)),
         NSURLErrorNetworkConnectionLost},
        {unsupported, NSURLErrorUnsupportedURL},
        {session->dataTaskWithRequest(injecting), NSURLErrorBadURL},
        {plain(server.url("/to-file")), NSURLErrorUnsupportedURL},
        {session->uploadTaskWithRequest(request("PUT", "files/" + id + "/fullfile"),
                                        ZNVURL::fileURL(source + ".missing")),
         NSURLErrorCannotOpenFile},
        {oversized, NSURLErrorDataLengthExceedsMaximum},
        {session->downloadTaskWithURL(url(server.url("/to-payload"))), 0},
    };
    auto started = std::chrono::steady_clock::now();
    for (const auto& [task, code] : expected)
        task->resume();
    for (const auto& [task, code] : expected) {
        SCOPED_TRACE(task->originalRequest().URL().absoluteString());
        EXPECT_EQ(errorCode(delegate_->waitForCompletion(task->taskIdentifier())), code);
    }
    for (const auto& task : {refused, stalled, unsupported})
        EXPECT_EQ(task->response(), nullptr);
    EXPECT_LT(std::chrono::steady_clock::now() - started, std::chrono::seconds(10));
    auto refusal = delegate_->waitForCompletion(refused->taskIdentifier());
    ASSERT_TRUE(refusal && refusal->error);
    EXPECT_EQ(refusal->error->stringValue(NSURLErrorFailingURLStringErrorKey), refusedURL);
    EXPECT_NE(refusal->error->value(NSURLErrorFailingURLErrorKey), nullptr);
    EXPECT_FALSE(refusal->error->localizedDescription().empty());
    EXPECT_EQ(expected.back().first->response()->URL().absoluteString(), server.url("/payload"));
    for (const auto& event : delegate_->eventsFor(oversized->taskIdentifier())) {
        EXPECT_NE(event.kind, Kind::Data) << "a partial body was delivered";
    }

    ZNVErrorRef error;
    EXPECT_EQ(session->downloadTaskWithResumeData(bytes("{\"URL\": 1}"), &error), nullptr);
    ASSERT_TRUE(error);
    EXPECT_EQ(error->domain(), NSURLErrorDomain);
}

TEST_F(URLSessionTest, ManyConcurrentTasksKeepTheirCallbacksInOrderOnTheQueue) {
    auto session = makeSession();
    std::vector<std::string> sources;
    for (int i = 0; i < 3; ++i)
        sources.push_back(putFileOnEmulator(emulator_, patternBytes(200000, i)));
    std::string id = createRemoteFile(emulator_, "listed.bin");
    std::string small = makeTempDir("small") + "/small.bin";
    writePatternFile(small, 300000, 2);
    std::vector<std::string> uploadIds;
    for (int i = 0; i < 8; ++i)
        uploadIds.push_back(createRemoteFile(emulator_, "u.bin"));

    // Four threads make and start tasks at once.
    std::mutex tasksMutex;
    std::vector<std::shared_ptr<ZNVURLSessionTask>> tasks;
    std::vector<std::thread> makers;
    for (int t = 0; t < 4; ++t) {
        makers.emplace_back([&, t] {
            for (int i = 0; i < 6; ++i) {
                std::shared_ptr<ZNVURLSessionTask> task;
                switch ((t * 6 + i) % 3) {
                    case 0:
                        task = session->downloadTaskWithURL(url(sources[i % 3]));
                        break;
                    case 1:
                        task = session->dataTaskWithRequest(apiRequest("GET", "files/" + id));
                        break;
                    default:
                        task = session->uploadTaskWithRequest(
                            apiRequest("PUT", "files/" + uploadIds[(t * 6 + i) / 3] + "/fullfile"),
                            ZNVURL::fileURL(small));
                }
                task->resume();
                std::lock_guard guard(tasksMutex);
                tasks.push_back(task);
            }
        });
    }
    for (auto& maker : makers)
        maker.join();
    ASSERT_TRUE(waitFor([&] { return delegate_->completedCount() == tasks.size(); },
                        std::chrono::seconds(60)));

    std::set<uint64_t> identifiers;
    for (const auto& task : tasks) {
        identifiers.insert(task->taskIdentifier());
        auto events = delegate_->eventsFor(task->taskIdentifier());
        ASSERT_FALSE(events.empty());
        EXPECT_EQ(events.back().kind, Kind::Completed) << task->description();
        EXPECT_FALSE(events.back().error) << events.back().error->description();
        int bodies = 0;
        for (size_t i = 0; i + 1 < events.size(); ++i) {
            EXPECT_NE(events[i].kind, Kind::Completed);
            bodies += events[i].kind == Kind::Data || events[i].kind == Kind::Finished;
        }
        EXPECT_EQ(bodies, 1) << task->description();
        if (task->kind() == ZNVURLSessionTask::Kind::Upload) {
            EXPECT_EQ(delegate_->totalSent(task->taskIdentifier()), 300000);
        }
    }
    EXPECT_EQ(identifiers.size(), tasks.size());
    EXPECT_EQ(*identifiers.begin(), 1u);
    EXPECT_EQ(*identifiers.rbegin(), tasks.size());
    for (const auto& event : delegate_->events())
        EXPECT_TRUE(event.onDelegateQueue);
}

TEST_F(URLSessionTest, CancelFromAnotherThreadStopsARunningUpload) {
    auto session = makeSession();
    // Larger than what loopback socket buffers can swallow before the
    // throttled reader, so the cancel lands mid-body.
    std::string source = makeTempDir("cancel") + "/source.bin";
    writePatternFile(source, 16 << 20, 3);
    std::string id = createRemoteFile(emulator_, "slow.bin");
    emulator_.addFault({{"method", "PUT"}, {"action", "throttle"}, {"bytesPerSecond", 256 * 1024}});

    auto never = session->dataTaskWithRequest(apiRequest("GET", "files/" + id));
    auto task = session->uploadTaskWithRequest(apiRequest("PUT", "files/" + id + "/fullfile"),
                                               ZNVURL::fileURL(source));
    std::vector<int64_t> states;
    std::mutex statesMutex;
    task->addObserver("state", [&](const ZNVKeyValueChangeRecord&) {
        std::lock_guard guard(statesMutex);
        states.push_back(task->state());
    });
    task->resume();
    ASSERT_TRUE(waitFor([&] { return task->countOfBytesSent() > 0; }));

    auto cancelled = std::chrono::steady_clock::now();
    std::thread([task] { task->cancel(); }).join();
    never->cancel();
    auto completion = delegate_->waitForCompletion(task->taskIdentifier());
    EXPECT_LT(std::chrono::steady_clock::now() - cancelled, std::chrono::seconds(5));
    ASSERT_EQ(errorCode(completion), NSURLErrorCancelled);
    EXPECT_EQ(completion->error->stringValue(NSURLErrorFailingURLStringErrorKey),
              emulator_.baseURL() + "files/" + id + "/fullfile");
    EXPECT_EQ(errorCode(delegate_->waitForCompletion(never->taskIdentifier())),
              NSURLErrorCancelled);
    EXPECT_LT(task->countOfBytesSent(), 16 << 20);

    // Neither a second cancel nor a resume revives it.
    task->cancel();
    task->resume();
    never->resume();
    queue_->waitUntilAllOperationsAreFinished();
    EXPECT_EQ(task->state(), ZNVURLSessionTaskStateCompleted);
    EXPECT_EQ(delegate_->completedCount(), 2u);
    EXPECT_TRUE(logged("GET", "/api/files/").empty());
    std::lock_guard guard(statesMutex);
    EXPECT_EQ(states,
              (std::vector<int64_t>{ZNVURLSessionTaskStateRunning, ZNVURLSessionTaskStateCanceling,
                                    ZNVURLSessionTaskStateCompleted}));
}

TEST_F(URLSessionTest, InvalidateAndCancelEndsEveryTaskThenTheSession) {
    auto delegate = std::make_shared<RecordingDelegate>(downloads_);
    delegate->setQueue(queue_);
    auto session = ZNVURLSession::create(ZNVURLSessionConfiguration::defaultSessionConfiguration(),
                                         delegate, queue_);
    std::string source = putFileOnEmulator(emulator_, patternBytes(2 << 20, 1));
    emulator_.addFault({{"method", "GET"}, {"action", "throttle"}, {"bytesPerSecond", 256 * 1024}});

    auto running = session->downloadTaskWithURL(url(source));
    auto suspended = session->dataTaskWithRequest(ZNVURLRequest(url(source)));
    running->resume();
    ASSERT_TRUE(waitFor([&] { return running->countOfBytesReceived() > 0; }));

    std::atomic<int> listed{-1};
    session->getTasksWithCompletionHandler(
        [&](const auto& data, const auto& uploads, const auto& downloads) {
            listed = static_cast<int>(data.size() * 100 + uploads.size() * 10 + downloads.size());
        });
    ASSERT_TRUE(waitFor([&] { return listed.load() >= 0; }));
    EXPECT_EQ(listed.load(), 101);

    session->invalidateAndCancel();
    EXPECT_EQ(session->dataTaskWithRequest(ZNVURLRequest(url(source))), nullptr);
    ASSERT_TRUE(delegate->waitForInvalid());
    queue_->waitUntilAllOperationsAreFinished();

    auto events = delegate->events();
    ASSERT_FALSE(events.empty());
    EXPECT_EQ(events.back().kind, Kind::Invalid);
    EXPECT_FALSE(events.back().error);
    for (const auto& task : {std::shared_ptr<ZNVURLSessionTask>(running),
                             std::shared_ptr<ZNVURLSessionTask>(suspended)}) {
        auto completion = delegate->waitForCompletion(task->taskIdentifier(), 0);
        EXPECT_EQ(errorCode(completion), NSURLErrorCancelled);
        EXPECT_EQ(task->state(), ZNVURLSessionTaskStateCompleted);
    }
    // The session let go of its delegate and lists nothing any more.
    EXPECT_EQ(session->delegate(), nullptr);
    EXPECT_EQ(delegate.use_count(), 1);
    listed = -1;
    session->getTasksWithCompletionHandler(
        [&](const auto& data, const auto& uploads, const auto& downloads) {
            listed = static_cast<int>(data.size() + uploads.size() + downloads.size());
        });
    ASSERT_TRUE(waitFor([&] { return listed.load() >= 0; }));
    EXPECT_EQ(listed.load(), 0);
    EXPECT_EQ(delegate->events().size(), events.size());
}

TEST_F(URLSessionTest, FinishTasksAndInvalidateLetsRunningTasksEnd) {
    auto session = makeSession();
    std::string content = patternBytes(1 << 20, 2);
    std::string source = putFileOnEmulator(emulator_, content);
    emulator_.addFault({{"method", "GET"}, {"action", "throttle"}, {"bytesPerSecond", 2 << 20}});
    auto task = session->downloadTaskWithURL(url(source));
    task->resume();
    session->finishTasksAndInvalidate();
    EXPECT_EQ(session->downloadTaskWithURL(url(source)), nullptr);

    ASSERT_TRUE(delegate_->waitForInvalid());
    auto events = delegate_->events();
    ASSERT_GE(events.size(), 3u);
    EXPECT_EQ(events[events.size() - 2].kind, Kind::Completed);
    EXPECT_FALSE(events[events.size() - 2].error);
    EXPECT_EQ(events.back().kind, Kind::Invalid);
    EXPECT_TRUE(readFile(downloads_ + "/task-" + std::to_string(task->taskIdentifier())) ==
                content);
}

// Resume data comes back from disk: numbers that are not integers, or that no
// integer type holds, are refused instead of converted (found by fuzzing).
TEST(URLSessionResumeData, RefusesNumbersThatAreNotIntegers) {
    auto document = [](const std::string& version, const std::string& received,
                       const std::string& total) {
        std::string text = R"({"ZNVResumeDataVersion":)" + version +
                           R"(,"URL":"http://127.0.0.1:1/content/f","method":"GET","headers":{},)" +
                           R"("partialFile":"/p","bytesReceived":)" + received +
                           R"(,"expectedTotalBytes":)" + total + "}";
        return ZNVBytes(text.begin(), text.end());
    };
    auto accepted = ZNVURLSessionResumeData::decode(document("1", "5", "9"));
    ASSERT_TRUE(accepted);
    EXPECT_EQ(accepted->bytesReceived, 5);
    EXPECT_EQ(accepted->expectedTotalBytes, 9);
    for (const auto& [version, received, total] :
         std::vector<std::tuple<std::string, std::string, std::string>>{
             {std::string(200, '6'), "5", "9"},
             {"1e300", "5", "9"},
             {"1.0", "5", "9"},
             {"1", "1e300", "9"},
             {"1", "5.5", "9"},
             {"1", "5", "-1e300"},
             {"1", "5", "\"9\""}}) {
        EXPECT_FALSE(ZNVURLSessionResumeData::decode(document(version, received, total)))
            << version << " " << received << " " << total;
    }
}

}  // namespace
}  // namespace znv::test
