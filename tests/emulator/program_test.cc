// The znv-emulator program: flags, the first line it prints, signals, and the
// memory it needs for a large upload.
#include <signal.h>

#include <chrono>
#include <cstdio>
#include <filesystem>

#include <gtest/gtest.h>

#include "tests/emulator/http.h"
#include "tests/support/emulator_process.h"
#include "tests/support/test_support.h"

namespace znv::emulator::test {
namespace {

using namespace std::chrono_literals;

const std::string kProgram = std::string(ZNV_BUILD_DIR) + "/znv-emulator";

using znv::test::EmulatorProcess;

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

// On disk and as a sink, with a token, an admin token and a fault rule
// given as flags; either signal stops it cleanly.
TEST(Program, PrintsItsURLFirstHonoursItsFlagsAndStopsCleanlyOnSignals) {
    for (int signal : {SIGTERM, SIGINT}) {
        const bool sink = signal == SIGINT;
        std::string data = znv::test::makeTempDir("data");
        std::vector<std::string> args = {"--token", "t0k", "--fault",
                                         R"({"path": "/api/files/*", "status": 507, "times": 1})"};
        if (sink) {
            args.insert(args.end(), {"--sink", "--admin-token", "adm"});
        } else {
            args.insert(args.end(), {"--data", data});
        }
        EmulatorProcess program(args);
        const std::string base = program.firstLine();
        ASSERT_EQ(base.rfind("http://127.0.0.1:", 0), 0u) << base;
        ASSERT_EQ(base.substr(base.size() - 5), "/api/");
        const std::string auth = "Authorization: Bearer t0k";
        EXPECT_EQ(get(base + "files/x", {auth}).status, 507);
        EXPECT_EQ(get(base + "files/x", {auth}).status, 404);
        EXPECT_EQ(get(base + "files/x", {"Authorization: Bearer dev-token"}).status, 401);
        if (sink) {
            // The sink keeps lengths, not bytes; its log answers to the admin token only.
            const std::string root = base.substr(0, base.size() - 4);
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
            ASSERT_EQ(log.json().size(), 6u);
            EXPECT_EQ(log.json()[4]["bodySize"], 5000);
            EXPECT_EQ(log.json()[4]["headers"]["Authorization"], "Bearer t0k");
        }
        EXPECT_EQ(program.stop(signal, 10s), 0);
        EXPECT_EQ(std::filesystem::is_directory(data + "/files"), !sink);
    }
}

// A 1 GiB upload streams to disk: the emulator's peak resident memory stays
// flat whatever the body size.
TEST(Program, HeavyFullFileUploadKeepsMemoryFlat) {
    const uint64_t size = 1ull << 30;
    std::string dir = znv::test::makeTempDir("heavy");
    std::string source = dir + "/source.bin";
    znv::test::writePatternFile(source, size, 7);
    EmulatorProcess program({"--data", dir + "/data", "--max-full-file", std::to_string(size)});
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
