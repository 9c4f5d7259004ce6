// ZNVTaskList: snapshots keep the list as it was, across chunk boundaries,
// removals, merges and clears, while the list goes on changing.
#include "znv/managers/task_list.h"

#include <gtest/gtest.h>

#include <atomic>
#include <cstdint>
#include <random>
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

// Random appends, removals (oldest first, anywhere, the newest) and clears,
// checked against a vector after every step: positions, walks, indexing, and
// every snapshot taken on the way still holding what it held.
TEST(TaskList, MatchesAVectorAndKeepsEverySnapshotUnderRandomChanges) {
    for (uint32_t seed : {1u, 2u, 3u}) {
        SCOPED_TRACE(seed);
        std::mt19937 random(seed);
        auto below = [&](size_t n) { return static_cast<size_t>(random() % n); };
        ZNVTaskList<Item> list;
        std::vector<std::shared_ptr<Item>> model;
        std::vector<std::pair<ZNVTaskList<Item>::Snapshot, std::vector<int>>> kept;
        int next = 0;
        auto modelValues = [&] {
            std::vector<int> result;
            for (const auto& item : model)
                result.push_back(item->value);
            return result;
        };
        for (int step = 0; step < 6000; ++step) {
            const size_t choice = below(100);
            if (model.empty() || choice < 55) {
                // Bursts of appends build whole chunks.
                for (size_t n = 1 + below(choice < 5 ? 600 : 3); n > 0; --n) {
                    model.push_back(std::make_shared<Item>(Item{next++}));
                    list.append(model.back());
                }
                // An element already held is not added again.
                list.append(model[below(model.size())]);
            } else if (choice < 99) {
                const size_t index = choice < 70   ? 0
                                     : choice < 80 ? model.size() - 1
                                                   : below(model.size());
                const auto item = model[index];
                ASSERT_EQ(list.indexOfIdentical(item.get()), index);
                ASSERT_TRUE(list.removeIdentical(item.get()));
                ASSERT_FALSE(list.removeIdentical(item.get()));
                ASSERT_EQ(list.indexOfIdentical(item.get()), list.size());
                model.erase(model.begin() + static_cast<ptrdiff_t>(index));
            } else {
                list.clear();
                model.clear();
            }
            ASSERT_EQ(list.size(), model.size());
            if (!model.empty()) {
                const size_t probe = below(model.size());
                ASSERT_EQ(list.indexOfIdentical(model[probe].get()), probe);
                ASSERT_EQ(list.snapshot()[probe], model[probe]);
            }
            if (step % 200 == 0) {
                ASSERT_EQ(values(list.snapshot()), modelValues());
                ASSERT_EQ(list.toVector(), model);
                kept.emplace_back(list.snapshot(), modelValues());
                for (const auto& [snapshot, expected] : kept)
                    ASSERT_EQ(values(snapshot), expected);
            }
        }
    }
}

TEST(TaskList, ASnapshotIsWalkedWhileTheOwnerAppendsAndRemoves) {
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
            // Removals rebuild and merge chunks the snapshot still reads.
            if (i % 3 == 0) list.removeIdentical(list.snapshot()[(i * 7) % list.size()].get());
        }
        done = true;
    });
    while (!done)
        EXPECT_EQ(values(snapshot), range(0, 100));
    writer.join();
    EXPECT_EQ(list.size(), 2034u);  // 100 + 2900 appended - 966 removed
}

}  // namespace
}  // namespace znv
