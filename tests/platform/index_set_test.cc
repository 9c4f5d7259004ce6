#include "znv/platform/index_set.h"

#include <gtest/gtest.h>

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
