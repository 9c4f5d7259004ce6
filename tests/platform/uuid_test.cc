#include "znv/platform/uuid.h"

#include <gtest/gtest.h>

#include <set>

namespace znv {
namespace {

TEST(UUID, UpperCaseCanonicalFormAndUnique) {
    std::set<std::string> seen;
    for (int i = 0; i < 1000; ++i) {
        std::string uuid = ZNVUUIDString();
        ASSERT_EQ(uuid.size(), 36u);
        for (size_t p = 0; p < uuid.size(); ++p) {
            char c = uuid[p];
            if (p == 8 || p == 13 || p == 18 || p == 23) {
                ASSERT_EQ(c, '-') << uuid;
            } else {
                ASSERT_TRUE((c >= '0' && c <= '9') || (c >= 'A' && c <= 'F')) << uuid;
            }
        }
        EXPECT_EQ(uuid[14], '4') << "random (version 4) UUIDs";
        EXPECT_TRUE(seen.insert(uuid).second);
    }
}

}  // namespace
}  // namespace znv
