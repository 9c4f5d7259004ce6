#include "apps/znv/output.h"

#include <sys/ioctl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cmath>
#include <cstdlib>
#include <ctime>
#include <map>

#include <fmt/format.h>

#include "apps/znv/names.h"

namespace znv::cli {

std::string stateName(const TaskView& view) {
    if (view.failed()) return "failed";
    if (view.retrying()) return "retrying";
    switch (view.state) {
        case 1:
            return "running";
        case 2:
            return "completed";
        default:
            return "queued";
    }
}

std::string formatBytes(int64_t bytes) {
    if (bytes < 0) return "?";
    if (bytes < 1024) return fmt::format("{} B", bytes);
    static const char* const units[] = {"KiB", "MiB", "GiB", "TiB", "PiB"};
    double value = static_cast<double>(bytes);
    int unit = -1;
    while (value >= 1024.0 && unit < 4) {
        value /= 1024.0;
        ++unit;
    }
    int decimals = unit >= 2 && value < 10 ? 2 : 1;
    return fmt::format("{:.{}f} {}", value, decimals, units[unit]);
}

std::string formatRate(double bytesPerSecond) {
    if (!(bytesPerSecond > 0)) return "-- MB/s";
    double mb = bytesPerSecond / 1e6;
    return fmt::format("{:.{}f} MB/s", mb, mb < 10 ? 2 : 1);
}

std::string formatDuration(double seconds) {
    if (!std::isfinite(seconds) || seconds < 0 || seconds > 100 * 3600.0) return "--:--";
    auto total = static_cast<int64_t>(std::llround(seconds));
    int64_t h = total / 3600, m = (total / 60) % 60, s = total % 60;
    if (h > 0) return fmt::format("{}:{:02}:{:02}", h, m, s);
    return fmt::format("{}:{:02}", m, s);
}

std::string utcTimestamp(std::chrono::system_clock::time_point when) {
    auto millis =
        std::chrono::duration_cast<std::chrono::milliseconds>(when.time_since_epoch()).count();
    std::time_t seconds = static_cast<std::time_t>(millis / 1000);
    std::tm tm{};
    gmtime_r(&seconds, &tm);
    return fmt::format("{:04}-{:02}-{:02}T{:02}:{:02}:{:02}.{:03}Z", tm.tm_year + 1900,
                       tm.tm_mon + 1, tm.tm_mday, tm.tm_hour, tm.tm_min, tm.tm_sec, millis % 1000);
}

void RateMeter::add(Clock::time_point when, int64_t bytes) {
    if (!samples_.empty() && bytes < samples_.back().second) samples_.clear();  // restarted
    samples_.emplace_back(when, bytes);
    while (samples_.size() > 2 && when - samples_[1].first >= window_)
        samples_.pop_front();
}

double RateMeter::rate() const {
    if (samples_.size() < 2) return 0;
    double seconds =
        std::chrono::duration<double>(samples_.back().first - samples_.front().first).count();
    if (seconds < 0.05) return 0;
    return static_cast<double>(samples_.back().second - samples_.front().second) / seconds;
}

nlohmann::json eventJson(const std::string& event) {
    return {{"event", event},
            {"task", nullptr},
            {"kind", nullptr},
            {"state", nullptr},
            {"completed", nullptr},
            {"total", nullptr},
            {"time", utcTimestamp(std::chrono::system_clock::now())}};
}

nlohmann::json taskEventJson(const std::string& event, const TaskView& task) {
    nlohmann::json j = eventJson(event);
    j["task"] = task.id;
    j["kind"] = task.kind;
    j["state"] = stateName(task);
    j["completed"] = task.completedBytes;
    j["total"] = task.totalBytes >= 0 ? nlohmann::json(task.totalBytes) : nlohmann::json();
    if (task.kind == "download") {
        j["url"] = task.subject;
        if (!task.output.empty()) j["file"] = task.output;
    } else {
        j["file"] = task.subject;
        j["mode"] = !task.modeKnown ? nlohmann::json() : task.whole ? "whole" : "chunks";
    }
    if (!task.error.empty()) {
        j["error"] = task.error;
    } else if (task.retrying()) {
        j["error"] = task.retryError;
    }
    if (!task.remoteFileID.empty()) j["fileId"] = task.remoteFileID;
    if (!task.contentURL.empty()) j["contentURL"] = task.contentURL;
    return j;
}

std::string dumpJson(const nlohmann::json& j) {
    return j.dump(-1, ' ', false, nlohmann::json::error_handler_t::replace);
}

bool terminalCanRedraw(FILE* stream) {
    if (!isatty(fileno(stream))) return false;
    const char* term = std::getenv("TERM");
    return term != nullptr && term[0] != '\0' && std::string(term) != "dumb";
}

namespace {

// The error of the first results line that standard output refused, 0 while
// none was. A later flush can succeed with nothing left to write, so the
// reason is kept from the write that failed. Set from the command's main
// thread only.
int firstResultsError = 0;

void writeLine(FILE* stream, const std::string& line) {
    errno = 0;
    bool written = std::fwrite(line.data(), 1, line.size(), stream) == line.size();
    written = std::fputc('\n', stream) != EOF && written;
    written = std::fflush(stream) == 0 && written;
    if (!written && stream == stdout && firstResultsError == 0) firstResultsError = errno;
}

std::string baseName(const std::string& path) {
    size_t slash = path.find_last_of('/');
    return slash == std::string::npos ? path : path.substr(slash + 1);
}

std::string subjectLine(const TaskView& task) {
    std::string line = fmt::format("{} {} {}", task.id, task.kind, escapeControls(task.subject));
    if (!task.output.empty()) line += " -> " + escapeControls(task.output);
    return line;
}

// What a state line adds after the subject. `brief` leaves out the file ID and
// URL of a completed upload when its result line appears on the same screen.
std::string stateDetail(const TaskView& task, bool brief) {
    if (task.failed()) return ": " + escapeControls(task.error);
    if (task.retrying()) {
        return ": " + escapeControls(task.retryError) + " (retried when the queue runs next)";
    }
    if (task.state == 1 && task.kind == "upload" && task.whole) {
        return std::string(" (") + kWholeFileNote + ")";
    }
    if (!task.succeeded()) return {};
    std::string detail;
    if (task.totalBytes >= 0) detail += " (" + formatBytes(task.totalBytes);
    if (!task.remoteFileID.empty() && !brief) {
        detail += detail.empty() ? " (" : ", ";
        detail += "file ID " + escapeControls(task.remoteFileID);
    }
    if (!task.contentURL.empty() && !brief) detail += ", " + escapeControls(task.contentURL);
    if (!detail.empty()) detail += ")";
    return detail;
}

std::string stateLine(const TaskView& task, bool brief) {
    return fmt::format("{:<9} {}{}", stateName(task), subjectLine(task), stateDetail(task, brief));
}

// The result line of a completed task (standard output).
std::string resultLine(const TaskView& task) {
    if (task.kind == "download") return escapeControls(task.output);
    std::string line = escapeControls(task.remoteFileID);
    if (!task.contentURL.empty()) line += " " + escapeControls(task.contentURL);
    return line;
}

std::string summaryText(const std::vector<TaskView>& tasks, const RunTotals& totals) {
    size_t done = 0, failed = 0, pending = 0;
    for (const auto& t : tasks) {
        if (t.succeeded())
            ++done;
        else if (t.failed())
            ++failed;
        else
            ++pending;
    }
    std::string text = fmt::format("{} completed, {} failed", done, failed);
    if (pending != 0) text += fmt::format(", {} unfinished", pending);
    std::string elapsed = totals.seconds < 60 ? fmt::format("{:.1f} s", totals.seconds)
                                              : formatDuration(totals.seconds);
    double rate = totals.seconds > 0 ? static_cast<double>(totals.bytes) / totals.seconds : 0;
    text += fmt::format(": {} in {}", formatBytes(totals.bytes), elapsed);
    if (totals.bytes > 0) text += " (" + formatRate(rate) + ")";
    return text;
}

class JsonReporter : public Reporter {
  public:
    explicit JsonReporter(FILE* stream) : stream_(stream) {}

    void taskAdded(const TaskView& task) override {
        // Every task enters a run queued; what it waits to retry after shows
        // with its next state.
        auto j = taskEventJson("queued", task);
        j["state"] = "queued";
        j.erase("error");
        writeLine(stream_, dumpJson(j));
    }
    void stateChanged(const TaskView& task) override {
        writeLine(stream_, dumpJson(taskEventJson("state", task)));
    }
    void progressed(const TaskView& task) override {
        writeLine(stream_, dumpJson(taskEventJson("progress", task)));
    }
    void tick(const LiveView&) override {}
    void note(const std::string& text) override {
        auto j = eventJson("note");
        j["message"] = text;
        writeLine(stream_, dumpJson(j));
    }
    void interrupted(const std::string& text, const std::string& command) override {
        auto j = eventJson("interrupted");
        j["state"] = "interrupted";
        j["message"] = text;
        j["command"] = command;
        writeLine(stream_, dumpJson(j));
    }
    void summary(const std::vector<TaskView>& tasks, const RunTotals& totals) override {
        nlohmann::json list = nlohmann::json::array();
        bool ok = true;
        int64_t total = 0;
        for (const auto& t : tasks) {
            list.push_back(taskEventJson("task", t));
            list.back().erase("event");
            list.back().erase("time");
            ok = ok && t.succeeded();
            total += std::max<int64_t>(t.totalBytes, 0);
        }
        auto j = eventJson("summary");
        j["state"] = ok ? "completed" : "failed";
        j["completed"] = totals.bytes;
        j["total"] = total;
        j["ok"] = ok;
        j["seconds"] = totals.seconds;
        j["bytesPerSecond"] =
            totals.seconds > 0 ? static_cast<double>(totals.bytes) / totals.seconds : 0.0;
        j["tasks"] = std::move(list);
        writeLine(stream_, dumpJson(j));
    }

  private:
    FILE* stream_;
};

class PlainReporter : public Reporter {
  public:
    PlainReporter(FILE* results, FILE* messages, bool quiet)
        : results_(results),
          messages_(messages),
          quiet_(quiet),
          brief_(isatty(fileno(results)) && isatty(fileno(messages))) {}

    void taskAdded(const TaskView& task) override {
        if (!quiet_) writeLine(messages_, fmt::format("{:<9} {}", "queued", subjectLine(task)));
    }
    void stateChanged(const TaskView& task) override {
        if (!quiet_) writeLine(messages_, stateLine(task, brief_));
        if (task.succeeded()) writeLine(results_, resultLine(task));
    }
    void progressed(const TaskView&) override {}
    void tick(const LiveView&) override {}
    void note(const std::string& text) override {
        if (!quiet_) writeLine(messages_, text);
    }
    void interrupted(const std::string& text, const std::string& command) override {
        writeLine(messages_, text + " " + command);
    }
    void summary(const std::vector<TaskView>& tasks, const RunTotals& totals) override {
        if (!quiet_) writeLine(messages_, summaryText(tasks, totals));
    }

  private:
    FILE* results_;
    FILE* messages_;
    bool quiet_;
    bool brief_;  // both streams on a terminal: the result line follows
};

// Draws one line per running task and a total line below the lines already
// printed, and redraws them in place (cursor up, clear to the end of the
// screen) at most ten times a second. Lines that must stay (state changes,
// notes) are printed above the live block and never cut: a user may need to
// copy them. Live lines always fit the width: numbers first, then a bar and
// the name in whatever is left.
class TerminalReporter : public Reporter {
  public:
    TerminalReporter(FILE* results, FILE* messages, int columns)
        : results_(results), messages_(messages), columns_(columns) {
        if (columns_ <= 0) {
            winsize size{};
            if (ioctl(fileno(messages), TIOCGWINSZ, &size) == 0 && size.ws_col > 0) {
                columns_ = size.ws_col;
            } else {
                columns_ = 80;
            }
        }
    }

    void taskAdded(const TaskView& task) override {
        permanent_.push_back(fmt::format("{:<9} {}", "queued", subjectLine(task)));
    }
    void stateChanged(const TaskView& task) override {
        // The live block shows running tasks; only a whole upload's start is
        // worth a line of its own.
        if (task.state == 1 && !(task.kind == "upload" && task.whole)) return;
        if (task.state == 0 && !task.retrying()) return;
        permanent_.push_back(stateLine(task, isatty(fileno(results_))));
        if (task.succeeded()) {
            flushPermanent();
            writeLine(results_, resultLine(task));
        }
    }
    void progressed(const TaskView&) override {}
    void note(const std::string& text) override {
        permanent_.push_back(text);
        flushPermanent();
    }
    void interrupted(const std::string& text, const std::string& command) override {
        note(text + " " + command);
    }

    void tick(const LiveView& live) override {
        auto now = RateMeter::Clock::now();
        // Meters of the running tasks only: a run of many tasks keeps no
        // samples of those that finished.
        std::map<std::string, RateMeter> meters;
        for (const TaskView* t : live.running) {
            auto it = meters_.find(t->id);
            RateMeter& meter = meters[t->id];
            if (it != meters_.end()) meter = std::move(it->second);
            meter.add(now, t->completedBytes);
        }
        meters_.swap(meters);
        totalMeter_.add(now, live.done);
        // At most ten draws a second; only the final one is forced.
        if (!forceDraw_ && now - lastDraw_ < std::chrono::milliseconds(100)) return;
        lastDraw_ = now;
        forceDraw_ = false;

        std::string out = eraseLive() + takePermanent();
        std::vector<std::string> lines;
        for (const TaskView* t : live.running) {
            std::string name = t->kind == "download" ? t->subject : baseName(t->subject);
            lines.push_back(barLine(t->id, escapeControls(name), t->completedBytes, t->totalBytes,
                                    meters_[t->id].rate()));
        }
        const size_t running = live.running.size();
        if (running + live.queued > 0 && live.tasks > 1) {
            std::string label = live.queued == 0
                                    ? fmt::format("{} running", running)
                                    : fmt::format("{} running, {} queued", running, live.queued);
            lines.push_back(
                barLine("total", label, live.done, live.total, totalMeter_.rate(), false));
        }
        for (const auto& line : lines)
            out += line + "\n";
        liveLines_ = lines.size();
        write(out);
    }

    void summary(const std::vector<TaskView>& tasks, const RunTotals& totals) override {
        forceDraw_ = true;
        tick(LiveView{});
        writeLine(messages_, summaryText(tasks, totals));
    }
    void close() override { flushPermanent(); }

  private:
    void write(const std::string& out) {
        std::fwrite(out.data(), 1, out.size(), messages_);
        std::fflush(messages_);
    }

    void flushPermanent() { write(eraseLive() + takePermanent()); }

    std::string takePermanent() {
        std::string out;
        for (const auto& line : permanent_)
            out += line + "\n";
        permanent_.clear();
        return out;
    }

    std::string eraseLive() {
        if (liveLines_ == 0) return {};
        std::string s = fmt::format("\x1b[{}F\x1b[J", liveLines_);
        liveLines_ = 0;
        return s;
    }

    // "ID  42% 12.0 MiB/28.6 MiB 4.20 MB/s ETA 0:04 [#####     ] name", never
    // wider than the terminal less one column (a full line would wrap).
    std::string barLine(const std::string& id, const std::string& name, int64_t done, int64_t total,
                        double rate, bool keepNameEnd = true) const {
        size_t width = static_cast<size_t>(std::max(columns_ - 1, 10));
        double eta = rate > 0 && total >= done ? static_cast<double>(total - done) / rate : -1;
        std::string percent =
            total > 0 ? fmt::format("{:>3}%", std::min<int64_t>(100, done * 100 / total)) : "  ?%";
        // Fixed widths keep the columns from jumping between redraws.
        std::string numbers = fmt::format("{} {:>9}/{:<9} {:>10} ETA {:>5}", percent,
                                          formatBytes(done), total >= 0 ? formatBytes(total) : "?",
                                          formatRate(rate), formatDuration(eta));
        std::string line = fmt::format("{:<6} {}", id, numbers);
        if (line.size() > width) line = numbers;
        if (line.size() >= width) return fitWidth(line, width, false);
        size_t left = width - line.size() - 1;
        // Every line of the block has the same bar width, so bars line up.
        size_t barWidth = left >= 24 ? std::min<size_t>(30, left / 3) : 0;
        if (barWidth > 0) {
            std::string bar(barWidth, ' ');
            if (total > 0) {
                auto filled = static_cast<size_t>(static_cast<double>(barWidth) *
                                                  std::min(1.0, static_cast<double>(done) / total));
                std::fill(bar.begin(), bar.begin() + static_cast<long>(filled), '#');
            }
            line += " [" + bar + "]";
            left -= barWidth + 3;
        }
        if (left >= 4) line += " " + fitWidth(name, left - 1, keepNameEnd);
        return line;
    }

    FILE* results_;
    FILE* messages_;
    int columns_;
    std::vector<std::string> permanent_;
    size_t liveLines_ = 0;
    bool forceDraw_ = false;
    RateMeter::Clock::time_point lastDraw_{};
    std::map<std::string, RateMeter> meters_;  // of the running tasks, by ID
    RateMeter totalMeter_;
};

}  // namespace

int resultsWriteError() {
    return firstResultsError;
}

std::unique_ptr<Reporter> makeReporter(const ReporterOptions& options) {
    if (options.json) return std::make_unique<JsonReporter>(options.results);
    if (options.verbosity == 0 && terminalCanRedraw(options.messages)) {
        return std::make_unique<TerminalReporter>(options.results, options.messages,
                                                  options.columns);
    }
    return std::make_unique<PlainReporter>(options.results, options.messages,
                                           options.verbosity < 0);
}

}  // namespace znv::cli
