// ZNVTaskList: snapshots keep the list as it was, across chunk boundaries,
// removals and clears, while the list goes on changing.
#include "znv/managers/task_list.h"

#include <gtest/gtest.h>

#include <atomic>
#include <thread>

namespace znv {
namespace {

struct Item {
    int value;
};

std::vector<int> values(const ZNVTaskList<Item>::Snapshot& snapshot) {
    std::vector<int> result;
    snapshot.forEach([&](const std::shared_ptr<Item>& item) { result.push_back(item->value); });
    return result;
}

std::vector<int> range(int from, int to) {
    std::vector<int> result;
    for (int i = from; i < to; ++i)
        result.push_back(i);
    return result;
}

TEST(TaskList, SnapshotsIgnoreLaterAppendsRemovalsAndClears) {
    ZNVTaskList<Item> list;
    std::vector<std::shared_ptr<Item>> items;
    for (int i = 0; i < 700; ++i)
        items.push_back(std::make_shared<Item>(Item{i}));

    // Taken on a chunk boundary, inside a chunk, and while empty.
    auto empty = list.snapshot();
    for (int i = 0; i < 256; ++i)
        list.append(items[i]);
    auto boundary = list.snapshot();
    for (int i = 256; i < 300; ++i)
        list.append(items[i]);
    auto inside = list.snapshot();
    for (int i = 300; i < 700; ++i)
        list.append(items[i]);

    EXPECT_TRUE(empty.empty());
    EXPECT_EQ(values(boundary), range(0, 256));
    EXPECT_EQ(values(inside), range(0, 300));
    EXPECT_EQ(values(list.snapshot()), range(0, 700));

    // Removing rebuilds the list; earlier snapshots keep what they had.
    EXPECT_EQ(list.indexOfIdentical(items[10].get()), 10u);
    EXPECT_TRUE(list.removeIdentical(items[10].get()));
    EXPECT_FALSE(list.removeIdentical(items[10].get()));
    EXPECT_EQ(list.indexOfIdentical(items[10].get()), list.size());
    EXPECT_EQ(list.size(), 699u);
    auto expected = range(0, 700);
    expected.erase(expected.begin() + 10);
    EXPECT_EQ(values(list.snapshot()), expected);
    EXPECT_EQ(values(inside), range(0, 300));

    // Appending after a removal fills the rebuilt last chunk, not the old one.
    list.append(items[10]);
    expected.push_back(10);
    EXPECT_EQ(values(list.snapshot()), expected);
    EXPECT_EQ(values(inside), range(0, 300));

    list.clear();
    EXPECT_TRUE(list.snapshot().empty());
    EXPECT_EQ(values(boundary), range(0, 256));
    ASSERT_EQ(inside.toVector().size(), 300u);
    EXPECT_EQ(inside.toVector()[299], items[299]);
}

TEST(TaskList, ASnapshotIsWalkedWhileTheOwnerAppends) {
    // The owner's mutex guards the list; the snapshot is walked without it.
    std::mutex mutex;
    ZNVTaskList<Item> list;
    for (int i = 0; i < 100; ++i)
        list.append(std::make_shared<Item>(Item{i}));
    ZNVTaskList<Item>::Snapshot snapshot;
    {
        std::lock_guard<std::mutex> lock(mutex);
        snapshot = list.snapshot();
    }
    std::atomic<bool> done{false};
    std::thread writer([&] {
        for (int i = 100; i < 3000; ++i) {
            std::lock_guard<std::mutex> lock(mutex);
            list.append(std::make_shared<Item>(Item{i}));
            if (i % 1000 == 0) list.removeIdentical(list.snapshot()[0].get());
        }
        done = true;
    });
    while (!done)
        EXPECT_EQ(values(snapshot), range(0, 100));
    writer.join();
    EXPECT_EQ(list.size(), 2998u);
}

}  // namespace
}  // namespace znv
