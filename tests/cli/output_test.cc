// What znv prints, where, and how it looks: results on standard output,
// everything for people on standard error, a live view that fits the
// terminal, and the command that continues an interrupted run.

#include <gtest/gtest.h>
#include <signal.h>

#include <set>
#include <sstream>

#include "tests/cli/znv_process.h"
#include "tests/support/test_support.h"

namespace znv::test {
namespace {

constexpr uint64_t kChunk = 4194304;

// The text a terminal shows for one line of output: CSI sequences and
// carriage returns removed.
std::string visible(const std::string& line) {
    std::string text;
    for (size_t i = 0; i < line.size(); ++i) {
        if (line[i] == '\x1b' && i + 1 < line.size() && line[i + 1] == '[') {
            i += 2;
            while (i < line.size() && !std::isalpha(static_cast<unsigned char>(line[i])))
                ++i;
        } else if (line[i] != '\r') {
            text += line[i];
        }
    }
    return text;
}

class ZnvOutputTest : public ZnvTest {
  protected:
    void throttleChunks(int bytesPerSecond) {
        ASSERT_TRUE(emulator_.addFault({{"method", "PUT"},
                                        {"path", "/api/files/*"},
                                        {"action", "throttle"},
                                        {"bytesPerSecond", bytesPerSecond}}));
    }
};

TEST_F(ZnvOutputTest, ResultsGoToStdoutAndEverythingElseToStderr) {
    ZnvUser user;
    ZnvRun version = user.run({"--version"});
    EXPECT_EQ(version.status, 0);
    EXPECT_TRUE(matchesShape(splitLines(version.out).at(0), "znv 9*.9*.9*")) << version.out;
    EXPECT_NE(version.out.find("\nlibcurl "), std::string::npos) << version.out;
    EXPECT_EQ(version.err, "");

    ZnvRun help = user.run({"--help"});
    EXPECT_EQ(help.status, 0);
    for (const char* needed : {"Exit status", "130", "~/Library/Network/PROFILE.state", "\"live\"",
                               "znv.log", "emulator", "staging"}) {
        EXPECT_NE(help.out.find(needed), std::string::npos) << needed;
    }
    EXPECT_NE(user.run({"upload", "--help"}).out.find("resumable"), std::string::npos);

    // Two small files go whole: one result line each, "FILEID URL".
    std::string a = file("a.bin", 3000), b = file("b.bin", 5000);
    ZnvRun up = user.run({"--server", server_, "upload", a, b});
    ASSERT_EQ(up.status, 0) << up.err;
    auto results = splitLines(up.out);
    ASSERT_EQ(results.size(), 2u) << up.out;
    for (const auto& line : results) {
        auto space = line.find(' ');
        ASSERT_NE(space, std::string::npos) << line;
        std::string id = line.substr(0, space), url = line.substr(space + 1);
        EXPECT_TRUE(matchesShape(url, "http://127.0.0.1:9*/content/" + id)) << line;
    }
    auto errLines = splitLines(up.err);
    EXPECT_TRUE(matchesShape(errLines.back(), "2 completed, 0 failed: 7.8 KiB in 9* s (9*9 MB/s)"))
        << up.err;
    EXPECT_EQ((up.out + up.err).find('\x1b'), std::string::npos);

    // An upload that goes whole says so while it runs.
    ASSERT_TRUE(emulator_.addFault({{"method", "PUT"},
                                    {"path", "/api/files/*/fullfile"},
                                    {"action", "throttle"},
                                    {"bytesPerSecond", 1000000}}));
    ZnvRun whole = user.run({"--server", server_, "upload", file("whole.bin", 1000000)});
    EXPECT_EQ(whole.status, 0);
    EXPECT_NE(whole.err.find("whole file: an interruption restarts it"), std::string::npos)
        << whole.err;
    // The three went whole, one request each, and no chunk batch was sent.
    size_t wholePuts = 0, batchPuts = 0;
    for (const auto& entry : emulator_.requestLog()) {
        if (entry.value("method", "") != "PUT") continue;
        ++(entry.value("path", "").ends_with("/fullfile") ? wholePuts : batchPuts);
    }
    EXPECT_EQ(wholePuts, 3u);
    EXPECT_EQ(batchPuts, 0u);
    emulator_.clearFaults();
    // One that the service refuses whole goes on in chunks, and says so.
    ASSERT_TRUE(emulator_.addFault({{"method", "PUT"},
                                    {"path", "/api/files/*/fullfile"},
                                    {"action", "status"},
                                    {"status", 500},
                                    {"times", 1}}));
    ZnvRun refused = user.run({"--server", server_, "--json", "upload", file("refused.bin", 900)});
    EXPECT_EQ(refused.status, 0) << refused.err;
    EXPECT_EQ(refused.events("state").back().value("mode", ""), "chunks") << refused.out;
    ZnvRun refusedStatus = user.run({"--json", "status"});
    EXPECT_NE(refusedStatus.out.find(R"("mode":"chunks")"), std::string::npos) << refusedStatus.out;

    ZnvRun quiet = user.run({"--server", server_, "-q", "upload", file("q.bin", 100)});
    EXPECT_EQ(quiet.status, 0);
    EXPECT_EQ(quiet.err, "");
    EXPECT_EQ(splitLines(quiet.out).size(), 1u);
    // Results that cannot be written fail the command, with the reason of the
    // write that failed.
    user.sendOutputTo("/dev/full");
    ZnvRun full = user.run({"--server", server_, "-q", "upload", file("full.bin", 100)});
    user.sendOutputTo("");
    EXPECT_EQ(full.status, 1);
    EXPECT_EQ(full.err, "znv: cannot write the results: No space left on device\n");

    ZnvRun verbose = user.run({"--server", server_, "-v", "upload", file("v.bin", 100)});
    EXPECT_EQ(verbose.status, 0);
    EXPECT_NE(verbose.err.find("znv: [info]"), std::string::npos) << verbose.err;
    EXPECT_EQ(verbose.err.find("[debug]"), std::string::npos);
    EXPECT_EQ(splitLines(verbose.out).size(), 1u);
    // A name that would clear the screen and forge a line is shown escaped
    // wherever people read it, and as it is in JSON.
    std::string hostile = file("evil\x1b[2J\ncompleted.bin", 700);
    ZnvRun evil = user.run({"--server", server_, "upload", hostile});
    ASSERT_EQ(evil.status, 0) << evil.err;
    ZnvRun table = user.run({"status"});
    for (const std::string& text : {evil.err, evil.out, table.out}) {
        EXPECT_EQ(text.find('\x1b'), std::string::npos) << text;
        EXPECT_EQ(text.find("\ncompleted.bin"), std::string::npos) << text;
    }
    EXPECT_NE(evil.err.find("evil\\x1b[2J\\ncompleted.bin"), std::string::npos) << evil.err;
    EXPECT_NE(table.out.find("evil\\x1b[2J\\ncompleted.bin"), std::string::npos) << table.out;
    ZnvRun json = user.run({"--json", "status"});
    EXPECT_NE(json.out.find(nlohmann::json(hostile).dump()), std::string::npos) << json.out;
    // So is a server's message, on standard error and in the log file, where
    // it would otherwise reach whoever reads the log on a terminal.
    ASSERT_TRUE(emulator_.addFault({{"method", "GET"},
                                    {"path", "/api/files/*"},
                                    {"times", 1},
                                    {"action", "status"},
                                    {"status", 404},
                                    {"message", "gone\x1b]0;owned\x07\nforged line"}}));
    ZnvRun told = user.run({"--server", server_, "-v", "info", "no-such-file"});
    EXPECT_EQ(told.status, 1);
    const std::string log = readFile(user.home() + "/.local/state/znv/znv.log");
    for (const std::string& text : {told.err, log}) {
        EXPECT_EQ(text.find_first_of("\x1b\x07"), std::string::npos) << text;
        EXPECT_EQ(text.find("\nforged line"), std::string::npos) << text;
        EXPECT_NE(text.find("gone\\x1b]0;owned\\x07\\nforged line"), std::string::npos) << text;
    }

    ZnvRun debug = user.run({"--server", server_, "-vv", "status"});
    EXPECT_EQ(debug.status, 0);

    // Uploads start as they are added, so the first of many finish before the
    // run's loop begins: the summary still counts every byte the run sent.
    std::vector<std::string> many = {"--json", "--profile", "many", "--server", server_, "upload"};
    for (int i = 0; i < 400; ++i)
        many.push_back(file("many-" + std::to_string(i) + ".bin", 1000));
    ZnvRun lots = user.run(many);
    ASSERT_EQ(lots.status, 0) << lots.err;
    auto summary = lots.events("summary");
    ASSERT_EQ(summary.size(), 1u) << lots.out;
    EXPECT_EQ(summary[0].value("completed", int64_t{0}), 400 * 1000);
}

TEST_F(ZnvOutputTest, LiveViewFitsSixtyColumnsAndDumbTerminalsGetNoCursorCodes) {
    throttleChunks(6000000);
    ZnvUser user;
    std::string longName = std::string(120, 'n') + ".bin";
    std::string big = file(longName, 2 * kChunk + 1000);
    std::string small = file("small.bin", 2000);

    user.setEnv("TERM", "xterm");
    ZnvRun live =
        user.runOnTerminal({"--server", server_, "upload", "--force-chunks", big, small}, 60);
    ASSERT_EQ(live.status, 0) << live.out;
    size_t bars = 0, measured = 0;
    for (const auto& raw : splitLines(live.out)) {
        std::string line = visible(raw);
        if (line.find("ETA") == std::string::npos) continue;
        ++bars;
        EXPECT_LE(line.size(), 59u) << line;
        EXPECT_NE(line.find("MB/s"), std::string::npos) << line;
        if (matchesShape(line, "*9 MB/s ETA *9:99*")) ++measured;
    }
    EXPECT_GT(bars, 3u) << live.out;
    EXPECT_GT(measured, 0u) << "a rate and an ETA once the transfer runs:\n" << live.out;
    EXPECT_NE(live.out.find("\x1b["), std::string::npos) << "redrawn in place";
    // The result lines are never cut, however narrow the terminal.
    size_t results = 0;
    for (const auto& raw : splitLines(live.out)) {
        std::string line = visible(raw);
        auto space = line.find(' ');
        if (space != 36) continue;  // "FILEID URL", the ID a UUID
        ++results;
        EXPECT_TRUE(
            matchesShape(line.substr(37), "http://127.0.0.1:9*/content/" + line.substr(0, 36)))
            << line;
    }
    EXPECT_EQ(results, 2u) << live.out;

    user.setEnv("TERM", "dumb");
    ZnvRun dumb = user.runOnTerminal({"--server", server_, "upload", "--force-chunks", big}, 60);
    ASSERT_EQ(dumb.status, 0) << dumb.out;
    EXPECT_EQ(dumb.out.find('\x1b'), std::string::npos) << dumb.out;
    EXPECT_NE(dumb.out.find("completed"), std::string::npos) << dumb.out;
}

TEST_F(ZnvOutputTest, InterruptionInEveryModeNamesTheCommandThatResumes) {
    throttleChunks(1000000);
    ZnvUser user;
    std::vector<std::string> base = {"--profile", "work", "--server", server_};
    std::string expected = "znv --profile work --server " + server_ + " resume";
    auto args = [&](std::vector<std::string> extra) {
        std::vector<std::string> all = base;
        all.insert(all.end(), extra.begin(), extra.end());
        return all;
    };

    // Plain lines on standard error.
    pid_t pid = user.start(args({"upload", "--force-chunks", file("plain.bin", 3 * kChunk)}));
    ASSERT_TRUE(waitFor([&] { return user.errSoFar().find("running") != std::string::npos; },
                        std::chrono::seconds(30)));
    kill(pid, SIGINT);
    ZnvRun plain = user.finish(pid);
    EXPECT_EQ(plain.status, 130) << plain.err;
    EXPECT_NE(plain.err.find(expected), std::string::npos) << plain.err;
    EXPECT_EQ(plain.out, "");

    // JSON: an "interrupted" event carries the command.
    pid = user.start(args({"--json", "upload", "--force-chunks", file("json.bin", 3 * kChunk)}));
    ASSERT_TRUE(waitFor([&] { return user.outSoFar().find("\"running\"") != std::string::npos; },
                        std::chrono::seconds(30)));
    kill(pid, SIGINT);
    ZnvRun json = user.finish(pid);
    EXPECT_EQ(json.status, 130);
    auto interrupted = json.events("interrupted");
    ASSERT_EQ(interrupted.size(), 1u) << json.out;
    EXPECT_EQ(interrupted[0].value("command", ""), expected);
    EXPECT_TRUE(json.events("summary").empty());
    const std::string jsonTask = json.events("queued").at(0).value("task", "");

    // The live view on a terminal.
    user.setEnv("TERM", "xterm");
    ZnvRun terminal = user.runOnTerminal(
        args({"upload", "--force-chunks", file("tty.bin", 3 * kChunk)}), 80,
        [](const std::string& out) { return out.find("ETA") != std::string::npos; });
    EXPECT_EQ(terminal.status, 130) << terminal.out;
    EXPECT_NE(visible(terminal.out).find(expected), std::string::npos) << terminal.out;

    // All three wait in the queue under the IDs they were given.
    ZnvRun status = user.run({"--profile", "work", "--json", "status"});
    ASSERT_EQ(status.status, 0) << status.err;
    std::set<std::string> queued;
    const auto tasks = status.events("status").at(0)["tasks"];
    for (const auto& t : tasks) {
        EXPECT_EQ(t.value("state", ""), "queued") << t.dump();
        queued.insert(t.value("task", ""));
    }
    EXPECT_EQ(queued.size(), 3u);
    EXPECT_TRUE(queued.count(jsonTask)) << status.out;

    // The printed command finishes all three, and the service holds the bytes.
    emulator_.clearFaults();
    std::vector<std::string> command;
    std::istringstream words(expected);
    for (std::string word; words >> word;)
        command.push_back(word);
    command.erase(command.begin());  // "znv"
    command.insert(command.begin(), "--json");
    ZnvRun resumed = user.run(command);
    ASSERT_EQ(resumed.status, 0) << resumed.out << resumed.err;
    auto summary = resumed.events("summary");
    ASSERT_EQ(summary.size(), 1u);
    EXPECT_EQ(summary[0]["tasks"].size(), 3u);
    EXPECT_EQ(summary[0].value("state", ""), "completed");
    std::string contentURL;
    for (const auto& task : summary[0]["tasks"]) {
        if (task.value("task", "") != jsonTask) continue;
        contentURL = task.value("contentURL", "");
        const std::string copy = files_ + "/json.copy";
        ZnvRun down = user.run(args({"download", contentURL, "-o", copy}));
        ASSERT_EQ(down.status, 0) << down.err;
        EXPECT_TRUE(filesEqual(files_ + "/json.bin", copy));
        queued.erase(jsonTask);
    }
    EXPECT_EQ(queued.size(), 2u) << "the interrupted task completed under its ID";

    // An interrupted download: the run that resumes it moves, and reports,
    // only what its partial file lacks.
    ASSERT_TRUE(emulator_.addFault({{"method", "GET"},
                                    {"path", "/content/*"},
                                    {"action", "throttle"},
                                    {"bytesPerSecond", 2000000}}));
    const std::string partialCopy = files_ + "/interrupted.copy";
    pid = user.start(args({"--json", "download", contentURL, "-o", partialCopy}));
    ASSERT_TRUE(waitFor(
        [&] {
            std::string lines = user.outSoFar();
            lines.erase(lines.rfind('\n') + 1);  // complete lines only
            for (const auto& line : ZnvRun{0, lines, ""}.events("progress"))
                if (line.value("completed", 0) > 1000000) return true;
            return false;
        },
        std::chrono::seconds(30)));
    kill(pid, SIGINT);
    ASSERT_EQ(user.finish(pid).status, 130);
    // The run that resumes it is held before the answer comes, so it counts
    // what the file held from the data its transfer was made from.
    emulator_.clearFaults();
    ASSERT_TRUE(
        emulator_.addFault({{"method", "GET"}, {"path", "/content/*"}, {"action", "stall"}}));
    pid = user.start(command);
    ASSERT_TRUE(
        waitFor([&] { return user.outSoFar().find("\"state\":\"running\"") != std::string::npos; },
                std::chrono::seconds(30)));
    emulator_.clearFaults();
    ZnvRun rest = user.finish(pid);
    ASSERT_EQ(rest.status, 0) << rest.out << rest.err;
    ASSERT_EQ(rest.events("summary").size(), 1u) << rest.out;
    const nlohmann::json restSummary = rest.events("summary")[0];
    EXPECT_EQ(restSummary.value("total", 0), 3 * kChunk);
    EXPECT_GT(restSummary.value("completed", 0), 0) << restSummary.dump();
    EXPECT_LT(restSummary.value("completed", 0), 3 * kChunk - 1000000) << restSummary.dump();
    EXPECT_TRUE(filesEqual(files_ + "/json.bin", partialCopy));
}

}  // namespace
}  // namespace znv::test
