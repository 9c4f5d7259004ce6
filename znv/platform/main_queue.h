// ZNVMainQueue: the process-wide serial "main queue" on which the library runs
// collection changes, refresh-and-save and the application's completions.
//
// Contract
// - `async` may be called from any thread; items run one at a time, in FIFO order.
// - By default the items run on a thread the library owns. An application with
//   an event loop installs its own executor once, before the library is used
//   (`setExecutor`); the executor must run the functions it is handed one at a
//   time, in order (for example on its GUI thread).
// - `isCurrent()` is true while the calling thread runs a main-queue item.
// - `waitUntilDrained` (for tests and orderly shutdown) blocks until every item
//   posted before the call, and every item they posted, has run, or the
//   deadline passes; it returns whether the queue drained. Never call it from
//   a main-queue item.
#pragma once

#include <chrono>
#include <functional>

namespace znv {

class ZNVMainQueue {
public:
    using Work = std::function<void()>;
    using Executor = std::function<void(Work)>;

    static void async(Work work);
    static bool isCurrent();
    static void setExecutor(Executor executor);
    static bool waitUntilDrained(std::chrono::milliseconds timeout = std::chrono::seconds(30));
};

}  // namespace znv
