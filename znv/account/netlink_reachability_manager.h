// ZNVNetlinkReachabilityManager: reachability from the kernel's routing table.
//
// Contract
// - The network counts as reachable while the main routing table has a
//   unicast default route (IPv4 or IPv6) whose link is not down, or always when
//   the watched address is a loopback address.
// - `startMonitoring` subscribes to rtnetlink link, route and address events
//   first and then reads the routes (an RTM_GETROUTE dump), so no change between
//   the two is missed; `isReachable()` is accurate when it returns. A thread of
//   the manager's own waits for events; after each burst it re-reads the routes
//   and, if the flags changed, hands the new state to the manager's callback
//   queue, which calls the callback (one at a time, in order).
// - Not monitoring, `isReachable()` and `flags()` read the routing table on the
//   calling thread.
// - Thread-safe; see ZNVReachabilityManager for stopMonitoring's guarantees.
#pragma once

#include <atomic>
#include <memory>
#include <mutex>
#include <optional>
#include <thread>

#include "znv/account/reachability_manager.h"

namespace znv {

class ZNVOperationQueue;

class ZNVNetlinkReachabilityManager : public ZNVReachabilityManager {
  public:
    // `address` null: watch the network as a whole (like the IPv6 wildcard).
    explicit ZNVNetlinkReachabilityManager(const sockaddr* address = nullptr, socklen_t length = 0);
    ~ZNVNetlinkReachabilityManager() override;

    bool isReachable() const override;
    ZNVReachabilityFlags flags() const override;
    bool startMonitoring(Callback callback) override;
    void stopMonitoring() override;

    // The default-route flags of the routing table now, or nothing when it
    // cannot be read.
    static std::optional<ZNVReachabilityFlags> readRoutingTable();

  private:
    // Stops the watcher thread and drops the callback; controlMutex_ held.
    void stopWatcherLocked();
    void watch(int eventSocket, int stopEvent, uint64_t generation);
    ZNVReachabilityFlags evaluate(ZNVReachabilityFlags routeFlags) const;
    void deliver(ZNVReachabilityFlags flags, uint64_t generation);

    const bool loopback_;
    std::atomic<bool> monitoring_{false};
    std::atomic<ZNVReachabilityFlags> flags_{0};  // the last observed state while monitoring

    // Serialises start and stop.
    std::mutex controlMutex_;
    std::thread watcher_;  // guarded by controlMutex_
    int stopEvent_ = -1;   // eventfd that wakes the watcher to exit; guarded by controlMutex_

    mutable std::mutex mutex_;
    Callback callback_;        // guarded by mutex_; copied out before it is called
    uint64_t generation_ = 0;  // guarded by mutex_; bumped by every start and stop

    // Declared last: destroyed first, waiting for a running callback.
    std::unique_ptr<ZNVOperationQueue> callbackQueue_;
};

}  // namespace znv
