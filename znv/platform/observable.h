// ZNVObservable: base class for objects whose properties other objects observe.
//
// Contract
// - A subclass announces every change of an observable property by bracketing
//   the mutation: `willChangeValueForKey("state"); state_ = s; didChangeValueForKey("state");`
//   or, for an ordered collection, `willChange("tasks", ZNVKeyValueChange::Insertion,
//   indexes); ...insert...; didChange("tasks", ZNVKeyValueChange::Insertion, indexes);`.
// - `addObserver(key, callback, options)` registers a callback for one key and
//   returns a token (never 0). With `ZNVKeyValueObservingOptionInitial` the callback
//   runs once before `addObserver` returns (kind Setting, `isInitial` true). With
//   `ZNVKeyValueObservingOptionPrior` it also runs for will-change announcements
//   (`isPrior` true); otherwise only after the change.
// - Callbacks run synchronously on the thread that announces the change, in the
//   order they were added. The observer list is copied under a mutex and the copy
//   is walked without the lock, so a callback may add or remove observers (itself
//   included; the token is in the change record) and may announce further changes.
// - Once `removeObserver(token)` has returned, the callback is not started again.
//   A call already running on another thread at that moment still finishes, so
//   callbacks must not capture raw pointers to objects that may die meanwhile:
//   capture a weak_ptr to the observer's owner.
// - The observable holds only the callbacks, never the observers' owners, and the
//   observers do not keep the observable alive. Destroying the observable drops
//   its observers silently.
// - Values are not carried in the change record: an observer reads the current
//   value from the object (`change.object`) when it needs it.
// - When nobody observes, announcements cost one atomic load.
#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "znv/platform/index_set.h"

namespace znv {

// What kind of change an announcement describes.
enum class ZNVKeyValueChange {
    Setting = 1,      // the whole value was replaced
    Insertion = 2,    // elements were inserted at `indexes`
    Removal = 3,      // elements were removed from `indexes`
    Replacement = 4,  // elements at `indexes` were replaced
};

// Options of `addObserver` (a bit mask).
using ZNVKeyValueObservingOptions = uint32_t;
inline constexpr ZNVKeyValueObservingOptions ZNVKeyValueObservingOptionNone = 0;
inline constexpr ZNVKeyValueObservingOptions ZNVKeyValueObservingOptionInitial = 1u << 0;
inline constexpr ZNVKeyValueObservingOptions ZNVKeyValueObservingOptionPrior = 1u << 1;

// Identifies one registration; 0 is never handed out.
using ZNVObserverToken = uint64_t;

class ZNVObservable;

struct ZNVKeyValueChangeRecord {
    const ZNVObservable* object = nullptr;  // the announcing object
    std::string key;
    ZNVKeyValueChange kind = ZNVKeyValueChange::Setting;
    ZNVIndexSet indexes;         // affected positions for indexed kinds; empty for Setting
    bool isPrior = false;        // a will-change announcement (only with the Prior option)
    bool isInitial = false;      // the registration-time call of the Initial option
    ZNVObserverToken token = 0;  // the registration being notified
};

const char* ZNVKeyValueChangeName(ZNVKeyValueChange kind);

class ZNVObservable {
  public:
    using Callback = std::function<void(const ZNVKeyValueChangeRecord& change)>;

    ZNVObservable();
    virtual ~ZNVObservable();
    ZNVObservable(const ZNVObservable&) = delete;
    ZNVObservable& operator=(const ZNVObservable&) = delete;

    // Any thread. Returns 0 (and registers nothing) when the callback is empty.
    ZNVObserverToken addObserver(
        const std::string& key, Callback callback,
        ZNVKeyValueObservingOptions options = ZNVKeyValueObservingOptionNone);
    // Any thread, including from inside a callback. Unknown tokens are ignored.
    void removeObserver(ZNVObserverToken token);
    void removeAllObservers();

    bool hasObservers() const { return observerCount_.load(std::memory_order_acquire) != 0; }
    bool hasObservers(const std::string& key) const;

  protected:
    // Announcements; call them on the thread that performs the mutation.
    void willChange(const std::string& key, ZNVKeyValueChange kind, const ZNVIndexSet& indexes);
    void didChange(const std::string& key, ZNVKeyValueChange kind, const ZNVIndexSet& indexes);
    void willChangeValueForKey(const std::string& key) {
        willChange(key, ZNVKeyValueChange::Setting, {});
    }
    void didChangeValueForKey(const std::string& key) {
        didChange(key, ZNVKeyValueChange::Setting, {});
    }

  private:
    struct Registration {
        ZNVObserverToken token;
        std::string key;
        Callback callback;
        ZNVKeyValueObservingOptions options;
        std::atomic<bool> removed{false};
    };
    using RegistrationRef = std::shared_ptr<Registration>;

    void announce(const std::string& key, ZNVKeyValueChange kind, const ZNVIndexSet& indexes,
                  bool prior);
    static void deliver(const Registration& registration, const ZNVKeyValueChangeRecord& change);

    mutable std::mutex mutex_;
    // Guarded by mutex_: registrations per key, in the order they were added.
    std::map<std::string, std::vector<RegistrationRef>> observers_;
    // Total number of registrations; read without the lock for the fast path.
    std::atomic<size_t> observerCount_{0};
};

}  // namespace znv
