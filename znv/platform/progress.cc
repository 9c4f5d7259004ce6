#include "znv/platform/progress.h"

namespace znv {

ZNVProgress::ZNVProgress(int64_t totalUnitCount, int64_t completedUnitCount)
    : total_(totalUnitCount), completed_(completedUnitCount) {}

void ZNVProgress::setTotalUnitCount(int64_t total) {
    setCount(total_, TotalUnitCountKey, total);
}

void ZNVProgress::setCompletedUnitCount(int64_t completed) {
    setCount(completed_, CompletedUnitCountKey, completed);
}

void ZNVProgress::incrementCompletedUnitCount(int64_t delta) {
    if (delta == 0) return;
    if (!hasObservers()) {
        completed_.fetch_add(delta, std::memory_order_acq_rel);
        return;
    }
    willChangeValueForKey(CompletedUnitCountKey);
    willChangeValueForKey(FractionCompletedKey);
    completed_.fetch_add(delta, std::memory_order_acq_rel);
    didChangeValueForKey(FractionCompletedKey);
    didChangeValueForKey(CompletedUnitCountKey);
}

void ZNVProgress::setCount(std::atomic<int64_t>& count, const char* key, int64_t value) {
    if (!hasObservers()) {
        count.store(value, std::memory_order_release);
        return;
    }
    if (count.load(std::memory_order_acquire) == value) return;
    willChangeValueForKey(key);
    willChangeValueForKey(FractionCompletedKey);
    count.store(value, std::memory_order_release);
    didChangeValueForKey(FractionCompletedKey);
    didChangeValueForKey(key);
}

double ZNVProgress::fractionCompleted() const {
    const int64_t total = totalUnitCount();
    if (total <= 0) return 0.0;
    return static_cast<double>(completedUnitCount()) / static_cast<double>(total);
}

bool ZNVProgress::isFinished() const {
    const int64_t total = totalUnitCount();
    return total > 0 && completedUnitCount() >= total;
}

std::string ZNVProgress::description() const {
    return std::to_string(completedUnitCount()) + " of " + std::to_string(totalUnitCount());
}

}  // namespace znv
