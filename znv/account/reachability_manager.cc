#include "znv/account/reachability_manager.h"

#include <netinet/in.h>

#include <cstring>

#include "znv/account/netlink_reachability_manager.h"

namespace znv {
namespace {

struct FactoryState {
    std::mutex mutex;
    ZNVReachabilityManager::Factory factory;  // guarded by mutex; empty = netlink
};

FactoryState& factoryState() {
    static auto* state = new FactoryState();  // leaked: usable during exit
    return *state;
}

}  // namespace

std::shared_ptr<ZNVReachabilityManager> ZNVReachabilityManager::createWithAddress(
    const sockaddr* address, socklen_t length) {
    Factory factory;
    {
        std::lock_guard lock(factoryState().mutex);
        factory = factoryState().factory;
    }
    if (factory) return factory(address, length);
    return std::make_shared<ZNVNetlinkReachabilityManager>(address, length);
}

void ZNVReachabilityManager::setFactory(Factory factory) {
    std::lock_guard lock(factoryState().mutex);
    factoryState().factory = std::move(factory);
}

bool ZNVReachabilityManager::isLoopbackAddress(const sockaddr* address, socklen_t length) {
    if (!address) return false;
    if (address->sa_family == AF_INET && length >= static_cast<socklen_t>(sizeof(sockaddr_in))) {
        sockaddr_in in{};
        std::memcpy(&in, address, sizeof in);
        return (ntohl(in.sin_addr.s_addr) >> 24) == 127;
    }
    if (address->sa_family == AF_INET6 && length >= static_cast<socklen_t>(sizeof(sockaddr_in6))) {
        sockaddr_in6 in6{};
        std::memcpy(&in6, address, sizeof in6);
        const in6_addr& a = in6.sin6_addr;
        if (IN6_IS_ADDR_LOOPBACK(&a)) return true;
        return IN6_IS_ADDR_V4MAPPED(&a) && a.s6_addr[12] == 127;
    }
    return false;
}

ZNVManualReachabilityManager::ZNVManualReachabilityManager(bool reachable)
    : reachable_(reachable) {}

ZNVReachabilityFlags ZNVManualReachabilityManager::flags() const {
    return isReachable() ? ZNVReachabilityFlagReachable : 0;
}

bool ZNVManualReachabilityManager::startMonitoring(Callback callback) {
    std::lock_guard lock(mutex_);
    callback_ = std::move(callback);
    return true;
}

void ZNVManualReachabilityManager::stopMonitoring() {
    std::lock_guard delivery(deliveryMutex_);
    Callback dropped;  // destroyed outside mutex_: it may own objects
    std::lock_guard lock(mutex_);
    dropped.swap(callback_);
}

void ZNVManualReachabilityManager::setReachable(bool reachable) {
    std::lock_guard delivery(deliveryMutex_);
    if (reachable_.exchange(reachable, std::memory_order_acq_rel) == reachable) return;
    Callback callback;
    {
        std::lock_guard lock(mutex_);
        callback = callback_;
    }
    if (callback) callback(reachable, reachable ? ZNVReachabilityFlagReachable : 0);
}

}  // namespace znv
