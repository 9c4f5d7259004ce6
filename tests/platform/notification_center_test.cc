#include "znv/platform/notification_center.h"

#include <gtest/gtest.h>

#include <atomic>
#include <thread>
#include <vector>

namespace znv {
namespace {

TEST(NotificationCenter, FiltersByNameAndSenderAndDeliversUserInfo) {
    ZNVNotificationCenter center;
    int senderA = 0;
    int senderB = 0;
    std::vector<std::string> log;
    center.addObserver("changed", &senderA, [&](const ZNVNotification& n) {
        log.push_back("fromA:" + n.name);
        const auto* state = ZNVNotificationValue<uint64_t>(n, "new state");
        ASSERT_NE(state, nullptr);
        EXPECT_EQ(*state, 2u);
        EXPECT_EQ(ZNVNotificationValue<std::string>(n, "new state"), nullptr);  // wrong type
        EXPECT_EQ(ZNVNotificationValue<uint64_t>(n, "missing"), nullptr);
    });
    center.addObserver("changed", nullptr,
                       [&](const ZNVNotification& n) { log.push_back("any:" + n.name); });
    center.addObserver("", &senderB,
                       [&](const ZNVNotification& n) { log.push_back("allOfB:" + n.name); });

    center.post("changed", &senderA, {{"new state", uint64_t{2}}});
    center.post("changed", &senderB, {{"new state", uint64_t{2}}});
    center.post("other", &senderA);
    center.post("other", &senderB);
    EXPECT_EQ(log, (std::vector<std::string>{"fromA:changed", "any:changed", "any:changed",
                                             "allOfB:changed", "allOfB:other"}));
}

// A callback may remove observers (itself and a later one of the same walk),
// post and register: removals apply to the rest of the walk, a registration
// does not see the notification being delivered, nothing deadlocks or loops.
TEST(NotificationCenter, CallbacksMayRemovePostAndRegister) {
    ZNVNotificationCenter center;
    std::vector<std::string> log;
    ZNVNotificationToken self = 0;
    ZNVNotificationToken later = 0;
    self = center.addObserver("n", nullptr, [&](const ZNVNotification& n) {
        log.push_back("self");
        center.removeObserver(self);
        center.removeObserver(later);
        center.post("inner", n.sender, {{"depth", 1}});
        center.addObserver("n", nullptr, [&](const ZNVNotification&) { log.push_back("added"); });
    });
    later =
        center.addObserver("n", nullptr, [&](const ZNVNotification&) { log.push_back("later"); });
    center.addObserver("n", nullptr, [&](const ZNVNotification&) { log.push_back("last"); });
    center.addObserver("inner", nullptr, [&](const ZNVNotification& n) {
        log.push_back("inner" + std::to_string(*ZNVNotificationValue<int>(n, "depth")));
    });
    center.post("n", nullptr);
    center.post("n", nullptr);
    EXPECT_EQ(log, (std::vector<std::string>{"self", "inner1", "last", "last", "added"}));
}

TEST(NotificationCenter, RunsOnThePostingThreadAndToleratesConcurrentChurn) {
    ZNVNotificationCenter center;
    std::atomic<int> delivered{0};
    std::atomic<int> wrongThread{0};
    center.addObserver("tick", nullptr, [&](const ZNVNotification& n) {
        if (*ZNVNotificationValue<std::thread::id>(n, "thread") != std::this_thread::get_id()) {
            ++wrongThread;
        }
        ++delivered;
    });
    std::atomic<bool> stop{false};
    std::thread churn([&] {
        while (!stop.load()) {
            auto t = center.addObserver("tick", nullptr, [](const ZNVNotification&) {});
            center.removeObserver(t);
        }
    });
    std::vector<std::thread> posters;
    for (int t = 0; t < 3; ++t) {
        posters.emplace_back([&] {
            for (int i = 0; i < 1000; ++i) {
                center.post("tick", nullptr, {{"thread", std::this_thread::get_id()}});
            }
        });
    }
    for (auto& p : posters)
        p.join();
    stop = true;
    churn.join();
    EXPECT_EQ(delivered.load(), 3000);
    EXPECT_EQ(wrongThread.load(), 0);
}

}  // namespace
}  // namespace znv
