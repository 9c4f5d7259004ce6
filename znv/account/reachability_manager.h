// ZNVReachabilityManager: tells whether the storage service can be reached at
// all, and when that changes.
//
// Contract
// - `isReachable()` and `flags()` may be called from any thread at any time.
//   While monitoring they answer the last observed state; otherwise they look
//   at the system afresh (the netlink implementation) or at the set value (the
//   manual one).
// - `startMonitoring(callback)` begins watching; the callback is called with the
//   reachable flag and the status flags each time the state changes after the
//   start (not for the state at the start). Starting again replaces the
//   callback. It returns false, and watches nothing, when the system cannot be
//   watched.
// - `stopMonitoring()` may be called from any thread, from inside the callback
//   too. When it returns, no callback is running (unless called from the
//   callback itself) and none will start. Destroying a manager stops it.
// - Where callbacks run: the netlink implementation calls them one at a time on
//   a callback thread of its own (never on its netlink thread); the manual
//   implementation calls them synchronously on the thread that calls
//   `setReachable`.
// - `createWithAddress` is how the library makes its managers. It uses the
//   factory installed with `setFactory` (an application that runs offline, or a
//   test, installs one that makes manual managers); by default it makes a
//   netlink manager.
#pragma once

#include <sys/socket.h>

#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>

namespace znv {

using ZNVReachabilityFlags = uint32_t;
inline constexpr ZNVReachabilityFlags ZNVReachabilityFlagReachable = 1u << 0;
inline constexpr ZNVReachabilityFlags ZNVReachabilityFlagIPv4DefaultRoute = 1u << 1;
inline constexpr ZNVReachabilityFlags ZNVReachabilityFlagIPv6DefaultRoute = 1u << 2;
// The watched address is a loopback address: always reachable.
inline constexpr ZNVReachabilityFlags ZNVReachabilityFlagLoopback = 1u << 3;

class ZNVReachabilityManager {
  public:
    using Callback = std::function<void(bool reachable, ZNVReachabilityFlags flags)>;
    using Factory = std::function<std::shared_ptr<ZNVReachabilityManager>(const sockaddr* address,
                                                                          socklen_t length)>;

    virtual ~ZNVReachabilityManager() = default;

    virtual bool isReachable() const = 0;
    virtual ZNVReachabilityFlags flags() const = 0;
    virtual bool startMonitoring(Callback callback) = 0;
    virtual void stopMonitoring() = 0;

    // A manager watching `address` (null: the IPv6 wildcard, i.e. "the network").
    static std::shared_ptr<ZNVReachabilityManager> createWithAddress(const sockaddr* address,
                                                                     socklen_t length);
    // Any thread; affects managers made afterwards. An empty factory restores
    // the default.
    static void setFactory(Factory factory);

    // True for 127.0.0.0/8, ::1 and IPv4-mapped loopback addresses.
    static bool isLoopbackAddress(const sockaddr* address, socklen_t length);
};

using ZNVReachabilityManagerRef = std::shared_ptr<ZNVReachabilityManager>;

// A manager whose state is set by hand: tests, and the command line's offline mode.
class ZNVManualReachabilityManager : public ZNVReachabilityManager {
  public:
    explicit ZNVManualReachabilityManager(bool reachable = true);

    bool isReachable() const override { return reachable_.load(std::memory_order_acquire); }
    ZNVReachabilityFlags flags() const override;
    bool startMonitoring(Callback callback) override;
    void stopMonitoring() override;

    // Any thread. A change calls the callback (if monitoring) on this thread.
    void setReachable(bool reachable);

  private:
    std::atomic<bool> reachable_;
    // Held by setReachable around the store and the callback, so that
    // concurrent setters deliver in the order they stored, and by
    // stopMonitoring, so that it waits for a running callback. Recursive: the
    // callback may call either.
    std::recursive_mutex deliveryMutex_;
    mutable std::mutex mutex_;
    Callback callback_;  // guarded by mutex_; copied out before it is called
};

}  // namespace znv
