// Hostile names and the truth about the queue, through the znv binary:
// downloads stay one file inside their directory, a profile's queue stays
// with its server, and `status` and exit statuses say what really happened.

#include <gtest/gtest.h>
#include <httplib.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <filesystem>
#include <set>
#include <thread>

#include "tests/cli/znv_process.h"
#include "tests/support/test_support.h"

namespace znv::test {
namespace {

namespace fs = std::filesystem;

std::set<std::string> namesIn(const std::string& directory) {
    std::set<std::string> names;
    for (const auto& entry : fs::directory_iterator(directory))
        names.insert(entry.path().filename().string());
    return names;
}

// A web server that answers every GET with a new body ("body 1", "body 2",
// ...) and, when the query has `cd`, that value as Content-Disposition.
class NamingServer {
  public:
    NamingServer() {
        server_.Get(".*", [this](const httplib::Request& request, httplib::Response& response) {
            if (request.has_param("cd")) {
                response.set_header("Content-Disposition", request.get_param_value("cd"));
            }
            response.set_content("body " + std::to_string(++served_), "application/octet-stream");
        });
        port_ = server_.bind_to_any_port("127.0.0.1");
        thread_ = std::thread([this] { server_.listen_after_bind(); });
    }
    ~NamingServer() {
        server_.stop();
        thread_.join();
    }
    std::string url(const std::string& pathAndQuery) const {
        return "http://127.0.0.1:" + std::to_string(port_) + pathAndQuery;
    }

  private:
    httplib::Server server_;
    std::atomic<int> served_{0};
    int port_ = 0;
    std::thread thread_;
};

using ZnvQueueSafetyTest = ZnvTest;

TEST_F(ZnvQueueSafetyTest, DownloadNamesAreOneSafeComponentInsideTheTarget) {
    NamingServer web;
    ZnvUser user;
    std::string root = makeTempDir("target");
    std::string dl = root + "/dl", victim = root + "/victim/important.conf";
    fs::create_directories(dl);
    fs::create_directories(root + "/victim");
    writeFile(victim, "keep");
    fs::create_symlink("../victim/important.conf", dl + "/link.txt");
    writeFile(dl + "/chosen.bin", "mine");

    struct Case {
        std::string url;
        std::vector<std::string> extra;  // after the URL
        std::string expected;            // name inside dl
    };
    const std::string longName(300, 'a');
    std::vector<Case> cases = {
        {web.url("/files/..%2F..%2Fvictim%2Fimportant.conf"), {}, "download"},
        {web.url("/files/%2Fetc%2Fpasswd"), {}, "_etc_passwd"},
        {web.url("/f/x.a%2Fb"), {}, "x.a_b"},
        {web.url("/f/id?cd=attachment%3B%20filename%3D%22report.pdf%22"), {}, "report.pdf"},
        {web.url("/f/id?cd=attachment%3B%20filename%3D%22report.pdf%22"), {}, "report (1).pdf"},
        {web.url(
             "/f/evil.txt?cd=attachment%3B%20filename%3D%22..%2F..%2Fvictim%2Fimportant.conf%22"),
         {},
         "evil.txt"},
        {web.url("/?cd=attachment%3B%20filename%3D.bashrc"), {}, "download (1)"},
        {web.url("/f/"
                 "id?cd=attachment%3B%20filename*%3DUTF-8''%25E2%2582%25AC%2520rates%251B%255B2J%"
                 "250A.txt"),
         {},
         "\xe2\x82\xac rates[2J.txt"},
        {web.url("/f/id?cd=attachment%3B%20filename%3D" + longName + ".txt"),
         {},
         std::string(251, 'a') + ".txt"},
        {web.url("/f/id?cd=attachment%3B%20filename%3Dlink.txt"), {}, "link (1).txt"},
        {web.url("/f/id?cd=attachment%3B%20filename%3Dlink.txt"), {"-f"}, "link.txt"},
        {web.url("/f/other"), {"-o", dl + "/chosen.bin"}, "chosen (1).bin"},
    };
    mode_t old = ::umask(027);
    std::set<std::string> expected = {"chosen.bin"};
    for (const auto& c : cases) {
        SCOPED_TRACE(c.url);
        std::vector<std::string> args = {"--server", server_, "--json", "download", c.url};
        args.insert(args.end(), c.extra.begin(), c.extra.end());
        if (std::find(c.extra.begin(), c.extra.end(), "-o") == c.extra.end()) {
            args.push_back("-o");
            args.push_back(dl + "/");
        }
        ZnvRun run = user.run(args);
        ASSERT_EQ(run.status, 0) << run.out << run.err;
        auto summary = run.events("summary");
        ASSERT_EQ(summary.size(), 1u) << run.out;
        std::string path = summary[0]["tasks"][0].value("file", "");
        EXPECT_EQ(path, dl + "/" + c.expected);
        struct stat st {};
        ASSERT_EQ(::lstat(path.c_str(), &st), 0) << path;
        EXPECT_TRUE(S_ISREG(st.st_mode));
        EXPECT_EQ(st.st_mode & 0777, 0640u) << "0666 less the umask";
        EXPECT_EQ(readFile(path).rfind("body ", 0), 0u);
        expected.insert(c.expected);
    }
    ::umask(old);
    EXPECT_EQ(namesIn(dl), expected);
    EXPECT_EQ(namesIn(root), (std::set<std::string>{"dl", "victim"}));
    EXPECT_EQ(readFile(victim), "keep");
    EXPECT_EQ(readFile(dl + "/chosen.bin"), "mine");
    // The library's own file area holds plain files only.
    for (const auto& entry : fs::directory_iterator(user.home() + "/Library/Network"))
        EXPECT_FALSE(entry.is_directory()) << entry.path();

    // A content URL of the service is named after the remote file.
    ZnvRun up = user.run({"--server", server_, "--json", "upload", file("holiday photo.jpg", 999)});
    ASSERT_EQ(up.status, 0) << up.err;
    auto uploaded = up.events("summary").at(0)["tasks"][0];
    std::string fromService = makeTempDir("service");
    ZnvRun down = user.run(
        {"--server", server_, "download", uploaded.value("contentURL", ""), "-o", fromService});
    ASSERT_EQ(down.status, 0) << down.err;
    EXPECT_EQ(down.out, fromService + "/holidayphoto.jpg\n");
}

TEST_F(ZnvQueueSafetyTest, AProfileStaysWithTheServerItWasFirstUsedWith) {
    emulator::Emulator other;
    std::string error;
    ASSERT_TRUE(other.start(&error)) << error;
    ZnvUser user;
    std::string a = file("a.bin", 4000), b = file("b.bin", 5000);

    ASSERT_EQ(user.run({"--server", server_, "--offline", "upload", a}).status, 0);
    ZnvRun elsewhere = user.run({"--server", other.baseURL(), "upload", b});
    EXPECT_EQ(elsewhere.status, 2);
    EXPECT_NE(elsewhere.err.find(server_), std::string::npos) << elsewhere.err;
    EXPECT_NE(elsewhere.err.find(other.baseURL()), std::string::npos) << elsewhere.err;
    EXPECT_NE(elsewhere.err.find("--profile"), std::string::npos) << elsewhere.err;
    ZnvRun builtIn = user.run({"resume"});
    EXPECT_EQ(builtIn.status, 2);
    EXPECT_NE(builtIn.err.find("built-in emulator"), std::string::npos) << builtIn.err;
    EXPECT_TRUE(other.requestLog().empty()) << other.requestLog().dump();
    EXPECT_NE(user.run({"status"}).out.find("server:  " + server_), std::string::npos);

    ZnvRun resumed = user.run({"--server", server_, "resume"});
    EXPECT_EQ(resumed.status, 0) << resumed.err;
    EXPECT_NE(resumed.out.find(server_.substr(0, server_.find("/api"))), std::string::npos)
        << resumed.out;

    // The built-in emulator binds a profile of its own just the same.
    ASSERT_EQ(user.run({"--profile", "solo", "upload", b}).status, 0);
    ZnvRun away = user.run({"--profile", "solo", "--server", server_, "upload", b});
    EXPECT_EQ(away.status, 2);
    EXPECT_NE(away.err.find("bound to the built-in emulator"), std::string::npos) << away.err;
    EXPECT_TRUE(other.requestLog().empty());

    // A binding file that names no server (left empty, or a link) binds
    // nothing: the next use binds the profile, and binds it for good.
    const std::string network = user.home() + "/Library/Network/";
    writeFile(network + "blank.server", "");
    fs::create_symlink(network + "live.server", network + "linked.server");
    for (const std::string profile : {"blank", "linked"}) {
        SCOPED_TRACE(profile);
        ZnvRun bound =
            user.run({"--profile", profile, "--server", other.baseURL(), "--offline", "upload", a});
        EXPECT_EQ(bound.status, 0) << bound.err;
        EXPECT_EQ(readFile(network + profile + ".server"), other.baseURL() + "\n");
        EXPECT_EQ(user.run({"--profile", profile, "--server", server_, "resume"}).status, 2);
    }
    EXPECT_EQ(readFile(network + "live.server"), server_ + "\n");
}

TEST_F(ZnvQueueSafetyTest, StatusAndExitStatusSayWhatHappenedToEachTask) {
    ZnvUser user;
    // An upload to a server that is gone retries, then fails; status says so, with why.
    std::string deadURL;
    {
        emulator::Emulator gone;
        std::string error;
        ASSERT_TRUE(gone.start(&error)) << error;
        deadURL = gone.baseURL();
    }
    std::vector<std::string> dead = {"--profile", "dead", "--server", deadURL};
    auto with = [](std::vector<std::string> base, std::vector<std::string> more) {
        base.insert(base.end(), more.begin(), more.end());
        return base;
    };
    ZnvRun attempt = user.run(with(dead, {"--json", "upload", file("r.bin", 3000)}));
    EXPECT_EQ(attempt.status, 1);
    size_t retries = 0;
    for (const auto& e : attempt.events("state")) {
        if (e.value("state", "") == "retrying" && !e.value("error", "").empty()) ++retries;
    }
    EXPECT_GT(retries, 0u) << attempt.out;
    // Its attempts are used up: the queue shows it failed, with why, not as a success.
    ZnvRun waiting = user.run(with(dead, {"--json", "status"}));
    auto task = waiting.events("status").at(0)["tasks"].at(0);
    EXPECT_EQ(task.value("state", ""), "failed") << task.dump();
    EXPECT_FALSE(task.value("error", "").empty()) << task.dump();
    EXPECT_NE(user.run(with(dead, {"status"})).out.find("failed"), std::string::npos);

    // A resumed task that fails while the queue is restored fails the resume.
    std::string gone = file("gone.bin", 3000);
    ASSERT_EQ(user.run({"--server", server_, "--offline", "upload", gone}).status, 0);
    fs::remove(gone);
    ZnvRun resumed = user.run({"--server", server_, "resume"});
    EXPECT_EQ(resumed.status, 1) << resumed.err;
    EXPECT_NE(resumed.err.find("gone.bin failed"), std::string::npos) << resumed.err;
    // A file that changed after its upload started cannot be retried as such.
    std::string changed = file("changed.bin", 3000);
    ASSERT_EQ(user.run({"--server", server_, "--offline", "upload", changed}).status, 0);
    writeFile(changed, std::string(4000, 'x'));
    ZnvRun changedRun = user.run({"--server", server_, "--json", "resume"});
    EXPECT_EQ(changedRun.status, 1) << changedRun.err;
    const std::string changedID = changedRun.events("queued").back().value("task", "");
    ZnvRun retried = user.run({"--server", server_, "retry", changedID});
    EXPECT_EQ(retried.status, 2) << retried.err;
    EXPECT_NE(retried.err.find("upload it again (znv upload " + changed + ")"), std::string::npos)
        << retried.err;

    // Queued offline, tasks exist only in the saved queue: a save that does
    // not reach the disk (here: files may not grow past 32 KiB) fails the
    // command and names why: the queue on disk lacks some of them.
    std::vector<std::string> full = {"--profile", "full",      "--server",
                                     server_,     "--offline", "upload"};
    ASSERT_EQ(user.run(with(full, {file("first.bin", 100)})).status, 0);
    for (int i = 0; i < 80; ++i)
        full.push_back(file("many" + std::to_string(i), 100));
    struct rlimit unlimited {};
    ASSERT_EQ(::getrlimit(RLIMIT_FSIZE, &unlimited), 0);
    struct rlimit small = unlimited;
    small.rlim_cur = 32 * 1024;
    auto previous = ::signal(SIGXFSZ, SIG_IGN);  // the write fails instead
    ASSERT_EQ(::setrlimit(RLIMIT_FSIZE, &small), 0);
    pid_t pid = user.start(full);
    ::setrlimit(RLIMIT_FSIZE, &unlimited);
    ::signal(SIGXFSZ, previous);
    ZnvRun unsaved = user.finish(pid);
    EXPECT_EQ(unsaved.status, 1) << unsaved.err;
    EXPECT_NE(unsaved.err.find("znv: the queue could not be saved: "), std::string::npos)
        << unsaved.err;
    EXPECT_EQ(unsaved.err.find("task(s) queued"), std::string::npos) << unsaved.err;
    // No half-written file is left to keep the disk full.
    EXPECT_FALSE(fs::exists(user.home() + "/Library/Network/full.state.tmp"));
    ZnvRun after = user.run({"--profile", "full", "--server", server_, "--json", "status"});
    EXPECT_LT(after.events("status").at(0)["tasks"].size(), 81u) << after.out;
}

// A command ends when its own tasks do: an old task of the queue whose server
// never answers runs alongside, stays queued, and is named in a note.
TEST_F(ZnvQueueSafetyTest, AnOldTaskThatCannotFinishDoesNotHoldUpALaterCommand) {
    ZnvUser user;
    ASSERT_TRUE(emulator_.addFault({{"method", "GET"}, {"path", "/stuck"}, {"action", "stall"}}));
    const std::string out = user.home() + "/out";
    fs::create_directories(out);
    ASSERT_EQ(user.run({"--server", server_, "--offline", "download", emulator_.rootURL() + "stuck",
                        "-o", out + "/"})
                  .status,
              0);
    const auto started = std::chrono::steady_clock::now();
    ZnvRun later = user.run({"--server", server_, "--json", "upload", file("later.bin", 100)},
                            std::chrono::seconds(60));
    EXPECT_LT(std::chrono::steady_clock::now() - started, std::chrono::seconds(20));
    EXPECT_EQ(later.status, 0) << later.err;
    auto summary = later.events("summary");
    ASSERT_EQ(summary.size(), 1u) << later.out;
    ASSERT_EQ(summary[0]["tasks"].size(), 1u) << later.out;
    EXPECT_EQ(summary[0]["tasks"][0].value("kind", ""), "upload");
    EXPECT_TRUE(summary[0].value("ok", false)) << later.out;
    bool named = false;
    for (const auto& note : later.events("note"))
        named = named || note.dump().find("1 other task(s)") != std::string::npos;
    EXPECT_TRUE(named) << later.out;
    ZnvRun status = user.run({"--server", server_, "--json", "status"});
    const auto listed = status.events("status").at(0)["tasks"];
    size_t downloads = 0;
    for (const auto& task : listed)
        downloads += task.value("kind", "") == "download" && task.value("state", "") != "completed";
    EXPECT_EQ(downloads, 1u) << status.out;
}

}  // namespace
}  // namespace znv::test
