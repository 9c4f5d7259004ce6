// What znv prints while it works.
//
// Two streams: results (standard output) carry only what a script wants to
// keep: "FILEID URL" per completed upload, the path per completed download,
// or every event as one JSON object per line with --json. Messages (standard
// error) carry everything meant for people: a live view when standard error
// is a terminal that can move the cursor, else one plain line per state
// change, plus notes, hints and the summary; -q keeps only errors and the
// interruption hint there.
//
// The command's main thread owns the reporter and calls it from its loop (at
// most ten redraws a second); reporters are not thread-safe. Text that comes
// from a file name, a URL or a server is escaped (names.h) before it reaches
// either stream, except inside JSON, which carries it as it is.
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
    std::string output;   // where a download is (or will be) delivered
    uint64_t state = 0;   // 0 suspended, 1 running, 2 completed
    std::string error;    // the public error's description; empty = none
    // The error a task will retry after (no public error yet); empty = none.
    std::string retryError;
    int64_t completedBytes = 0;
    int64_t totalBytes = -1;  // -1: not known yet
    std::string remoteFileID;
    std::string contentURL;
    bool whole = false;      // an upload sent in one request: an interruption restarts it
    bool modeKnown = false;  // whether `whole` is decided (the service answered the create)

    bool failed() const { return state != 1 && !error.empty(); }
    bool retrying() const { return state != 1 && error.empty() && !retryError.empty(); }
    bool succeeded() const { return state == 2 && error.empty() && retryError.empty(); }
};

// "queued", "running", "retrying", "completed" or "failed".
std::string stateName(const TaskView& view);

// "0 B", "512 B", "1.5 KiB", "256.0 MiB", "1.00 GiB"
std::string formatBytes(int64_t bytes);
// "12.3 MB/s" (decimal megabytes, as transfer rates are quoted)
std::string formatRate(double bytesPerSecond);
// "0:07", "12:30", "1:02:03"; "--:--" when unknown
std::string formatDuration(double seconds);
// "2026-11-23T20:14:33.123Z": the time of a JSON event.
std::string utcTimestamp(std::chrono::system_clock::time_point when);

inline constexpr const char* kWholeFileNote = "whole file: an interruption restarts it";

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

// What a whole run moved.
struct RunTotals {
    double seconds = 0;
    int64_t bytes = 0;  // bytes transferred by this run
};

// The state of a run on one turn of its loop.
struct LiveView {
    std::vector<const TaskView*> running;  // the running tasks, in the run's order
    int64_t done = 0;                      // bytes completed by all tasks of the run
    int64_t total = 0;                     // their sizes, as far as known
    size_t queued = 0;                     // tasks waiting for their turn
    size_t tasks = 0;                      // tasks of the run
};

class Reporter {
  public:
    virtual ~Reporter() = default;
    // A task joined this run (queued now, or found unfinished in the queue).
    virtual void taskAdded(const TaskView& task) = 0;
    // A new state; a completed task's result goes to the results stream here.
    virtual void stateChanged(const TaskView& task) = 0;
    // The task's completed byte count moved.
    virtual void progressed(const TaskView& task) = 0;
    // Called on every turn of the loop.
    virtual void tick(const LiveView& live) = 0;
    // A line for people (plain and terminal) or a "note" event (JSON).
    virtual void note(const std::string& text) = 0;
    // The run was interrupted: `text` and the command that continues it.
    // Shown in every mode, -q included.
    virtual void interrupted(const std::string& text, const std::string& command) = 0;
    // The end of the run, with every task of the run.
    virtual void summary(const std::vector<TaskView>& tasks, const RunTotals& totals) = 0;
    // Puts the cursor below anything drawn in place (before exiting early).
    virtual void close() {}
};

struct ReporterOptions {
    bool json = false;
    int verbosity = 0;  // -1 with -q, 1 with -v, 2 with -vv
    FILE* results = stdout;
    FILE* messages = stderr;
    int columns = 0;  // terminal width; 0: ask the terminal
};

// JSON lines with --json; else a live view when `messages` is a terminal that
// can redraw (TERM set and not "dumb") and neither -q nor -v is given (the
// log would tear it); plain lines otherwise.
std::unique_ptr<Reporter> makeReporter(const ReporterOptions& options);
bool terminalCanRedraw(FILE* stream);
// Why standard output first refused a results line (an errno value), 0 when
// it never did.
int resultsWriteError();

// Every JSON event has these members (null when they do not apply): event,
// task, kind, state, completed, total, time.
nlohmann::json eventJson(const std::string& event);
// `eventJson(event)` with the task's members filled in.
nlohmann::json taskEventJson(const std::string& event, const TaskView& task);
// One line of JSON; bytes that are not UTF-8 are replaced, never fatal.
std::string dumpJson(const nlohmann::json& j);

}  // namespace znv::cli
