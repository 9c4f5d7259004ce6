#include "znv/platform/index_set.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <iterator>
#include <random>
#include <set>

#include "znv/platform/error.h"

namespace znv {
namespace {

constexpr uint64_t kNotFound = static_cast<uint64_t>(ZNVNotFound);

std::vector<uint64_t> asVector(const std::set<uint64_t>& model) {
    return std::vector<uint64_t>(model.begin(), model.end());
}

// Random additions and removals of ranges, checked against a plain set after
// every step: catches merges that swallow a neighbour, splits that lose a piece
// and ranges left adjacent instead of merged. Every few steps the set is also
// combined with a second random one and navigated.
TEST(IndexSet, RandomRangeEditsAndSetOperationsMatchAPlainSet) {
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
        ASSERT_EQ(set.indices(), asVector(model));
        if (step % 50 != 0) continue;

        SCOPED_TRACE("step " + std::to_string(step));
        ZNVIndexSet other;
        std::set<uint64_t> otherModel;
        for (int i = 0; i < 40; ++i) {
            const uint64_t index = random() % 320;
            other.add(index);
            otherModel.insert(index);
        }
        std::vector<uint64_t> both, either, only;
        std::set_intersection(model.begin(), model.end(), otherModel.begin(), otherModel.end(),
                              std::back_inserter(both));
        std::set_union(model.begin(), model.end(), otherModel.begin(), otherModel.end(),
                       std::back_inserter(either));
        std::set_difference(model.begin(), model.end(), otherModel.begin(), otherModel.end(),
                            std::back_inserter(only));
        EXPECT_EQ(set.intersectionWith(other).indices(), both);
        EXPECT_EQ(set.unionWith(other).indices(), either);
        EXPECT_EQ(set.minus(other).indices(), only);

        const uint64_t probe = random() % 320;
        EXPECT_EQ(set.contains(probe), model.count(probe) == 1) << probe;
        bool whole = true;
        for (uint64_t k = probe; k < probe + 3; ++k)
            whole = whole && model.count(k);
        EXPECT_EQ(set.containsRange(probe, 3), whole) << probe;
        auto above = model.upper_bound(probe);
        EXPECT_EQ(set.indexGreaterThan(probe), above == model.end() ? kNotFound : *above) << probe;
        EXPECT_EQ(set.firstIndex(), model.empty() ? kNotFound : *model.begin());
    }
}

TEST(IndexSet, ManyDisjointIndicesSelfOperationsAndTheTopOfTheRange) {
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
    EXPECT_EQ(set.firstIndex(), kNotFound);

    // The two indices just below the no-index marker merge into one range.
    set.add(kNotFound - 2);
    set.add(kNotFound - 1);
    EXPECT_EQ(set.count(), 2u);
    EXPECT_EQ(set.ranges().size(), 1u);
    EXPECT_EQ(set.lastIndex(), kNotFound - 1);
}

}  // namespace
}  // namespace znv
