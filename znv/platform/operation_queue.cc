#include "znv/platform/operation_queue.h"

#include <pthread.h>

#include <condition_variable>
#include <deque>
#include <mutex>
#include <thread>

namespace znv {

struct ZNVOperationQueue::State {
    std::mutex mutex;                 // guards every member below
    std::condition_variable wake;     // work added, suspension lifted, stopping
    std::condition_variable idle;     // the queue ran dry
    std::deque<Operation> operations;
    ZNVOperationQueue* owner = nullptr;  // cleared when the queue is destroyed
    bool suspended = false;
    bool running = false;  // an item is executing
    bool stopping = false;
    std::thread worker;
};

namespace {
thread_local ZNVOperationQueue* tCurrentQueue = nullptr;
}

ZNVOperationQueue::ZNVOperationQueue(std::string name, bool suspended)
    : name_(std::move(name)), state_(std::make_shared<State>()) {
    state_->owner = this;
    state_->suspended = suspended;
    std::lock_guard lock(state_->mutex);
    state_->worker = std::thread([state = state_, name = name_] {
        pthread_setname_np(pthread_self(), name.substr(0, 15).c_str());
        run(state);
    });
}

ZNVOperationQueue::~ZNVOperationQueue() {
    std::deque<Operation> dropped;
    std::thread worker;
    {
        std::lock_guard lock(state_->mutex);
        state_->stopping = true;
        state_->owner = nullptr;
        dropped.swap(state_->operations);
        worker = std::move(state_->worker);
    }
    state_->wake.notify_all();
    state_->idle.notify_all();
    if (std::this_thread::get_id() == worker.get_id()) {
        tCurrentQueue = nullptr;
        worker.detach();
    } else if (worker.joinable()) {
        worker.join();
    }
    // Dropped items are destroyed here, outside the lock: their captures may
    // own objects whose destructors post work elsewhere.
}

void ZNVOperationQueue::addOperation(Operation operation) {
    if (!operation) return;
    {
        std::lock_guard lock(state_->mutex);
        if (state_->stopping) return;
        state_->operations.push_back(std::move(operation));
    }
    state_->wake.notify_one();
}

void ZNVOperationQueue::setSuspended(bool suspended) {
    {
        std::lock_guard lock(state_->mutex);
        state_->suspended = suspended;
    }
    state_->wake.notify_all();
}

bool ZNVOperationQueue::isSuspended() const {
    std::lock_guard lock(state_->mutex);
    return state_->suspended;
}

bool ZNVOperationQueue::isCurrent() const { return tCurrentQueue == this; }

ZNVOperationQueue* ZNVOperationQueue::current() { return tCurrentQueue; }

size_t ZNVOperationQueue::operationCount() const {
    std::lock_guard lock(state_->mutex);
    return state_->operations.size() + (state_->running ? 1 : 0);
}

void ZNVOperationQueue::waitUntilAllOperationsAreFinished() {
    if (isCurrent()) return;
    std::unique_lock lock(state_->mutex);
    state_->idle.wait(lock, [this] {
        return state_->stopping || (state_->operations.empty() && !state_->running);
    });
}

void ZNVOperationQueue::run(std::shared_ptr<State> state) {
    std::unique_lock lock(state->mutex);
    for (;;) {
        state->wake.wait(lock, [&] {
            return state->stopping || (!state->suspended && !state->operations.empty());
        });
        if (state->stopping) break;
        Operation op = std::move(state->operations.front());
        state->operations.pop_front();
        state->running = true;
        tCurrentQueue = state->owner;
        lock.unlock();
        op();
        op = nullptr;  // release captures before reporting idle
        lock.lock();
        tCurrentQueue = nullptr;
        state->running = false;
        if (state->operations.empty()) state->idle.notify_all();
    }
}

}  // namespace znv
