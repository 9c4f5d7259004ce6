// The znv-emulator program: flags, the first line it prints, signals, and the
// memory it needs for a large upload.
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <thread>

#include <gtest/gtest.h>

#include "tests/emulator/http.h"
#include "tests/support/test_support.h"

extern char** environ;

namespace znv::emulator::test {
namespace {

using namespace std::chrono_literals;

const std::string kProgram = std::string(ZNV_BUILD_DIR) + "/znv-emulator";

// The program running in the background, with its first output line read.
class Program {
  public:
    explicit Program(std::vector<std::string> args) {
        int out[2];
        if (pipe(out) != 0) return;
        posix_spawn_file_actions_t actions;
        posix_spawn_file_actions_init(&actions);
        posix_spawn_file_actions_adddup2(&actions, out[1], STDOUT_FILENO);
        posix_spawn_file_actions_addclose(&actions, out[0]);
        args.insert(args.begin(), kProgram);
        std::vector<char*> argv;
        for (auto& a : args)
            argv.push_back(a.data());
        argv.push_back(nullptr);
        if (posix_spawn(&pid_, kProgram.c_str(), &actions, nullptr, argv.data(), environ) != 0) {
            pid_ = -1;
        }
        posix_spawn_file_actions_destroy(&actions);
        close(out[1]);
        out_ = fdopen(out[0], "r");
        char line[512];
        if (pid_ > 0 && std::fgets(line, sizeof line, out_)) {
            firstLine_ = line;
            if (!firstLine_.empty() && firstLine_.back() == '\n') firstLine_.pop_back();
        }
    }
    ~Program() {
        if (pid_ > 0) {
            kill(pid_, SIGKILL);
            waitpid(pid_, nullptr, 0);
        }
        if (out_) std::fclose(out_);
    }

    pid_t pid() const { return pid_; }
    const std::string& firstLine() const { return firstLine_; }

    // Sends `signal` and returns the exit status, or -1 if it does not end in time.
    int signalAndWait(int signal, std::chrono::milliseconds timeout) {
        kill(pid_, signal);
        int status = 0;
        bool ended =
            znv::test::waitFor([&] { return waitpid(pid_, &status, WNOHANG) == pid_; }, timeout);
        if (!ended) return -1;
        pid_ = -1;
        return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
    }

    // Peak resident memory (VmHWM), in bytes.
    uint64_t peakRSS() const {
        std::ifstream status("/proc/" + std::to_string(pid_) + "/status");
        std::string line;
        while (std::getline(status, line)) {
            if (line.rfind("VmHWM:", 0) == 0) return std::stoull(line.substr(6)) * 1024;
        }
        return 0;
    }

  private:
    pid_t pid_ = -1;
    FILE* out_ = nullptr;
    std::string firstLine_;
};

TEST(Program, BadFlagsAndUnusableDataDirectoriesExitWithTwo) {
    std::string file = znv::test::makeTempDir("flags") + "/plain-file";
    znv::test::writeFile(file, "x");
    for (const std::string& args :
         {std::string("--bogus"), std::string("--port"), std::string("--port 70000"),
          std::string("--port abc"), std::string("--max-full-file -1"), std::string("--fault '{'"),
          std::string("--fault '{\"action\": \"nope\"}'"), "--data " + file,
          "--data " + file + "/below", "--sink --data " + file + "-sink", std::string("--sink=yes"),
          std::string("--admin-token=")}) {
        auto result = run(kProgram + " " + args + " 2>/dev/null");
        EXPECT_EQ(result.status, 2) << args;
        EXPECT_EQ(result.output, "") << args;  // nothing on standard output
    }
}

TEST(Program, PrintsItsURLFirstAndStopsCleanlyOnSignals) {
    for (int signal : {SIGTERM, SIGINT}) {
        std::string data = znv::test::makeTempDir("data");
        Program program({"--port", "0", "--data", data, "--token", "t0k", "--fault",
                         R"({"path": "/api/files/*", "status": 507, "times": 1})"});
        ASSERT_EQ(program.firstLine().rfind("http://127.0.0.1:", 0), 0u) << program.firstLine();
        ASSERT_EQ(program.firstLine().substr(program.firstLine().size() - 5), "/api/");
        const std::string base = program.firstLine();
        EXPECT_EQ(get(base + "files/x", {"Authorization: Bearer t0k"}).status, 507);
        EXPECT_EQ(get(base + "files/x", {"Authorization: Bearer t0k"}).status, 404);
        EXPECT_EQ(get(base + "files/x", {"Authorization: Bearer dev-token"}).status, 401);
        EXPECT_EQ(program.signalAndWait(signal, 10s), 0);
        EXPECT_TRUE(std::filesystem::is_directory(data + "/files"));
    }
}

TEST(Program, SinkWithItsOwnAdminToken) {
    Program program({"--sink", "--token", "t0k", "--admin-token", "adm"});
    const std::string base = program.firstLine();
    ASSERT_EQ(base.rfind("http://127.0.0.1:", 0), 0u) << base;
    const std::string root = base.substr(0, base.size() - 4);
    const std::string auth = "Authorization: Bearer t0k";
    auto created = sendJSON("POST", base + "files", R"({"fileName": "z.bin"})",
                            {auth, "Content-Type: application/json"});
    ASSERT_EQ(created.status, 201) << created.body;
    std::string id = created.json()["fileId"];
    HttpRequest put;
    put.method = "PUT";
    put.url = base + "files/" + id + "/fullfile";
    put.headers = {auth};
    put.body = std::string(5000, 'x');
    ASSERT_EQ(perform(put).status, 200);
    auto content = get(root + "content/" + id, {"Range: bytes=4990-"});
    EXPECT_EQ(content.status, 206);
    EXPECT_EQ(content.body, std::string(10, '\0'));
    EXPECT_EQ(get(root + "_admin/requests", {auth}).status, 401);
    auto log = get(root + "_admin/requests", {"Authorization: Bearer adm"});
    ASSERT_EQ(log.status, 200);
    ASSERT_EQ(log.json().size(), 3u);
    EXPECT_EQ(log.json()[1]["bodySize"], 5000);
    EXPECT_EQ(log.json()[1]["headers"]["Authorization"], "Bearer t0k");
    EXPECT_EQ(program.signalAndWait(SIGTERM, 10s), 0);
}

// A 1 GiB upload streams to disk: the emulator's peak resident memory stays
// flat whatever the body size.
TEST(Program, HeavyFullFileUploadKeepsMemoryFlat) {
    const uint64_t size = 1ull << 30;
    std::string dir = znv::test::makeTempDir("heavy");
    std::string source = dir + "/source.bin";
    znv::test::writePatternFile(source, size, 7);
    Program program(
        {"--port", "0", "--data", dir + "/data", "--max-full-file", std::to_string(size)});
    const std::string base = program.firstLine();
    ASSERT_FALSE(base.empty());
    auto created = sendJSON("POST", base + "files", R"({"fileName": "big.bin"})");
    std::string id = created.json()["fileId"];

    HttpRequest request;
    request.method = "PUT";
    request.url = base + "files/" + id + "/fullfile";
    request.headers = {kAuth, "Content-Type: application/octet-stream"};
    request.uploadFile = source;
    request.timeout = 300s;
    auto start = std::chrono::steady_clock::now();
    auto uploaded = perform(request);
    double seconds =
        std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
    ASSERT_EQ(uploaded.status, 200) << uploaded.curlError << uploaded.body;

    uint64_t peak = program.peakRSS();
    std::printf("emulator peak RSS %.1f MiB after a 1 GiB upload at %.0f MiB/s\n",
                static_cast<double>(peak) / (1 << 20), 1024.0 / seconds);
    RecordProperty("peak_rss_bytes", std::to_string(peak));
    EXPECT_GT(peak, 0u);
#if defined(__SANITIZE_THREAD__)
    // The thread sanitizer's shadow memory counts in the emulator's RSS.
    EXPECT_LT(peak, 128ull << 20);
#else
    EXPECT_LT(peak, 64ull << 20);
#endif
    EXPECT_TRUE(znv::test::filesEqual(source, dir + "/data/files/" + id + "/content"));
}

}  // namespace
}  // namespace znv::emulator::test
