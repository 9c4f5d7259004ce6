// The state writer: every save is the whole archive of its snapshot, byte for
// byte, however the tasks changed between saves; concurrent saves end with
// the newest one.
#include "znv/managers/state_writer.h"

#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <random>
#include <thread>

#include "tests/managers/managers_test_support.h"
#include "tests/support/test_support.h"
#include "znv/managers/network.h"
#include "znv/platform/progress.h"
#include "znv/upload/storage_upload.h"

namespace znv {
namespace {

using test::statePath;
// What one archiver writes for the collection, encoded whole.
std::string wholeArchive(const std::string& identifier,
                         const std::vector<ZNVNetworkTaskRef>& tasks) {
    ZNVKeyedArchiver archiver;
    archiver.encodeString(identifier, "configuration type");
    archiver.encodeArray(tasks, "tasks");
    return archiver.encodedString();
}

ZNVErrorRef someError(std::mt19937& random) {
    switch (random() % 3) {
        case 0:
            return nullptr;
        case 1:  // recoverable
            return ZNVError::withMessage(NSURLErrorDomain, NSURLErrorTimedOut,
                                         "timed out " + std::to_string(random() % 5));
        default:
            return ZNVError::withMessage(NSURLErrorDomain, NSURLErrorCancelled, "cancelled");
    }
}

// What a launch waits for before it reads a state file: the saves of that
// file asked for before it, until they are gone, and none that a forked child
// inherited from threads it does not have.
TEST(StateWriter, AReaderWaitsForEarlierSavesOfItsFileOnlyAndAForkedChildForNone) {
    using std::chrono::milliseconds;
    const std::string path = statePath("tickets");
    auto ticket = ZNVStateWriter::ticketForSave(path);
    EXPECT_TRUE(ZNVStateWriter::waitForEarlierSaves(statePath("other"), milliseconds(0)));
    EXPECT_FALSE(ZNVStateWriter::waitForEarlierSaves(path, milliseconds(20)));

    const pid_t child = ::fork();
    if (child == 0) ::_exit(ZNVStateWriter::waitForEarlierSaves(path, milliseconds(2000)) ? 0 : 1);
    int status = -1;
    ASSERT_EQ(::waitpid(child, &status, 0), child);
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0)
        << "the child waited for a save of its parent";

    std::thread release([&] { ticket.reset(); });
    EXPECT_TRUE(ZNVStateWriter::waitForEarlierSaves(path, milliseconds(5000)));
    release.join();
    EXPECT_TRUE(ZNVStateWriter::waitForEarlierSaves(path, milliseconds(0)));
}

// Queued saves rest nine times as long as the last write took, but not
// while someone waits for them: a shutdown saves at once.
TEST(StateWriter, AWaitedForSaveDoesNotWaitForTheRest) {
    const std::string identifier = "writer-hurried";
    auto writer = ZNVStateWriter::create();
    auto generation = std::make_shared<std::atomic<uint64_t>>(0);
    const ZNVURL stateURL = ZNVURL::fileURL(statePath(identifier));
    ZNVTaskList<ZNVNetworkTask> list;
    const auto saveAndWait = [&] {
        writer->write({identifier, list.snapshot(), stateURL,
                       ZNVURL::fileURL(statePath(identifier) + ".tmp"), generation, ++*generation,
                       ZNVStateWriter::ticketForSave(stateURL.path())});
        const auto start = std::chrono::steady_clock::now();
        EXPECT_TRUE(writer->waitUntilWritten(generation->load(), std::chrono::seconds(30)));
        return std::chrono::steady_clock::now() - start;
    };
    // Enough tasks that the first write takes long next to a thread hop.
    for (int i = 0; i < 20000; ++i)
        list.append(test::FakeTask::make(nullptr, "hurried-" + std::to_string(i)));
    const auto first = saveAndWait();
    list.append(test::FakeTask::make(nullptr, "one-more"));
    const auto second = saveAndWait();
    // A rested save would take its own write and a rest of up to nine times
    // the first write; half that rest is the margin for a slow machine.
    const auto rest =
        std::min<std::chrono::steady_clock::duration>(9 * first, std::chrono::seconds(1));
    EXPECT_LT(second, first + rest / 2) << "the second save rested after the first";
    EXPECT_EQ(test::readFile(statePath(identifier)), wholeArchive(identifier, list.toVector()));
}

TEST(StateWriter, EverySaveIsTheWholeArchiveOfTheCollectionAfterRandomChanges) {
    const std::string identifier = "writer-random";
    const std::string directory = test::scratchRoot() + "/writer-random";
    std::filesystem::create_directories(directory);
    auto network = ZNVNetwork::create(test::offlineConfiguration(identifier));
    std::mt19937 random(20261123);

    auto addRandomTask = [&](int n) {
        ZNVNetworkTaskRef task;
        switch (random() % 3) {
            case 0: {
                const std::string path = directory + "/file-" + std::to_string(n) + ".bin";
                test::writePatternFile(path, 1 + random() % 9000);
                task = ZNVStorageUpload::create(ZNVURL::fileURL(path), "", nullptr, "", "", false,
                                                nullptr);
                break;
            }
            case 1:
                task = ZNVNetworkDownload::create(
                    ZNVURL::fromString("https://example.invalid/d" + std::to_string(n)).value());
                break;
            default:
                task = test::FakeTask::make(nullptr, "plain" + std::to_string(n));
                break;
        }
        network->addTask(task);
    };
    // One change of one task, through its public operations.
    auto change = [&](const ZNVNetworkTaskRef& task) {
        auto upload = std::dynamic_pointer_cast<ZNVStorageUpload>(task);
        auto download = std::dynamic_pointer_cast<ZNVNetworkDownload>(task);
        switch (random() % 9) {
            case 0:
                task->setState(random() % 3);
                break;
            case 1:
                task->setRawError(someError(random));
                break;
            case 2:
                task->setRetryCount(random() % 4);
                break;
            case 3:
                task->setNeedsEarlyActivation(random() % 2);
                break;
            case 4:
                if (auto progress = task->progress())
                    progress->setCompletedUnitCount(random() % (progress->totalUnitCount() + 1));
                break;
            case 5:
                task->retry();
                break;
            case 6:
                if (upload) upload->setRemoteFileID("remote-" + std::to_string(random() % 50));
                if (download) download->setResumeData(ZNVBytes(random() % 40, 7));
                break;
            case 7:
                if (upload) upload->setPendingBatchChunkCount(random() % 8);
                if (download)
                    download->setLocalFileURL(
                        ZNVURL::fileURL("/tmp/l" + std::to_string(random() % 9)));
                break;
            default:
                task->setDiscretionary(random() % 2);
                break;
        }
    };

    for (int n = 0; n < 12; ++n)
        addRandomTask(n);
    for (int step = 0; step < 150; ++step) {
        auto tasks = network->tasks();
        const unsigned action = random() % 10;
        if (action == 0) {
            addRandomTask(100 + step);
        } else if (action == 1 && tasks.size() > 4) {
            network->finishTask(tasks[random() % tasks.size()]);
        } else {
            // Several changes between two saves, sometimes none at all.
            for (unsigned i = random() % 3; i > 0; --i)
                change(tasks[random() % tasks.size()]);
            network->writeState();
        }
        ASSERT_EQ(test::readFile(statePath(identifier)), wholeArchive(identifier, network->tasks()))
            << "after step " << step;
    }
}

TEST(StateWriter, ConcurrentSavesEndWithTheNewestSnapshot) {
    const std::string identifier = "writer-concurrent";
    auto writer = ZNVStateWriter::create();
    auto generation = std::make_shared<std::atomic<uint64_t>>(0);
    const ZNVURL stateURL = ZNVURL::fileURL(statePath(identifier));
    const ZNVURL tempURL = ZNVURL::fileURL(statePath(identifier) + ".tmp");

    std::mutex listMutex;
    ZNVTaskList<ZNVNetworkTask> list;  // guarded by listMutex
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t) {
        threads.emplace_back([&, t] {
            for (int i = 0; i < 50; ++i) {
                auto task =
                    test::FakeTask::make(nullptr, std::to_string(t) + "-" + std::to_string(i));
                // Snapshot and number are taken together, as the manager does.
                std::lock_guard<std::mutex> lock(listMutex);
                list.append(task);
                ZNVStateWriter::Save save{identifier,
                                          list.snapshot(),
                                          stateURL,
                                          tempURL,
                                          generation,
                                          ++*generation,
                                          ZNVStateWriter::ticketForSave(stateURL.path())};
                if (i % 10 == 9) {
                    writer->writeNow(save);
                } else {
                    writer->write(std::move(save));
                }
            }
        });
    }
    for (auto& thread : threads)
        thread.join();
    ASSERT_TRUE(writer->waitUntilWritten(generation->load(), std::chrono::seconds(30)));
    EXPECT_EQ(test::readFile(statePath(identifier)), wholeArchive(identifier, list.toVector()));
    EXPECT_FALSE(std::filesystem::exists(statePath(identifier) + ".tmp"));
}

}  // namespace
}  // namespace znv
