#include "znv/platform/index_set.h"

#include <gtest/gtest.h>

#include <random>
#include <set>

#include "znv/platform/error.h"

namespace znv {
namespace {

TEST(IndexSet, MergesAdjacentAndOverlappingRanges) {
    ZNVIndexSet set{7, 0, 2, 1};
    EXPECT_EQ(set.ranges(), (std::vector<ZNVIndexSet::Range>{{0, 3}, {7, 1}}));
    set.addRange(3, 4);
    EXPECT_EQ(set.ranges(), (std::vector<ZNVIndexSet::Range>{{0, 8}}));
    EXPECT_EQ(set.count(), 8u);
}

TEST(IndexSet, RemovalSplitsRanges) {
    ZNVIndexSet set = ZNVIndexSet::withRange(0, 10);
    set.remove(4);
    set.removeRange(8, 5);
    EXPECT_EQ(set.indices(), (std::vector<uint64_t>{0, 1, 2, 3, 5, 6, 7}));
    EXPECT_FALSE(set.contains(4));
    EXPECT_TRUE(set.containsRange(5, 3));
    EXPECT_FALSE(set.containsRange(3, 2));
}

TEST(IndexSet, SetOperationsAndNavigation) {
    ZNVIndexSet a{1, 2, 3, 10, 11};
    ZNVIndexSet b{2, 3, 4, 11, 40};
    EXPECT_EQ(a.intersectionWith(b), (ZNVIndexSet{2, 3, 11}));
    EXPECT_EQ(a.unionWith(b), (ZNVIndexSet{1, 2, 3, 4, 10, 11, 40}));
    EXPECT_EQ(a.minus(b), (ZNVIndexSet{1, 10}));
    EXPECT_EQ(a.indexGreaterThan(3), 10u);
    EXPECT_EQ(a.indexGreaterThan(0), 1u);
    EXPECT_EQ(a.indexGreaterThan(11), static_cast<uint64_t>(ZNVNotFound));
    EXPECT_EQ(ZNVIndexSet().firstIndex(), static_cast<uint64_t>(ZNVNotFound));
}

TEST(IndexSet, HandlesIndicesNearTheTopOfTheRange) {
    ZNVIndexSet set;
    uint64_t big = static_cast<uint64_t>(ZNVNotFound) - 2;
    set.add(big);
    set.add(big + 1);
    EXPECT_EQ(set.count(), 2u);
    EXPECT_EQ(set.lastIndex(), big + 1);
}

}  // namespace
}  // namespace znv

namespace znv {
namespace {

// Random additions and removals of ranges, checked against a plain set after
// every step: catches merges that swallow a neighbour, splits that lose a piece
// and ranges left adjacent instead of merged.
TEST(IndexSet, RandomRangeEditsMatchAPlainSet) {
    std::mt19937_64 random(20261122);
    ZNVIndexSet set;
    std::set<uint64_t> model;
    for (int step = 0; step < 4000; ++step) {
        const uint64_t first = random() % 300;
        const uint64_t length = random() % 12;
        const bool adding = random() % 3 != 0;
        if (adding) {
            set.addRange(first, length);
            for (uint64_t k = 0; k < length; ++k)
                model.insert(first + k);
        } else {
            set.removeRange(first, length);
            for (uint64_t k = 0; k < length; ++k)
                model.erase(first + k);
        }
        ASSERT_EQ(set.count(), model.size()) << "step " << step;
        const auto& ranges = set.ranges();
        for (size_t r = 1; r < ranges.size(); ++r) {
            ASSERT_GT(ranges[r].first, ranges[r - 1].first + ranges[r - 1].length)
                << "ranges must be ascending and never adjacent, step " << step;
        }
        ASSERT_EQ(set.indices(), std::vector<uint64_t>(model.begin(), model.end()));
    }
}

TEST(IndexSet, ManyDisjointIndicesAndSelfOperations) {
    // Appending stays cheap: 200000 separate ranges.
    ZNVIndexSet set;
    for (uint64_t i = 0; i < 400000; i += 2)
        set.add(i);
    EXPECT_EQ(set.ranges().size(), 200000u);
    EXPECT_TRUE(set.contains(399998));
    EXPECT_FALSE(set.contains(399999));

    ZNVIndexSet copy = set;
    set.add(set);
    EXPECT_EQ(set, copy);
    set.remove(set);
    EXPECT_TRUE(set.empty());
}

}  // namespace
}  // namespace znv
