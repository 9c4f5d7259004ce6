// ZNVProgress: how much of a piece of work is done, in units.
//
// Contract
// - `totalUnitCount` and `completedUnitCount` are signed 64-bit counts; any
//   thread may read or set them at any time (they are atomics).
// - `fractionCompleted` is completed ÷ total, 0 when the total is not positive;
//   it is not clamped (a completed count above the total gives more than 1).
// - Observable keys: "totalUnitCount", "completedUnitCount", "fractionCompleted".
//   Setting a count to a different value announces a Setting change of that key
//   and of "fractionCompleted" on the setting thread (will-change before the
//   store, did-change after). Setting the same value announces nothing. When
//   nobody observes, a setter is one atomic load and one atomic store.
// - Concurrent setters do not serialise their announcements: an observer reads
//   the counts it needs from the progress when it is called.
// - Shared as std::shared_ptr<ZNVProgress>; the owner (a task) replaces the whole
//   object when it starts counting afresh.
#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <string>

#include "znv/platform/observable.h"

namespace znv {

class ZNVProgress : public ZNVObservable {
  public:
    static constexpr const char* TotalUnitCountKey = "totalUnitCount";
    static constexpr const char* CompletedUnitCountKey = "completedUnitCount";
    static constexpr const char* FractionCompletedKey = "fractionCompleted";

    explicit ZNVProgress(int64_t totalUnitCount = 0, int64_t completedUnitCount = 0);
    static std::shared_ptr<ZNVProgress> make(int64_t totalUnitCount = 0,
                                             int64_t completedUnitCount = 0) {
        return std::make_shared<ZNVProgress>(totalUnitCount, completedUnitCount);
    }

    int64_t totalUnitCount() const { return total_.load(std::memory_order_acquire); }
    int64_t completedUnitCount() const { return completed_.load(std::memory_order_acquire); }
    void setTotalUnitCount(int64_t total);
    void setCompletedUnitCount(int64_t completed);
    // Adds `delta` atomically (concurrent increments are never lost).
    void incrementCompletedUnitCount(int64_t delta);

    double fractionCompleted() const;
    // The total is positive and the completed count has reached it.
    bool isFinished() const;

    // "<completed> of <total>" for logs.
    std::string description() const;

  private:
    void setCount(std::atomic<int64_t>& count, const char* key, int64_t value);

    std::atomic<int64_t> total_;
    std::atomic<int64_t> completed_;
};

using ZNVProgressRef = std::shared_ptr<ZNVProgress>;

}  // namespace znv
