// The state file of ZNVNetwork: round trips, refusals while reading or
// batching, damaged and foreign files, durability details and the log.
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <cstdlib>
#include <filesystem>

#include "tests/managers/managers_test_support.h"
#include "tests/support/test_support.h"
#include "znv/managers/network.h"

namespace znv {
namespace {

using test::FakeTask;
using test::LogCapture;

ZNVAccountConfigurationRef configuration(const std::string& identifier) {
    return std::make_shared<ZNVAccountConfiguration>(
        ZNVURL::fromString("http://127.0.0.1:9/api/").value(), identifier);
}

std::string stateDirectory() {
    return std::string(std::getenv("HOME")) + "/Library/Network";
}
std::string statePath(const std::string& identifier) {
    return stateDirectory() + "/" + identifier + ".state";
}

std::shared_ptr<ZNVNetworkDownload> makeDownload(const std::string& name) {
    return ZNVNetworkDownload::create(ZNVURL::fromString("https://example.invalid/" + name).value(),
                                      nullptr);
}

// A manager that was never launched has no session manager: it saves inline.
TEST(NetworkState, RoundTripRestoresEveryTaskInOrderWithoutRewritingTheFile) {
    auto writer = ZNVNetwork::create(configuration("roundtrip"));
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

    LogCapture log;
    auto reader = ZNVNetwork::create(configuration("roundtrip"));
    reader->readState();
    auto restored = reader->tasks();
    ASSERT_EQ(restored.size(), 3u);
    EXPECT_EQ(restored[0]->className(), "ZNVNetworkDownload");
    EXPECT_EQ(restored[1]->className(), "ZNVNetworkTask");
    EXPECT_EQ(restored[2]->className(), "ZNVNetworkDownload");
    EXPECT_EQ(restored[0]->sourceURL(), first->sourceURL());
    EXPECT_EQ(restored[1]->sourceURL(), plain->sourceURL());
    EXPECT_EQ(restored[2]->sourceURL(), second->sourceURL());
    for (const auto& task : restored)
        EXPECT_TRUE(task->wasDecoded());
    ASSERT_EQ(reader->downloads().size(), 2u);
    EXPECT_EQ(reader->downloads()[1], restored[2]);
    EXPECT_FALSE(reader->isReadingState());

    EXPECT_TRUE(log.contains("restoring task state:"));
    EXPECT_EQ(log.count("   restored state for "), 3u);
    // Restoring never saves.
    EXPECT_FALSE(log.contains("saving task state:"));
    EXPECT_EQ(test::readFile(statePath("roundtrip")), before);
}

TEST(NetworkState, FileIsTheDocumentedKeyedArchive) {
    auto writer = ZNVNetwork::create(configuration("format"));
    writer->addTask(makeDownload("a.zip"));
    auto json = nlohmann::json::parse(test::readFile(statePath("format")));
    EXPECT_EQ(json["$archiver"], "ZNVKeyedArchiver");
    EXPECT_EQ(json["$top"]["configuration type"], "format");
    EXPECT_EQ(json["$top"]["tasks"]["$class"], "NSMutableArray");
    ASSERT_EQ(json["$top"]["tasks"]["$objects"].size(), 1u);
    EXPECT_EQ(json["$top"]["tasks"]["$objects"][0]["$class"], "ZNVNetworkDownload");
}

TEST(NetworkState, ConfigurationsWithoutIdentifierShareTheLiveFile) {
    auto writer = ZNVNetwork::create(configuration(""));
    writer->addTask(makeDownload("live.zip"));
    EXPECT_TRUE(std::filesystem::exists(statePath("live")));
    auto reader = ZNVNetwork::create(nullptr);
    reader->readState();
    EXPECT_EQ(reader->tasks().size(), 1u);
}

TEST(NetworkState, BatchAndReadingSuppressSavesAndCommitWritesOnce) {
    LogCapture log;
    auto network = ZNVNetwork::create(configuration("batch"));
    network->beginBatch();
    EXPECT_TRUE(network->isBatchingSave());
    network->addTask(makeDownload("one.zip"));
    network->addTask(makeDownload("two.zip"));
    network->finishTask(network->tasks()[0]);
    EXPECT_FALSE(std::filesystem::exists(statePath("batch")));
    EXPECT_EQ(log.count("saving task state:"), 0u);

    network->commitBatch();
    EXPECT_FALSE(network->isBatchingSave());
    EXPECT_EQ(log.count("saving task state:"), 1u);
    auto reader = ZNVNetwork::create(configuration("batch"));
    reader->readState();
    ASSERT_EQ(reader->tasks().size(), 1u);
    EXPECT_EQ(reader->tasks()[0]->sourceURL()->lastPathComponent(), "two.zip");
}

TEST(NetworkState, SaveSummaryListsRunningTasksAndCountsTheOthers) {
    auto network = ZNVNetwork::create(configuration("summary"));
    auto suspended = FakeTask::make(nullptr, "suspended");
    auto running = FakeTask::make(nullptr, "running");
    auto completed = FakeTask::make(nullptr, "completed");
    network->beginBatch();
    network->addTask(suspended);
    network->addTask(running);
    network->addTask(completed);
    running->setState(ZNVNetworkTaskStateRunning);
    completed->setState(ZNVNetworkTaskStateCompleted);

    LogCapture log;
    network->commitBatch();
    auto lines = log.lines();
    const long heading = log.indexOf("saving task state:");
    ASSERT_GE(heading, 0);
    EXPECT_EQ(log.count("   stored state for "), 3u);
    const long runningLine = log.indexOf("   stored state for " + running->description());
    const long completedLine = log.indexOf("   stored state for 1 completed tasks");
    const long suspendedLine = log.indexOf("   stored state for 1 suspended tasks");
    EXPECT_GT(runningLine, heading);
    EXPECT_GT(completedLine, runningLine);
    EXPECT_GT(suspendedLine, completedLine);
}

TEST(NetworkState, MissingFileRestoresNothingAndLogsNothing) {
    LogCapture log;
    auto network = ZNVNetwork::create(configuration("never-saved"));
    network->readState();
    EXPECT_TRUE(network->tasks().empty());
    EXPECT_TRUE(log.lines().empty());
}

class DamagedState : public ::testing::Test {
  protected:
    // Restores from a state file with the given content and returns the log.
    std::vector<std::string> restoreFrom(const std::string& content) {
        std::filesystem::create_directories(stateDirectory());
        test::writeFile(statePath("damaged"), content);
        LogCapture log;
        network_ = ZNVNetwork::create(configuration("damaged"));
        network_->readState();
        // Reading never deletes or rewrites the file.
        EXPECT_EQ(test::readFile(statePath("damaged")), content);
        EXPECT_FALSE(network_->isReadingState());
        return log.lines();
    }
    static bool has(const std::vector<std::string>& lines, const std::string& text) {
        for (const auto& line : lines) {
            if (line.find(text) != std::string::npos) return true;
        }
        return false;
    }
    std::shared_ptr<ZNVNetwork> network_;
};

TEST_F(DamagedState, EmptyUnparsableAndForeignFilesAreReportedAndIgnored) {
    auto lines = restoreFrom("");
    EXPECT_TRUE(has(lines, "failed to read network task state: "));
    EXPECT_TRUE(network_->tasks().empty());

    lines = restoreFrom("{\"not\": \"an archive\"");
    EXPECT_TRUE(has(lines, "failed to set up reader for network task state: "));
    EXPECT_TRUE(network_->tasks().empty());

    // Saved under another configuration identifier.
    auto other = ZNVNetwork::create(configuration("other"));
    other->addTask(makeDownload("foreign.zip"));
    lines = restoreFrom(test::readFile(statePath("other")));
    EXPECT_TRUE(has(lines, "Failed to load other task state for damaged network session."));
    EXPECT_TRUE(network_->tasks().empty());

    // No identifier at all.
    lines = restoreFrom(
        R"({"$archiver":"ZNVKeyedArchiver","$version":1,"$top":{"configuration type":7}})");
    EXPECT_TRUE(has(lines, "Failed to load (null) task state for damaged network session."));
}

TEST_F(DamagedState, AnUndecodableTaskRestoresNothing) {
    auto good = ZNVNetwork::create(configuration("source"));
    good->addTask(makeDownload("good.zip"));
    auto json = nlohmann::json::parse(test::readFile(statePath("source")));
    json["$top"]["configuration type"] = "damaged";
    auto& objects = json["$top"]["tasks"]["$objects"];
    objects.push_back(objects[0]);
    objects[1]["$class"] = "ZNVSomethingElse";  // a class no call allows

    auto lines = restoreFrom(json.dump());
    EXPECT_TRUE(has(lines, "failed to parse network task state: "));
    EXPECT_TRUE(has(lines, "Unable to decode 32-bit task data."));
    EXPECT_TRUE(network_->tasks().empty());

    // Tasks that are no list.
    json["$top"]["tasks"] = "nothing";
    lines = restoreFrom(json.dump());
    EXPECT_TRUE(has(lines, "failed to parse network task state: "));
    EXPECT_TRUE(network_->tasks().empty());
}

TEST(NetworkState, AFailedReplacementIsReportedAndLeavesNoTemporaryFile) {
    // A non-empty directory where the state file belongs cannot be replaced.
    std::filesystem::create_directories(statePath("blocked") + "/inside");
    auto network = ZNVNetwork::create(configuration("blocked"));
    LogCapture log;
    network->addTask(makeDownload("lost.zip"));
    EXPECT_TRUE(log.contains("failed to save task state: "));
    EXPECT_FALSE(log.contains("saving task state:"));
    EXPECT_TRUE(std::filesystem::is_directory(statePath("blocked") + "/inside"));
    EXPECT_FALSE(std::filesystem::exists(statePath("blocked") + ".tmp"));
}

}  // namespace
}  // namespace znv
