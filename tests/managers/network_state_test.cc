// The state file of ZNVNetwork: round trips, refusals while reading or
// batching, damaged and foreign files, durability details and the log.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <barrier>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <functional>
#include <future>
#include <thread>

#include "tests/managers/managers_test_support.h"
#include "tests/support/test_support.h"
#include "znv/foundation/network_utilities.h"
#include "znv/managers/network.h"
#include "znv/platform/filesystem.h"
#include "znv/platform/main_queue.h"
#include "znv/platform/url_session_resume_data.h"

namespace znv {
namespace {

using test::FakeTask;
using test::LogCapture;
using test::makeDownload;
using test::offlineConfiguration;
using test::statePath;

std::string stateDirectory() {
    return std::string(std::getenv("HOME")) + "/Library/Network";
}

// A manager that was never launched has no session manager: it saves inline.
TEST(NetworkState, RoundTripRestoresEveryTaskInOrderWithoutRewritingTheFile) {
    auto writer = ZNVNetwork::create(offlineConfiguration("roundtrip"));
    auto first = makeDownload("first.zip");
    auto plain = FakeTask::make(nullptr, "plain");
    auto second = makeDownload("second.zip");
    {
        LogCapture log;
        writer->addTask(first);
        writer->addTask(plain);
        writer->addTask(second);
        EXPECT_TRUE(log.contains("No session manager available to serialize save."));
    }
    ASSERT_TRUE(std::filesystem::exists(statePath("roundtrip")));
    EXPECT_FALSE(std::filesystem::exists(statePath("roundtrip") + ".tmp"));
    struct stat info {};
    ASSERT_EQ(::stat(statePath("roundtrip").c_str(), &info), 0);
    EXPECT_EQ(info.st_mode & 0777, 0600u);
    const std::string before = test::readFile(statePath("roundtrip"));
    // The file is the keyed archive the documentation describes.
    auto json = nlohmann::json::parse(before);
    EXPECT_EQ(json["$archiver"], "ZNVKeyedArchiver");
    EXPECT_EQ(json["$top"]["configuration type"], "roundtrip");
    EXPECT_EQ(json["$top"]["tasks"]["$class"], "NSMutableArray");
    ASSERT_EQ(json["$top"]["tasks"]["$objects"].size(), 3u);
    EXPECT_EQ(json["$top"]["tasks"]["$objects"][0]["$class"], "ZNVNetworkDownload");

    LogCapture log;
    auto reader = ZNVNetwork::create(offlineConfiguration("roundtrip"));
    reader->readState();
    auto restored = reader->tasks();
    const std::vector<ZNVNetworkTaskRef> saved{first, plain, second};
    ASSERT_EQ(restored.size(), saved.size());
    for (size_t i = 0; i < saved.size(); ++i) {
        EXPECT_EQ(restored[i]->className(), saved[i]->className()) << i;
        EXPECT_EQ(restored[i]->sourceURL(), saved[i]->sourceURL()) << i;
        EXPECT_TRUE(restored[i]->wasDecoded()) << i;
    }
    ASSERT_EQ(reader->downloads().size(), 2u);
    EXPECT_EQ(reader->downloads()[1], restored[2]);
    EXPECT_FALSE(reader->isReadingState());

    EXPECT_TRUE(log.contains("restoring task state:"));
    EXPECT_EQ(log.count("   restored state for "), 3u);
    // Restoring never saves.
    EXPECT_FALSE(log.contains("saving task state:"));
    EXPECT_EQ(test::readFile(statePath("roundtrip")), before);
}

// A finished download's file that no save recorded (the process was killed
// in between) goes back to the partial file it was moved from when restored
// resume data still names that (the transfer asks only whether it is whole),
// else it is removed at the next launch; so is a partial file of the queue
// that no resume data names (its transfer ended with the process before a
// save named it). Files a restored download names, files the journal does not
// name (another queue's), names that would leave the file area, partial files
// of other queues and those written since the process began are left alone.
TEST(NetworkState, FilesNoRestoredDownloadWillUseAreRemovedAtRestore) {
    auto area = [](const std::string& name) {
        return ZNVNetworkUtilities_libraryURLWithFileName(name)->path();
    };
    auto partial = [](const std::string& name) {
        return ZNVPrivateTemporaryDirectory() + "/ZNVDownload-" + name;
    };
    auto resumeData = [](const std::string& file) {
        ZNVURLSessionResumeData::Info info;
        info.url = "https://example.invalid/again.zip";
        info.partialFile = file;
        info.bytesReceived = 5;
        return ZNVURLSessionResumeData::encode(info);
    };
    auto writer = ZNVNetwork::create(offlineConfiguration("leftovers"));
    auto finished = makeDownload("kept.zip");
    finished->setLocalFileURL(ZNVURL::fileURL(area("download-KEPT.zip")));
    writer->addTask(finished);
    auto paused = makeDownload("again.zip");
    paused->setResumeData(resumeData(partial("leftovers-Paused")));
    writer->addTask(paused);
    auto failed = makeDownload("failed.zip");
    failed->setRawError(ZNVError::make(
        NSURLErrorDomain, NSURLErrorTimedOut,
        {{NSLocalizedDescriptionKey, std::string("timed out")},
         {NSURLSessionDownloadTaskResumeData, resumeData(partial("leftovers-Failed"))}}));
    writer->addTask(failed);
    auto moved = makeDownload("moved.zip");
    moved->setResumeData(resumeData(partial("leftovers-Moved0")));
    writer->addTask(moved);
    const std::vector<std::string> kept = {
        partial("leftovers-Paused"), partial("leftovers-Failed"), partial("leftovers-Recent"),
        partial("other-Orphan"),     partial("Untagd"),           partial("leftovers-Moved0")};
    for (const auto& path : kept)
        if (path != kept[5]) test::writeFile(path, "bytes");
    const std::string orphan = partial("leftovers-Orphan");
    test::writeFile(orphan, "bytes");
    // Written before this process began, as the recent one was not.
    const timespec old[2] = {{1000000000, 0}, {1000000000, 0}};
    for (const auto& path : {orphan, kept[0], kept[1], kept[3], kept[4]})
        ASSERT_EQ(::utimensat(AT_FDCWD, path.c_str(), old, 0), 0) << path;
    const std::string outside = stateDirectory() + "/../download-escape.zip";
    for (const auto& path : {area("download-KEPT.zip"), area("download-ORPHAN.zip"),
                             area("download-OTHER.zip"), area("download-FAILED.zip"), outside})
        test::writeFile(path, "bytes");
    test::writeFile(area("download-MOVED.zip"), "whole");
    const auto from = [&](const std::string& file, const std::string& name) {
        return nlohmann::json{{"downloaded", file}, {"from", partial(name)}}.dump() + "\n";
    };
    test::writeFile(statePath("leftovers") + ".journal",
                    "{\"downloaded\":\"download-KEPT.zip\"}\n" +
                        from("download-ORPHAN.zip", "leftovers-Nobdy0") +
                        from("download-FAILED.zip", "leftovers-Failed") +
                        from("download-MOVED.zip", "leftovers-Moved0") +
                        "{\"downloaded\":\"download-GONE.zip\"}\n"
                        "{\"downloaded\":\"../download-escape.zip\"}\n"
                        "{\"downloaded\":\"download-TORN.zip\"}");
    test::writeFile(area("download-TORN.zip"), "bytes");

    LogCapture log;
    auto reader = ZNVNetwork::create(offlineConfiguration("leftovers"));
    reader->readState();
    ASSERT_EQ(reader->downloads().size(), 4u);
    EXPECT_FALSE(std::filesystem::exists(area("download-ORPHAN.zip")));
    EXPECT_FALSE(std::filesystem::exists(area("download-FAILED.zip")));
    EXPECT_EQ(test::readFile(partial("leftovers-Failed")), "bytes") << "never replaced";
    EXPECT_FALSE(std::filesystem::exists(area("download-MOVED.zip")));
    EXPECT_EQ(test::readFile(partial("leftovers-Moved0")), "whole");
    EXPECT_EQ(log.count("   moved "), 1u);
    EXPECT_FALSE(std::filesystem::exists(orphan));
    EXPECT_TRUE(log.contains(
        "   removed partial download file that no task refers to: ZNVDownload-leftovers-Orphan"));
    EXPECT_EQ(log.count("   removed "), 3u);
    for (const auto& path : kept) {
        EXPECT_TRUE(std::filesystem::exists(path)) << path;
        std::filesystem::remove(path);
    }
    for (const auto& path : {area("download-KEPT.zip"), area("download-OTHER.zip"),
                             area("download-TORN.zip"), outside})
        EXPECT_TRUE(std::filesystem::exists(path)) << path;
    for (const auto& path : {area("download-KEPT.zip"), area("download-OTHER.zip"),
                             area("download-TORN.zip"), outside})
        std::filesystem::remove(path);
}

TEST(NetworkState, ConfigurationsWithoutIdentifierShareTheLiveFileAndNoFileIsNoState) {
    // Also when the test runs again in the same process.
    std::filesystem::remove(statePath("live"));
    {
        LogCapture log;
        auto first = ZNVNetwork::create(nullptr);
        first->readState();
        EXPECT_TRUE(first->tasks().empty());
        EXPECT_EQ(first->stateRestoreError(), nullptr);
        EXPECT_TRUE(log.lines().empty());
    }
    auto writer = ZNVNetwork::create(offlineConfiguration(""));
    writer->addTask(makeDownload("live.zip"));
    EXPECT_TRUE(std::filesystem::exists(statePath("live")));
    auto reader = ZNVNetwork::create(nullptr);
    reader->readState();
    EXPECT_EQ(reader->tasks().size(), 1u);
}

// A batch holds every save back; its commit writes once, with a summary that
// lists running tasks and counts the others.
TEST(NetworkState, BatchSuppressesSavesAndCommitWritesOnceWithASummary) {
    std::filesystem::remove(statePath("batch"));
    LogCapture log;
    auto network = ZNVNetwork::create(offlineConfiguration("batch"));
    network->beginBatch();
    EXPECT_TRUE(network->isBatchingSave());
    auto suspended = FakeTask::make(nullptr, "suspended");
    auto running = FakeTask::make(nullptr, "running");
    auto completed = FakeTask::make(nullptr, "completed");
    network->addTask(makeDownload("one.zip"));
    for (const auto& task : {suspended, running, completed})
        network->addTask(task);
    network->finishTask(network->tasks()[0]);
    running->setState(ZNVNetworkTaskStateRunning);
    completed->setState(ZNVNetworkTaskStateCompleted);
    EXPECT_FALSE(std::filesystem::exists(statePath("batch")));
    EXPECT_EQ(log.count("saving task state:"), 0u);

    network->commitBatch();
    EXPECT_FALSE(network->isBatchingSave());
    EXPECT_EQ(log.count("saving task state:"), 1u);
    const long heading = log.indexOf("saving task state:");
    EXPECT_EQ(log.count("   stored state for "), 3u);
    const long runningLine = log.indexOf("   stored state for " + running->description());
    const long completedLine = log.indexOf("   stored state for 1 completed tasks");
    const long suspendedLine = log.indexOf("   stored state for 1 suspended tasks");
    EXPECT_GT(runningLine, heading);
    EXPECT_GT(completedLine, runningLine);
    EXPECT_GT(suspendedLine, completedLine);

    auto reader = ZNVNetwork::create(offlineConfiguration("batch"));
    reader->readState();
    ASSERT_EQ(reader->tasks().size(), 3u);
    EXPECT_EQ(reader->tasks()[0]->sourceURL(), suspended->sourceURL());
}

// The copies of a state file kept as damaged, by path.
std::vector<std::string> damagedCopies(const std::string& identifier) {
    std::vector<std::string> found;
    const std::string prefix = identifier + ".state.damaged-";
    for (const auto& entry : std::filesystem::directory_iterator(stateDirectory())) {
        if (entry.path().filename().string().rfind(prefix, 0) == 0)
            found.push_back(entry.path().string());
    }
    return found;
}

class DamagedState : public ::testing::Test {
  protected:
    // Restores from a state file with the given content and returns the log.
    std::vector<std::string> restoreFrom(const std::string& content) {
        std::filesystem::create_directories(stateDirectory());
        for (const auto& old : damagedCopies("damaged"))
            std::filesystem::remove(old);
        test::writeFile(statePath("damaged"), content);
        LogCapture log;
        network_ = ZNVNetwork::create(offlineConfiguration("damaged"));
        network_->readState();
        EXPECT_FALSE(network_->isReadingState());
        EXPECT_TRUE(network_->tasks().empty());
        return log.lines();
    }
    // The file was moved aside whole, the application and the log were told.
    void expectKept(const std::string& content, const std::vector<std::string>& lines) {
        EXPECT_FALSE(std::filesystem::exists(statePath("damaged")));
        auto copies = damagedCopies("damaged");
        ASSERT_EQ(copies.size(), 1u);
        const std::string kept = copies[0];
        const std::string stamp = kept.substr(kept.find(".damaged-") + 9);
        EXPECT_EQ(stamp.size(), 16u) << kept;  // yyyymmddThhmmssZ
        EXPECT_EQ(stamp[8], 'T');
        EXPECT_EQ(stamp.back(), 'Z');
        EXPECT_EQ(test::readFile(kept), content);
        struct stat info {};
        ASSERT_EQ(::stat(kept.c_str(), &info), 0);
        EXPECT_EQ(info.st_mode & 0777, 0600u);
        auto error = network_->stateRestoreError();
        ASSERT_NE(error, nullptr);
        EXPECT_EQ(error->domain(), NSCocoaErrorDomain);
        EXPECT_EQ(error->code(), NSFileReadCorruptFileError);
        EXPECT_EQ(error->stringValue(NSFilePathErrorKey), kept);
        EXPECT_TRUE(has(lines, "kept damaged network task state as " + kept));
    }
    static bool has(const std::vector<std::string>& lines, const std::string& text) {
        for (const auto& line : lines) {
            if (line.find(text) != std::string::npos) return true;
        }
        return false;
    }
    std::shared_ptr<ZNVNetwork> network_;
};

TEST_F(DamagedState, EveryUnrestorableFileIsKeptAsideAndReportedButAForeignOneIsLeftAlone) {
    auto good = ZNVNetwork::create(offlineConfiguration("source"));
    good->addTask(makeDownload("good.zip"));
    good->addTask(makeDownload("other.zip"));
    const std::string valid = test::readFile(statePath("source"));
    auto json = nlohmann::json::parse(valid);
    json["$top"]["configuration type"] = "damaged";
    auto unknownClass = json;
    unknownClass["$top"]["tasks"]["$objects"][1]["$class"] = "ZNVSomethingElse";
    auto wrongMember = json;
    ASSERT_TRUE(wrongMember["$top"]["tasks"]["$objects"][1].contains("source URL"));
    wrongMember["$top"]["tasks"]["$objects"][1]["source URL"] = "not wrapped";
    auto notAList = json;
    notAList["$top"]["tasks"] = "nothing";
    auto newer = json;
    newer["$version"] = 2;
    std::string random(4096, '\0');
    for (size_t i = 0; i < random.size(); ++i)
        random[i] = static_cast<char>((i * 2654435761u) >> 13);

    struct Case {
        std::string name, content, logged;
        std::string reported = "";  // in the error the application gets, when given
    };
    const std::vector<Case> cases = {
        {"empty", "", "failed to read network task state: "},
        {"truncated", json.dump().substr(0, json.dump().size() / 2),
         "failed to set up reader for network task state: "},
        {"random bytes", random, "failed to set up reader for network task state: "},
        {"foreign document", R"({"hello":"world"})",
         "failed to set up reader for network task state: "},
        {"no configuration type",
         R"({"$archiver":"ZNVKeyedArchiver","$version":1,"$top":{"configuration type":7}})",
         "Failed to load (null) task state for damaged network session."},
        {"unknown task class", unknownClass.dump(), "Unable to decode 32-bit task data."},
        {"task member of the wrong type", wrongMember.dump(), "failed to parse network task state"},
        {"newer version", newer.dump(), "unsupported archive version 2",
         "(not a task archive: unsupported archive version 2)"},
        {"a megabyte in an unterminated string",
         R"({"$archiver":")" + std::string(1 << 20, 'a') + "\x01",
         "failed to set up reader for network task state: ", "parse error"},
        {"tasks not a list", notAList.dump(), "failed to parse network task state: "},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        auto lines = restoreFrom(c.content);
        EXPECT_TRUE(has(lines, c.logged));
        expectKept(c.content, lines);
        // The application learns why, not only that the file is damaged.
        if (auto error = network_->stateRestoreError(); error && !c.reported.empty()) {
            EXPECT_NE(error->localizedDescription().find(c.reported), std::string::npos);
            EXPECT_LT(error->localizedDescription().size(), 400u) << "one line, not the file";
        }
    }

    // The next save starts a new file and leaves the kept copy alone.
    network_->addTask(makeDownload("after.zip"));
    EXPECT_TRUE(std::filesystem::exists(statePath("damaged")));
    EXPECT_EQ(test::readFile(damagedCopies("damaged").at(0)), notAList.dump());

    // Another configuration's file is no damage: it stays, untouched, and
    // nothing is restored from it.
    const std::string foreign = valid;
    auto lines = restoreFrom(foreign);
    EXPECT_TRUE(has(lines, "Failed to load source task state for damaged network session."));
    EXPECT_EQ(test::readFile(statePath("damaged")), foreign);
    EXPECT_TRUE(damagedCopies("damaged").empty());
    EXPECT_EQ(network_->stateRestoreError(), nullptr);
}

TEST_F(DamagedState, AnOversizedFileIsKeptWithoutBeingLoaded) {
    std::filesystem::create_directories(stateDirectory());
    {
        test::writeFile(statePath("damaged"), "");
        std::filesystem::resize_file(statePath("damaged"), (uint64_t{256} << 20) + 1);
    }
    const uint64_t before = test::currentRSS();
    LogCapture log;
    network_ = ZNVNetwork::create(offlineConfiguration("damaged"));
    network_->readState();
    EXPECT_LT(test::currentRSS(), before + (uint64_t{64} << 20));
    auto copies = damagedCopies("damaged");
    ASSERT_EQ(copies.size(), 1u);
    EXPECT_EQ(std::filesystem::file_size(copies[0]), (uint64_t{256} << 20) + 1);
    ASSERT_NE(network_->stateRestoreError(), nullptr);
    EXPECT_EQ(network_->stateRestoreError()->code(), NSFileReadCorruptFileError);
    EXPECT_TRUE(log.contains("larger than 256 MiB"));
    std::filesystem::remove(copies[0]);
}

// Runs `work` on a thread of its own; true when it ended within 10 s. Work
// stuck opening one of `fifos` is let go by opening their other ends, so a
// regression fails instead of hanging the suite.
bool endsPromptly(std::function<void()> work, const std::vector<std::string>& fifos) {
    auto done = std::async(std::launch::async, std::move(work));
    if (done.wait_for(std::chrono::seconds(10)) == std::future_status::ready) return true;
    std::vector<int> ends;
    for (const auto& fifo : fifos)
        ends.push_back(::open(fifo.c_str(), O_RDWR | O_NONBLOCK | O_CLOEXEC));
    std::this_thread::sleep_for(std::chrono::milliseconds(200));
    for (int end : ends) {
        if (end >= 0) ::close(end);
    }
    done.wait();
    return false;
}

TEST_F(DamagedState, FIFOsAtTheStateFileAndTheJournalAreNeverWaitedOn) {
    std::filesystem::create_directories(stateDirectory());
    for (const auto& old : damagedCopies("damaged"))
        std::filesystem::remove(old);
    const std::string state = statePath("damaged");
    const std::string journal = state + ".journal";
    std::filesystem::remove(state);
    std::filesystem::remove(journal);

    // As the state file: damaged, kept aside as it is, and reported.
    ASSERT_EQ(::mkfifo(state.c_str(), 0600), 0);
    {
        LogCapture log;
        EXPECT_TRUE(endsPromptly(
            [&] {
                network_ = ZNVNetwork::create(offlineConfiguration("damaged"));
                network_->readState();
            },
            {state}));
        auto copies = damagedCopies("damaged");
        ASSERT_EQ(copies.size(), 1u);
        struct stat info {};
        ASSERT_EQ(::lstat(copies[0].c_str(), &info), 0);
        EXPECT_TRUE(S_ISFIFO(info.st_mode));
        ASSERT_NE(network_->stateRestoreError(), nullptr);
        EXPECT_EQ(network_->stateRestoreError()->localizedDescription(),
                  "The saved task state is damaged (unreadable: not a regular file).");
        EXPECT_TRUE(has(log.lines(), "kept damaged network task state as " + copies[0]));
        std::filesystem::remove(copies[0]);
    }

    // As the journal: ignored, the state restored all the same, and a record
    // fails instead of waiting for a reader.
    network_->addTask(makeDownload("kept.zip"));
    network_.reset();
    ASSERT_EQ(::mkfifo(journal.c_str(), 0600), 0);
    LogCapture log;
    uint64_t recorded = 1;
    EXPECT_TRUE(endsPromptly(
        [&] {
            network_ = ZNVNetwork::create(offlineConfiguration("damaged"));
            network_->readState();
            ZNVRemoteFileJournal::Entry entry;
            entry.remoteFileID = "F1";
            recorded = ZNVRemoteFileJournal(journal).record(entry);
        },
        {journal}));
    EXPECT_EQ(network_->stateRestoreError(), nullptr);
    EXPECT_EQ(network_->tasks().size(), 1u);
    EXPECT_TRUE(has(log.lines(), "ignoring " + journal + ": not a regular file of at most 16 MiB"));
    EXPECT_EQ(recorded, 0u);
    EXPECT_TRUE(has(log.lines(), "failed to record remote file F1 in " + journal));
    network_.reset();
    std::filesystem::remove(journal);
}

TEST(NetworkState, AFailedReplacementIsReportedAndLeavesNoTemporaryFile) {
    // A non-empty directory where the state file belongs cannot be replaced.
    std::filesystem::create_directories(statePath("blocked") + "/inside");
    auto network = ZNVNetwork::create(offlineConfiguration("blocked"));
    LogCapture log;
    network->addTask(makeDownload("lost.zip"));
    EXPECT_TRUE(log.contains("failed to save task state: "));
    EXPECT_FALSE(log.contains("saving task state:"));
    EXPECT_TRUE(std::filesystem::is_directory(statePath("blocked") + "/inside"));
    EXPECT_FALSE(std::filesystem::exists(statePath("blocked") + ".tmp"));
}

// Saves asked for from two threads at once (a refresh's save racing an
// addition) must leave the newest collection on disk, round after round.
TEST(NetworkState, ConcurrentSavesNeverLeaveAnOlderCollection) {
    auto network = ZNVNetwork::create(offlineConfiguration("race"));
    network->launch();
    auto session = network->sessionManager();
    ASSERT_NE(session, nullptr);
    const auto drain = [&] { ASSERT_TRUE(test::drainBackgroundQueue(session)); };
    for (int round = 0; round < 150; ++round) {
        // Saves pile up behind the gate; only the newest may write.
        auto release = test::blockBackgroundQueue(session);
        std::barrier start(3);
        std::thread saver([&] {
            start.arrive_and_wait();
            for (int i = 0; i < 8; ++i)
                network->writeState();
        });
        std::thread adder([&] {
            start.arrive_and_wait();
            network->addTask(FakeTask::make(nullptr, "t" + std::to_string(round)));
        });
        start.arrive_and_wait();
        saver.join();
        adder.join();
        release();
        drain();
        ASSERT_TRUE(network->waitUntilStateIsWritten());
        auto json = nlohmann::json::parse(test::readFile(statePath("race")));
        ASSERT_EQ(json["$top"]["tasks"]["$objects"].size(), static_cast<size_t>(round + 1))
            << "round " << round;
    }
    network->invalidateClientAndCancelTasks();
    ZNVMainQueue::waitUntilDrained();
    drain();
    // The emptied queue's save is written before the next test watches the log.
    EXPECT_TRUE(network->waitUntilStateIsWritten());
}

// A manager made right after another one of its queue was released restores
// what the released one saved last, though that save was still on its way:
// the launch waits for it instead of reading the file before it lands.
TEST(NetworkState, ALaunchRightAfterAReleaseRestoresTheLastSaveOfTheReleasedManager) {
    auto first = ZNVNetwork::create(offlineConfiguration("relaunch"));
    first->launch();
    first->addTask(FakeTask::make(nullptr, "saved"));
    ASSERT_TRUE(first->waitUntilStateIsWritten());
    auto release = test::blockBackgroundQueue(first->sessionManager());
    first->addTask(FakeTask::make(nullptr, "on-its-way"));
    first.reset();

    std::atomic<bool> launched{false};
    std::shared_ptr<ZNVNetwork> second;
    std::thread relaunch([&] {
        second = ZNVNetwork::create(offlineConfiguration("relaunch"));
        second->launch();
        launched = true;
    });
    EXPECT_FALSE(test::waitFor([&] { return launched.load(); }, std::chrono::milliseconds(300)))
        << "the launch read the file while a save of the released manager was pending";
    release();
    relaunch.join();
    ASSERT_EQ(second->tasks().size(), 2u);
    EXPECT_EQ(second->tasks()[1]->sourceURL(),
              ZNVURL::fromString("https://example.invalid/on-its-way"));
    second->invalidateClientAndCancelTasks();
    EXPECT_TRUE(second->waitUntilStateIsWritten());
}

TEST(NetworkState, AnInvalidatedManagerNeverWritesOverItsSuccessor) {
    auto first = ZNVNetwork::create(offlineConfiguration("successor"));
    first->launch();
    auto stale = FakeTask::make(nullptr, "stale");
    first->addTask(stale);
    first->invalidateClientAndCancelTasks();
    ASSERT_TRUE(first->waitUntilStateIsWritten());

    auto second = ZNVNetwork::create(offlineConfiguration("successor"));
    second->launch();
    EXPECT_TRUE(second->tasks().empty());
    second->addTask(FakeTask::make(nullptr, "kept"));
    ASSERT_TRUE(second->waitUntilStateIsWritten());
    // The application still holds the first one and keeps using it.
    first->addTask(FakeTask::make(nullptr, "late"));
    first->finishTask(stale);
    first->addTask(stale);
    first->beginBatch();
    first->commitBatch();
    ASSERT_TRUE(first->waitUntilStateIsWritten());

    auto third = ZNVNetwork::create(offlineConfiguration("successor"));
    third->launch();
    ASSERT_EQ(third->tasks().size(), 1u);
    EXPECT_EQ(third->tasks()[0]->sourceURL(), ZNVURL::fromString("https://example.invalid/kept"));
    for (const auto& manager : {first, second, third})
        manager->invalidateClientAndCancelTasks();
}

// A child process that holds a queue's lock until it is destroyed; the lock
// file names it, as a process holding the queue writes its ID there.
class LockHolder {
  public:
    explicit LockHolder(const std::string& lockPath) {
        int ready[2];
        int release[2];
        if (::pipe2(ready, O_CLOEXEC) != 0 || ::pipe2(release, O_CLOEXEC) != 0) return;
        pid_ = ::fork();
        if (pid_ == 0) {
            // Only async-signal-safe calls from here on.
            ::close(ready[0]);
            ::close(release[1]);
            int fd = ::open(lockPath.c_str(), O_RDWR | O_CREAT, 0600);
            char c = 'r';
            if (fd < 0 || ::flock(fd, LOCK_EX | LOCK_NB) != 0 || ::write(ready[1], &c, 1) != 1)
                ::_exit(3);
            while (::read(release[0], &c, 1) > 0) {
            }
            ::_exit(0);
        }
        ::close(ready[1]);
        ::close(release[0]);
        release_ = release[1];
        char c;
        ready_ = ::read(ready[0], &c, 1) == 1;
        ::close(ready[0]);
        if (ready_) test::writeFile(lockPath, std::to_string(pid_) + "\n");
    }
    ~LockHolder() {
        if (release_ >= 0) ::close(release_);
        if (pid_ > 0) ::waitpid(pid_, nullptr, 0);
    }
    bool ready() const { return ready_; }
    pid_t pid() const { return pid_; }

  private:
    pid_t pid_ = -1;
    int release_ = -1;
    bool ready_ = false;
};

TEST(NetworkState, AQueueHeldElsewhereOrWithAnUnusableLockIsNeitherReadNorWritten) {
    const std::string lockPath = statePath("shared") + ".lock";
    {
        auto writer = ZNVNetwork::create(offlineConfiguration("shared"));
        writer->addTask(makeDownload("queued.zip"));
    }  // the last manager of the queue lets go of it
    const std::string saved = test::readFile(statePath("shared"));
    // A refused manager restores nothing, saves nothing and says why.
    const auto expectRefused = [&](const std::string& why) -> ZNVErrorRef {
        LogCapture log;
        auto refused = ZNVNetwork::create(offlineConfiguration("shared"));
        refused->launch();
        auto error = refused->stateRestoreError();
        EXPECT_NE(error, nullptr);
        if (!error) return nullptr;
        EXPECT_EQ(error->domain(), NSCocoaErrorDomain);
        EXPECT_EQ(error->code(), NSFileLockingError);
        EXPECT_EQ(error->localizedDescription(), why);
        EXPECT_TRUE(refused->tasks().empty());
        refused->addTask(makeDownload("elsewhere.zip"));
        refused->commitBatch();
        refused->invalidateClientAndCancelTasks();
        ZNVMainQueue::waitUntilDrained();
        EXPECT_FALSE(log.contains("saving task state:"));
        EXPECT_EQ(test::readFile(statePath("shared")), saved);
        return error;
    };
    {
        LockHolder holder(lockPath);
        ASSERT_TRUE(holder.ready());
        auto error = expectRefused("The task queue is in use by process " +
                                   std::to_string(holder.pid()) + ".");
        ASSERT_NE(error, nullptr);
        const auto* holderPID = error->value(ZNVNetwork_StateLockHolderPIDKey);
        ASSERT_NE(holderPID, nullptr);
        EXPECT_EQ(std::get<int64_t>(*holderPID), holder.pid());
        EXPECT_EQ(error->value(NSUnderlyingErrorKey), nullptr);
    }

    // A lock file that cannot be opened as a regular file of its own could
    // hide another process's hold just as well.
    struct Planted {
        const char* what;
        std::function<int()> plant;
        std::string reason;
    };
    const Planted planted[] = {
        {"a dangling link", [&] { return ::symlink("/nonexistent/x", lockPath.c_str()); },
         std::strerror(ELOOP)},
        {"a directory", [&] { return ::mkdir(lockPath.c_str(), 0700); }, std::strerror(EISDIR)},
        {"a FIFO", [&] { return ::mkfifo(lockPath.c_str(), 0600); }, "not a regular file"},
    };
    for (const auto& p : planted) {
        SCOPED_TRACE(p.what);
        std::filesystem::remove(lockPath);
        ASSERT_EQ(p.plant(), 0);
        auto error =
            expectRefused("The task queue cannot be locked (" + lockPath + ": " + p.reason + ").");
        ASSERT_NE(error, nullptr);
        EXPECT_NE(error->value(NSUnderlyingErrorKey), nullptr);
        EXPECT_EQ(error->value(ZNVNetwork_StateLockHolderPIDKey), nullptr);
    }
    std::filesystem::remove(lockPath);

    // Once the other process is gone the queue is this process's.
    auto owner = ZNVNetwork::create(offlineConfiguration("shared"));
    owner->launch();
    EXPECT_EQ(owner->stateRestoreError(), nullptr);
    EXPECT_EQ(owner->tasks().size(), 1u);
    EXPECT_EQ(test::readFile(lockPath), std::to_string(::getpid()) + "\n");
    // Managers of one process share the queue.
    auto second = ZNVNetwork::create(offlineConfiguration("shared"));
    second->readState();
    EXPECT_EQ(second->stateRestoreError(), nullptr);
    EXPECT_EQ(second->tasks().size(), 1u);
    // And another process is now refused.
    pid_t child = ::fork();
    if (child == 0) {
        int fd = ::open(lockPath.c_str(), O_RDWR);
        ::_exit(fd >= 0 && ::flock(fd, LOCK_EX | LOCK_NB) != 0 && errno == EWOULDBLOCK ? 0 : 1);
    }
    int status = -1;
    ASSERT_EQ(::waitpid(child, &status, 0), child);
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);
    owner->invalidateClientAndCancelTasks();
    ZNVMainQueue::waitUntilDrained();
}

}  // namespace
}  // namespace znv
