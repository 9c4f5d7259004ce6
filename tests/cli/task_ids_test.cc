// Short task IDs against the definition they shorten: every pair of hashes
// compared, on queues whose hashes share long prefixes and repeat.

#include <gtest/gtest.h>

#include <random>

#include "apps/znv/task_ids.h"

namespace znv::cli {
namespace {

std::vector<std::string> pairwiseIds(const std::vector<std::string>& hashes) {
    std::vector<std::string> ids;
    for (const auto& a : hashes) {
        size_t length = kShortIdLength;
        for (const auto& b : hashes) {
            if (a == b) continue;
            size_t common = 0;
            while (common < a.size() && a[common] == b[common])
                ++common;
            length = std::max(length, common + 1);
        }
        ids.push_back(a.substr(0, length));
    }
    return ids;
}

TEST(TaskIdsTest, ShortIdsMatchEveryPairComparedOnCrowdedQueues) {
    std::mt19937 random(20261125);
    for (int round = 0; round < 300; ++round) {
        // Few letters, so that hashes share prefixes of every length; some
        // hashes repeat.
        const std::string letters = round % 2 == 0 ? "01" : "0123456789abcdef";
        std::vector<std::string> hashes;
        const size_t count = random() % 60;
        for (size_t i = 0; i < count; ++i) {
            if (!hashes.empty() && random() % 5 == 0) {
                hashes.push_back(hashes[random() % hashes.size()]);
                continue;
            }
            std::string hash;
            for (int k = 0; k < 16; ++k)
                hash += letters[random() % letters.size()];
            hashes.push_back(hash);
        }
        ASSERT_EQ(shortIdsOf(hashes), pairwiseIds(hashes)) << "round " << round;
    }
    // Every ID names exactly its own task (or its duplicates).
    std::vector<std::string> hashes;
    for (int i = 0; i < 5000; ++i)
        hashes.push_back(fullTaskHash({"upload", 1700000000000000 + i, "same.bin"}));
    const auto ids = shortIdsOf(hashes);
    for (size_t i = 0; i < ids.size(); ++i) {
        size_t found = 0;
        ASSERT_EQ(findTaskById(ids[i], hashes, &found), IdMatch::Found) << ids[i];
        EXPECT_EQ(hashes[found], hashes[i]);
    }
}

}  // namespace
}  // namespace znv::cli
