#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sched.h>

#include <atomic>
#include <cstdio>
#include <mutex>
#include <sstream>
#include <thread>
#include <vector>

#include "tests/support/test_support.h"
#include "znv/account/netlink_reachability_manager.h"
#include "znv/account/reachability_manager.h"

namespace znv {
namespace {

using namespace std::chrono_literals;
using test::waitFor;

sockaddr_in ipv4(const char* text) {
    sockaddr_in a{};
    a.sin_family = AF_INET;
    inet_pton(AF_INET, text, &a.sin_addr);
    return a;
}

sockaddr_in6 ipv6(const char* text) {
    sockaddr_in6 a{};
    a.sin6_family = AF_INET6;
    inet_pton(AF_INET6, text, &a.sin6_addr);
    return a;
}

template <class Address>
bool loopback(const Address& a, socklen_t length = sizeof(Address)) {
    return ZNVReachabilityManager::isLoopbackAddress(reinterpret_cast<const sockaddr*>(&a), length);
}

// Records callbacks; any thread.
struct Recorder {
    std::mutex mutex;
    std::vector<std::pair<bool, ZNVReachabilityFlags>> calls;
    ZNVReachabilityManager::Callback callback() {
        return [this](bool reachable, ZNVReachabilityFlags flags) {
            std::lock_guard lock(mutex);
            calls.emplace_back(reachable, flags);
        };
    }
    size_t count() {
        std::lock_guard lock(mutex);
        return calls.size();
    }
    std::pair<bool, ZNVReachabilityFlags> last() {
        std::lock_guard lock(mutex);
        return calls.empty() ? std::pair<bool, ZNVReachabilityFlags>{false, 0} : calls.back();
    }
};

TEST(Reachability, RecognisesLoopbackAddresses) {
    EXPECT_TRUE(loopback(ipv4("127.0.0.1")));
    EXPECT_TRUE(loopback(ipv4("127.200.3.4")));
    EXPECT_TRUE(loopback(ipv6("::1")));
    EXPECT_TRUE(loopback(ipv6("::ffff:127.0.0.1")));
    EXPECT_FALSE(loopback(ipv4("128.0.0.1")));
    EXPECT_FALSE(loopback(ipv4("10.0.0.1")));
    EXPECT_FALSE(loopback(ipv6("::")));
    EXPECT_FALSE(loopback(ipv6("::ffff:10.0.0.1")));
    EXPECT_FALSE(loopback(ipv4("127.0.0.1"), 4));  // truncated record
    EXPECT_FALSE(ZNVReachabilityManager::isLoopbackAddress(nullptr, 0));
}

TEST(Reachability, ManualManagerReportsChangesOnTheSettingThreadUntilStopped) {
    ZNVManualReachabilityManager manager(false);
    EXPECT_FALSE(manager.isReachable());
    Recorder recorder;
    std::thread::id callbackThread;
    ASSERT_TRUE(manager.startMonitoring([&](bool reachable, ZNVReachabilityFlags flags) {
        callbackThread = std::this_thread::get_id();
        recorder.callback()(reachable, flags);
    }));
    manager.setReachable(false);  // unchanged: no call
    EXPECT_EQ(recorder.count(), 0u);
    manager.setReachable(true);
    EXPECT_EQ(recorder.count(), 1u);
    EXPECT_EQ(recorder.last(),
              (std::pair<bool, ZNVReachabilityFlags>{true, ZNVReachabilityFlagReachable}));
    EXPECT_EQ(callbackThread, std::this_thread::get_id());
    manager.stopMonitoring();
    manager.setReachable(false);
    EXPECT_EQ(recorder.count(), 1u);
    EXPECT_FALSE(manager.isReachable());

    // Stopping from inside the callback.
    int calls = 0;
    manager.startMonitoring([&](bool, ZNVReachabilityFlags) {
        ++calls;
        manager.stopMonitoring();
    });
    manager.setReachable(true);
    manager.setReachable(false);
    EXPECT_EQ(calls, 1);
}

TEST(Reachability, FactoryDecidesWhatTheLibraryGets) {
    auto wildcard = ipv6("::");
    auto made = ZNVReachabilityManager::createWithAddress(reinterpret_cast<sockaddr*>(&wildcard),
                                                          sizeof wildcard);
    EXPECT_NE(dynamic_cast<ZNVNetlinkReachabilityManager*>(made.get()), nullptr);

    std::vector<socklen_t> lengths;
    ZNVReachabilityManager::setFactory([&](const sockaddr*, socklen_t length) {
        lengths.push_back(length);
        return std::make_shared<ZNVManualReachabilityManager>(false);
    });
    auto offline = ZNVReachabilityManager::createWithAddress(reinterpret_cast<sockaddr*>(&wildcard),
                                                             sizeof wildcard);
    ZNVReachabilityManager::setFactory(nullptr);
    ASSERT_NE(dynamic_cast<ZNVManualReachabilityManager*>(offline.get()), nullptr);
    EXPECT_FALSE(offline->isReachable());
    EXPECT_EQ(lengths, std::vector<socklen_t>{sizeof(sockaddr_in6)});
    auto restored = ZNVReachabilityManager::createWithAddress(nullptr, 0);
    EXPECT_NE(dynamic_cast<ZNVNetlinkReachabilityManager*>(restored.get()), nullptr);
}

// Lines of `ip` output that describe usable default routes.
int usableDefaultRoutes(const char* command) {
    FILE* pipe = ::popen(command, "r");
    if (!pipe) return -1;
    int count = 0;
    char line[512];
    while (std::fgets(line, sizeof line, pipe)) {
        std::string text(line);
        if (text.rfind("default", 0) != 0) continue;  // unreachable, blackhole, ...
        if (text.find("linkdown") != std::string::npos) continue;
        ++count;
    }
    if (::pclose(pipe) != 0) return -1;
    return count;
}

TEST(Reachability, NetlinkAgreesWithTheRoutingTableOfThisMachine) {
    const int v4 = usableDefaultRoutes("ip -4 route show default 2>/dev/null");
    const int v6 = usableDefaultRoutes("ip -6 route show default 2>/dev/null");
    if (v4 < 0 || v6 < 0) GTEST_SKIP() << "the ip command is not available";
    auto table = ZNVNetlinkReachabilityManager::readRoutingTable();
    ASSERT_TRUE(table.has_value());
    EXPECT_EQ((*table & ZNVReachabilityFlagIPv4DefaultRoute) != 0, v4 > 0);
    EXPECT_EQ((*table & ZNVReachabilityFlagIPv6DefaultRoute) != 0, v6 > 0);

    ZNVNetlinkReachabilityManager manager;
    const bool expected = v4 > 0 || v6 > 0;
    EXPECT_EQ(manager.isReachable(), expected);
    Recorder recorder;
    ASSERT_TRUE(manager.startMonitoring(recorder.callback()));
    EXPECT_EQ(manager.isReachable(), expected);
    EXPECT_EQ(manager.flags() & ~ZNVReachabilityFlagReachable, *table);
    manager.stopMonitoring();

    auto local = ipv4("127.0.0.1");
    ZNVNetlinkReachabilityManager loopbackManager(reinterpret_cast<sockaddr*>(&local),
                                                  sizeof local);
    EXPECT_TRUE(loopbackManager.isReachable());
    EXPECT_TRUE(loopbackManager.flags() & ZNVReachabilityFlagLoopback);
}

// Runs `body` on a thread that has a network namespace of its own (only a
// loopback interface, down, no routes). Commands run from that thread (through
// the shell) act on that namespace. Returns false when namespaces are not allowed.
bool inPrivateNetwork(const std::function<void()>& body) {
    std::atomic<int> result{0};
    std::thread thread([&] {
        if (::unshare(CLONE_NEWNET) != 0) {
            result = -1;
            return;
        }
        body();
        result = 1;
    });
    thread.join();
    return result.load() == 1;
}

int shell(const std::string& command) {
    return std::system((command + " >/dev/null 2>&1").c_str());
}

TEST(Reachability, NetlinkFollowsDefaultRoutesComingAndGoingInANamespace) {
    bool ran = inPrivateNetwork([] {
        ZNVNetlinkReachabilityManager manager;
        EXPECT_FALSE(manager.isReachable());
        auto local = ipv6("::1");
        ZNVNetlinkReachabilityManager loopbackManager(reinterpret_cast<sockaddr*>(&local),
                                                      sizeof local);
        EXPECT_TRUE(loopbackManager.isReachable());

        Recorder recorder;
        ASSERT_TRUE(manager.startMonitoring(recorder.callback()));
        EXPECT_FALSE(manager.isReachable());
        ASSERT_EQ(shell("ip link set lo up"), 0);
        ASSERT_EQ(shell("ip route add default dev lo"), 0);
        ASSERT_TRUE(waitFor([&] { return recorder.last().first; }));
        EXPECT_TRUE(recorder.last().second & ZNVReachabilityFlagIPv4DefaultRoute);
        EXPECT_TRUE(manager.isReachable());

        // A default route that only rejects does not count.
        ASSERT_EQ(shell("ip route del default"), 0);
        ASSERT_EQ(shell("ip route add unreachable default"), 0);
        ASSERT_TRUE(waitFor([&] { return !recorder.last().first; }));
        EXPECT_FALSE(manager.isReachable());
        const size_t callsBeforeStop = recorder.count();

        manager.stopMonitoring();
        ASSERT_EQ(shell("ip route del unreachable default"), 0);
        ASSERT_EQ(shell("ip route add default dev lo"), 0);
        EXPECT_TRUE(manager.isReachable());  // read afresh when not monitoring
        EXPECT_FALSE(waitFor([&] { return recorder.count() != callsBeforeStop; }, 200ms));
    });
    if (!ran) GTEST_SKIP() << "network namespaces are not available here";
}

TEST(Reachability, StoppingFromTheCallbackAndDestroyingWhileEventsArriveAreSafe) {
    bool ran = inPrivateNetwork([] {
        ASSERT_EQ(shell("ip link set lo up"), 0);
        auto manager = std::make_shared<ZNVNetlinkReachabilityManager>();
        std::atomic<int> calls{0};
        std::weak_ptr<ZNVNetlinkReachabilityManager> weak = manager;
        ASSERT_TRUE(manager->startMonitoring([&calls, weak](bool, ZNVReachabilityFlags) {
            ++calls;
            if (auto m = weak.lock()) m->stopMonitoring();
        }));
        ASSERT_EQ(shell("ip route add default dev lo"), 0);
        ASSERT_TRUE(waitFor([&] { return calls.load() == 1; }));
        ASSERT_EQ(shell("ip route del default dev lo"), 0);
        EXPECT_FALSE(waitFor([&] { return calls.load() > 1; }, 200ms));

        // Restart, let events flow, destroy in the middle.
        Recorder recorder;
        ASSERT_TRUE(manager->startMonitoring(recorder.callback()));
        ASSERT_EQ(shell("ip route add default dev lo"), 0);
        manager.reset();
        ASSERT_EQ(shell("ip route del default dev lo"), 0);
    });
    if (!ran) GTEST_SKIP() << "network namespaces are not available here";
}

}  // namespace
}  // namespace znv
