// The znv command line, run as a user runs it: separate processes, their own
// home directories, an emulator on a port the kernel chose.

#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <map>
#include <set>
#include <sstream>

#include "tests/cli/znv_process.h"
#include "tests/support/test_support.h"

namespace znv::test {
namespace {

constexpr uint64_t kChunk = 4194304;

using ZnvCliTest = ZnvTest;

// Requests the emulator saw, as "METHOD path" with a successful status.
std::vector<std::string> successfulRequests(const emulator::Emulator& emulator) {
    std::vector<std::string> list;
    for (const auto& entry : emulator.requestLog()) {
        if (entry.value("status", 0) / 100 == 2) {
            list.push_back(entry.value("method", "") + " " + entry.value("path", ""));
        }
    }
    return list;
}

TEST_F(ZnvCliTest, BadInputEndsWithOneLineNamingTheProblemAndStatus2) {
    ZnvUser user;
    std::string empty = files_ + "/empty.bin";
    writeFile(empty, "");
    std::string good = file("good.bin", 1000);
    struct Case {
        std::vector<std::string> args;
        std::string mentions;
    };
    std::vector<Case> cases = {
        {{"upload", files_ + "/missing.bin"}, "no such file"},
        {{"upload", good, files_ + "/missing.bin"}, "missing.bin"},
        {{"upload", empty}, "empty file"},
        {{"upload", files_}, "directory"},
        {{"upload", "--name", "x", good, good}, "--name"},
        {{"upload", "--name", "bad\xffname", good}, "not UTF-8: bad\\xffname"},
        {{"download", "not a url"}, "bad URL"},
        {{"download", "ftp://example.com/file"}, "bad URL"},
        {{"download", "http://127.0.0.1:9/content/x", "-o", files_ + "/nowhere/out.bin"},
         "no such directory"},
        {{"--server", "localhost:80", "status"}, "bad server URL"},
        {{"finish"}, ""},
        {{"frobnicate"}, "frobnicate"},
        {{"-q", "-v", "status"}, "--verbose"},
        {{"--token", "t0ken\r\nX-Injected: yes", "status"}, "control characters"},
        {{"info", ".."}, "bad file ID"},
        {{"delete", "."}, "bad file ID"},
        {{"info", ""}, "bad file ID"},
        {{"delete", "a\x1b[2Jb"}, "bad file ID: a\\x1b[2Jb"},
        {{"--profile", "w\x1b]0;x\x07", "status"}, "bad profile name: w\\x1b]0;x\\x07"},
        {{"--profile", std::string(129, 'p'), "status"}, "longer than 128 bytes"},
        {{"download", "http://127.0.0.1:9/content/x", "-o", "/dev/null", "-f"},
         "not a regular file"},
        {{}, ""},
    };
    cases.push_back({{"retry", "abcdef"}, "no task with ID abcdef"});
    cases.push_back({{"cancel", "ab"}, "too short"});
    if (geteuid() != 0) {  // root reads any file
        std::string locked = file("locked.bin", 10);
        chmod(locked.c_str(), 0);
        cases.push_back({{"upload", locked}, "Permission denied"});
    }
    for (const auto& c : cases) {
        std::string shown;
        for (const auto& a : c.args)
            shown += a + " ";
        SCOPED_TRACE(shown);
        ZnvRun run = user.run(c.args, std::chrono::seconds(60));
        EXPECT_EQ(run.status, 2);
        auto lines = run.errLines();
        ASSERT_EQ(lines.size(), 1u) << run.err;
        EXPECT_EQ(lines[0].rfind("znv: ", 0), 0u) << lines[0];
        EXPECT_NE(lines[0].find(c.mentions), std::string::npos) << lines[0];
        EXPECT_EQ(run.out, "");
    }
    // None of it queued anything.
    ZnvRun status = user.run({"--json", "status"});
    ASSERT_EQ(status.status, 0) << status.err;
    ASSERT_EQ(status.events("status").size(), 1u) << status.out;
    EXPECT_TRUE(status.events("status")[0]["tasks"].empty());
}

// Every line of --json output is one event with the same members: event,
// task, kind, state, completed, total (null where they do not apply), a UTC
// time, and an error exactly when the state says something went wrong.
void expectEventSchema(const ZnvRun& run) {
    const std::string time = "9999-99-99T99:99:99.999Z";
    std::istringstream in(run.out);
    size_t count = 0;
    for (std::string line; std::getline(in, line); ++count) {
        auto e = nlohmann::json::parse(line, nullptr, false);
        ASSERT_TRUE(e.is_object()) << line;
        for (const char* key : {"event", "task", "kind", "state", "completed", "total", "time"}) {
            EXPECT_TRUE(e.contains(key)) << key << " missing: " << line;
        }
        EXPECT_TRUE(matchesShape(e.value("time", ""), time)) << line;
        std::string state = e["state"].is_string() ? e["state"].get<std::string>() : "";
        bool wrong = state == "failed" || state == "retrying";
        if (!e["task"].is_null()) {
            EXPECT_TRUE(e["kind"] == "upload" || e["kind"] == "download") << line;
            EXPECT_TRUE(e["completed"].is_number_integer()) << line;
            EXPECT_TRUE(e["total"].is_number_integer() || e["total"].is_null()) << line;
            EXPECT_EQ(e.contains("error"), wrong) << line;
        }
        if (e["event"] == "queued") {
            EXPECT_EQ(state, "queued") << line;
        }
    }
    EXPECT_GT(count, 0u);
}

// Checks the event stream of one task: queued, running, progress that only
// grows up to the total, then completed, then the summary.
void expectOrderlyTaskEvents(const ZnvRun& run, const std::string& file, int64_t size) {
    expectEventSchema(run);
    auto events = run.events();
    ASSERT_FALSE(events.empty()) << run.out << run.err;
    EXPECT_EQ(events.front().value("event", ""), "queued");
    EXPECT_EQ(events.back().value("event", ""), "summary");
    std::string id = events.front().value("task", "");
    EXPECT_GE(id.size(), 6u);
    std::vector<std::string> states;
    int64_t last = -1;
    bool sawCompletedState = false;
    std::string mode;  // an upload's, once known; it never changes after
    for (const auto& e : events) {
        std::string name = e.value("event", "");
        if (e.contains("mode") && e["mode"].is_string()) {
            if (!mode.empty()) {
                EXPECT_EQ(e["mode"].get<std::string>(), mode) << e.dump();
            }
            mode = e["mode"].get<std::string>();
        }
        if (name == "state") {
            EXPECT_EQ(e.value("task", ""), id);
            states.push_back(e.value("state", ""));
            if (states.back() == "completed") sawCompletedState = true;
        } else if (name == "progress") {
            EXPECT_FALSE(sawCompletedState) << "progress after completion: " << e.dump();
            EXPECT_EQ(e.value("task", ""), id);
            EXPECT_EQ(e.value("file", ""), file);
            int64_t completed = e["completed"].get<int64_t>();
            EXPECT_GE(completed, last) << e.dump();
            if (e["total"].is_number()) {
                EXPECT_EQ(e["total"].get<int64_t>(), size);
            }
            EXPECT_LE(completed, size);
            last = completed;
        }
    }
    EXPECT_EQ(last, size) << "the last progress step reports the whole file";
    if (events.front().contains("mode")) {
        EXPECT_FALSE(mode.empty()) << "the mode became known";
    }
    ASSERT_FALSE(states.empty());
    EXPECT_EQ(states.front(), "running");
    EXPECT_EQ(states.back(), "completed");
}

TEST_F(ZnvCliTest, UploadAndDownloadReportEachStepAsJsonLines) {
    const std::string server = server_;
    ZnvUser user;
    const int64_t size = 2 * kChunk + 12345;
    std::string source = file("report.bin", size);

    ZnvRun up = user.run({"--server", server, "--json", "upload", "--force-chunks", source});
    ASSERT_EQ(up.status, 0) << up.out << up.err;
    expectOrderlyTaskEvents(up, source, size);
    auto summary = up.events("summary");
    ASSERT_EQ(summary.size(), 1u);
    EXPECT_TRUE(summary[0]["ok"].get<bool>());
    auto task = summary[0]["tasks"][0];
    std::string fileID = task.value("fileId", "");
    std::string contentURL = task.value("contentURL", "");
    EXPECT_FALSE(fileID.empty()) << task.dump();
    EXPECT_NE(contentURL.find(fileID), std::string::npos) << task.dump();
    auto requests = successfulRequests(emulator_);
    auto endingWith = [&](const std::string& suffix) {
        return std::count_if(requests.begin(), requests.end(),
                             [&](const std::string& r) { return r.ends_with(suffix); });
    };
    EXPECT_EQ(endingWith("/fullfile"), 0) << "--force-chunks sent it whole";
    EXPECT_EQ(endingWith("/complete"), 1);

    std::string copy = files_ + "/copy.bin";
    ZnvRun down = user.run({"--server", server, "--json", "download", contentURL, "-o", copy});
    ASSERT_EQ(down.status, 0) << down.out << down.err;
    expectOrderlyTaskEvents(down, copy, size);
    EXPECT_TRUE(filesEqual(source, copy));
    auto downSummary = down.events("summary")[0]["tasks"][0];
    EXPECT_EQ(downSummary.value("file", ""), copy);
    EXPECT_EQ(downSummary.value("url", ""), contentURL);
    // Later, the queue still names the delivered file and its size.
    ZnvRun status = user.run({"--server", server, "--json", "status"});
    ASSERT_EQ(status.status, 0) << status.err;
    auto listed = status.events("status").at(0)["tasks"];
    auto delivered = std::find_if(listed.begin(), listed.end(),
                                  [](const auto& t) { return t.value("kind", "") == "download"; });
    ASSERT_NE(delivered, listed.end()) << status.out;
    EXPECT_EQ(delivered->value("file", ""), copy) << status.out;
    EXPECT_EQ(delivered->value("completed", int64_t{-1}), size) << status.out;
    EXPECT_EQ(delivered->value("total", int64_t{-1}), size) << status.out;

    // Whole or in chunks is the service's to say: unknown until it answered.
    const std::string small = file("small.bin", 1000);
    ZnvRun whole = user.run({"--server", server, "--json", "upload", small});
    ASSERT_EQ(whole.status, 0) << whole.out << whole.err;
    expectOrderlyTaskEvents(whole, small, 1000);
    EXPECT_TRUE(whole.events("queued").at(0)["mode"].is_null()) << whole.out;
    EXPECT_EQ(whole.events("summary").at(0)["tasks"].at(0).value("mode", ""), "whole");
}

// A process can end at any point around a download's delivery: after the
// file was delivered but before the queue noted the download's end (it runs
// again), in the middle of the move, or after the download ended but before
// its delivery. Each is delivered once, to the path first chosen.
TEST_F(ZnvCliTest, DownloadsCutOffAroundTheirDeliveryAreDeliveredOnceByResume) {
    const std::string server = server_;
    ZnvUser user;
    const std::string source = file("source.bin", 3000);
    ZnvRun up = user.run({"--server", server, "upload", source});
    ASSERT_EQ(up.status, 0) << up.err;
    const std::string contentURL =
        up.out.substr(up.out.find(' ') + 1, up.out.find('\n') - up.out.find(' ') - 1);

    const std::string journal = user.home() + "/.local/state/znv/live.downloads.journal";
    auto queueDownload = [&](const std::string& output) {
        ZnvRun queued =
            user.run({"--server", server, "--offline", "download", contentURL, "-o", output});
        EXPECT_EQ(queued.status, 0) << queued.err;
        auto lines = splitLines(readFile(journal));
        return nlohmann::json::parse(lines.back())["hash"].get<std::string>();
    };
    auto note = [&](const std::string& hash, const nlohmann::json& destination) {
        writeFile(journal, readFile(journal) +
                               nlohmann::json{{"hash", hash}, {"set", destination}}.dump() + "\n");
    };
    const std::string delivered = files_ + "/delivered.bin", moving = files_ + "/moving.bin";
    const std::string deliveredHash = queueDownload(delivered);
    writeFile(delivered, "the copy delivered before the crash");
    note(deliveredHash, {{"path", delivered},
                         {"directory", false},
                         {"force", false},
                         {"delivered", true},
                         {"size", 35}});
    const std::string movingHash = queueDownload(moving);
    writeFile(moving, "half of it");
    note(movingHash, {{"path", moving}, {"directory", false}, {"force", true}});

    auto completions = [](const ZnvRun& run) {
        auto states = run.events("state");
        return std::count_if(states.begin(), states.end(),
                             [](const auto& e) { return e.value("state", "") == "completed"; });
    };
    ZnvRun resumed = user.run({"--server", server, "--json", "resume"});
    ASSERT_EQ(resumed.status, 0) << resumed.out << resumed.err;
    EXPECT_EQ(completions(resumed), 2) << resumed.out;
    EXPECT_EQ(readFile(delivered), "the copy delivered before the crash");
    EXPECT_TRUE(filesEqual(source, moving));
    std::vector<std::string> names;
    for (const auto& entry : std::filesystem::directory_iterator(files_))
        names.push_back(entry.path().filename().string());
    std::sort(names.begin(), names.end());
    EXPECT_EQ(names, (std::vector<std::string>{"delivered.bin", "moving.bin", "source.bin"}));

    // Both downloads completed in the queue, and neither was delivered: the
    // library's files are where the queue says, and a resume delivers them.
    const std::string state = readFile(user.home() + "/Library/Network/live.state");
    std::set<std::string> kept;
    for (size_t at = 0; (at = state.find(".download\"", at)) != std::string::npos; ++at) {
        size_t begin = state.rfind('"', at - 1) + 1;
        std::string path = state.substr(begin, at + 9 - begin);
        if (path.starts_with("file://")) path = path.substr(7);
        kept.insert(path);
    }
    ASSERT_EQ(kept.size(), 2u) << state;
    for (const auto& path : kept) {
        EXPECT_FALSE(std::filesystem::exists(path)) << path << " was left behind";
        std::filesystem::copy_file(source, path);
    }
    const std::string late1 = files_ + "/late1.bin", late2 = files_ + "/late2.bin";
    note(deliveredHash, {{"path", late1}, {"directory", false}, {"force", false}});
    note(movingHash, {{"path", late2}, {"directory", false}, {"force", false}});
    // Completed in the queue but not delivered: `status` must not call them
    // completed, nor `finish --completed` delete the only copy.
    auto states = [&] {
        const auto status = nlohmann::json::parse(user.run({"--json", "status"}).out);
        std::multiset<std::string> all;
        for (const auto& task : status["tasks"])
            if (task["kind"] == "download") all.insert(task.value("state", ""));
        return std::accumulate(
            all.begin(), all.end(), std::string(),
            [](const std::string& a, const std::string& b) { return a + b + " "; });
    };
    EXPECT_EQ(states(), "queued queued ");
    ZnvRun finished = user.run({"finish", "--completed"});
    EXPECT_EQ(finished.status, 0) << finished.err;
    EXPECT_EQ(std::count(finished.err.begin(), finished.err.end(), '\n'), 2) << finished.err;
    const std::string aside = files_ + "/aside";
    std::filesystem::rename(*kept.begin(), aside);
    EXPECT_EQ(states(), "failed queued ") << "a file that is gone is not pending";
    std::filesystem::rename(aside, *kept.begin());
    // One is cancelled as `finish` asks: a run no longer delivers it, a retry does.
    std::string lateID;
    const auto listed = nlohmann::json::parse(user.run({"--json", "status"}).out);
    for (const auto& task : listed["tasks"])
        if (task.value("file", "") == late1) lateID = task.value("task", "");
    ZnvRun refused = user.run({"finish", lateID});
    EXPECT_NE(refused.err.find("cancel it first"), std::string::npos) << refused.err;
    ZnvRun cancelled = user.run({"cancel", lateID});
    EXPECT_EQ(cancelled.status, 0) << cancelled.err;
    EXPECT_EQ(states(), "failed queued ");
    ZnvRun again = user.run({"--server", server, "--json", "resume"});
    ASSERT_EQ(again.status, 0) << again.out << again.err;
    EXPECT_EQ(completions(again), 1) << again.out;
    EXPECT_FALSE(std::filesystem::exists(late1)) << "a cancelled download was delivered";
    EXPECT_TRUE(filesEqual(source, late2));
    ZnvRun retried = user.run({"--server", server, "--json", "retry", lateID});
    ASSERT_EQ(retried.status, 0) << retried.out << retried.err;
    EXPECT_TRUE(filesEqual(source, late1));
    for (const auto& path : kept)
        EXPECT_FALSE(std::filesystem::exists(path)) << path;
    // The path was noted before the move, so that a crash during it would
    // lead to the same path.
    std::vector<std::string> steps;
    for (const auto& line : splitLines(readFile(journal))) {
        auto change = nlohmann::json::parse(line);
        if (change["hash"] != movingHash || !change.contains("set")) continue;
        const auto& set = change["set"];
        steps.push_back(set.value("path", "") + (set.value("force", false) ? " force" : "") +
                        (set.value("delivered", false) ? " delivered" : ""));
    }
    ASSERT_GE(steps.size(), 2u);
    EXPECT_EQ(steps[steps.size() - 2], late2 + " force");
    EXPECT_EQ(steps.back(), late2 + " delivered");
    // Delivered now, they are not delivered again.
    ZnvRun third = user.run({"--server", server, "--json", "resume"});
    EXPECT_EQ(third.status, 0) << third.err;
    EXPECT_EQ(completions(third), 0) << third.out;
}

// One command with many files: each gets exactly one remote file, however
// the refreshes of fifty queued uploads interleave with the account.
TEST_F(ZnvCliTest, FiftyFilesMakeFiftyCreatesAndFiftyRemoteFiles) {
    const std::string server = server_;
    ZnvUser user;
    std::vector<std::string> args = {"--server", server, "--json", "upload"};
    std::map<std::string, std::string> sources;  // name -> path
    for (int i = 0; i < 50; ++i) {
        const std::string name = "many-" + std::to_string(i) + ".bin";
        sources[name] = file(name, 1000 + 37 * static_cast<uint64_t>(i));
        args.push_back(sources[name]);
    }
    ZnvRun up = user.run(args);
    ASSERT_EQ(up.status, 0) << up.err;
    auto summary = up.events("summary");
    ASSERT_EQ(summary.size(), 1u);
    ASSERT_EQ(summary[0]["tasks"].size(), 50u);
    std::set<std::string> reported;
    for (const auto& task : summary[0]["tasks"]) {
        const std::string id = task.value("fileId", "");
        reported.insert(id);
        EXPECT_TRUE(
            filesEqual(emulator_.dataDir() + "/files/" + id + "/content", task.value("file", "")))
            << task.dump();
        // The content URL comes from the answer that completed the file.
        EXPECT_TRUE(task.value("contentURL", "").ends_with("/content/" + id)) << task.dump();
    }
    EXPECT_EQ(reported.size(), 50u);

    // One create and one whole-file PUT per file, nothing else.
    std::set<std::string> created;
    size_t creates = 0, puts = 0, others = 0;
    for (const auto& entry : emulator_.requestLog()) {
        const std::string method = entry.value("method", ""), path = entry.value("path", "");
        if (method == "PUT" && path.ends_with("/fullfile")) {
            ++puts;
            continue;
        }
        if (method != "POST" || path != "/api/files") {
            ++others;
            ADD_FAILURE() << "unexpected request " << entry.dump();
            continue;
        }
        ++creates;
        created.insert(entry.value("fileId", ""));
    }
    EXPECT_EQ(creates, 50u);
    EXPECT_EQ(puts, 50u);
    EXPECT_EQ(others, 0u);
    EXPECT_TRUE(created == reported)
        << created.size() << " files created, " << reported.size() << " reported";
    size_t remote = 0;
    for ([[maybe_unused]] const auto& entry :
         std::filesystem::directory_iterator(emulator_.dataDir() + "/files")) {
        ++remote;
    }
    EXPECT_EQ(remote, 50u);
}

TEST_F(ZnvCliTest, FailuresEndWithStatus1AndTheirError) {
    const std::string server = server_;
    ZnvUser user;
    std::string copy = files_ + "/never.bin";
    ZnvRun missing = user.run({"--server", server, "--json", "download",
                               emulator_.rootURL() + "content/no-such-file", "-o", copy});
    EXPECT_EQ(missing.status, 1) << missing.out << missing.err;
    EXPECT_NE(missing.err.find("404"), std::string::npos) << missing.err;
    EXPECT_FALSE(std::filesystem::exists(copy)) << "an error page is not the file";
    expectEventSchema(missing);
    ASSERT_EQ(missing.events("summary").size(), 1u);
    EXPECT_EQ(missing.events("summary")[0].value("state", ""), "failed");
    // The queue shows it failed, with why; an unrelated later command succeeds.
    ZnvRun later = user.run({"--server", server, "upload", file("fine.bin", 2000)});
    EXPECT_EQ(later.status, 0) << later.err;
    ZnvRun status = user.run({"--json", "status"});
    expectEventSchema(status);
    std::map<std::string, std::string> states;
    const auto tasks = status.events("status").at(0)["tasks"];
    for (const auto& t : tasks)
        states[t.value("kind", "")] = t.value("state", "") + " " + t.value("error", "");
    EXPECT_TRUE(matchesShape(states["download"], "failed *404*")) << states["download"];
    EXPECT_EQ(states["upload"], "completed ");

    ZnvRun wrongToken =
        user.run({"--server", server, "--token", "not-the-token", "upload", file("t.bin", 100)});
    EXPECT_EQ(wrongToken.status, 1) << wrongToken.out << wrongToken.err;
    EXPECT_NE(wrongToken.err.find("failed"), std::string::npos) << wrongToken.err;

    ZnvRun info = user.run({"--server", server, "info", "no-such-file"});
    EXPECT_EQ(info.status, 1) << info.out << info.err;

    // A download whose destination cannot be recorded could never be
    // delivered by a later run: it fails now and is not queued.
    ZnvUser blocked;
    const std::string notADirectory = file("not-a-directory", 10);
    blocked.setEnv("XDG_STATE_HOME", notADirectory);
    ZnvRun unrecorded = blocked.run(
        {"--server", server, "--offline", "download", server + "../content/x", "-o", files_ + "/"});
    EXPECT_EQ(unrecorded.status, 1) << unrecorded.err;
    EXPECT_NE(unrecorded.err.find("cannot record download destinations"), std::string::npos)
        << unrecorded.err;
    blocked.setEnv("XDG_STATE_HOME", "");
    EXPECT_NE(blocked.run({"status"}).out.find("no tasks"), std::string::npos);
}

TEST_F(ZnvCliTest, ProfilesKeepSeparateQueuesAndStatusListsThem) {
    ZnvUser user;
    ZnvRun empty = user.run({"status"});
    ASSERT_EQ(empty.status, 0) << empty.err;
    EXPECT_NE(empty.out.find("no tasks"), std::string::npos) << empty.out;

    std::string a = file("a.bin", 5000), b = file("b.bin", 6000), c = file("c.bin", 7000);
    ASSERT_EQ(user.run({"--offline", "--profile", "work", "upload", a}).status, 0);
    ASSERT_EQ(user.run({"--offline", "--profile", "home", "upload", b, c}).status, 0);

    auto listed = [&](const std::string& profile) {
        std::vector<std::string> args = {"--json", "status"};
        if (!profile.empty()) args = {"--profile", profile, "--json", "status"};
        ZnvRun run = user.run(args);
        EXPECT_EQ(run.status, 0) << run.err;
        std::map<std::string, std::string> byFile;  // file -> ID
        auto tasks = run.events("status").at(0)["tasks"];
        for (const auto& t : tasks) {
            EXPECT_EQ(t.value("state", ""), "queued");
            byFile[t.value("file", "")] = t.value("task", "");
        }
        return byFile;
    };
    auto work = listed("work");
    auto home = listed("home");
    EXPECT_EQ(work.size(), 1u);
    EXPECT_TRUE(work.count(a));
    EXPECT_EQ(home.size(), 2u);
    EXPECT_TRUE(home.count(b) && home.count(c));
    EXPECT_TRUE(listed("").empty());
    EXPECT_EQ(listed("home"), home) << "IDs are stable across runs";
    EXPECT_NE(home[b], home[c]);

    // The plain listing of a busy queue: one row per task with its ID and state.
    ZnvRun plain = user.run({"--profile", "home", "status"});
    ASSERT_EQ(plain.status, 0);
    for (const auto& [path, id] : home) {
        EXPECT_NE(plain.out.find(id), std::string::npos) << plain.out;
        EXPECT_NE(plain.out.find(path), std::string::npos) << plain.out;
    }
    EXPECT_NE(plain.out.find("queued"), std::string::npos);

    // Cancelling one task touches only that profile; finishing removes it.
    ZnvRun cancel = user.run({"--profile", "home", "cancel", home[b]});
    ASSERT_EQ(cancel.status, 0) << cancel.err;
    ZnvRun after = user.run({"--profile", "home", "--json", "status"});
    auto afterTasks = after.events("status").at(0)["tasks"];
    ASSERT_EQ(afterTasks.size(), 2u);
    for (const auto& t : afterTasks) {
        bool cancelled = t.value("task", "") == home[b];
        EXPECT_EQ(t.value("state", ""), cancelled ? "failed" : "queued") << t.dump();
    }
    ASSERT_EQ(user.run({"--profile", "home", "finish", "--completed"}).status, 0);
    auto remaining = listed("home");
    EXPECT_EQ(remaining.size(), 1u);
    EXPECT_TRUE(remaining.count(c));
    EXPECT_EQ(listed("work"), work);
}

// One process per queue: a queue held elsewhere is refused (exit 1, naming the
// holder) once a brief wait is over, or awaited with --wait. A damaged queue is kept aside,
// reported with the kept copy's path (exit 1), and the next run starts empty.
TEST_F(ZnvCliTest, ABusyQueueIsRefusedOrAwaitedAndADamagedOneIsKept) {
    ZnvUser user;
    const std::string a = file("a.bin", 5000);
    ASSERT_EQ(user.run({"--offline", "--profile", "p", "upload", a}).status, 0);
    const std::string dir = user.home() + "/Library/Network";
    const std::string state = dir + "/p.state";
    const std::string saved = readFile(state);

    // This process holds the queue, as a running znv does.
    int fd = ::open((state + ".lock").c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600);
    ASSERT_GE(fd, 0);
    ASSERT_EQ(::flock(fd, LOCK_EX | LOCK_NB), 0);
    const std::string pid = std::to_string(::getpid());
    ASSERT_EQ(::pwrite(fd, (pid + "\n").data(), pid.size() + 1, 0),
              static_cast<ssize_t>(pid.size() + 1));
    for (const auto& args : std::vector<std::vector<std::string>>{
             {"--profile", "p", "status"}, {"--offline", "--profile", "p", "upload", a}}) {
        ZnvRun busy = user.run(args);
        EXPECT_EQ(busy.status, 1) << busy.err;
        EXPECT_NE(busy.err.find("the queue of profile p is in use by process " + pid),
                  std::string::npos)
            << busy.err;
    }
    EXPECT_EQ(readFile(state), saved);
    // Held only for a moment (a script's `status`), it is waited out.
    pid_t brief = user.start({"--profile", "p", "status"});
    std::this_thread::sleep_for(std::chrono::milliseconds(300));
    ASSERT_EQ(::flock(fd, LOCK_UN), 0);
    EXPECT_EQ(user.finish(brief).status, 0);
    ASSERT_EQ(::flock(fd, LOCK_EX | LOCK_NB), 0);

    // Ctrl-C ends a wait; a wait that is not interrupted ends with the holder.
    pid_t given = user.start({"--wait", "--profile", "p", "status"});
    ASSERT_TRUE(waitFor([&] { return user.errSoFar().find("waiting") != std::string::npos; }));
    ::kill(given, SIGINT);
    ZnvRun gaveUp = user.finish(given, std::chrono::seconds(10));
    EXPECT_EQ(gaveUp.status, 130) << gaveUp.err;
    pid_t waiting = user.start({"--wait", "--profile", "p", "--json", "status"});
    ASSERT_TRUE(waitFor([&] { return user.errSoFar().find("waiting") != std::string::npos; }));
    ::close(fd);
    ZnvRun waited = user.finish(waiting);
    ASSERT_EQ(waited.status, 0) << waited.err;
    EXPECT_EQ(waited.events("status").at(0)["tasks"].size(), 1u);

    // What the holder changes while another znv waits is seen by the one
    // that waited: it reads the download destinations once it holds the
    // queue. (The journal is long enough that its first change rewrites the
    // record from what it read.)
    const std::string journal = user.home() + "/.local/state/znv/p.downloads.journal";
    std::filesystem::create_directories(std::filesystem::path(journal).parent_path());
    std::string churn;
    for (int i = 0; i < 70; ++i)
        churn += R"({"hash":"churn","set":{"path":"/tmp/churn"}})"
                 "\n";
    writeFile(journal, churn);
    fd = ::open((state + ".lock").c_str(), O_RDWR | O_CLOEXEC);
    ASSERT_EQ(::flock(fd, LOCK_EX | LOCK_NB), 0);
    pid_t later = user.start({"--wait", "--offline", "--profile", "p", "download",
                              "http://127.0.0.1:9/content/x", "-o", files_ + "/later.bin"});
    ASSERT_TRUE(waitFor([&] { return user.errSoFar().find("waiting") != std::string::npos; }));
    writeFile(journal, churn + R"({"hash":"meanwhile","set":{"path":"/tmp/meanwhile"}})"
                               "\n");
    ::close(fd);
    ZnvRun queuedLater = user.finish(later);
    ASSERT_EQ(queuedLater.status, 0) << queuedLater.err;
    const std::string record = readFile(user.home() + "/.local/state/znv/p.downloads.json");
    EXPECT_NE(record.find("/tmp/meanwhile"), std::string::npos) << record;
    EXPECT_NE(record.find("later.bin"), std::string::npos) << record;

    const std::string damage = R"({"hello":"world"})";
    writeFile(state, damage);
    ZnvRun damaged = user.run({"--profile", "p", "status"});
    EXPECT_EQ(damaged.status, 1);
    std::vector<std::string> kept;
    for (const auto& entry : std::filesystem::directory_iterator(dir)) {
        if (entry.path().filename().string().rfind("p.state.damaged-", 0) == 0)
            kept.push_back(entry.path().string());
    }
    ASSERT_EQ(kept.size(), 1u);
    EXPECT_EQ(readFile(kept[0]), damage);
    EXPECT_NE(damaged.err.find(kept[0]), std::string::npos) << damaged.err;
    ZnvRun next = user.run({"--profile", "p", "status"});
    EXPECT_EQ(next.status, 0) << next.err;
    EXPECT_NE(next.out.find("no tasks"), std::string::npos) << next.out;
    // The longest profile name leaves room for the name its damaged queue is
    // kept under: a queue left in place would be replaced by the next save.
    const std::string longest(128, 'l');
    writeFile(dir + "/" + longest + ".state", damage);
    ZnvRun longDamaged = user.run({"--profile", longest, "--offline", "upload", a});
    EXPECT_EQ(longDamaged.status, 0) << longDamaged.err;
    EXPECT_NE(longDamaged.err.find(longest + ".state.damaged-"), std::string::npos)
        << longDamaged.err;
    // A command that runs the queue says so and goes on with the empty one.
    writeFile(state, damage);
    ZnvRun afterDamage =
        user.run({"--profile", "p", "--offline", "upload", file("after-damage.bin", 10)});
    EXPECT_EQ(afterDamage.status, 0) << afterDamage.err;
    EXPECT_NE(afterDamage.err.find("the queue starts empty"), std::string::npos) << afterDamage.err;

    // So is the file of download destinations, whatever is in its place.
    const std::string destinations = user.home() + "/.local/state/znv/p.downloads.json";
    std::filesystem::remove(destinations);
    std::filesystem::remove(journal);
    std::filesystem::create_directories(destinations);
    writeFile(destinations + "/inside", "x");
    ZnvRun noDestinations = user.run({"--profile", "p", "status"});
    EXPECT_EQ(noDestinations.status, 0) << noDestinations.err;
    EXPECT_NE(noDestinations.err.find("p.downloads.json.damaged-"), std::string::npos)
        << noDestinations.err;
    EXPECT_FALSE(std::filesystem::exists(destinations));
    EXPECT_EQ(user.run({"--profile", "p", "status"}).err, "");
    // A FIFO in the place of znv's own files is not waited on.
    ASSERT_EQ(::mkfifo(journal.c_str(), 0600), 0);
    std::filesystem::remove(dir + "/p.server");
    ASSERT_EQ(::mkfifo((dir + "/p.server").c_str(), 0600), 0);
    const std::string log = user.home() + "/.local/state/znv/znv.log";
    std::filesystem::remove(log);
    ASSERT_EQ(::mkfifo(log.c_str(), 0600), 0);
    ZnvRun fifos = user.run({"--profile", "p", "status"}, std::chrono::seconds(30));
    EXPECT_EQ(fifos.status, 0) << fifos.err;
    EXPECT_NE(fifos.err.find("p.downloads.journal.damaged-"), std::string::npos) << fifos.err;
    EXPECT_NE(fifos.err.find("the log is not written"), std::string::npos) << fifos.err;
    std::filesystem::remove(log);

    // A lock that cannot be taken at all is not waited for.
    std::filesystem::remove(dir + "/p.state.lock");
    std::filesystem::create_symlink("/nonexistent/lock", dir + "/p.state.lock");
    ZnvRun unlockable = user.run({"--wait", "--profile", "p", "status"}, std::chrono::seconds(30));
    EXPECT_EQ(unlockable.status, 1) << unlockable.err;
    EXPECT_NE(unlockable.err.find("the queue of profile p cannot be used"), std::string::npos)
        << unlockable.err;
    std::filesystem::remove(dir + "/p.state.lock");

    // The built-in emulator's data is waited for like the queue.
    const std::string emulatorLock = user.home() + "/.local/share/znv/emulator.lock";
    std::filesystem::create_directories(std::filesystem::path(emulatorLock).parent_path());
    fd = ::open(emulatorLock.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600);
    ASSERT_EQ(::flock(fd, LOCK_EX | LOCK_NB), 0);
    EXPECT_NE(user.run({"--profile", "e", "upload", file("e.bin", 10)}).err.find("emulator data"),
              std::string::npos);
    pid_t builtIn = user.start({"--wait", "--profile", "e", "upload", file("e.bin", 10)});
    ASSERT_TRUE(waitFor([&] { return user.errSoFar().find("waiting") != std::string::npos; }));
    ::close(fd);
    ZnvRun uploaded = user.finish(builtIn);
    EXPECT_EQ(uploaded.status, 0) << uploaded.err;
}

TEST_F(ZnvCliTest, EmulatorCommandListensOnAKernelChosenPortUntilTerminated) {
    ZnvUser user;
    ZnvUser client;
    // The data directory may lie where others can write: a link planted at
    // the name of its port file is not written through.
    const std::string victim = file("victim.txt", 10);
    const std::string data = std::filesystem::path(victim).parent_path().string() + "/data";
    const std::string before = readFile(victim);
    std::filesystem::create_symlink(victim, data + ".port");
    pid_t pid = user.start({"--json", "emulator", "--port", "0", "--token", "t0k", "--data", data});
    std::string url;
    ASSERT_TRUE(waitFor(
        [&] {
            ZnvRun partial;
            partial.out = user.outSoFar();
            auto listening = partial.events("listening");
            if (!listening.empty()) url = listening[0].value("url", "");
            return !url.empty();
        },
        std::chrono::seconds(30)));
    std::string source = file("e.bin", 3000);
    ZnvRun up = client.run({"--server", url, "--token", "t0k", "--json", "upload", source});
    EXPECT_EQ(up.status, 0) << up.out << up.err;
    kill(pid, SIGTERM);
    ZnvRun stopped = user.finish(pid, std::chrono::seconds(30));
    EXPECT_EQ(stopped.status, 0) << stopped.err;
    EXPECT_EQ(readFile(victim), before);
}

TEST_F(ZnvCliTest, DemoUploadsBothWaysAndVerifiesTheCopies) {
    ZnvUser user;
    ZnvRun demo = user.run({"demo", "--size", std::to_string(kChunk + 1000)});
    ASSERT_EQ(demo.status, 0) << demo.out << demo.err;
    EXPECT_NE(demo.out.find("verified"), std::string::npos) << demo.out;
    size_t matches = 0;
    for (size_t at = 0; (at = demo.out.find(" yes", at)) != std::string::npos; ++at)
        ++matches;
    EXPECT_EQ(matches, 4u) << demo.out;
    EXPECT_EQ(demo.out.find("sent as"), std::string::npos) << "each path was used as labelled";
    // The demo leaves no queue behind (looked at before `status` makes its lock file).
    std::error_code ec;
    EXPECT_TRUE(!std::filesystem::exists(user.home() + "/Library/Network", ec) ||
                std::filesystem::is_empty(user.home() + "/Library/Network", ec));
    EXPECT_TRUE(user.run({"status"}).out.find("no tasks") != std::string::npos);
}

}  // namespace
}  // namespace znv::test
