#include "znv/platform/notification_center.h"

#include <algorithm>

namespace znv {
namespace {

std::atomic<ZNVNotificationToken> gNextToken{1};

}  // namespace

ZNVNotificationCenter::ZNVNotificationCenter() = default;

ZNVNotificationCenter::~ZNVNotificationCenter() {
    std::lock_guard lock(mutex_);
    for (auto& r : observers_)
        r->removed.store(true, std::memory_order_release);
}

ZNVNotificationCenter& ZNVNotificationCenter::defaultCenter() {
    // Leaked on purpose: notifications may still be posted while static
    // destructors run at exit.
    static auto* center = new ZNVNotificationCenter();
    return *center;
}

ZNVNotificationToken ZNVNotificationCenter::addObserver(const std::string& name, const void* sender,
                                                        Callback callback) {
    if (!callback) return 0;
    auto registration = std::make_shared<Registration>();
    registration->token = gNextToken.fetch_add(1, std::memory_order_relaxed);
    registration->name = name;
    registration->sender = sender;
    registration->callback = std::move(callback);
    std::lock_guard lock(mutex_);
    observers_.push_back(registration);
    return registration->token;
}

void ZNVNotificationCenter::removeObserver(ZNVNotificationToken token) {
    if (token == 0) return;
    RegistrationRef removed;  // released outside the lock: its callback may own objects
    std::lock_guard lock(mutex_);
    auto it = std::find_if(observers_.begin(), observers_.end(),
                           [&](const RegistrationRef& r) { return r->token == token; });
    if (it == observers_.end()) return;
    removed = *it;
    removed->removed.store(true, std::memory_order_release);
    observers_.erase(it);
}

void ZNVNotificationCenter::post(const std::string& name, const void* sender,
                                 ZNVNotificationUserInfo userInfo) {
    post(ZNVNotification{name, sender, std::move(userInfo)});
}

void ZNVNotificationCenter::post(const ZNVNotification& notification) {
    std::vector<RegistrationRef> matching;
    {
        std::lock_guard lock(mutex_);
        for (const auto& r : observers_) {
            if (!r->name.empty() && r->name != notification.name) continue;
            if (r->sender != nullptr && r->sender != notification.sender) continue;
            matching.push_back(r);
        }
    }
    for (const auto& r : matching) {
        // An earlier callback of this walk (or another thread) may have removed it.
        if (r->removed.load(std::memory_order_acquire)) continue;
        r->callback(notification);
    }
}

}  // namespace znv
