#include "znv/account/netlink_reachability_manager.h"

#include <linux/netlink.h>
#include <linux/rtnetlink.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <vector>

#include "znv/platform/operation_queue.h"

namespace znv {
namespace {

constexpr size_t kReceiveBufferSize = 64 * 1024;
constexpr uint32_t kDumpSequence = 1;

class FileDescriptor {
  public:
    explicit FileDescriptor(int fd = -1) : fd_(fd) {}
    ~FileDescriptor() {
        if (fd_ >= 0) ::close(fd_);
    }
    FileDescriptor(const FileDescriptor&) = delete;
    FileDescriptor& operator=(const FileDescriptor&) = delete;
    int get() const { return fd_; }
    int release() {
        int fd = fd_;
        fd_ = -1;
        return fd;
    }

  private:
    int fd_;
};

// The default-route flag a route message contributes, or 0.
ZNVReachabilityFlags defaultRouteFlag(const nlmsghdr* header) {
    if (header->nlmsg_len < NLMSG_LENGTH(sizeof(rtmsg))) return 0;
    const auto* route = static_cast<const rtmsg*>(NLMSG_DATA(header));
    if (route->rtm_dst_len != 0 || route->rtm_type != RTN_UNICAST) return 0;
    if (route->rtm_flags & RTNH_F_LINKDOWN) return 0;
    uint32_t table = route->rtm_table;
    // Attributes follow the route header; the table id may be given there in full.
    const char* cursor = reinterpret_cast<const char*>(route) + NLMSG_ALIGN(sizeof(rtmsg));
    const char* end = reinterpret_cast<const char*>(header) + header->nlmsg_len;
    while (cursor + sizeof(rtattr) <= end) {
        const auto* attribute = reinterpret_cast<const rtattr*>(cursor);
        if (attribute->rta_len < sizeof(rtattr) || cursor + attribute->rta_len > end) break;
        if (attribute->rta_type == RTA_TABLE &&
            attribute->rta_len >= RTA_LENGTH(sizeof(uint32_t))) {
            std::memcpy(&table, RTA_DATA(attribute), sizeof table);
        }
        cursor += RTA_ALIGN(attribute->rta_len);
    }
    if (table != RT_TABLE_MAIN) return 0;
    if (route->rtm_family == AF_INET) return ZNVReachabilityFlagIPv4DefaultRoute;
    if (route->rtm_family == AF_INET6) return ZNVReachabilityFlagIPv6DefaultRoute;
    return 0;
}

}  // namespace

ZNVNetlinkReachabilityManager::ZNVNetlinkReachabilityManager(const sockaddr* address,
                                                             socklen_t length)
    : loopback_(isLoopbackAddress(address, length)),
      callbackQueue_(std::make_unique<ZNVOperationQueue>("znv.reachability")) {}

ZNVNetlinkReachabilityManager::~ZNVNetlinkReachabilityManager() {
    stopMonitoring();
}

std::optional<ZNVReachabilityFlags> ZNVNetlinkReachabilityManager::readRoutingTable() {
    FileDescriptor fd(::socket(AF_NETLINK, SOCK_RAW | SOCK_CLOEXEC, NETLINK_ROUTE));
    if (fd.get() < 0) return std::nullopt;
    sockaddr_nl local{};
    local.nl_family = AF_NETLINK;
    if (::bind(fd.get(), reinterpret_cast<sockaddr*>(&local), sizeof local) != 0) {
        return std::nullopt;
    }

    struct {
        nlmsghdr header;
        rtmsg route;
    } request{};
    request.header.nlmsg_len = NLMSG_LENGTH(sizeof(rtmsg));
    request.header.nlmsg_type = RTM_GETROUTE;
    request.header.nlmsg_flags = NLM_F_REQUEST | NLM_F_DUMP;
    request.header.nlmsg_seq = kDumpSequence;
    request.route.rtm_family = AF_UNSPEC;  // every family
    sockaddr_nl kernel{};
    kernel.nl_family = AF_NETLINK;
    if (::sendto(fd.get(), &request, request.header.nlmsg_len, 0,
                 reinterpret_cast<sockaddr*>(&kernel), sizeof kernel) < 0) {
        return std::nullopt;
    }

    std::vector<char> buffer(kReceiveBufferSize);
    ZNVReachabilityFlags flags = 0;
    for (;;) {
        ssize_t received = ::recv(fd.get(), buffer.data(), buffer.size(), 0);
        if (received < 0) {
            if (errno == EINTR) continue;
            return std::nullopt;
        }
        if (received == 0) return std::nullopt;
        const char* cursor = buffer.data();
        const char* end = buffer.data() + received;
        while (cursor + sizeof(nlmsghdr) <= end) {
            const auto* header = reinterpret_cast<const nlmsghdr*>(cursor);
            if (header->nlmsg_len < sizeof(nlmsghdr) || cursor + header->nlmsg_len > end) break;
            if (header->nlmsg_type == NLMSG_DONE) return flags;
            if (header->nlmsg_type == NLMSG_ERROR) return std::nullopt;
            if (header->nlmsg_type == RTM_NEWROUTE && header->nlmsg_seq == kDumpSequence) {
                flags |= defaultRouteFlag(header);
            }
            cursor += NLMSG_ALIGN(header->nlmsg_len);
        }
    }
}

ZNVReachabilityFlags ZNVNetlinkReachabilityManager::evaluate(
    ZNVReachabilityFlags routeFlags) const {
    ZNVReachabilityFlags flags =
        routeFlags & (ZNVReachabilityFlagIPv4DefaultRoute | ZNVReachabilityFlagIPv6DefaultRoute);
    if (flags != 0) flags |= ZNVReachabilityFlagReachable;
    if (loopback_) flags |= ZNVReachabilityFlagLoopback | ZNVReachabilityFlagReachable;
    return flags;
}

ZNVReachabilityFlags ZNVNetlinkReachabilityManager::flags() const {
    if (monitoring_.load(std::memory_order_acquire)) return flags_.load(std::memory_order_acquire);
    if (loopback_) return evaluate(0);
    return evaluate(readRoutingTable().value_or(0));
}

bool ZNVNetlinkReachabilityManager::isReachable() const {
    return (flags() & ZNVReachabilityFlagReachable) != 0;
}

bool ZNVNetlinkReachabilityManager::startMonitoring(Callback callback) {
    std::lock_guard control(controlMutex_);
    stopWatcherLocked();

    if (loopback_) {
        // Nothing to watch: a loopback address never becomes unreachable.
        flags_.store(evaluate(0), std::memory_order_release);
        std::lock_guard lock(mutex_);
        callback_ = std::move(callback);
        ++generation_;
        monitoring_.store(true, std::memory_order_release);
        return true;
    }

    // Subscribe before reading the table, so that no change in between is lost.
    FileDescriptor events(
        ::socket(AF_NETLINK, SOCK_RAW | SOCK_CLOEXEC | SOCK_NONBLOCK, NETLINK_ROUTE));
    if (events.get() < 0) return false;
    sockaddr_nl groups{};
    groups.nl_family = AF_NETLINK;
    groups.nl_groups = RTMGRP_LINK | RTMGRP_IPV4_ROUTE | RTMGRP_IPV6_ROUTE | RTMGRP_IPV4_IFADDR |
                       RTMGRP_IPV6_IFADDR;
    if (::bind(events.get(), reinterpret_cast<sockaddr*>(&groups), sizeof groups) != 0) {
        return false;
    }
    std::optional<ZNVReachabilityFlags> routes = readRoutingTable();
    if (!routes) return false;
    FileDescriptor stop(::eventfd(0, EFD_CLOEXEC));
    if (stop.get() < 0) return false;

    flags_.store(evaluate(*routes), std::memory_order_release);
    uint64_t generation;
    {
        std::lock_guard lock(mutex_);
        callback_ = std::move(callback);
        generation = ++generation_;
    }
    monitoring_.store(true, std::memory_order_release);
    stopEvent_ = stop.release();
    watcher_ = std::thread(&ZNVNetlinkReachabilityManager::watch, this, events.release(),
                           stopEvent_, generation);
    return true;
}

void ZNVNetlinkReachabilityManager::stopMonitoring() {
    {
        std::lock_guard control(controlMutex_);
        stopWatcherLocked();
    }
    // Let a callback that is running (or queued) finish before returning; it
    // sees the new generation and does nothing if it has not started.
    if (!callbackQueue_->isCurrent()) callbackQueue_->waitUntilAllOperationsAreFinished();
}

void ZNVNetlinkReachabilityManager::stopWatcherLocked() {
    Callback dropped;  // destroyed after the lock is released: it may own objects
    {
        std::lock_guard lock(mutex_);
        dropped.swap(callback_);
        ++generation_;
    }
    monitoring_.store(false, std::memory_order_release);
    if (watcher_.joinable()) {
        uint64_t one = 1;
        while (::write(stopEvent_, &one, sizeof one) < 0 && errno == EINTR) {
        }
        watcher_.join();
    }
    if (stopEvent_ >= 0) {
        ::close(stopEvent_);
        stopEvent_ = -1;
    }
}

void ZNVNetlinkReachabilityManager::watch(int eventSocket, int stopEvent, uint64_t generation) {
    FileDescriptor events(eventSocket);
    std::vector<char> buffer(kReceiveBufferSize);
    for (;;) {
        pollfd fds[2] = {{events.get(), POLLIN, 0}, {stopEvent, POLLIN, 0}};
        if (::poll(fds, 2, -1) < 0) {
            if (errno == EINTR) continue;
            return;
        }
        if (fds[1].revents != 0) return;
        // Drain the burst; the messages only say that something changed. An
        // overrun (ENOBUFS) loses messages, which the re-read below makes good.
        for (;;) {
            ssize_t received = ::recv(events.get(), buffer.data(), buffer.size(), MSG_DONTWAIT);
            if (received > 0) continue;
            if (received < 0 && (errno == EINTR || errno == ENOBUFS)) continue;
            break;
        }
        std::optional<ZNVReachabilityFlags> routes = readRoutingTable();
        if (!routes) continue;
        ZNVReachabilityFlags now = evaluate(*routes);
        if (flags_.exchange(now, std::memory_order_acq_rel) != now) deliver(now, generation);
    }
}

void ZNVNetlinkReachabilityManager::deliver(ZNVReachabilityFlags flags, uint64_t generation) {
    callbackQueue_->addOperation([this, flags, generation] {
        // The queue is destroyed (waiting for this item) before the manager's
        // other members, so `this` is valid here.
        Callback callback;
        {
            std::lock_guard lock(mutex_);
            if (generation != generation_) return;
            callback = callback_;
        }
        if (callback) callback((flags & ZNVReachabilityFlagReachable) != 0, flags);
    });
}

}  // namespace znv
