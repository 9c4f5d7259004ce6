#include "znv/platform/main_queue.h"

#include <condition_variable>
#include <memory>
#include <mutex>

#include "znv/platform/operation_queue.h"

namespace znv {
namespace {

thread_local int tMainDepth = 0;

struct MainQueueState {
    std::mutex mutex;                 // guards the members below
    std::condition_variable drained;  // pending reached zero
    ZNVMainQueue::Executor executor;  // empty: the library's own thread
    std::unique_ptr<ZNVOperationQueue> ownQueue;
    uint64_t pending = 0;  // posted and not yet finished
};

MainQueueState& state() {
    // Intentionally leaked: main-queue work may still be posted while static
    // destructors run at exit.
    static auto* s = new MainQueueState();
    return *s;
}

}  // namespace

void ZNVMainQueue::async(Work work) {
    if (!work) return;
    MainQueueState& s = state();
    Work wrapped = [work = std::move(work)]() mutable {
        ++tMainDepth;
        work();
        work = nullptr;
        --tMainDepth;
        MainQueueState& st = state();
        std::lock_guard lock(st.mutex);
        if (--st.pending == 0) st.drained.notify_all();
    };
    Executor executor;
    {
        std::lock_guard lock(s.mutex);
        ++s.pending;
        if (s.executor) {
            executor = s.executor;
        } else {
            if (!s.ownQueue) s.ownQueue = std::make_unique<ZNVOperationQueue>("znv.main");
            s.ownQueue->addOperation(std::move(wrapped));
            return;
        }
    }
    executor(std::move(wrapped));
}

bool ZNVMainQueue::isCurrent() { return tMainDepth > 0; }

void ZNVMainQueue::setExecutor(Executor executor) {
    MainQueueState& s = state();
    std::lock_guard lock(s.mutex);
    s.executor = std::move(executor);
}

bool ZNVMainQueue::waitUntilDrained(std::chrono::milliseconds timeout) {
    MainQueueState& s = state();
    std::unique_lock lock(s.mutex);
    return s.drained.wait_for(lock, timeout, [&] { return s.pending == 0; });
}

}  // namespace znv
