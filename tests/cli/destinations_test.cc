// Download destinations against a plain map: random changes, reopened from
// disk at random points, with crashes mid-write and damaged files.

#include <gtest/gtest.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <map>
#include <random>
#include <sstream>

#include "apps/znv/destinations.h"

namespace znv::cli {
namespace {

class DestinationsTest : public ::testing::Test {
  protected:
    void SetUp() override {
        dir_ = std::filesystem::temp_directory_path() /
               ("znv-destinations-" + std::to_string(::getpid()));
        std::filesystem::remove_all(dir_);
        base_ = (dir_ / "sub" / "p.downloads").string();
    }
    void TearDown() override { std::filesystem::remove_all(dir_); }

    static std::string read(const std::string& path) {
        std::ifstream in(path, std::ios::binary);
        std::ostringstream text;
        text << in.rdbuf();
        return text.str();
    }
    static void append(const std::string& path, const std::string& text) {
        std::ofstream(path, std::ios::binary | std::ios::app) << text;
    }
    std::vector<std::string> keptAside() const {
        std::vector<std::string> kept;
        for (const auto& entry : std::filesystem::directory_iterator(dir_ / "sub")) {
            if (entry.path().filename().string().find(".damaged-") != std::string::npos)
                kept.push_back(entry.path().filename().string());
        }
        return kept;
    }

    using Model = std::map<std::string, Destination>;
    static void expectSame(const DownloadDestinations& destinations, const Model& model,
                           const std::vector<std::string>& hashes) {
        for (const auto& hash : hashes) {
            auto got = destinations.get(hash);
            auto want = model.find(hash);
            ASSERT_EQ(got.has_value(), want != model.end()) << hash;
            if (!got) continue;
            EXPECT_EQ(got->path, want->second.path) << hash;
            EXPECT_EQ(got->directory, want->second.directory) << hash;
            EXPECT_EQ(got->force, want->second.force) << hash;
            EXPECT_EQ(got->delivered, want->second.delivered) << hash;
            EXPECT_EQ(got->size, want->second.size) << hash;
        }
    }

    std::filesystem::path dir_;
    std::string base_;
};

TEST_F(DestinationsTest, ChangesSurviveReopeningCrashesAndStayProportional) {
    std::mt19937 random(20261125);
    std::vector<std::string> hashes;
    for (int i = 0; i < 300; ++i)
        hashes.push_back(std::to_string(100000 + i) + "f00d");
    // Paths as users and servers make them: quotes, newlines, bytes that
    // are not UTF-8, long ones.
    const std::vector<std::string> paths = {"/home/u/Downloads",
                                            "/tmp/a \"quoted\" name.bin",
                                            "/tmp/line\nbreak\r\t",
                                            std::string("/tmp/\xff\xfe latin\xe9"),
                                            "/tmp/\xe2\x80\xae\xd0\xb6\xf0\x9f\x98\x80",
                                            "/" + std::string(3000, 'x')};
    Model model;
    auto destinations = DownloadDestinations::atPath(base_);
    for (int step = 0; step < 6000; ++step) {
        const auto& hash = hashes[random() % hashes.size()];
        switch (random() % 10) {
            case 0: {  // several finished at once
                std::vector<std::string> batch;
                for (int i = random() % 8; i > 0; --i) {
                    batch.push_back(hashes[random() % hashes.size()]);
                    model.erase(batch.back());
                }
                destinations.erase(batch);
                break;
            }
            case 1:
                model.erase(hash);
                destinations.erase(hash);
                break;
            default: {
                Destination destination{paths[random() % paths.size()], random() % 2 == 0,
                                        random() % 2 == 0};
                if (random() % 3 == 0) {
                    destination.delivered = true;
                    destination.size = random() % 2 ? int64_t(random()) << 20 : -1;
                }
                model[hash] = destination;
                destinations.set(hash, destination);
            }
        }
        // Whatever the history, the journal stays within a margin of the
        // number of entries: a change costs a line, not the whole record.
        ASSERT_LE(destinations.journalLines(), model.size() + 64 + 8) << step;
        if (random() % 200 == 0) {
            // A crash in the middle of an append leaves part of a line.
            if (random() % 2) append(base_ + ".journal", R"({"hash":"100000f00d","set":{"pa)");
            destinations = DownloadDestinations::atPath(base_);
            expectSame(destinations, model, hashes);
        }
    }
    destinations = DownloadDestinations::atPath(base_);
    expectSame(destinations, model, hashes);
    EXPECT_TRUE(keptAside().empty());
}

TEST_F(DestinationsTest, DamagedFilesAreSetAsideKeepingWhatCanBeRead) {
    Destination first{"/d/first", true, false};
    Destination second{"/d/second", false, true, true, 42};
    {
        auto destinations = DownloadDestinations::atPath(base_);
        destinations.set("aa", first);
        destinations.set("bb", second);
    }
    const std::string journal = base_ + ".journal";
    // A line that is not a change, followed by one that would be lost with it.
    append(journal, "{\"hash\":\"bb\",\"erase\":\"yes\"}\n{\"hash\":\"cc\",\"erase\":true}\n");
    ::testing::internal::CaptureStderr();
    auto destinations = DownloadDestinations::atPath(base_);
    std::string err = ::testing::internal::GetCapturedStderr();
    EXPECT_NE(err.find("the journal of pending download destinations"), std::string::npos) << err;
    ASSERT_EQ(keptAside().size(), 1u);
    expectSame(destinations, {{"aa", first}, {"bb", second}}, {"aa", "bb", "cc"});
    // What was read is on disk again, whole, and later changes add to it.
    destinations.erase("aa");
    destinations.set("cc", first);
    expectSame(DownloadDestinations::atPath(base_), {{"bb", second}, {"cc", first}},
               {"aa", "bb", "cc"});

    // A record that is not an object is set aside too; the journal's changes
    // still apply, and are written out as the new record.
    std::ofstream(base_ + ".json", std::ios::trunc) << "[1,2";
    ::testing::internal::CaptureStderr();
    destinations = DownloadDestinations::atPath(base_);
    err = ::testing::internal::GetCapturedStderr();
    EXPECT_NE(err.find("the file of pending download destinations"), std::string::npos) << err;
    EXPECT_EQ(keptAside().size(), 2u);
    expectSame(destinations, {{"cc", first}}, {"aa", "bb", "cc"});
    expectSame(DownloadDestinations::atPath(base_), {{"cc", first}}, {"aa", "bb", "cc"});
    EXPECT_EQ(read(base_ + ".json").find("[1,2"), std::string::npos);
}

}  // namespace
}  // namespace znv::cli
