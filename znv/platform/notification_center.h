// ZNVNotificationCenter: process-wide broadcast of named notifications.
//
// Contract
// - `defaultCenter()` is the process's shared center; separate centers can be
//   made (tests do) and behave the same.
// - `addObserver(name, sender, callback)` registers for notifications of that
//   name (empty name: every name) from that sender (nullptr: any sender) and
//   returns a token (never 0). The sender is only compared by address and never
//   dereferenced or retained, so an observer holds no reference to it.
// - `post` runs the matching callbacks synchronously on the posting thread, in
//   the order they were added. The list is copied under a mutex and walked
//   without it, so a callback may add or remove observers (itself included) and
//   may post further notifications (delivered depth first).
// - Once `removeObserver(token)` has returned the callback is not started again;
//   a call already running on another thread still finishes. Callbacks capture
//   weak_ptrs to their owners, never raw pointers to objects that may die.
// - User info is a string-keyed map of `std::any`; use `ZNVNotificationValue<T>`
//   to read an entry of a known type.
#pragma once

#include <any>
#include <atomic>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

namespace znv {

using ZNVNotificationUserInfo = std::map<std::string, std::any>;
using ZNVNotificationToken = uint64_t;

struct ZNVNotification {
    std::string name;
    const void* sender = nullptr;  // identity only; may be dangling by the time it is read
    ZNVNotificationUserInfo userInfo;
};

// The entry under `key` if it holds a T, else nullptr.
template <class T>
const T* ZNVNotificationValue(const ZNVNotification& notification, const std::string& key) {
    auto it = notification.userInfo.find(key);
    if (it == notification.userInfo.end()) return nullptr;
    return std::any_cast<T>(&it->second);
}

class ZNVNotificationCenter {
  public:
    using Callback = std::function<void(const ZNVNotification& notification)>;

    ZNVNotificationCenter();
    ~ZNVNotificationCenter();
    ZNVNotificationCenter(const ZNVNotificationCenter&) = delete;
    ZNVNotificationCenter& operator=(const ZNVNotificationCenter&) = delete;

    static ZNVNotificationCenter& defaultCenter();

    // Any thread. Returns 0 (and registers nothing) when the callback is empty.
    ZNVNotificationToken addObserver(const std::string& name, const void* sender,
                                     Callback callback);
    // Any thread, including from inside a callback. Unknown tokens are ignored.
    void removeObserver(ZNVNotificationToken token);

    void post(const std::string& name, const void* sender, ZNVNotificationUserInfo userInfo = {});
    void post(const ZNVNotification& notification);

  private:
    struct Registration {
        ZNVNotificationToken token;
        std::string name;
        const void* sender;
        Callback callback;
        std::atomic<bool> removed{false};
    };
    using RegistrationRef = std::shared_ptr<Registration>;

    mutable std::mutex mutex_;
    std::vector<RegistrationRef> observers_;  // guarded by mutex_, in registration order
};

}  // namespace znv
