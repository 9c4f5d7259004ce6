// The journal of remote file IDs: what no save holds yet survives every
// shortening of the file, and what a save holds goes.
#include "znv/managers/remote_file_journal.h"

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <filesystem>
#include <string>

#include "tests/support/test_support.h"

namespace znv {
namespace {

using Entry = ZNVRemoteFileJournal::Entry;

TEST(RemoteFileJournal, RecordsNoSaveHoldsSurviveAndThoseOfAnEarlierProcessGo) {
    const std::string path = test::makeTempDir("journal") + "/q.state.journal";
    // What an earlier process recorded, its last line cut short by a kill.
    const Entry earlier{"file:///old", 1, "OLD", 7, {}, false, {}};
    test::writeFile(path, ZNVRemoteFileJournal::line(earlier) + R"({"source":"file:///cut)");

    ZNVRemoteFileJournal journal(path);
    EXPECT_EQ(journal.read(), std::vector<Entry>{earlier});
    const std::vector<Entry> made = {{"file:///a", 10, "A", 100, {}, false, {}},
                                     {"file:///a", 10, "A", 100, {0, 1, 2}, false, {}},
                                     {"file:///a", 10, "A", 100, {}, false, {1}},
                                     {"file:///b", 11, "B", 0, {}, true, {}}};
    for (size_t i = 0; i < made.size(); ++i)
        EXPECT_EQ(journal.record(made[i]), i + 1);
    struct stat info {};
    ASSERT_EQ(::stat(path.c_str(), &info), 0);
    EXPECT_EQ(info.st_mode & 0777, 0600u);

    // A save holds the first two: the others stay. Covered lines may stay
    // too while the file is small; they are only ever applied again.
    journal.forgetUpTo(2);
    auto kept = journal.read();
    ASSERT_GE(kept.size(), 2u);
    EXPECT_EQ(kept[kept.size() - 2], made[2]);
    EXPECT_EQ(kept.back(), made[3]);
    journal.forgetUpTo(4);
    EXPECT_EQ(std::filesystem::file_size(path), 0u) << "everything is in a save";

    // A long stream: once the file has grown, a save that holds all but the
    // last record leaves a file with just that one.
    uint64_t last = 0;
    Entry entry{"file:///" + std::string(200, 'p'), 20, "F", 0, {}, false, {}};
    for (int i = 0; i < 2000; ++i) {
        entry.remoteFileID = "F" + std::to_string(i);
        last = journal.record(entry);
    }
    journal.forgetUpTo(last - 1);
    EXPECT_EQ(journal.read(), std::vector<Entry>{entry});
    journal.forgetUpTo(last);
    EXPECT_TRUE(journal.read().empty());
    EXPECT_FALSE(std::filesystem::exists(path + ".tmp"));
}

}  // namespace
}  // namespace znv
