#include "apps/znv/output.h"

#include <sys/ioctl.h>
#include <unistd.h>

#include <algorithm>
#include <cmath>
#include <map>

#include <fmt/format.h>

namespace znv::cli {

std::string stateName(const TaskView& view) {
    switch (view.state) {
        case 1:
            return "running";
        case 2:
            return view.error.empty() ? "completed" : "failed";
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

nlohmann::json taskJson(const TaskView& task) {
    nlohmann::json j = {{"task", task.id}, {"kind", task.kind}, {"state", stateName(task)}};
    if (task.kind == "download") {
        j["url"] = task.subject;
        if (!task.output.empty()) j["file"] = task.output;
    } else {
        j["file"] = task.subject;
    }
    j["completed"] = task.completedBytes;
    j["total"] = task.totalBytes >= 0 ? nlohmann::json(task.totalBytes) : nlohmann::json();
    if (!task.error.empty()) j["error"] = task.error;
    if (!task.remoteFileID.empty()) j["fileId"] = task.remoteFileID;
    if (!task.contentURL.empty()) j["contentURL"] = task.contentURL;
    return j;
}

namespace {

std::string subjectLine(const TaskView& task) {
    std::string line = fmt::format("{} {} {}", task.id, task.kind, task.subject);
    if (!task.output.empty()) line += " -> " + task.output;
    return line;
}

std::string outcomeDetail(const TaskView& task) {
    if (task.failed()) return ": " + task.error;
    std::string detail;
    if (task.succeeded() && task.totalBytes >= 0) detail += " (" + formatBytes(task.totalBytes);
    if (!task.remoteFileID.empty()) {
        detail += detail.empty() ? " (" : ", ";
        detail += "file ID " + task.remoteFileID;
    }
    if (!task.contentURL.empty()) detail += ", " + task.contentURL;
    if (!detail.empty()) detail += ")";
    return detail;
}

void writeLine(FILE* stream, const std::string& line) {
    std::fwrite(line.data(), 1, line.size(), stream);
    std::fputc('\n', stream);
    std::fflush(stream);
}

std::string summaryCounts(const std::vector<TaskView>& tasks) {
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
    return text;
}

class JsonReporter : public Reporter {
  public:
    explicit JsonReporter(FILE* stream) : stream_(stream) {}

    void taskAdded(const TaskView& task) override {
        auto j = taskJson(task);
        j.erase("completed");
        j.erase("total");
        emit("queued", std::move(j));
    }
    void stateChanged(const TaskView& task) override { emit("state", taskJson(task)); }
    void progressed(const TaskView& task) override {
        nlohmann::json j = {{"task", task.id}, {"kind", task.kind}};
        j["file"] = task.kind == "download" ? task.output : task.subject;
        j["completed"] = task.completedBytes;
        j["total"] = task.totalBytes >= 0 ? nlohmann::json(task.totalBytes) : nlohmann::json();
        emit("progress", std::move(j));
    }
    void tick(const std::vector<TaskView>&) override {}
    void note(const std::string& text) override { emit("note", {{"message", text}}); }
    void summary(const std::vector<TaskView>& tasks) override {
        nlohmann::json list = nlohmann::json::array();
        bool ok = true;
        for (const auto& t : tasks) {
            list.push_back(taskJson(t));
            ok = ok && t.succeeded();
        }
        emit("summary", {{"ok", ok}, {"tasks", std::move(list)}});
    }

  private:
    void emit(const char* event, nlohmann::json body) {
        nlohmann::json j = {{"event", event}};
        for (auto& [key, value] : body.items())
            j[key] = value;
        // Invalid UTF-8 in a file name must not abort the run.
        writeLine(stream_, j.dump(-1, ' ', false, nlohmann::json::error_handler_t::replace));
    }

    FILE* stream_;
};

class PlainReporter : public Reporter {
  public:
    explicit PlainReporter(FILE* stream) : stream_(stream) {}

    void taskAdded(const TaskView& task) override {
        writeLine(stream_, fmt::format("{:<9} {}", "queued", subjectLine(task)));
    }
    void stateChanged(const TaskView& task) override {
        writeLine(stream_, fmt::format("{:<9} {}{}", stateName(task), subjectLine(task),
                                       outcomeDetail(task)));
    }
    void progressed(const TaskView&) override {}
    void tick(const std::vector<TaskView>&) override {}
    void note(const std::string& text) override { writeLine(stream_, text); }
    void summary(const std::vector<TaskView>& tasks) override {
        writeLine(stream_, summaryCounts(tasks));
    }

  private:
    FILE* stream_;
};

// Draws one line per running task and a total line below the lines already
// printed, and redraws them in place (cursor up, clear to the end of the
// screen) at most ten times a second. Lines that must stay (finished tasks,
// notes) are printed above the live block.
class TerminalReporter : public Reporter {
  public:
    TerminalReporter(FILE* stream, int columns) : stream_(stream), columns_(columns) {
        if (columns_ <= 0) {
            winsize size{};
            if (ioctl(fileno(stream), TIOCGWINSZ, &size) == 0 && size.ws_col > 0) {
                columns_ = size.ws_col;
            } else {
                columns_ = 80;
            }
        }
    }

    void taskAdded(const TaskView& task) override {
        permanent_.push_back(fmt::format("queued    {}", subjectLine(task)));
    }
    void stateChanged(const TaskView& task) override {
        if (task.state != 2) return;  // the live block shows running and queued tasks
        permanent_.push_back(
            fmt::format("{:<9} {}{}", stateName(task), subjectLine(task), outcomeDetail(task)));
    }
    void progressed(const TaskView&) override {}
    void note(const std::string& text) override { permanent_.push_back(text); }

    void tick(const std::vector<TaskView>& tasks) override {
        auto now = RateMeter::Clock::now();
        int64_t done = 0, total = 0;
        for (const auto& t : tasks) {
            meters_[t.id].add(now, t.completedBytes);
            done += std::max<int64_t>(t.completedBytes, 0);
            total += std::max<int64_t>(t.totalBytes, t.completedBytes);
        }
        totalMeter_.add(now, done);
        // At most ten draws a second; only the final one is forced.
        if (!forceDraw_ && now - lastDraw_ < std::chrono::milliseconds(100)) return;
        lastDraw_ = now;
        forceDraw_ = false;

        std::string out = eraseLive();
        for (const auto& line : permanent_)
            out += clip(line) + "\n";
        permanent_.clear();
        size_t running = 0, queued = 0;
        std::vector<std::string> live;
        for (const auto& t : tasks) {
            if (t.state == 0) ++queued;
            if (t.state != 1) continue;
            ++running;
            live.push_back(barLine(t.id, t.kind, t.subject, t.completedBytes, t.totalBytes,
                                   meters_[t.id].rate()));
        }
        if (running + queued > 0) {
            std::string label = fmt::format("{} running, {} queued", running, queued);
            live.push_back(barLine("total", "", label, done, total, totalMeter_.rate()));
        }
        for (const auto& line : live)
            out += line + "\n";
        liveLines_ = live.size();
        std::fwrite(out.data(), 1, out.size(), stream_);
        std::fflush(stream_);
    }

    void summary(const std::vector<TaskView>& tasks) override {
        forceDraw_ = true;
        std::vector<TaskView> none;
        tick(none);
        writeLine(stream_, summaryCounts(tasks));
    }
    void close() override {
        std::string out = eraseLive();
        for (const auto& line : permanent_)
            out += clip(line) + "\n";
        permanent_.clear();
        std::fwrite(out.data(), 1, out.size(), stream_);
        std::fflush(stream_);
    }

  private:
    std::string eraseLive() {
        if (liveLines_ == 0) return {};
        std::string s = fmt::format("\x1b[{}F\x1b[J", liveLines_);
        liveLines_ = 0;
        return s;
    }

    std::string clip(const std::string& line) const {
        auto width = static_cast<size_t>(std::max(columns_ - 1, 20));
        if (line.size() <= width) return line;
        return line.substr(0, width - 3) + "...";
    }

    std::string barLine(const std::string& id, const std::string& kind, const std::string& name,
                        int64_t done, int64_t total, double rate) const {
        std::string numbers = fmt::format(" {:>10} / {:<10} {:>11}", formatBytes(done),
                                          total >= 0 ? formatBytes(total) : "?", formatRate(rate));
        double eta = rate > 0 && total >= done ? static_cast<double>(total - done) / rate : -1;
        numbers += " ETA " + formatDuration(eta);
        std::string head = fmt::format("{:<8} {:<8} ", id, kind);
        // The numbers always fit; the name and the bar share what is left.
        int available = columns_ - 1 - static_cast<int>(head.size() + numbers.size()) - 3;
        int labelWidth = std::clamp(available / 3, 8, 40);
        int barWidth = std::max(5, available - labelWidth);
        std::string bar(static_cast<size_t>(barWidth), ' ');
        if (total > 0) {
            auto filled = static_cast<int>(static_cast<double>(barWidth) *
                                           std::min(1.0, static_cast<double>(done) / total));
            for (int i = 0; i < filled; ++i)
                bar[static_cast<size_t>(i)] = '#';
        }
        std::string label = name;
        if (static_cast<int>(label.size()) > labelWidth) {
            label = "..." + label.substr(label.size() - static_cast<size_t>(labelWidth - 3));
        }
        label.resize(static_cast<size_t>(labelWidth), ' ');
        return clip(head + label + " [" + bar + "]" + numbers);
    }

    FILE* stream_;
    int columns_;
    std::vector<std::string> permanent_;
    size_t liveLines_ = 0;
    bool forceDraw_ = false;
    RateMeter::Clock::time_point lastDraw_{};
    std::map<std::string, RateMeter> meters_;
    RateMeter totalMeter_;
};

}  // namespace

std::unique_ptr<Reporter> makeJsonReporter(FILE* stream) {
    return std::make_unique<JsonReporter>(stream);
}
std::unique_ptr<Reporter> makePlainReporter(FILE* stream) {
    return std::make_unique<PlainReporter>(stream);
}
std::unique_ptr<Reporter> makeTerminalReporter(FILE* stream, int columns) {
    return std::make_unique<TerminalReporter>(stream, columns);
}

std::unique_ptr<Reporter> makeReporter(bool json, FILE* stream) {
    if (json) return makeJsonReporter(stream);
    if (isatty(fileno(stream))) return makeTerminalReporter(stream);
    return makePlainReporter(stream);
}

}  // namespace znv::cli
