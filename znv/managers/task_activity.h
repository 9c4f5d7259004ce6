// ZNVTaskActivityIndex: the tasks of one activation collection (a manager's
// uploads, or its downloads) that a refresh has to look at, kept current as
// the tasks change, so that a refresh costs what it touches instead of the
// length of the queue.
//
// Contract
// - The owner adds each task when it joins the collection (`add`, which puts
//   it last in the collection's order) and removes it when it leaves
//   (`remove`, `clear`). `add` makes the index the task's settled observer;
//   `remove` and `clear` withdraw it. Add and remove in the order the
//   collection changes (the owner's changes are serialised).
// - Every answer is taken from the tasks' settled values (see
//   ZNVNetworkTask::settledState): running, "has a raw error", "needs early
//   activation"; lists come in collection order and hold the tasks alive.
// - Any thread. One mutex guards the index. It is also taken by the tasks'
//   settled-value callbacks, with a task's lock held, so the index never
//   calls a task's operation while holding it: it reads settled values only.
// - Costs: add, remove and a task's change O(log n); `runningCount` O(1);
//   the lists O(what they return, log n).
#pragma once

#include <cstddef>
#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <unordered_map>
#include <vector>

#include "znv/tasks/network_task.h"

namespace znv {

class ZNVTaskActivityIndex : public ZNVNetworkTaskSettledObserver,
                             public std::enable_shared_from_this<ZNVTaskActivityIndex> {
  public:
    using TaskRef = std::shared_ptr<ZNVNetworkTask>;

    static std::shared_ptr<ZNVTaskActivityIndex> create();
    ~ZNVTaskActivityIndex() override;
    ZNVTaskActivityIndex(const ZNVTaskActivityIndex&) = delete;
    ZNVTaskActivityIndex& operator=(const ZNVTaskActivityIndex&) = delete;

    // The task joins at the end of the collection; a task already held is
    // left where it is.
    void add(const TaskRef& task);
    void remove(const ZNVNetworkTask* task);
    void clear();
    size_t size() const;

    // Tasks that are running.
    size_t runningCount() const;
    // Tasks that are running or have a raw error: the ones that can have
    // stalled or can recover.
    std::vector<TaskRef> tasksToPrepare() const;
    // Tasks that have a raw error.
    std::vector<TaskRef> tasksWithRawError() const;
    // What a round of activation picks with room for `count` more: the first
    // `count` suspended tasks, then every later suspended one that needs
    // early activation.
    std::vector<TaskRef> tasksToActivate(uint64_t count) const;

    void taskSettledValuesChanged(const ZNVNetworkTask& task) override;

  private:
    ZNVTaskActivityIndex() = default;

    enum Kind : uint8_t {
        kRunning = 1 << 0,
        kRawError = 1 << 1,
        kSuspended = 1 << 2,
        kEarly = 1 << 3,  // suspended and needing early activation
    };
    struct Entry {
        TaskRef task;
        uint64_t position = 0;  // grows with every addition: the collection's order
        uint8_t kinds = 0;
    };
    using Ordered = std::map<uint64_t, const Entry*>;

    static uint8_t kindsOf(const ZNVNetworkTask& task);
    // Moves the entry into the lists its kinds say. Caller holds mutex_.
    void file(Entry& entry, uint8_t kinds);
    static std::vector<TaskRef> tasksOf(const Ordered& list);

    mutable std::mutex mutex_;
    // Everything below is guarded by mutex_.
    std::unordered_map<const ZNVNetworkTask*, Entry> entries_;
    uint64_t nextPosition_ = 0;
    size_t running_ = 0;
    Ordered busy_;       // running or with a raw error
    Ordered rawError_;   // with a raw error
    Ordered suspended_;  // suspended
    Ordered early_;      // suspended and needing early activation
};

}  // namespace znv
