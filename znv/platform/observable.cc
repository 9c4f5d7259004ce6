#include "znv/platform/observable.h"

#include <algorithm>

namespace znv {
namespace {

// Tokens are unique across all observables, so a token handed to the wrong
// object removes nothing.
std::atomic<ZNVObserverToken> gNextToken{1};

}  // namespace

const char* ZNVKeyValueChangeName(ZNVKeyValueChange kind) {
    switch (kind) {
        case ZNVKeyValueChange::Setting:
            return "setting";
        case ZNVKeyValueChange::Insertion:
            return "insertion";
        case ZNVKeyValueChange::Removal:
            return "removal";
        case ZNVKeyValueChange::Replacement:
            return "replacement";
    }
    return "unknown";
}

ZNVObservable::ZNVObservable() = default;

ZNVObservable::~ZNVObservable() {
    removeAllObservers();
}

ZNVObserverToken ZNVObservable::addObserver(const std::string& key, Callback callback,
                                            ZNVKeyValueObservingOptions options) {
    if (!callback) return 0;
    auto registration = std::make_shared<Registration>();
    registration->token = gNextToken.fetch_add(1, std::memory_order_relaxed);
    registration->key = key;
    registration->callback = std::move(callback);
    registration->options = options;
    {
        std::lock_guard lock(mutex_);
        observers_[key].push_back(registration);
        observerCount_.fetch_add(1, std::memory_order_release);
    }
    if (options & ZNVKeyValueObservingOptionInitial) {
        ZNVKeyValueChangeRecord change;
        change.object = this;
        change.key = key;
        change.isInitial = true;
        change.token = registration->token;
        deliver(*registration, change);
    }
    return registration->token;
}

void ZNVObservable::removeObserver(ZNVObserverToken token) {
    if (token == 0) return;
    RegistrationRef removed;  // released outside the lock: its callback may own objects
    {
        std::lock_guard lock(mutex_);
        for (auto it = observers_.begin(); it != observers_.end() && !removed; ++it) {
            auto& list = it->second;
            auto found = std::find_if(list.begin(), list.end(),
                                      [&](const RegistrationRef& r) { return r->token == token; });
            if (found == list.end()) continue;
            removed = *found;
            removed->removed.store(true, std::memory_order_release);
            list.erase(found);
            observerCount_.fetch_sub(1, std::memory_order_release);
            if (list.empty()) observers_.erase(it);
            break;
        }
    }
}

void ZNVObservable::removeAllObservers() {
    std::map<std::string, std::vector<RegistrationRef>> removed;
    {
        std::lock_guard lock(mutex_);
        removed.swap(observers_);
        for (auto& [key, list] : removed) {
            for (auto& r : list)
                r->removed.store(true, std::memory_order_release);
        }
        observerCount_.store(0, std::memory_order_release);
    }
}

bool ZNVObservable::hasObservers(const std::string& key) const {
    if (!hasObservers()) return false;
    std::lock_guard lock(mutex_);
    return observers_.count(key) != 0;
}

void ZNVObservable::willChange(const std::string& key, ZNVKeyValueChange kind,
                               const ZNVIndexSet& indexes) {
    announce(key, kind, indexes, true);
}

void ZNVObservable::didChange(const std::string& key, ZNVKeyValueChange kind,
                              const ZNVIndexSet& indexes) {
    announce(key, kind, indexes, false);
}

void ZNVObservable::announce(const std::string& key, ZNVKeyValueChange kind,
                             const ZNVIndexSet& indexes, bool prior) {
    if (!hasObservers()) return;
    std::vector<RegistrationRef> snapshot;
    {
        std::lock_guard lock(mutex_);
        auto it = observers_.find(key);
        if (it == observers_.end()) return;
        snapshot.reserve(it->second.size());
        for (const auto& r : it->second) {
            if (!prior || (r->options & ZNVKeyValueObservingOptionPrior)) snapshot.push_back(r);
        }
    }
    if (snapshot.empty()) return;
    ZNVKeyValueChangeRecord change;
    change.object = this;
    change.key = key;
    change.kind = kind;
    if (kind != ZNVKeyValueChange::Setting) change.indexes = indexes;
    change.isPrior = prior;
    for (const auto& r : snapshot) {
        change.token = r->token;
        deliver(*r, change);
    }
}

void ZNVObservable::deliver(const Registration& registration,
                            const ZNVKeyValueChangeRecord& change) {
    // An earlier callback of this walk (or another thread) may have removed it.
    if (registration.removed.load(std::memory_order_acquire)) return;
    registration.callback(change);
}

}  // namespace znv
