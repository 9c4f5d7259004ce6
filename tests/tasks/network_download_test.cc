// The download task against the emulator: a whole download into the library's
// file area, an interrupted one continued from its resume data, and the rules
// for starting, failing and finishing.
#include <gtest/gtest.h>

#include <filesystem>
#include <limits>

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

    EmulatorHarness harness;
};

TEST_F(NetworkDownloadTest, DownloadsIntoTheLibraryAreaAndRemovesTheFileWhenFinished) {
    const std::string source = test::makeTempDir("src") + "/photo.jpg";
    test::writePatternFile(source, 300 * 1024, 7);
    const std::string id = harness.seedRemoteFile("photo.jpg", test::readFile(source));

    auto download = makeDownload(harness.emulator.rootURL() + "content/" + id);
    ASSERT_TRUE(download->resume());
    EXPECT_EQ(download->state(), ZNVNetworkTaskStateRunning);
    EXPECT_FALSE(download->resume()) << "a running download is not restarted";
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

    download->taskDidFinish();
    EXPECT_FALSE(download->localFileURL().has_value());
    EXPECT_FALSE(fs::exists(local));
}

TEST_F(NetworkDownloadTest, CancelledDownloadContinuesFromItsResumeDataAfterRetry) {
    const std::string source = test::makeTempDir("src") + "/big.bin";
    test::writePatternFile(source, 4 << 20, 3);
    const std::string id = harness.seedRemoteFile("big.bin", test::readFile(source));
    ASSERT_TRUE(harness.emulator.addFault({{"method", "GET"},
                                           {"path", "/content/*"},
                                           {"action", "throttle"},
                                           {"bytesPerSecond", 512 * 1024}}));

    auto download = makeDownload(harness.emulator.rootURL() + "content/" + id);
    ASSERT_TRUE(download->resume());
    ASSERT_TRUE(test::waitFor([&] { return download->progress()->completedUnitCount() > 50; }));
    download->cancel();
    EXPECT_EQ(download->state(), ZNVNetworkTaskStateCompleted);
    ASSERT_NE(download->error(), nullptr);
    EXPECT_EQ(download->error()->code(), NSURLErrorCancelled);
    ASSERT_TRUE(test::waitFor([&] {
        auto raw = download->rawError();
        return raw && raw->value(NSURLSessionDownloadTaskResumeData) != nullptr;
    })) << "the cancelled transfer hands over its resume data";
    EXPECT_EQ(download->state(), ZNVNetworkTaskStateCompleted);

    harness.emulator.clearFaults();
    harness.emulator.clearRequestLog();
    download->retry();
    EXPECT_EQ(download->retryCount(), 1u);
    EXPECT_FALSE(download->resumeData().has_value()) << "used up by the resumed transfer";
    ASSERT_TRUE(finished(download));
    ASSERT_EQ(download->error(), nullptr) << download->rawError()->description();
    EXPECT_TRUE(test::filesEqual(download->localFileURL()->path(), source));

    const auto log = harness.emulator.requestLog();
    ASSERT_EQ(log.size(), 1u) << log.dump();
    EXPECT_EQ(log[0]["status"], 206) << "only the rest was asked for";
    EXPECT_TRUE(log[0]["headers"].contains("Range") || log[0]["headers"].contains("range"))
        << log.dump();
    download->taskDidFinish();
}

TEST_F(NetworkDownloadTest, FailuresOfAResumedDownloadNeverLoseTheReceivedBytes) {
    const std::string source = test::makeTempDir("src") + "/kept.bin";
    test::writePatternFile(source, 4 << 20, 5);
    const std::string id = harness.seedRemoteFile("kept.bin", test::readFile(source));
    ASSERT_TRUE(harness.emulator.addFault({{"method", "GET"},
                                           {"path", "/content/*"},
                                           {"action", "throttle"},
                                           {"bytesPerSecond", 512 * 1024}}));
    auto download = makeDownload(harness.emulator.rootURL() + "content/" + id);
    ASSERT_TRUE(download->resume());
    ASSERT_TRUE(test::waitFor([&] { return download->progress()->completedUnitCount() > 50; }));
    download->cancel();
    ASSERT_TRUE(test::waitFor([&] {
        auto raw = download->rawError();
        return raw && raw->value(NSURLSessionDownloadTaskResumeData) != nullptr;
    }));
    const auto partialOf = [](const ZNVErrorRef& error) {
        const ZNVUserInfoValue* value =
            error ? error->value(NSURLSessionDownloadTaskResumeData) : nullptr;
        auto info =
            value ? ZNVURLSessionResumeData::decode(std::get<ZNVBytes>(*value)) : std::nullopt;
        return info ? std::pair{info->partialFile, info->bytesReceived}
                    : std::pair{std::string(), int64_t{0}};
    };
    const auto [partial, received] = partialOf(download->rawError());
    ASSERT_GT(received, 0);
    ASSERT_EQ(static_cast<int64_t>(fs::file_size(partial)), received);

    // A passing 503 and connections dropped before any answer (also the one
    // the transfer library retries on by itself): each attempt fails, and
    // each hands the same partial file, untouched, to the next.
    harness.emulator.clearFaults();
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

    harness.emulator.clearFaults();
    harness.emulator.clearRequestLog();
    download->automaticallyRecoverFromError();
    ASSERT_TRUE(download->resume());
    ASSERT_TRUE(finished(download));
    ASSERT_EQ(download->error(), nullptr) << download->rawError()->description();
    EXPECT_TRUE(test::filesEqual(download->localFileURL()->path(), source));
    const auto log = harness.emulator.requestLog();
    ASSERT_EQ(log.size(), 1u) << log.dump();
    EXPECT_EQ(log[0]["status"], 206) << "only the rest was asked for";
    download->taskDidFinish();
    EXPECT_FALSE(fs::exists(partial));
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

TEST_F(NetworkDownloadTest, ArchiveKeepsFileAndResumeDataButNotProgress) {
    auto download = makeDownload("http://127.0.0.1:9/a.zip");
    download->setLocalFileURL(ZNVURL::fileURL("/tmp/somewhere/a.zip"));
    download->setResumeData(ZNVBytes{1, 2, 3});
    download->handleProgress(0.75f);

    ZNVBytes data = ZNVKeyedArchiver::archivedDataWithRootObject(*download);
    ZNVErrorRef error;
    auto decoded = std::dynamic_pointer_cast<ZNVNetworkDownload>(
        ZNVKeyedUnarchiver::unarchivedObjectOfClasses({"ZNVNetworkTask"}, data, &error));
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
