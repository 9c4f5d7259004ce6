#include "znv/managers/task_activity.h"

#include <utility>

namespace znv {

std::shared_ptr<ZNVTaskActivityIndex> ZNVTaskActivityIndex::create() {
    return std::shared_ptr<ZNVTaskActivityIndex>(new ZNVTaskActivityIndex());
}

ZNVTaskActivityIndex::~ZNVTaskActivityIndex() = default;

uint8_t ZNVTaskActivityIndex::kindsOf(const ZNVNetworkTask& task) {
    uint8_t kinds = 0;
    const ZNVNetworkTaskState state = task.settledState();
    if (state == ZNVNetworkTaskStateRunning) kinds |= kRunning;
    if (task.settledHasRawError()) kinds |= kRawError;
    if (state == ZNVNetworkTaskStateSuspended) {
        kinds |= kSuspended;
        if (task.settledNeedsEarlyActivation()) kinds |= kEarly;
    }
    return kinds;
}

void ZNVTaskActivityIndex::file(Entry& entry, uint8_t kinds) {
    const uint8_t before = entry.kinds;
    entry.kinds = kinds;
    const auto update = [&](Ordered& list, bool was, bool is) {
        if (was == is) return;
        if (is) {
            list.emplace(entry.position, &entry);
        } else {
            list.erase(entry.position);
        }
    };
    const auto has = [](uint8_t set, uint8_t kind) { return (set & kind) != 0; };
    if (has(before, kRunning) != has(kinds, kRunning)) {
        if (has(kinds, kRunning)) {
            ++running_;
        } else {
            --running_;
        }
    }
    update(busy_, has(before, kRunning | kRawError), has(kinds, kRunning | kRawError));
    update(rawError_, has(before, kRawError), has(kinds, kRawError));
    update(suspended_, has(before, kSuspended), has(kinds, kSuspended));
    update(early_, has(before, kEarly), has(kinds, kEarly));
}

void ZNVTaskActivityIndex::add(const TaskRef& task) {
    if (!task) return;
    // Observe first: a change after this point is told to the index, and one
    // told before the entry exists is read by the classification below.
    task->setSettledObserver(weak_from_this());
    std::lock_guard<std::mutex> lock(mutex_);
    auto [it, inserted] = entries_.try_emplace(task.get());
    if (!inserted) return;
    it->second.task = task;
    it->second.position = nextPosition_++;
    file(it->second, kindsOf(*task));
}

void ZNVTaskActivityIndex::remove(const ZNVNetworkTask* task) {
    TaskRef removed;
    {
        std::lock_guard<std::mutex> lock(mutex_);
        auto it = entries_.find(task);
        if (it == entries_.end()) return;
        file(it->second, 0);
        removed = std::move(it->second.task);
        entries_.erase(it);
    }
    // Without the index's lock: the task takes its own.
    removed->clearSettledObserver(this);
}

void ZNVTaskActivityIndex::clear() {
    std::unordered_map<const ZNVNetworkTask*, Entry> removed;
    {
        std::lock_guard<std::mutex> lock(mutex_);
        removed.swap(entries_);
        busy_.clear();
        rawError_.clear();
        suspended_.clear();
        early_.clear();
        running_ = 0;
    }
    for (auto& [pointer, entry] : removed)
        entry.task->clearSettledObserver(this);
}

size_t ZNVTaskActivityIndex::size() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return entries_.size();
}

void ZNVTaskActivityIndex::taskSettledValuesChanged(const ZNVNetworkTask& task) {
    std::lock_guard<std::mutex> lock(mutex_);
    auto it = entries_.find(&task);
    if (it != entries_.end()) file(it->second, kindsOf(task));
}

size_t ZNVTaskActivityIndex::runningCount() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return running_;
}

std::vector<ZNVTaskActivityIndex::TaskRef> ZNVTaskActivityIndex::tasksOf(const Ordered& list) {
    std::vector<TaskRef> tasks;
    tasks.reserve(list.size());
    for (const auto& [position, entry] : list)
        tasks.push_back(entry->task);
    return tasks;
}

std::vector<ZNVTaskActivityIndex::TaskRef> ZNVTaskActivityIndex::tasksToPrepare() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return tasksOf(busy_);
}

std::vector<ZNVTaskActivityIndex::TaskRef> ZNVTaskActivityIndex::tasksWithRawError() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return tasksOf(rawError_);
}

std::vector<ZNVTaskActivityIndex::TaskRef> ZNVTaskActivityIndex::tasksToActivate(
    uint64_t count) const {
    std::lock_guard<std::mutex> lock(mutex_);
    std::vector<TaskRef> selected;
    uint64_t last = 0;
    bool any = false;
    for (auto it = suspended_.begin(); it != suspended_.end() && count > 0; ++it, --count) {
        selected.push_back(it->second->task);
        last = it->first;
        any = true;
    }
    // Past the capacity, only the tasks that need early activation.
    auto it = any ? early_.upper_bound(last) : early_.begin();
    for (; it != early_.end(); ++it)
        selected.push_back(it->second->task);
    return selected;
}

}  // namespace znv
