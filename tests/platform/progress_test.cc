#include "znv/platform/progress.h"

#include <gtest/gtest.h>

#include <atomic>
#include <thread>
#include <vector>

namespace znv {
namespace {

TEST(Progress, FractionFollowsTheCountsWithoutClampingAndIsZeroWithoutATotal) {
    ZNVProgress progress;
    EXPECT_EQ(progress.fractionCompleted(), 0.0);
    progress.setCompletedUnitCount(5);  // no total yet: still zero, not a division by zero
    EXPECT_EQ(progress.fractionCompleted(), 0.0);
    EXPECT_FALSE(progress.isFinished());
    progress.setTotalUnitCount(1000);
    progress.setCompletedUnitCount(500);
    EXPECT_DOUBLE_EQ(progress.fractionCompleted(), 0.5);
    progress.setCompletedUnitCount(1000);
    EXPECT_TRUE(progress.isFinished());
    progress.setCompletedUnitCount(1500);
    EXPECT_DOUBLE_EQ(progress.fractionCompleted(), 1.5);
    EXPECT_EQ(progress.description(), "1500 of 1000");
    // Counts are 64-bit: large uploads measured in bytes fit.
    ZNVProgress big(int64_t{1} << 40, int64_t{1} << 39);
    EXPECT_DOUBLE_EQ(big.fractionCompleted(), 0.5);
}

TEST(Progress, AnnouncesChangedCountsAndTheFractionButNotRepeatedValues) {
    auto progress = ZNVProgress::make(10);
    std::vector<std::string> keys;
    std::vector<double> fractionsSeen;
    for (const char* key : {ZNVProgress::CompletedUnitCountKey, ZNVProgress::TotalUnitCountKey,
                            ZNVProgress::FractionCompletedKey}) {
        progress->addObserver(key, [&](const ZNVKeyValueChangeRecord& c) {
            keys.push_back(c.key);
            if (c.key == ZNVProgress::FractionCompletedKey) {
                fractionsSeen.push_back(progress->fractionCompleted());
            }
        });
    }
    progress->setCompletedUnitCount(3);
    progress->setCompletedUnitCount(3);  // unchanged: silent
    progress->setTotalUnitCount(6);
    EXPECT_EQ(keys, (std::vector<std::string>{"fractionCompleted", "completedUnitCount",
                                              "fractionCompleted", "totalUnitCount"}));
    EXPECT_EQ(fractionsSeen, (std::vector<double>{0.3, 0.5}));
}

TEST(Progress, ConcurrentIncrementsAreNotLostAndObserversSeeConsistentReads) {
    const int threads = 4;
    const int perThread = 5000;
    auto progress = ZNVProgress::make(threads * perThread);
    std::atomic<int> notifications{0};
    std::atomic<int> outOfRange{0};
    progress->addObserver(ZNVProgress::CompletedUnitCountKey, [&](const ZNVKeyValueChangeRecord&) {
        const double f = progress->fractionCompleted();
        if (f < 0.0 || f > 1.0) ++outOfRange;
        ++notifications;
    });
    std::vector<std::thread> workers;
    for (int t = 0; t < threads; ++t) {
        workers.emplace_back([&] {
            for (int i = 0; i < perThread; ++i)
                progress->incrementCompletedUnitCount(1);
        });
    }
    // A reader racing the writers.
    std::thread reader([&] {
        while (!progress->isFinished())
            (void)progress->fractionCompleted();
    });
    for (auto& w : workers)
        w.join();
    reader.join();
    EXPECT_EQ(progress->completedUnitCount(), threads * perThread);
    EXPECT_EQ(notifications.load(), threads * perThread);
    EXPECT_EQ(outOfRange.load(), 0);
}

}  // namespace
}  // namespace znv
