// What znv prints while it works: a live view on a terminal, one plain line
// per state change otherwise, or one JSON object per line with --json.
//
// The command's main thread owns the reporter and calls it from its loop (at
// most ten times a second); reporters are not thread-safe. Every reporter
// writes to the stream it was given (standard output in the program);
// messages for people in trouble go to standard error, not through here.
#pragma once

#include <chrono>
#include <cstdint>
#include <cstdio>
#include <deque>
#include <memory>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

namespace znv::cli {

// One task as the command line shows it.
struct TaskView {
    std::string id;
    std::string kind;     // "upload" or "download"
    std::string subject;  // the local file of an upload, the URL of a download
    std::string output;   // where a download is delivered
    uint64_t state = 0;   // 0 suspended, 1 running, 2 completed
    std::string error;    // the public error's description; empty = none
    int64_t completedBytes = 0;
    int64_t totalBytes = -1;  // -1: not known yet
    std::string remoteFileID;
    std::string contentURL;

    bool failed() const { return state == 2 && !error.empty(); }
    bool succeeded() const { return state == 2 && error.empty(); }
};

std::string stateName(const TaskView& view);  // "queued", "running", "completed", "failed"

// "0 B", "512 B", "1.5 KiB", "256.0 MiB", "1.00 GiB"
std::string formatBytes(int64_t bytes);
// "12.3 MB/s" (decimal megabytes, as transfer rates are quoted)
std::string formatRate(double bytesPerSecond);
// "0:07", "12:30", "1:02:03"; "--:--" when unknown
std::string formatDuration(double seconds);

// Transfer rate over the last few seconds of samples.
class RateMeter {
  public:
    using Clock = std::chrono::steady_clock;
    explicit RateMeter(std::chrono::milliseconds window = std::chrono::seconds(3))
        : window_(window) {}
    void add(Clock::time_point when, int64_t bytes);
    // Bytes per second; 0 until two samples a little apart exist.
    double rate() const;

  private:
    std::chrono::milliseconds window_;
    std::deque<std::pair<Clock::time_point, int64_t>> samples_;
};

class Reporter {
  public:
    virtual ~Reporter() = default;
    // A task joined this run (queued now, or found unfinished in the queue).
    virtual void taskAdded(const TaskView& task) = 0;
    virtual void stateChanged(const TaskView& task) = 0;
    // The task's completed byte count moved.
    virtual void progressed(const TaskView& task) = 0;
    // Called on every turn of the loop with every task of the run.
    virtual void tick(const std::vector<TaskView>& tasks) = 0;
    // A line for people (plain and terminal) or an event (JSON).
    virtual void note(const std::string& text) = 0;
    // The end of the run, with every task of the run.
    virtual void summary(const std::vector<TaskView>& tasks) = 0;
    // Puts the cursor below anything drawn in place (before exiting early).
    virtual void close() {}
};

// With `json`, JSON lines; else a live view when `stream` is a terminal,
// plain lines when it is not.
std::unique_ptr<Reporter> makeReporter(bool json, FILE* stream);

// The individual kinds, for tests and for forcing one.
std::unique_ptr<Reporter> makeJsonReporter(FILE* stream);
std::unique_ptr<Reporter> makePlainReporter(FILE* stream);
std::unique_ptr<Reporter> makeTerminalReporter(FILE* stream, int columns = 0);

nlohmann::json taskJson(const TaskView& task);

}  // namespace znv::cli
