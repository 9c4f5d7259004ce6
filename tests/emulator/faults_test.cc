#include "apps/emulator/faults.h"

#include <curl/curl.h>

#include <future>
#include <thread>

#include "tests/emulator/fixture.h"
#include "tests/support/test_support.h"

namespace znv::emulator::test {
namespace {

using nlohmann::json;
using namespace std::chrono_literals;

TEST(FaultRules, PathPatternsStayWithinSegmentsUnlessDoubled) {
    EXPECT_TRUE(pathMatches("/api/files/*/fullfile", "/api/files/F1/fullfile"));
    EXPECT_FALSE(pathMatches("/api/files/*", "/api/files/F1/fullfile"));
    EXPECT_TRUE(pathMatches("/api/files/*", "/api/files/F1"));
    EXPECT_TRUE(pathMatches("/api/**", "/api/files/F1/complete"));
    EXPECT_TRUE(pathMatches("**/complete", "/api/files/F1/complete"));
    EXPECT_FALSE(pathMatches("/api/files", "/api/files/F1"));
    EXPECT_TRUE(pathMatches("", "/anything"));
}

TEST(FaultRules, RejectsRulesItCannotRead) {
    FaultSet faults;
    std::string error;
    for (const char* bad :
         {R"({"action": "explode"})", R"({"action": "throttle"})",
          R"({"action": "missingChunks", "chunks": [-1]})", R"({"status": 42})",
          R"({"times": "twice", "status": 503})", R"([{"status": 503}, 7])", R"("status")"}) {
        error.clear();
        EXPECT_FALSE(faults.add(json::parse(bad), &error)) << bad;
        EXPECT_FALSE(error.empty()) << bad;
    }
    EXPECT_EQ(faults.toJSON(), json::array());  // a bad array adds none of its rules

    // Rules built in C++ carry signed integers; non-negative ones are indices.
    EXPECT_TRUE(
        faults.add(json{{"action", "missingChunks"}, {"chunks", {0, 3}}, {"times", 1}}, &error))
        << error;
    EXPECT_FALSE(faults.add(json{{"action", "missingChunks"}, {"chunks", {2, -3}}}, &error));
    EXPECT_EQ(faults.toJSON().size(), 1u);
}

using FaultTest = EmulatorTest;

TEST_F(FaultTest, StatusRuleAnswersForItsUsesOnly) {
    std::string id = createFile();
    ASSERT_TRUE(emulator_.addFault(json::parse(R"({"method": "GET", "path": "/api/files/*",
        "status": 503, "times": 2, "skip": 1, "headers": {"Retry-After": "3"}})")));
    EXPECT_EQ(get(api("files/" + id)).status, 200);  // skipped
    for (int i = 0; i < 2; ++i) {
        auto response = get(api("files/" + id));
        EXPECT_EQ(response.status, 503);
        EXPECT_EQ(response.header("retry-after"), "3");
        EXPECT_EQ(response.json()["message"], "injected fault");
    }
    EXPECT_EQ(get(api("files/" + id)).status, 200);
    // Other methods and paths were never affected.
    EXPECT_EQ(putFullFile(id, "abc").status, 200);

    // A custom body replaces the message; the body of the request is read
    // first, so the connection stays usable.
    ASSERT_TRUE(emulator_.addFault(json::parse(
        R"({"method": "POST", "path": "/api/files", "status": 500, "body": {"code": 9}, "times": 1})")));
    auto failed = sendJSON("POST", api("files"), R"({"fileName": "x"})");
    EXPECT_EQ(failed.status, 500);
    EXPECT_EQ(failed.json(), (json{{"code", 9}}));
    EXPECT_FALSE(createFile().empty());
}

TEST_F(FaultTest, ResetDropsTheConnectionAfterSomeBodyBytes) {
    std::string id = createFile();
    ASSERT_TRUE(emulator_.addFault(json::parse(
        R"({"method": "PUT", "path": "/api/files/*/fullfile", "action": "reset", "afterBytes": 65536, "times": 1})")));
    std::string path = znv::test::makeTempDir("reset") + "/body";
    znv::test::writePatternFile(path, 8 << 20);
    HttpRequest request;
    request.method = "PUT";
    request.url = api("files/" + id + "/fullfile");
    request.headers = {kAuth};
    request.uploadFile = path;
    auto dropped = perform(request);
    EXPECT_TRUE(dropped.curlCode == CURLE_SEND_ERROR || dropped.curlCode == CURLE_RECV_ERROR ||
                dropped.curlCode == CURLE_GOT_NOTHING)
        << dropped.curlCode << " " << dropped.curlError << " status " << dropped.status;
    EXPECT_LT(dropped.status, 200);  // at most the interim 100 Continue
    EXPECT_EQ(get(api("files/" + id)).json()["isComplete"], false);

    auto log = emulator_.requestLog();
    auto entry = log[log.size() - 2];  // the GET above came after it
    EXPECT_EQ(entry["fault"], "reset");
    EXPECT_EQ(entry["status"], 0);
    EXPECT_GE(entry["bodySize"].get<uint64_t>(), 65536u);
    EXPECT_LT(entry["bodySize"].get<uint64_t>(), 8u << 20);

    // The rule is spent: the same upload now succeeds.
    auto again = perform(request);
    EXPECT_EQ(again.status, 200) << again.curlError;
    EXPECT_TRUE(znv::test::waitFor(
        [&] { return get(root("content/" + id), {}).body.size() == (8u << 20); }));
}

TEST_F(FaultTest, StallHoldsRequestsUntilClearedAbandonedOrStopped) {
    std::string id = createFile();
    ASSERT_TRUE(emulator_.addFault(
        json::parse(R"({"method": "GET", "path": "/api/files/*", "action": "stall"})")));

    HttpRequest request;
    request.url = api("files/" + id);
    request.headers = {kAuth};
    request.timeout = 300ms;
    auto abandoned = perform(request);
    EXPECT_EQ(abandoned.curlCode, CURLE_OPERATION_TIMEDOUT);
    // The emulator notices that the client gave up and records when.
    EXPECT_TRUE(znv::test::waitFor([&] {
        auto log = emulator_.requestLog();
        return log.size() == 2 && log.back()["fault"] == "stall" &&
               log.back().contains("durationMs") && log.back()["status"] == 0;
    }));
    auto gaveUp = emulator_.requestLog().back();
    EXPECT_EQ(gaveUp.value("aborted", false), true) << gaveUp.dump();
    EXPECT_GE(gaveUp["endMs"].get<int64_t>() - gaveUp["startMs"].get<int64_t>(), 250)
        << gaveUp.dump();

    request.timeout = 20s;
    auto pending = std::async(std::launch::async, [&] { return perform(request); });
    EXPECT_EQ(pending.wait_for(300ms), std::future_status::timeout);
    EXPECT_EQ(get(api("files")).status, 405);  // other requests are served meanwhile
    emulator_.clearFaults();
    auto released = pending.get();
    EXPECT_EQ(released.status, 200);
    EXPECT_EQ(released.json()["fileId"], id);
    EXPECT_FALSE(emulator_.requestLog().back().contains("aborted"));

    // Stopping does not wait for a stalled request.
    ASSERT_TRUE(emulator_.addFault(json::parse(R"({"action": "stall"})")));
    const size_t logged = emulator_.requestLog().size();
    pending = std::async(std::launch::async, [&] { return perform(request); });
    ASSERT_TRUE(znv::test::waitFor([&] { return emulator_.requestLog().size() == logged + 1; }));
    auto start = std::chrono::steady_clock::now();
    emulator_.stop();
    EXPECT_LT(std::chrono::steady_clock::now() - start, 3s);
    EXPECT_NE(pending.get().curlCode, CURLE_OK);
}

TEST_F(FaultTest, ThrottleSlowsBodiesBothWays) {
    std::string id = createFile();
    std::string bytes(150000, 'z');
    ASSERT_TRUE(emulator_.addFault(json::parse(
        R"({"path": "/api/files/*/fullfile", "action": "throttle", "bytesPerSecond": 100000})")));
    auto start = std::chrono::steady_clock::now();
    ASSERT_EQ(putFullFile(id, bytes).status, 200);
    auto uploadTime = std::chrono::steady_clock::now() - start;
    EXPECT_GE(uploadTime, 1200ms);
    EXPECT_LT(uploadTime, 10s);

    ASSERT_TRUE(emulator_.addFault(
        json::parse(R"({"path": "/content/*", "action": "throttle", "bytesPerSecond": 100000})")));
    start = std::chrono::steady_clock::now();
    EXPECT_EQ(get(root("content/" + id), {}).body, bytes);
    EXPECT_GE(std::chrono::steady_clock::now() - start, 1200ms);
    // The log's end of a download is when its body was out (recorded a
    // moment after the client has read it).
    EXPECT_TRUE(znv::test::waitFor([&] {
        auto sent = emulator_.requestLog().back();
        return sent["endMs"].get<int64_t>() - sent["startMs"].get<int64_t>() >= 1200 &&
               !sent.contains("aborted");
    })) << emulator_.requestLog().back().dump();
}

TEST_F(FaultTest, CompletionFaultsReportMissingChunksOrCompletion) {
    std::string id = createFile();
    ASSERT_EQ(putBatch(id, {{0, "aaaa"}, {1, "bb"}}).status, 200);
    ASSERT_TRUE(emulator_.addFault(json::parse(
        R"({"path": "/api/files/*/complete", "action": "missingChunks", "chunks": [1, 7], "times": 1})")));
    auto conflict = complete(id, {{0, 4}, {1, 2}});
    ASSERT_EQ(conflict.status, 409);
    EXPECT_EQ(conflict.json()["missingChunks"], json::parse(R"([{"index": 1}, {"index": 7}])"));

    ASSERT_TRUE(emulator_.addFault(
        json::parse(R"({"path": "/api/files/**", "action": "alreadyCompleted", "times": 2})")));
    for (const auto& refused : {putBatch(id, {{1, "bb"}}), complete(id, {{0, 4}, {1, 2}})}) {
        EXPECT_EQ(refused.status, 403);
        EXPECT_NE(refused.json().value("message", "").find("already completed"), std::string::npos);
    }
    EXPECT_EQ(get(api("files/" + id)).json()["isComplete"], false);  // GETs are not affected
    auto done = complete(id, {{0, 4}, {1, 2}});
    EXPECT_EQ(done.status, 200) << done.body;
    EXPECT_EQ(get(root("content/" + id), {}).body, "aaaabb");
}

TEST_F(FaultTest, AdminEndpointsManageRulesAndTheLog) {
    auto added =
        sendJSON("POST", root("_admin/faults"),
                 R"([{"method": "GET", "status": 502}, {"action": "stall", "path": "/x"}])");
    ASSERT_EQ(added.status, 201) << added.body;
    auto ids = added.json()["ids"];
    ASSERT_EQ(ids.size(), 2u);
    EXPECT_EQ(get(root("_admin/faults")).json().size(), 2u);
    EXPECT_EQ(get(api("files/a")).status, 502);
    EXPECT_EQ(get(root("_admin/requests")).status, 200);  // admin requests pass untouched

    auto first = std::to_string(ids[0].get<uint64_t>());
    EXPECT_EQ(sendJSON("DELETE", root("_admin/faults/" + first), "").status, 200);
    EXPECT_EQ(sendJSON("DELETE", root("_admin/faults/" + first), "").status, 404);
    EXPECT_EQ(get(api("files/a")).status, 404);
    EXPECT_EQ(sendJSON("POST", root("_admin/faults"), R"({"action": "nope"})").status, 400);
    EXPECT_EQ(sendJSON("POST", root("_admin/faults"), "{").status, 400);
    EXPECT_EQ(sendJSON("DELETE", root("_admin/faults"), "").status, 200);
    EXPECT_EQ(get(root("_admin/faults")).json(), json::array());

    // The log keeps what crossed the wire: selected headers, body size, part
    // names and the status, and never its own admin traffic.
    ASSERT_EQ(sendJSON("DELETE", root("_admin/requests"), "").status, 200);
    EXPECT_EQ(get(root("_admin/requests")).json(), json::array());
    auto created = sendJSON("POST", api("files"), R"({"fileName": "n"})",
                            {kAuth, "Content-Type: application/json", "znvmultiplexinghint: h-1"});
    std::string id = created.json()["fileId"];
    ASSERT_EQ(putBatch(id, {{4, "four"}}, "BB").status, 200);
    get(root("content/" + id), {"Range: bytes=0-1"});
    auto log = get(root("_admin/requests")).json();
    ASSERT_EQ(log.size(), 3u);
    EXPECT_EQ(log[0]["method"], "POST");
    EXPECT_EQ(log[0]["path"], "/api/files");
    EXPECT_EQ(log[0]["status"], 201);
    EXPECT_EQ(log[0]["headers"]["Authorization"], "Bearer dev-...");
    EXPECT_EQ(log[0]["headers"]["Content-Type"], "application/json");
    EXPECT_EQ(log[0]["headers"]["znvmultiplexinghint"], "h-1");
    EXPECT_EQ(log[0]["bodySize"], 17);
    EXPECT_EQ(log[1]["headers"]["Content-Type"], "multipart/form-data; boundary=BB");
    EXPECT_EQ(log[1]["parts"], json{"chunkData.4"});
    EXPECT_EQ(log[1]["bodySize"], batchBody("BB", {{4, "four"}}).size());
    EXPECT_EQ(log[2]["headers"]["Range"], "bytes=0-1");
    EXPECT_FALSE(log[2]["headers"].contains("Authorization"));
    EXPECT_EQ(log[2]["status"], 404);
    EXPECT_EQ(emulator_.requestLog(), log);
}

}  // namespace
}  // namespace znv::emulator::test
