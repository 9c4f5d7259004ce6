// ZNVTaskActivityIndex: while its tasks change on several threads at once and
// tasks join and leave, the index answers what a walk over the collection in
// order answers (the activation policy as it reads a whole collection).
#include "znv/managers/task_activity.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <random>
#include <thread>

#include "tests/managers/managers_test_support.h"
#include "znv/managers/network.h"

namespace znv {
namespace {

using test::FakeTask;
using TaskRef = std::shared_ptr<ZNVNetworkTask>;

std::vector<TaskRef> walk(const std::vector<TaskRef>& collection,
                          const std::function<bool(const ZNVNetworkTask&)>& wanted) {
    std::vector<TaskRef> result;
    for (const auto& task : collection) {
        if (wanted(*task)) result.push_back(task);
    }
    return result;
}

// The selection of a round with room for `count`, as a walk makes it.
std::vector<TaskRef> walkSelection(const std::vector<TaskRef>& collection, uint64_t count) {
    std::vector<TaskRef> selected;
    for (const auto& task : collection) {
        if (task->state() != ZNVNetworkTaskStateSuspended) continue;
        if (count > 0) {
            selected.push_back(task);
            --count;
        } else if (task->needsEarlyActivation()) {
            selected.push_back(task);
        }
    }
    return selected;
}

// One random change of a task, through its public operations.
void changeAtRandom(ZNVNetworkTask& task, std::mt19937& random) {
    switch (random() % 4) {
        case 0:
            task.setState(random() % 3);
            break;
        case 1:
            task.setRawError(
                random() % 2 ? nullptr
                             : ZNVError::withMessage(NSURLErrorDomain, NSURLErrorBadURL, "bad"));
            break;
        case 2:
            task.setNeedsEarlyActivation(random() % 2 == 0);
            break;
        default:
            task.resume();
            break;
    }
}

TEST(TaskActivityIndex, AnswersWhatAWalkOfTheCollectionAnswers) {
    std::mt19937 random(17);
    auto index = ZNVTaskActivityIndex::create();
    std::vector<TaskRef> collection;
    std::vector<TaskRef> removed;
    int made = 0;

    for (int round = 0; round < 60; ++round) {
        // The owner's changes, one at a time: new tasks, tasks that come back
        // after leaving (they join at the end again), removals anywhere.
        for (int i = 0; i < 8; ++i) {
            TaskRef task;
            if (!removed.empty() && random() % 3 == 0) {
                task = removed.back();
                removed.pop_back();
            } else {
                task = FakeTask::make(nullptr, "t" + std::to_string(made++));
            }
            collection.push_back(task);
            index->add(task);
        }
        index->add(collection.front());  // already held: stays where it is
        for (int i = 0; i < 3 && !collection.empty(); ++i) {
            const size_t at = random() % collection.size();
            index->remove(collection[at].get());
            removed.push_back(collection[at]);
            collection.erase(collection.begin() + static_cast<long>(at));
        }
        // Tasks that left change too; the index must not take them back.
        for (auto& task : removed)
            changeAtRandom(*task, random);

        // Four threads change tasks at once, two of them the same ones.
        std::vector<std::thread> threads;
        for (unsigned t = 0; t < 4; ++t) {
            threads.emplace_back([&collection, seed = random(), t] {
                std::mt19937 own(seed);
                for (int i = 0; i < 200; ++i) {
                    const size_t at = (t < 2 ? 0 : own()) % collection.size();
                    changeAtRandom(*collection[(at + i) % collection.size()], own);
                }
            });
        }
        for (auto& thread : threads)
            thread.join();

        ASSERT_EQ(index->size(), collection.size());
        const auto running = walk(collection, [](const ZNVNetworkTask& task) {
            return task.state() == ZNVNetworkTaskStateRunning;
        });
        ASSERT_EQ(index->runningCount(), running.size()) << "round " << round;
        ASSERT_EQ(index->tasksToPrepare(),
                  walk(collection,
                       [](const ZNVNetworkTask& task) {
                           return task.state() == ZNVNetworkTaskStateRunning || task.rawError();
                       }))
            << "round " << round;
        ASSERT_EQ(index->tasksWithRawError(),
                  walk(collection, [](const ZNVNetworkTask& task) { return !!task.rawError(); }));
        for (uint64_t count : {0u, 1u, 2u, 1000u})
            ASSERT_EQ(index->tasksToActivate(count), walkSelection(collection, count))
                << "round " << round << ", room " << count;
    }

    // A cleared index lets go of its tasks and hears from none of them.
    index->clear();
    for (auto& task : collection)
        task->setState(ZNVNetworkTaskStateRunning);
    EXPECT_EQ(index->size(), 0u);
    EXPECT_EQ(index->runningCount(), 0u);
    EXPECT_TRUE(index->tasksToActivate(2).empty());
}

}  // namespace
}  // namespace znv
