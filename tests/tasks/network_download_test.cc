// The download task against the emulator: a whole download into the library's
// file area, an interrupted one continued from its resume data, and the rules
// for starting, failing and finishing.
#include <gtest/gtest.h>

#include <unistd.h>

#include <atomic>
#include <filesystem>
#include <functional>
#include <limits>
#include <mutex>
#include <thread>

#include <fmt/format.h>

#include "tests/tasks/task_test_support.h"
#include "znv/platform/filesystem.h"
#include "znv/platform/keyed_archive.h"
#include "znv/platform/progress.h"
#include "znv/platform/url_session_resume_data.h"

namespace znv {
namespace {

using test::EmulatorHarness;
namespace fs = std::filesystem;

class NetworkDownloadTest : public ::testing::Test {
  protected:
    std::shared_ptr<ZNVNetworkDownload> makeDownload(const std::string& url) {
        auto download = ZNVNetworkDownload::create(ZNVURL::fromString(url), harness.session);
        harness.router->add(download);
        return download;
    }
    bool finished(const std::shared_ptr<ZNVNetworkTask>& task) {
        return test::waitFor([&] { return task->state() == ZNVNetworkTaskStateCompleted; });
    }
    // A remote file of `size` pattern bytes; `source` is its local original.
    std::string seed(const std::string& name, uint64_t size, uint32_t pattern) {
        source = test::makeTempDir("src") + "/" + name;
        test::writePatternFile(source, size, pattern);
        return harness.seedRemoteFile(name, test::readFile(source));
    }
    // Starts a throttled download of a remote file and cancels it once some
    // of it has arrived: the download ends cancelled, holding resume data.
    std::shared_ptr<ZNVNetworkDownload> cancelMidway(const std::string& id) {
        EXPECT_TRUE(harness.emulator.addFault({{"method", "GET"},
                                               {"path", "/content/*"},
                                               {"action", "throttle"},
                                               {"bytesPerSecond", 512 * 1024}}));
        auto download = makeDownload(harness.emulator.rootURL() + "content/" + id);
        EXPECT_TRUE(download->resume());
        EXPECT_TRUE(test::waitFor([&] { return download->progress()->completedUnitCount() > 50; }));
        download->cancel();
        EXPECT_TRUE(test::waitFor([&] { return partialOf(download->rawError()).second > 0; }))
            << "the cancelled transfer hands over its resume data";
        harness.emulator.clearFaults();
        return download;
    }
    // The partial file that an error's resume data names, and its length.
    static std::pair<std::string, int64_t> partialOf(const ZNVErrorRef& error) {
        const ZNVUserInfoValue* value =
            error ? error->value(NSURLSessionDownloadTaskResumeData) : nullptr;
        auto info =
            value ? ZNVURLSessionResumeData::decode(std::get<ZNVBytes>(*value)) : std::nullopt;
        return info ? std::pair{info->partialFile, info->bytesReceived}
                    : std::pair{std::string(), int64_t{0}};
    }
    // Resume data for a partial file (in the session's private directory)
    // holding `content`, with the validator the emulator gives the file.
    ZNVBytes resumeDataFor(const std::string& id, const std::string& content) {
        httplib::Client client("127.0.0.1", harness.emulator.port());
        auto head = client.Head(("/content/" + id).c_str());
        EXPECT_TRUE(head && head->status == 200);
        std::string pattern = ZNVPrivateTemporaryDirectory() + "/ZNVDownload-XXXXXX";
        int fd = mkstemp(pattern.data());
        EXPECT_GE(fd, 0);
        close(fd);
        test::writeFile(pattern, content);
        ZNVURLSessionResumeData::Info info;
        info.url = harness.emulator.rootURL() + "content/" + id;
        info.partialFile = pattern;
        info.bytesReceived = static_cast<int64_t>(content.size());
        info.etag = head ? head->get_header_value("ETag") : "";
        return ZNVURLSessionResumeData::encode(info);
    }
    // The GET requests the emulator saw for a file's content.
    nlohmann::json contentRequests(const std::string& id) const {
        nlohmann::json found = nlohmann::json::array();
        for (const auto& entry : harness.emulator.requestLog()) {
            if (entry.value("method", "") == "GET" && entry.value("path", "") == "/content/" + id)
                found.push_back(entry);
        }
        return found;
    }

    EmulatorHarness harness;
    std::string source;
};

TEST_F(NetworkDownloadTest, DownloadsIntoTheLibraryAreaAndRemovesTheFileWhenFinished) {
    const std::string id = seed("photo.jpg", 300 * 1024, 7);
    auto download = makeDownload(harness.emulator.rootURL() + "content/" + id);
    ASSERT_TRUE(download->resume());
    // A small download may already be over by the time resume returns.
    EXPECT_NE(download->state(), ZNVNetworkTaskStateSuspended);
    EXPECT_FALSE(download->resume()) << "a started download is not restarted";
    ASSERT_TRUE(finished(download));
    ASSERT_EQ(download->error(), nullptr) << download->rawError()->description();

    ASSERT_TRUE(download->localFileURL().has_value());
    const std::string local = download->localFileURL()->path();
    EXPECT_EQ(fs::path(local).parent_path(), fs::path(ZNVHomeDirectory()) / "Library" / "Network");
    const std::string name = fs::path(local).filename().string();
    EXPECT_EQ(name.rfind("download-", 0), 0u) << name;
    EXPECT_EQ(fs::path(local).extension(), ".download") << "an extension-less URL";
    EXPECT_EQ(name.size(), std::string("download-").size() + 36 + std::string(".download").size());
    EXPECT_TRUE(test::filesEqual(local, source));
    EXPECT_EQ(download->progress()->completedUnitCount(), 1000);
    EXPECT_FALSE(download->resume()) << "a completed download is not restarted";
    // The answer's head stays readable once the transfer is over.
    ASSERT_NE(download->response(), nullptr);
    EXPECT_EQ(download->response()->statusCode(), 200);
    EXPECT_TRUE(download->response()->valueForHTTPHeaderField("ETag").has_value());

    download->taskDidFinish();
    EXPECT_FALSE(download->localFileURL().has_value());
    EXPECT_FALSE(fs::exists(local));
}

TEST_F(NetworkDownloadTest, InterruptedDownloadNeverLosesTheReceivedBytes) {
    const std::string id = seed("kept.bin", 4 << 20, 5);
    auto download = cancelMidway(id);
    EXPECT_EQ(download->state(), ZNVNetworkTaskStateCompleted);
    ASSERT_NE(download->error(), nullptr);
    EXPECT_EQ(download->error()->code(), NSURLErrorCancelled);
    const auto [partial, received] = partialOf(download->rawError());
    ASSERT_EQ(static_cast<int64_t>(fs::file_size(partial)), received);
    // Named after its queue, whose next launch removes it if no save names it.
    EXPECT_TRUE(fs::path(partial).filename().string().starts_with("ZNVDownload-tests-")) << partial;

    // A retry after the cancel, then a passing 503 and connections dropped
    // before any answer (also the one the transfer library retries on by
    // itself): each attempt fails, and each hands the same partial file,
    // untouched, to the next.
    for (const nlohmann::json& fault :
         {nlohmann::json{{"method", "GET"},
                         {"path", "/content/*"},
                         {"action", "status"},
                         {"status", 503},
                         {"times", 1}},
          nlohmann::json{
              {"method", "GET"}, {"path", "/content/*"}, {"action", "reset"}, {"times", 3}}}) {
        ASSERT_TRUE(harness.emulator.addFault(fault));
        if (download->error()) {
            download->retry();
            EXPECT_EQ(download->retryCount(), 1u);
            EXPECT_FALSE(download->resumeData().has_value()) << "used up by the resumed transfer";
        } else {
            download->automaticallyRecoverFromError();
            ASSERT_TRUE(download->resume());
        }
        ASSERT_TRUE(test::waitFor([&] { return download->rawError() != nullptr; })) << fault;
        EXPECT_EQ(download->error(), nullptr) << fault << " is recoverable";
        EXPECT_EQ(partialOf(download->rawError()), std::pair(partial, received)) << fault;
        ASSERT_TRUE(fs::exists(partial)) << fault;
        EXPECT_EQ(static_cast<int64_t>(fs::file_size(partial)), received) << fault;
    }

    // Recovered but not resumed yet (no transfer running), then cancelled:
    // the partial file goes with the cancellation, and a retry continues it.
    harness.emulator.clearFaults();
    harness.emulator.clearRequestLog();
    download->automaticallyRecoverFromError();
    download->cancel();
    EXPECT_EQ(partialOf(download->error()), std::pair(partial, received));
    download->retry();
    ASSERT_TRUE(finished(download));
    ASSERT_EQ(download->error(), nullptr) << download->rawError()->description();
    EXPECT_TRUE(test::filesEqual(download->localFileURL()->path(), source));
    const auto log = harness.emulator.requestLog();
    ASSERT_EQ(log.size(), 1u) << log.dump();
    EXPECT_EQ(log[0]["status"], 206) << "only the rest was asked for";
    EXPECT_EQ(log[0]["headers"].value("Range", ""), "bytes=" + std::to_string(received) + "-");
    download->taskDidFinish();
    EXPECT_FALSE(fs::exists(partial));
}

TEST_F(NetworkDownloadTest, PartialFileHoldingTheWholeBodyCompletesOnA416) {
    const std::string id = seed("whole.bin", 300 * 1024, 9);
    const std::string content = test::readFile(source);
    const ZNVBytes resumeData = resumeDataFor(id, content);
    const std::string partial = ZNVURLSessionResumeData::decode(resumeData)->partialFile;

    harness.emulator.clearRequestLog();
    auto download = makeDownload(harness.emulator.rootURL() + "content/" + id);
    download->setResumeData(resumeData);
    ASSERT_TRUE(download->resume());
    ASSERT_TRUE(finished(download));
    ASSERT_EQ(download->error(), nullptr) << download->rawError()->description();
    EXPECT_TRUE(test::filesEqual(download->localFileURL()->path(), source));
    EXPECT_EQ(download->progress()->completedUnitCount(), 1000);
    EXPECT_FALSE(fs::exists(partial)) << "the partial file became the download";
    const auto requests = contentRequests(id);
    ASSERT_EQ(requests.size(), 1u) << requests.dump();
    EXPECT_EQ(requests[0]["status"], 416);
    EXPECT_EQ(requests[0]["headers"].value("Range", ""),
              "bytes=" + std::to_string(content.size()) + "-");
    download->taskDidFinish();

    // A partial file longer than the remote body continues nothing: the
    // attempt fails with the 416 and drops the file; a retry starts over.
    harness.emulator.clearRequestLog();
    auto longer = makeDownload(harness.emulator.rootURL() + "content/" + id);
    const ZNVBytes tooLong = resumeDataFor(id, content + "0123456789");
    longer->setResumeData(tooLong);
    ASSERT_TRUE(longer->resume());
    ASSERT_TRUE(finished(longer));
    ASSERT_NE(longer->error(), nullptr);
    EXPECT_EQ(ZNVNetworkTask::serverStatusCodeForError(longer->error()), 416);
    EXPECT_EQ(longer->error()->value(NSURLSessionDownloadTaskResumeData), nullptr);
    EXPECT_FALSE(fs::exists(ZNVURLSessionResumeData::decode(tooLong)->partialFile));
    longer->retry();
    ASSERT_TRUE(finished(longer));
    ASSERT_EQ(longer->error(), nullptr) << longer->rawError()->description();
    EXPECT_TRUE(test::filesEqual(longer->localFileURL()->path(), source));
    const auto again = contentRequests(id);
    ASSERT_EQ(again.size(), 2u) << again.dump();
    EXPECT_EQ(again[0]["status"], 416);
    EXPECT_EQ(again[1]["status"], 200);
    EXPECT_FALSE(again[1]["headers"].contains("Range"));
    longer->taskDidFinish();
}

TEST_F(NetworkDownloadTest, TooManyRequestsIsRetriedNoSoonerThanItsRetryAfter) {
    test::ManualClock clock;
    test::FullRecoveryDelays fullDelays;
    const std::string id = seed("busy.bin", 64 * 1024, 4);
    ASSERT_TRUE(harness.emulator.addFault({{"method", "GET"},
                                           {"path", "/content/*"},
                                           {"action", "status"},
                                           {"status", 429},
                                           {"headers", {{"Retry-After", "30"}}},
                                           {"times", 1}}));
    harness.emulator.clearRequestLog();
    auto download = makeDownload(harness.emulator.rootURL() + "content/" + id);
    ASSERT_TRUE(download->resume());
    ASSERT_TRUE(test::waitFor([&] { return download->rawError() != nullptr; }));
    EXPECT_EQ(download->error(), nullptr) << "429 is recoverable";
    EXPECT_EQ(download->state(), ZNVNetworkTaskStateSuspended);

    const ZNVDate failed = ZNVNetworkTask::now();
    download->automaticallyRecoverFromError();
    ASSERT_TRUE(download->nextRecoveryDate().has_value());
    EXPECT_GE(std::chrono::duration<double>(*download->nextRecoveryDate() - failed).count(), 30.0);
    clock.advance(std::chrono::seconds(29));
    download->automaticallyRecoverFromError();
    EXPECT_NE(download->rawError(), nullptr) << "recovered before the server's time";
    clock.advance(std::chrono::seconds(2));
    download->automaticallyRecoverFromError();
    ASSERT_EQ(download->rawError(), nullptr);
    ASSERT_TRUE(download->resume());
    ASSERT_TRUE(finished(download));
    ASSERT_EQ(download->error(), nullptr) << download->rawError()->description();
    EXPECT_TRUE(test::filesEqual(download->localFileURL()->path(), source));
    const auto requests = contentRequests(id);
    ASSERT_EQ(requests.size(), 2u) << requests.dump();
    EXPECT_EQ(requests[0]["status"], 429);
    EXPECT_EQ(requests[1]["status"], 200);
    download->taskDidFinish();
}

// Serves a payload with a validator and byte ranges, but cuts every answer
// off after `slice` bytes of its body (0: right after the head), as a link
// that keeps dropping would.
class CuttingServer {
  public:
    CuttingServer(std::string payload, size_t slice) : payload_(std::move(payload)) {
        server_.Get("/cut.bin", [this, slice](const httplib::Request&, httplib::Response& res) {
            ++requests;
            res.set_header("ETag", "\"cut-1\"");
            res.set_header("Accept-Ranges", "bytes");
            auto start = std::make_shared<std::optional<size_t>>();
            res.set_content_provider(
                payload_.size(), "application/octet-stream",
                [this, slice, start](size_t offset, size_t length, httplib::DataSink& sink) {
                    if (!*start) *start = offset;
                    if (offset >= **start + slice) return false;
                    size_t n = std::min({length, **start + slice - offset, size_t{16 * 1024}});
                    sink.write(payload_.data() + offset, n);
                    return true;
                });
        });
        server_.set_keep_alive_max_count(1);
        port_ = server_.bind_to_any_port("127.0.0.1");
        thread_ = std::thread([this] { server_.listen_after_bind(); });
    }
    ~CuttingServer() {
        server_.stop();
        thread_.join();
    }
    std::string url() const { return "http://127.0.0.1:" + std::to_string(port_) + "/cut.bin"; }
    std::atomic<int> requests{0};

  private:
    const std::string payload_;
    httplib::Server server_;
    int port_ = 0;
    std::thread thread_;
};

TEST_F(NetworkDownloadTest, FailuresWithBytesBetweenThemNeverUseUpTheRecoveries) {
    seed("cut.bin", 1 << 20, 2);
    const std::string payload = test::readFile(source);
    // Recovers as the network manager would, until the download completes;
    // returns the failures it recovered from.
    const auto recoverUntilDone = [&](const std::shared_ptr<ZNVNetworkDownload>& download) {
        int failures = 0;
        EXPECT_TRUE(download->resume());
        while (failures < 20) {
            EXPECT_TRUE(test::waitFor([&] {
                return download->rawError() != nullptr ||
                       download->state() == ZNVNetworkTaskStateCompleted;
            }));
            if (download->state() == ZNVNetworkTaskStateCompleted) break;
            ++failures;
            download->automaticallyRecoverFromError();
            EXPECT_TRUE(download->resume()) << "failure " << failures;
        }
        return failures;
    };

    // Eight answers of 128 KiB each: seven failures, each after progress.
    CuttingServer cutting(payload, 128 * 1024);
    auto download = makeDownload(cutting.url());
    EXPECT_EQ(recoverUntilDone(download), 7);
    ASSERT_EQ(download->error(), nullptr) << download->rawError()->description();
    EXPECT_TRUE(test::filesEqual(download->localFileURL()->path(), source));
    EXPECT_EQ(cutting.requests.load(), 8);
    download->taskDidFinish();

    // Answers that bring nothing: five recoveries, then the failure shows.
    CuttingServer empty(payload, 0);
    auto starved = makeDownload(empty.url());
    EXPECT_EQ(recoverUntilDone(starved), 5);
    ASSERT_NE(starved->error(), nullptr);
    EXPECT_EQ(starved->error()->code(), NSURLErrorNetworkConnectionLost);
    EXPECT_EQ(empty.requests.load(), 6);
}

// Serves "v1" of a payload with byte ranges and "If-Range", except that the
// first answer is the one the test gives.
class RangeServer {
  public:
    using Answer = std::function<void(int64_t offset, httplib::Response&)>;
    RangeServer(std::string payload, Answer first) : payload_(std::move(payload)) {
        // The answers below are the ranges: httplib must not slice them again.
        server_.set_pre_routing_handler([](const httplib::Request& req, httplib::Response&) {
            const_cast<httplib::Request&>(req).ranges.clear();
            return httplib::Server::HandlerResponse::Unhandled;
        });
        server_.Get("/v.bin", [this, first](const httplib::Request& req, httplib::Response& res) {
            const bool ranged = req.has_header("Range");
            const int64_t offset = ranged ? std::stoll(req.get_header_value("Range").substr(6)) : 0;
            {
                std::lock_guard lock(mutex_);
                ranges_.push_back(ranged ? offset : -1);
                if (ranges_.size() == 1) return first(offset, res);
            }
            res.set_header("ETag", "\"v1\"");
            res.set_header("Accept-Ranges", "bytes");
            if (offset > 0 && req.get_header_value("If-Range") == "\"v1\"") {
                res.status = 206;
                res.set_header("Content-Range", fmt::format("bytes {}-{}/{}", offset,
                                                            payload_.size() - 1, payload_.size()));
                res.set_content(payload_.substr(static_cast<size_t>(offset)),
                                "application/octet-stream");
            } else {
                res.set_content(payload_, "application/octet-stream");
            }
        });
        server_.set_keep_alive_max_count(1);
        port_ = server_.bind_to_any_port("127.0.0.1");
        thread_ = std::thread([this] { server_.listen_after_bind(); });
    }
    ~RangeServer() {
        server_.stop();
        thread_.join();
    }
    std::string url() const { return "http://127.0.0.1:" + std::to_string(port_) + "/v.bin"; }
    // Per request: the offset asked for, -1 for none.
    std::vector<int64_t> ranges() {
        std::lock_guard lock(mutex_);
        return ranges_;
    }

  private:
    std::mutex mutex_;
    std::vector<int64_t> ranges_;  // guarded by mutex_
    const std::string payload_;
    httplib::Server server_;
    int port_ = 0;
    std::thread thread_;
};

// A 206 continues a download only with the range it names, and only when it
// is of the version the partial file came from: a body that stops before the
// whole body's end is a transfer cut short (the next attempt asks for the
// rest), bytes past the range are dropped, a range of another version drops
// the partial file (a retry starts over). Either way the delivered file is the
// payload, never a truncated or mixed one.
TEST_F(NetworkDownloadTest, ARangeContinuesOnlyItsOwnVersionAndOnlyToItsEnd) {
    const std::string payload = test::patternBytes(300 * 1024, 3);
    const std::string other = test::patternBytes(300 * 1024, 4);
    const int64_t size = static_cast<int64_t>(payload.size());
    const int64_t held = 100 * 1024;  // what the partial file holds
    const int64_t part = 50 * 1024;   // what a short answer brings
    const auto answer206 = [](httplib::Response& res, const std::string& body, int64_t first,
                              int64_t last, int64_t total, const std::string& etag) {
        res.status = 206;
        res.set_header("ETag", etag);
        res.set_header("Content-Range", fmt::format("bytes {}-{}/{}", first, last, total));
        res.set_content(body, "application/octet-stream");
    };
    struct Row {
        const char* name;
        bool resumed;  // from a partial file of `held` bytes of v1
        RangeServer::Answer first;
        int64_t continuedFrom;  // the second request's offset (-1: it starts over)
    };
    const std::vector<Row> rows = {
        {"a shorter range than asked for", true,
         [&](int64_t offset, httplib::Response& res) {
             answer206(res, payload.substr(offset, part), offset, offset + part - 1, size,
                       "\"v1\"");
         },
         held + part},
        {"a shorter range of a length it does not name", true,
         [&](int64_t offset, httplib::Response& res) {
             res.status = 206;
             res.set_header("ETag", "\"v1\"");
             res.set_header("Content-Range",
                            fmt::format("bytes {}-{}/*", offset, offset + part - 1));
             res.set_content(payload.substr(offset, part), "application/octet-stream");
         },
         held + part},
        {"a body that ends before its range", true,
         [&](int64_t offset, httplib::Response& res) {
             res.status = 206;
             res.set_header("ETag", "\"v1\"");
             res.set_header("Content-Range", fmt::format("bytes {}-{}/{}", offset, size - 1, size));
             res.set_chunked_content_provider("application/octet-stream",
                                              [&, offset](size_t, httplib::DataSink& sink) {
                                                  sink.write(payload.data() + offset, part);
                                                  sink.done();
                                                  return true;
                                              });
         },
         held + part},
        {"a body that runs past its range", true,
         [&](int64_t offset, httplib::Response& res) {
             answer206(res, payload.substr(offset, part) + other.substr(0, 1000), offset,
                       offset + part - 1, size, "\"v1\"");
         },
         held + part},
        {"a range of a version with another validator", true,
         [&](int64_t offset, httplib::Response& res) {
             answer206(res, other.substr(offset), offset, size - 1, size, "\"v2\"");
         },
         -1},
        {"a range of a version of another length", true,
         [&](int64_t offset, httplib::Response& res) {
             answer206(res, other.substr(offset, part), offset, offset + part - 1, offset + part,
                       "\"v1\"");
         },
         -1},
        {"a range nobody asked for", false,
         [&](int64_t, httplib::Response& res) {
             answer206(res, payload.substr(0, part), 0, part - 1, size, "\"v1\"");
         },
         part},
        {"a range whose end no count of bytes reaches", false,
         [&](int64_t, httplib::Response& res) {
             res.status = 206;
             res.set_header("ETag", "\"v1\"");
             res.set_header("Content-Range", "bytes 0-9223372036854775807/*");
             res.set_content(payload.substr(0, part), "application/octet-stream");
         },
         -1},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.name);
        RangeServer server(payload, row.first);
        auto download = makeDownload(server.url());
        std::string partial;
        if (row.resumed) {
            partial = ZNVPrivateTemporaryDirectory() + "/ZNVDownload-XXXXXX";
            close(mkstemp(partial.data()));
            test::writeFile(partial, payload.substr(0, held));
            ZNVURLSessionResumeData::Info info;
            info.url = server.url();
            info.partialFile = partial;
            info.bytesReceived = held;
            info.etag = "\"v1\"";
            info.expectedTotalBytes = size;
            download->setResumeData(ZNVURLSessionResumeData::encode(info));
        }
        ASSERT_TRUE(download->resume());
        ASSERT_TRUE(test::waitFor([&] {
            return download->rawError() != nullptr ||
                   download->state() == ZNVNetworkTaskStateCompleted;
        }));
        if (!download->rawError()) {
            ADD_FAILURE() << "the first answer completed the download";
            continue;
        }
        if (row.continuedFrom >= 0) {
            EXPECT_EQ(download->rawError()->code(), NSURLErrorNetworkConnectionLost);
            EXPECT_EQ(download->error(), nullptr) << "recoverable";
            EXPECT_EQ(partialOf(download->rawError()).second, row.continuedFrom);
            download->automaticallyRecoverFromError();
            ASSERT_TRUE(download->resume());
        } else {
            ASSERT_NE(download->error(), nullptr);
            EXPECT_EQ(download->error()->code(), NSURLErrorBadServerResponse);
            EXPECT_EQ(download->error()->value(NSURLSessionDownloadTaskResumeData), nullptr);
            EXPECT_FALSE(fs::exists(partial)) << "the partial file of v1 stays behind";
            download->retry();
        }
        ASSERT_TRUE(finished(download));
        ASSERT_EQ(download->error(), nullptr) << download->rawError()->description();
        EXPECT_TRUE(test::readFile(download->localFileURL()->path()) == payload);
        EXPECT_EQ(server.ranges(),
                  (std::vector<int64_t>{row.resumed ? held : -1, row.continuedFrom}));
        download->taskDidFinish();
    }
}

TEST_F(NetworkDownloadTest, ResumeDataNamingAFileOutsideThePrivateDirectoryIsRefused) {
    const std::string source = test::makeTempDir("src") + "/clean.bin";
    test::writePatternFile(source, 200 * 1024, 6);
    const std::string id = harness.seedRemoteFile("clean.bin", test::readFile(source));
    // A state file that was tampered with names one of the user's files.
    const std::string victim = test::makeTempDir("outside") + "/ZNVDownload-abcdef";
    test::writeFile(victim, "precious");
    ZNVURLSessionResumeData::Info info;
    info.url = harness.emulator.rootURL() + "content/" + id;
    info.partialFile = victim;
    info.bytesReceived = 8;
    info.etag = "\"strong\"";
    auto download = makeDownload(info.url);
    download->setResumeData(ZNVURLSessionResumeData::encode(info));
    ASSERT_TRUE(download->resume());
    ASSERT_TRUE(finished(download));
    ASSERT_EQ(download->error(), nullptr) << download->rawError()->description();
    EXPECT_TRUE(test::filesEqual(download->localFileURL()->path(), source));
    download->taskDidFinish();
    EXPECT_EQ(test::readFile(victim), "precious");

    // 0 of 0 bytes is no progress at all.
    auto empty = makeDownload(info.url);
    empty->handleProgress(std::numeric_limits<float>::quiet_NaN());
    empty->handleProgress(std::numeric_limits<float>::infinity());
    EXPECT_EQ(empty->progress()->completedUnitCount(), 0);
}

TEST_F(NetworkDownloadTest, RefusesToStartWithoutWhatItNeeds) {
    auto local = ZNVNetworkDownload::create(ZNVURL::fileURL("/etc/hostname"), harness.session);
    EXPECT_TRUE(local->resume()) << "a start was attempted; validation failed it";
    ASSERT_NE(local->error(), nullptr);
    EXPECT_EQ(local->error()->localizedDescription(), "the remote URL may not be a local file");
    EXPECT_EQ(local->error()->code(), NSURLErrorBadURL);
    EXPECT_FALSE(local->resume()) << "a completed download is not restarted";

    auto none = ZNVNetworkDownload::create(std::nullopt, harness.session);
    none->resume();
    EXPECT_EQ(none->error()->localizedDescription(), "a remote URL is required");

    auto orphan = ZNVNetworkDownload::create(ZNVURL::fromString("http://h/a"), nullptr);
    orphan->resume();
    EXPECT_EQ(orphan->error()->localizedDescription(), "a network session is required");

    // A hidden error must be recovered from before the download starts again.
    auto hidden = makeDownload("http://127.0.0.1:9/a");
    hidden->setRawError(ZNVError::make(NSURLErrorDomain, NSURLErrorTimedOut,
                                       {{NSLocalizedDescriptionKey, std::string("timed out")}}));
    ASSERT_EQ(hidden->state(), ZNVNetworkTaskStateSuspended);
    EXPECT_FALSE(hidden->resume());

    // Resume data that cannot make a task stays for the next attempt.
    auto stale = makeDownload("http://127.0.0.1:9/a");
    stale->setResumeData(ZNVBytes{});
    EXPECT_TRUE(stale->resume());
    ASSERT_NE(stale->rawError(), nullptr);
    EXPECT_EQ(stale->rawError()->localizedDescription(), "empty resume data");
    EXPECT_TRUE(stale->resumeData().has_value());
}

TEST_F(NetworkDownloadTest, FinishedFileHandlingKeepsTheFirstError) {
    auto download = makeDownload("http://127.0.0.1:9/files/report.pdf");
    download->handleProgress(0.5f);
    EXPECT_EQ(download->progress()->completedUnitCount(), 500);
    download->handleProgress(1.0f);
    EXPECT_EQ(download->progress()->completedUnitCount(), 1000);

    // The extension of the remote path names the local file.
    const std::string temporary = test::makeTempDir("tmp") + "/CFNetworkDownload_1.tmp";
    test::writeFile(temporary, "pdf bytes");
    download->handleDownloadedFile(ZNVURL::fileURL(temporary));
    ASSERT_TRUE(download->localFileURL().has_value());
    EXPECT_EQ(download->localFileURL()->pathExtension(), "pdf");
    EXPECT_EQ(test::readFile(download->localFileURL()->path()), "pdf bytes");
    EXPECT_FALSE(fs::exists(temporary));
    download->taskDidFinish();

    // A move that fails is the error the download keeps.
    auto failing = makeDownload("http://127.0.0.1:9/a.zip");
    failing->handleDownloadedFile(ZNVURL::fileURL("/nonexistent/download.tmp"));
    ASSERT_NE(failing->rawError(), nullptr);
    const ZNVErrorRef moveError = failing->rawError();
    failing->handleCompletionWithError(nullptr);
    failing->handleCompletionWithError(
        ZNVError::withMessage(NSURLErrorDomain, NSURLErrorTimedOut, "later"));
    EXPECT_TRUE(ZNVError::equal(failing->rawError(), moveError));
    EXPECT_EQ(failing->state(), ZNVNetworkTaskStateCompleted);
    EXPECT_EQ(failing->progress()->completedUnitCount(), 0)
        << "a failed download shows no progress";

    auto remote = makeDownload("http://127.0.0.1:9/a.zip");
    remote->handleDownloadedFile(*ZNVURL::fromString("http://h/tmp"));
    EXPECT_EQ(remote->rawError()->localizedDescription(),
              "internal error: temporary download URL should be a file URL");
}

TEST_F(NetworkDownloadTest, BytesAfterAFailureRestoreTheRecoveryAttempts) {
    // An answer without a Content-Length reports bytes over -1: the fraction
    // moves down. Either way, bytes after the transfer's first report mean
    // the failure before it is behind the download.
    for (float step : {0.1f, -1024.0f}) {
        SCOPED_TRACE(step);
        auto download = makeDownload("http://127.0.0.1:9/a.zip");
        download->setRawError(
            ZNVError::withMessage(NSURLErrorDomain, NSURLErrorNetworkConnectionLost, "lost"));
        download->automaticallyRecoverFromError();
        ASSERT_EQ(download->remainingAttemptsForAutomaticErrorRecovery(), 4u);
        download->handleProgress(step);
        EXPECT_EQ(download->remainingAttemptsForAutomaticErrorRecovery(), 4u);
        download->handleProgress(step);
        EXPECT_EQ(download->remainingAttemptsForAutomaticErrorRecovery(), 4u) << "no new bytes";
        download->handleProgress(2 * step);
        EXPECT_EQ(download->remainingAttemptsForAutomaticErrorRecovery(), 5u);
        EXPECT_GE(download->progress()->completedUnitCount(), 0);

        // A transfer that starts over counts as progress only past the point
        // where the one before it broke off: a body cut short at the same
        // place every time runs out of attempts.
        download->setRawError(
            ZNVError::withMessage(NSURLErrorDomain, NSURLErrorNetworkConnectionLost, "lost"));
        download->automaticallyRecoverFromError();
        ASSERT_EQ(download->remainingAttemptsForAutomaticErrorRecovery(), 4u);
        download->setRawError(nullptr);
        download->handleProgress(1.5f * step);
        EXPECT_EQ(download->remainingAttemptsForAutomaticErrorRecovery(), 4u) << "not past 2 steps";
        download->handleProgress(3 * step);
        EXPECT_EQ(download->remainingAttemptsForAutomaticErrorRecovery(), 5u);
    }
}

TEST_F(NetworkDownloadTest, ArchiveKeepsFileAndResumeDataButNotProgress) {
    auto download = makeDownload("http://127.0.0.1:9/a.zip");
    download->setLocalFileURL(ZNVURL::fileURL("/tmp/somewhere/a.zip"));
    download->setResumeData(ZNVBytes{1, 2, 3});
    download->handleProgress(0.75f);

    ZNVBytes data = ZNVKeyedArchiver::archivedDataWithRootObject(*download);
    ZNVErrorRef error;
    auto decoded = test::unarchivedTask<ZNVNetworkDownload>(data, &error);
    ASSERT_NE(decoded, nullptr) << (error ? error->description() : "");
    EXPECT_EQ(decoded->localFileURL(), download->localFileURL());
    EXPECT_EQ(decoded->resumeData(), (ZNVBytes{1, 2, 3}));
    EXPECT_EQ(decoded->progress()->totalUnitCount(), 1000);
    EXPECT_EQ(decoded->progress()->completedUnitCount(), 0);
    EXPECT_NE(decoded->description().find(" from http://127.0.0.1:9/a.zip"), std::string::npos);

    auto bare = ZNVNetworkDownload::create(ZNVURL::fromString("http://127.0.0.1:9/b"), nullptr);
    ZNVBytes bareData = ZNVKeyedArchiver::archivedDataWithRootObject(*bare);
    const std::string text(bareData.begin(), bareData.end());
    EXPECT_EQ(text.find("localFileURL"), std::string::npos);
    EXPECT_EQ(text.find("resumeData"), std::string::npos);
}

}  // namespace
}  // namespace znv
