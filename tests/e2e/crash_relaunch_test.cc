// Killed and relaunched: a child process uploads a large file by chunks, or
// downloads one, through a throttled emulator and is killed with SIGKILL at a
// chosen point; a second child launches a storage manager on the same home
// directory, restores the task and completes it. The remote file must equal
// the source and no batch whose acknowledgement had been saved may be sent
// again; a download continues from the bytes its partial file holds.
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <sys/stat.h>

#include <cstdlib>
#include <filesystem>
#include <set>

#include "tests/e2e/e2e_support.h"

namespace znv {
namespace {

constexpr uint64_t kMiB = 1024 * 1024;
constexpr uint64_t kChunk = 4 * kMiB;
const char* const kIdentifier = "crash";

ZNVAccountConfigurationRef crashConfiguration(const std::string& baseURL) {
    return std::make_shared<ZNVAccountConfiguration>(ZNVURL::fromString(baseURL).value(),
                                                     kIdentifier);
}

// The child processes' side. It only runs when the parent test starts this
// executable with the variables below; a plain run of the suite skips it.
// "upload" starts the upload (and "download" a download of the remote URL in
// ZNV_CRASH_SOURCE) and keeps going until the parent kills the process;
// "relaunch" restores the task and completes it, then writes an upload's
// remote file ID to ZNV_CRASH_RESULT or copies a download's file there.
TEST(CrashHelper, Run) {
    const char* mode = std::getenv("ZNV_CRASH_MODE");
    const char* baseURL = std::getenv("ZNV_CRASH_BASE_URL");
    const char* home = std::getenv("ZNV_CRASH_HOME");
    const char* source = std::getenv("ZNV_CRASH_SOURCE");
    const char* result = std::getenv("ZNV_CRASH_RESULT");
    if (!mode || !baseURL || !home || !source || !result) {
        GTEST_SKIP() << "runs only as a child of the crash tests";
    }
    setenv("HOME", home, 1);
    // Partial downloads go to a directory the parent can look into.
    const std::string tmp = std::string(home) + "/tmp";
    ::mkdir(tmp.c_str(), 0700);
    setenv("TMPDIR", tmp.c_str(), 1);
    test::installManualReachability();
    test::LogCapture log;
    auto account = ZNVTokenAccount::createWithToken(crashConfiguration(baseURL), "dev-token");
    auto storage = ZNVStorage::storageForAccount(account);
    ASSERT_NE(storage, nullptr);

    if (std::string(mode) == "upload" || std::string(mode) == "download") {
        ASSERT_TRUE(storage->tasks().empty());
        if (std::string(mode) == "upload") {
            ASSERT_NE(storage->uploadFromFile(ZNVURL::fileURL(source), "", "", "", false, true),
                      nullptr);
        } else {
            ASSERT_NE(storage->downloadFromRemoteFile(ZNVURL::fromString(source).value()), nullptr);
        }
        test::waitFor([] { return false; }, std::chrono::minutes(5));
        FAIL() << "the parent never killed the helper";
    }

    if (auto downloads = storage->downloads(); !downloads.empty()) {
        ASSERT_EQ(downloads.size(), 1u);
        auto download = downloads[0];
        ASSERT_TRUE(test::waitFor([&] { return download->state() == ZNVNetworkTaskStateCompleted; },
                                  std::chrono::minutes(3)))
            << download->description();
        ASSERT_EQ(download->error(), nullptr) << download->error()->description();
        ASSERT_TRUE(download->localFileURL().has_value());
        std::filesystem::copy_file(download->localFileURL()->path(), result);
        storage->finishTask(download);
        storage->invalidateClientAndCancelTasks();
        return;
    }
    auto uploads = storage->uploads();
    ASSERT_EQ(uploads.size(), 1u) << "the upload was not restored";
    auto upload = uploads[0];
    EXPECT_TRUE(upload->wasDecoded());
    EXPECT_TRUE(log.contains("restoring task state:"));
    ASSERT_TRUE(test::waitFor([&] { return upload->state() == ZNVNetworkTaskStateCompleted; },
                              std::chrono::minutes(3)))
        << upload->description();
    ASSERT_EQ(upload->error(), nullptr) << upload->error()->description();
    test::writeFile(result, upload->remoteFileID());
    storage->invalidateClientAndCancelTasks();
}

std::set<uint64_t> chunkIndicesOf(const nlohmann::json& entry) {
    std::set<uint64_t> indices;
    for (const auto& part : entry.value("parts", nlohmann::json::array())) {
        const std::string name = part.get<std::string>();
        const std::string prefix = "chunkData.";
        if (name.rfind(prefix, 0) == 0) indices.insert(std::stoull(name.substr(prefix.size())));
    }
    return indices;
}

bool isBatch(const nlohmann::json& entry) {
    const std::string path = entry.value("path", "");
    return entry.value("method", "") == "PUT" && path.rfind("/api/files/", 0) == 0 &&
           !path.ends_with("/fullfile");
}

class CrashRelaunch : public test::EmulatorTest {
  protected:
    emulator::EmulatorOptions emulatorOptions() override {
        auto options = test::EmulatorTest::emulatorOptions();
        options.maxFullFileBytes = kMiB;  // always by chunks, also after a relaunch
        return options;
    }

    void SetUp() override {
        test::EmulatorTest::SetUp();
        home_ = test::makeTempDir("crash-home");
        source_ = writeSource("large.bin", 18 * kChunk + 4321, 99);  // batches 0-7, 8-15, 16-18
        statePath_ = home_ + "/Library/Network/" + kIdentifier + ".state";
        // About a second per batch, so that a kill lands inside one.
        ASSERT_TRUE(emulator_->addFault({{"method", "PUT"},
                                         {"path", "/api/files/*"},
                                         {"action", "throttle"},
                                         {"bytesPerSecond", 24 * kMiB}}));
    }

    void TearDown() override {
        if (child_ > 0) {
            ::kill(child_, SIGKILL);
            ::waitpid(child_, nullptr, 0);
        }
        test::EmulatorTest::TearDown();
    }

    pid_t startChild(const std::string& mode) {
        return test::spawnTestChild(
            "CrashHelper.Run",
            {"ZNV_CRASH_MODE=" + mode, "ZNV_CRASH_BASE_URL=" + emulator_->baseURL(),
             "ZNV_CRASH_HOME=" + home_, "ZNV_CRASH_SOURCE=" + source_,
             "ZNV_CRASH_RESULT=" + resultPath_});
    }

    // The exit status of a child, or -1 when it did not end in time.
    static int waitForExit(pid_t pid, std::chrono::seconds timeout) {
        int status = 0;
        bool ended = test::waitFor([&] { return ::waitpid(pid, &status, WNOHANG) == pid; },
                                   std::chrono::duration_cast<std::chrono::milliseconds>(timeout));
        if (!ended) {
            ::kill(pid, SIGKILL);
            ::waitpid(pid, nullptr, 0);
            return -1;
        }
        return status;
    }

    void killChild() {
        ASSERT_GT(child_, 0);
        ASSERT_EQ(::kill(child_, SIGKILL), 0);
        int status = 0;
        ASSERT_EQ(::waitpid(child_, &status, 0), child_);
        EXPECT_TRUE(WIFSIGNALED(status) && WTERMSIG(status) == SIGKILL) << "status " << status;
        child_ = -1;
    }

    // The saved upload as the state file holds it now.
    nlohmann::json savedUpload() const {
        try {
            auto json = nlohmann::json::parse(test::readFile(statePath_));
            const auto& objects = json.at("$top").at("tasks").at("$objects");
            return objects.empty() ? nlohmann::json() : objects[0];
        } catch (const std::exception&) {
            return nlohmann::json();
        }
    }

    static std::set<uint64_t> savedChunkIndices(const nlohmann::json& upload) {
        std::set<uint64_t> indices;
        if (!upload.contains("chunk indices to upload")) return indices;
        for (const auto& range : upload["chunk indices to upload"]["$indexes"]) {
            for (uint64_t i = 0; i < range[1].get<uint64_t>(); ++i) {
                indices.insert(range[0].get<uint64_t>() + i);
            }
        }
        return indices;
    }

    bool inFlight(const std::string& method, const std::string& pathSuffix) const {
        for (const auto& entry : emulator_->requestLog()) {
            if (entry.value("method", "") == method && entry.value("status", 0) == 0 &&
                entry.value("path", "").ends_with(pathSuffix)) {
                return true;
            }
        }
        return false;
    }

    size_t acknowledgedBatches() const {
        size_t count = 0;
        for (const auto& entry : emulator_->requestLog()) {
            if (isBatch(entry) && entry.value("status", 0) == 200) ++count;
        }
        return count;
    }

    // Kills the uploading child once `ready` holds, relaunches the upload in
    // a second child and checks the result.
    void killAndRelaunch(const std::function<bool()>& ready) {
        child_ = startChild("upload");
        ASSERT_GT(child_, 0);
        ASSERT_TRUE(test::waitFor(ready, std::chrono::seconds(120))) << "kill point never reached";
        killChild();
        const nlohmann::json logAtKill = emulator_->requestLog();
        const nlohmann::json savedAtKill = savedUpload();
        emulator_->clearFaults();  // releases stalls and the throttle

        // What the dead process had been told, and what it had written down.
        const std::set<uint64_t> pendingAtKill = savedChunkIndices(savedAtKill);
        std::vector<std::set<uint64_t>> acknowledged;
        for (const auto& entry : logAtKill) {
            if (isBatch(entry) && entry.value("status", 0) == 200) {
                acknowledged.push_back(chunkIndicesOf(entry));
            }
        }

        pid_t relaunch = startChild("relaunch");
        ASSERT_GT(relaunch, 0);
        const int status = waitForExit(relaunch, std::chrono::seconds(300));
        ASSERT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0)
            << "the relaunched process failed (status " << status << ")";
        const std::string fileID = test::readFile(resultPath_);
        ASSERT_FALSE(fileID.empty());
        EXPECT_TRUE(test::filesEqual(remoteContentPath(fileID), source_));

        // Batches sent after the relaunch.
        std::set<uint64_t> resent;
        const auto logAfter = emulator_->requestLog();
        afterKill_.assign(logAfter.begin() + static_cast<std::ptrdiff_t>(logAtKill.size()),
                          logAfter.end());
        for (size_t i = logAtKill.size(); i < logAfter.size(); ++i) {
            if (isBatch(logAfter[i])) {
                auto indices = chunkIndicesOf(logAfter[i]);
                resent.insert(indices.begin(), indices.end());
            }
        }
        size_t repeatedAcknowledged = 0;
        for (const auto& batch : acknowledged) {
            bool saved = !savedAtKill.is_null() && savedAtKill.contains("remote file ID");
            for (auto index : batch)
                saved = saved && pendingAtKill.count(index) == 0;
            bool repeated = false;
            for (auto index : batch)
                repeated = repeated || resent.count(index) != 0;
            // A batch whose acknowledgement reached the state file is never repeated.
            if (saved) {
                EXPECT_FALSE(repeated) << "an acknowledged, saved batch was sent again";
            }
            if (repeated) ++repeatedAcknowledged;
        }
        // At most the one acknowledged just before the kill and not saved yet.
        EXPECT_LE(repeatedAcknowledged, 1u);
    }

    // What reached the emulator after the kill.
    std::vector<nlohmann::json> afterKill_;
    pid_t child_ = -1;
    std::string home_;
    std::string source_;
    std::string statePath_;
    std::string resultPath_ = test::makeTempDir("result") + "/file-id";
};

TEST_F(CrashRelaunch, KilledWhileCreatingTheRemoteFile) {
    ASSERT_TRUE(emulator_->addFault(
        {{"method", "POST"}, {"path", "/api/files"}, {"action", "stall"}, {"times", 1}}));
    // The launch's own refresh may activate the upload before the save that
    // adding it asked for has run; a process killed in that moment has
    // nothing to restore. The kill waits until the upload is on disk.
    killAndRelaunch([&] { return inFlight("POST", "/api/files") && !savedUpload().is_null(); });
}

TEST_F(CrashRelaunch, KilledDuringABatchAfterOthersWereSaved) {
    killAndRelaunch([&] {
        // The first batch is acknowledged and saved, the second is on its way.
        const auto pending = savedChunkIndices(savedUpload());
        return acknowledgedBatches() >= 1 && !pending.empty() && pending.count(0) == 0 &&
               inFlight("PUT", "");
    });
}

TEST_F(CrashRelaunch, KilledDuringAssembly) {
    ASSERT_TRUE(emulator_->addFault({{"method", "POST"},
                                     {"path", "/api/files/*/complete"},
                                     {"action", "stall"},
                                     {"times", 1}}));
    // Every chunk's acknowledgement is on disk when the process dies.
    killAndRelaunch([&] {
        const auto saved = savedUpload();
        return inFlight("POST", "/complete") && saved.contains("remote file ID") &&
               savedChunkIndices(saved).empty();
    });
    // The relaunch asks for the assembly once more and sends nothing else.
    std::vector<std::string> sent;
    for (const auto& entry : afterKill_) {
        sent.push_back(entry.value("method", "") + " " + entry.value("path", "") + " " +
                       std::to_string(entry.value("bodySize", 0)));
    }
    ASSERT_EQ(afterKill_.size(), 1u) << ::testing::PrintToString(sent);
    EXPECT_EQ(afterKill_[0].value("method", ""), "POST");
    EXPECT_TRUE(afterKill_[0].value("path", "").ends_with("/complete")) << sent[0];
    EXPECT_EQ(afterKill_[0].value("status", 0), 200) << sent[0];
    EXPECT_LT(afterKill_[0].value("bodySize", uint64_t{0}), 4096u) << sent[0];
}

// A download killed mid-transfer continues, after the relaunch, from the bytes
// its partial file holds: the saved queue names that file.
TEST_F(CrashRelaunch, KilledDuringADownloadLosesNoReceivedBytes) {
    // The remote file, uploaded by this process.
    auto uploader = makeStorage();
    auto upload = std::static_pointer_cast<ZNVStorageUpload>(
        uploader->uploadFromFile(ZNVURL::fileURL(source_), false));
    ASSERT_NE(upload, nullptr);
    ASSERT_TRUE(test::waitFor([&] { return upload->state() == ZNVNetworkTaskStateCompleted; },
                              std::chrono::minutes(2)));
    ASSERT_EQ(upload->error(), nullptr);
    const uint64_t size = std::filesystem::file_size(source_);
    ASSERT_TRUE(emulator_->addFault({{"method", "GET"},
                                     {"path", "/content/*"},
                                     {"action", "throttle"},
                                     {"bytesPerSecond", 16 * kMiB}}));

    const std::string partialDir = home_ + "/tmp/znv-" + std::to_string(::geteuid());
    auto partialBytes = [&] {
        uint64_t bytes = 0;
        std::error_code error;
        for (const auto& entry : std::filesystem::directory_iterator(partialDir, error)) {
            if (entry.path().filename().string().starts_with("ZNVDownload-"))
                bytes += entry.file_size();
        }
        return bytes;
    };
    source_ = emulator_->rootURL() + "content/" + upload->remoteFileID();
    const size_t requestsBefore = emulator_->requestLog().size();
    child_ = startChild("download");
    ASSERT_GT(child_, 0);
    // Killed once the queue on disk knows the transfer and a good part of the
    // body has arrived.
    ASSERT_TRUE(test::waitFor(
        [&] {
            const auto saved = savedUpload();
            return saved.contains("resumeData") && partialBytes() > 8 * kMiB;
        },
        std::chrono::seconds(60)))
        << "kill point never reached";
    killChild();
    const uint64_t kept = partialBytes();
    ASSERT_LT(kept, size);
    emulator_->clearFaults();

    pid_t relaunch = startChild("relaunch");
    ASSERT_GT(relaunch, 0);
    const int status = waitForExit(relaunch, std::chrono::seconds(120));
    ASSERT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0)
        << "the relaunched process failed (status " << status << ")";
    EXPECT_TRUE(test::filesEqual(resultPath_, remoteContentPath(upload->remoteFileID())));

    // Two body requests: the first, cut by the kill, and one for the rest.
    std::vector<nlohmann::json> gets;
    const auto log = emulator_->requestLog();
    for (size_t i = requestsBefore; i < log.size(); ++i) {
        if (log[i].value("method", "") == "GET" &&
            log[i].value("path", "").starts_with("/content/")) {
            gets.push_back(log[i]);
        }
    }
    ASSERT_EQ(gets.size(), 2u) << nlohmann::json(gets).dump();
    EXPECT_FALSE(gets[0]["headers"].contains("Range"));
    EXPECT_EQ(gets[1]["headers"].value("Range", ""), "bytes=" + std::to_string(kept) + "-");
    EXPECT_TRUE(gets[1]["headers"].contains("If-Range"));
    EXPECT_EQ(gets[1].value("status", 0), 206);
    // The partial file went into the finished download.
    EXPECT_EQ(partialBytes(), 0u);
}

}  // namespace
}  // namespace znv
