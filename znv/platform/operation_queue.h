// ZNVOperationQueue: a serial queue of work items run in FIFO order on one
// worker thread of its own.
//
// Contract
// - `addOperation` may be called from any thread, including from an operation
//   running on this queue (the new item runs after the current one).
// - Items run one at a time, in the order they were added, never concurrently.
// - A suspended queue keeps accepting items and runs none until resumed; the
//   item running when `setSuspended(true)` is called finishes first.
// - `isCurrent()` is true only on this queue's worker thread while it runs an item;
//   `ZNVOperationQueue::current()` names the queue running the calling thread's item.
// - Destroying the queue drops the items that have not started and waits for the
//   running one (unless destroyed from its own worker, which then exits after the
//   item). Owners that post work referring to themselves hold a weak_ptr.
#pragma once

#include <cstddef>
#include <functional>
#include <memory>
#include <string>

namespace znv {

class ZNVOperationQueue {
public:
    using Operation = std::function<void()>;

    explicit ZNVOperationQueue(std::string name = "ZNVOperationQueue", bool suspended = false);
    ~ZNVOperationQueue();
    ZNVOperationQueue(const ZNVOperationQueue&) = delete;
    ZNVOperationQueue& operator=(const ZNVOperationQueue&) = delete;

    void addOperation(Operation operation);
    void setSuspended(bool suspended);
    bool isSuspended() const;
    bool isCurrent() const;
    static ZNVOperationQueue* current();
    const std::string& name() const { return name_; }
    // Items added and not yet finished.
    size_t operationCount() const;

    // Blocks until the queue has run every item added before this call (and
    // any item they added). Must not be called on the queue itself; on a
    // suspended queue it waits until it is resumed.
    void waitUntilAllOperationsAreFinished();

private:
    struct State;
    static void run(std::shared_ptr<State> state);

    const std::string name_;
    // Shared with the worker thread so that a queue destroyed from one of its
    // own items leaves the worker valid memory to finish on.
    std::shared_ptr<State> state_;
};

}  // namespace znv
