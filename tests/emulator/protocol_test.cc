#include <arpa/inet.h>
#include <curl/curl.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/stat.h>

#include <filesystem>
#include <fstream>
#include <random>

#include "tests/emulator/fixture.h"
#include "tests/support/test_support.h"

namespace znv::emulator::test {
namespace {

using nlohmann::json;
using znv::test::patternBytes;

std::vector<uint64_t> indices(const json& list) {
    std::vector<uint64_t> out;
    for (const auto& e : list)
        out.push_back(e.at("index").get<uint64_t>());
    return out;
}

EmulatorOptions onDisk(const std::string& dataDir, uint16_t port = 0) {
    EmulatorOptions options;
    options.dataDir = dataDir;
    options.port = port;
    return options;
}

// A plain TCP connection to the emulator on this machine; -1 on failure.
int connectTo(uint16_t port) {
    int fd = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(port);
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    if (fd >= 0 && ::connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0) {
        ::close(fd);
        return -1;
    }
    return fd;
}

using ProtocolTest = EmulatorTest;

TEST_F(ProtocolTest, CreateDescribeAndDeleteFiles) {
    auto created =
        sendJSON("POST", api("files"), R"({"fileName": "movie.mov", "sharedStorageId": "team-7"})");
    ASSERT_EQ(created.status, 201) << created.body;
    auto body = created.json();
    std::string id = body.at("fileId");
    EXPECT_EQ(body["fileName"], "movie.mov");
    EXPECT_EQ(body["sharedStorageId"], "team-7");
    EXPECT_EQ(body["uploadMethods"],
              json::parse(R"([{"name": "fullfile", "maxBytesPerRequest": 1073741824},
                              {"name": "chunks", "maxBytesPerRequest": 4194304}])"));

    auto info = get(api("files/" + id));
    ASSERT_EQ(info.status, 200);
    EXPECT_EQ(info.json()["isComplete"], false);
    EXPECT_EQ(info.json()["uploadedChunks"], json::array());
    EXPECT_FALSE(info.json().contains("contentUri"));

    EXPECT_NE(createFile("other.bin"), id);

    auto deleted = sendJSON("DELETE", api("files/" + id), "", {kAuth});
    EXPECT_EQ(deleted.status, 200);
    EXPECT_EQ(deleted.json(), (json{{"fileId", id}}));
    EXPECT_EQ(get(api("files/" + id)).status, 404);
    EXPECT_EQ(sendJSON("DELETE", api("files/" + id), "", {kAuth}).status, 404);
}

TEST_F(ProtocolTest, RejectsBadCreateRequestsAndUnknownFiles) {
    for (const char* bad : {R"({"fileName": ""})", R"({"name": "x"})", R"({"fileName": 7})",
                            R"(["fileName"])", R"({"fileName": "x")", ""}) {
        auto response = sendJSON("POST", api("files"), bad);
        EXPECT_EQ(response.status, 400) << bad;
        EXPECT_TRUE(response.json().contains("message")) << response.body;
    }
    const std::string unknown = "no-such-file";
    EXPECT_EQ(get(api("files/" + unknown)).status, 404);
    EXPECT_EQ(putFullFile(unknown, "abc").status, 404);
    EXPECT_EQ(putBatch(unknown, {{0, "abc"}}).status, 404);
    EXPECT_EQ(complete(unknown, {{0, 3}}).status, 404);
    EXPECT_EQ(
        sendJSON("POST", api("files/" + unknown + "/process"), R"({"type": "encode"})").status,
        404);
    EXPECT_EQ(get(api("files/../../etc")).status, 404);
    EXPECT_EQ(get(root("content/" + unknown)).status, 404);
}

TEST_F(ProtocolTest, RequiresTheBearerTokenOnTheApiOnly) {
    std::string id = createFile();
    for (const auto& headers : std::vector<std::vector<std::string>>{
             {}, {"Authorization: Bearer wrong"}, {"Authorization: dev-token"}}) {
        auto response = get(api("files/" + id), headers);
        EXPECT_EQ(response.status, 401);
        EXPECT_FALSE(response.json().value("message", "").empty());
        EXPECT_EQ(sendJSON("POST", api("files"), R"({"fileName": "x"})", headers).status, 401);
    }
    ASSERT_EQ(putFullFile(id, "public bytes").status, 200);
    auto content = get(root("content/" + id), {});
    EXPECT_EQ(content.status, 200);
    EXPECT_EQ(content.body, "public bytes");
    EXPECT_EQ(get(root("_admin/requests"), {}).status, 401);  // the admin endpoints need it too
}

TEST_F(ProtocolTest, FullFileUploadCompletesOnceAndOnlyOnceAndThenPostProcesses) {
    std::string id = createFile("whole.bin");
    const std::string process = api("files/" + id + "/process");
    const std::string request = R"({"type": "encode", "values": {"outputType": "video/mp4"}})";
    EXPECT_EQ(sendJSON("POST", process, request).status, 409);  // not complete yet
    std::string bytes = patternBytes(3'000'000, 1);
    auto uploaded = putFullFile(id, bytes);
    ASSERT_EQ(uploaded.status, 200) << uploaded.body;
    auto body = uploaded.json();
    EXPECT_EQ(body["fileId"], id);
    EXPECT_EQ(body["fileName"], "whole.bin");
    EXPECT_EQ(body["isComplete"], true);
    EXPECT_EQ(body["contentUri"], root("content/" + id));
    EXPECT_EQ(get(body["contentUri"].get<std::string>(), {}).body, bytes);

    auto info = get(api("files/" + id)).json();
    EXPECT_EQ(info["isComplete"], true);
    EXPECT_EQ(info["contentUri"], root("content/" + id));

    // Every later upload or completion is refused with the same message.
    for (const auto& again :
         {putFullFile(id, "x"), putBatch(id, {{0, "x"}}), complete(id, {{0, 1}})}) {
        EXPECT_EQ(again.status, 403);
        EXPECT_NE(again.json().value("message", "").find("already completed"), std::string::npos)
            << again.body;
    }
    EXPECT_EQ(get(body["contentUri"].get<std::string>(), {}).body, bytes);

    auto accepted = sendJSON("POST", process, request);
    EXPECT_EQ(accepted.status, 202);
    EXPECT_EQ(accepted.json(), (json{{"fileId", id}}));
    EXPECT_EQ(sendJSON("POST", process, "{}").status, 400);
}

// Requests written back to back on one connection, in pieces of random size
// that split headers, bodies and the seam between requests anywhere: each is
// answered in order, and a batch's content crosses the server's read buffer
// intact. Bytes of a request that arrived with the one before must not be
// dropped or taken as part of its body.
TEST_F(ProtocolTest, RequestsWrittenBackToBackOnOneConnectionAreEachAnswered) {
    const std::string id = createFile();
    const std::string boundary = "back-to-back";
    const std::string big = patternBytes(300 * 1024 + 17, 3);
    const std::string body = batchBody(boundary, {{0, big}, {1, "tail"}});
    std::string wire = "PUT /api/files/" + id + " HTTP/1.1\r\nHost: 127.0.0.1\r\n" + kAuth +
                       "\r\nContent-Type: multipart/form-data; boundary=" + boundary +
                       "\r\nContent-Length: " + std::to_string(body.size()) + "\r\n\r\n" + body;
    const std::string describe =
        "GET /api/files/" + id + " HTTP/1.1\r\nHost: 127.0.0.1\r\n" + kAuth + "\r\n\r\n";
    wire += describe + describe;

    int fd = connectTo(emulator_.port());
    ASSERT_GE(fd, 0);
    std::mt19937 random(7);
    for (size_t sent = 0; sent < wire.size();) {
        size_t piece = std::min<size_t>(wire.size() - sent, 1 + random() % 70000);
        ssize_t n = ::send(fd, wire.data() + sent, piece, MSG_NOSIGNAL);
        ASSERT_GT(n, 0);
        sent += static_cast<size_t>(n);
    }
    // Three answers, each framed by its Content-Length.
    std::string received;
    std::vector<std::pair<int, std::string>> answers;
    timeval timeout{10, 0};
    ::setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &timeout, sizeof timeout);
    while (answers.size() < 3) {
        size_t headEnd = received.find("\r\n\r\n");
        size_t lengthAt = received.find("Content-Length: ");
        if (headEnd != std::string::npos && lengthAt != std::string::npos && lengthAt < headEnd) {
            size_t length = std::stoul(received.substr(lengthAt + 16));
            if (received.size() >= headEnd + 4 + length) {
                answers.emplace_back(std::stoi(received.substr(9, 3)),
                                     received.substr(headEnd + 4, length));
                received.erase(0, headEnd + 4 + length);
                continue;
            }
        }
        char buffer[4096];
        ssize_t n = ::recv(fd, buffer, sizeof buffer, 0);
        ASSERT_GT(n, 0) << "the connection ended after " << answers.size() << " answers";
        received.append(buffer, static_cast<size_t>(n));
    }
    ::close(fd);
    EXPECT_EQ(received, "");
    EXPECT_EQ(answers[0].first, 200) << answers[0].second;
    for (size_t i = 1; i < 3; ++i) {
        EXPECT_EQ(answers[i].first, 200) << answers[i].second;
        EXPECT_EQ(indices(json::parse(answers[i].second)["uploadedChunks"]),
                  (std::vector<uint64_t>{0, 1}));
    }
    auto completed = complete(id, {{0, big.size()}, {1, 4}});
    ASSERT_EQ(completed.status, 200) << completed.body;
    EXPECT_EQ(get(completed.json()["contentUri"].get<std::string>(), {}).body, big + "tail");
}

TEST_F(ProtocolTest, ChunksAssembleAfterTheMissingOneArrives) {
    std::string id = createFile("chunked.bin");
    std::vector<std::string> chunks = {patternBytes(4096, 1), patternBytes(4096, 2),
                                       patternBytes(1000, 3)};
    auto first = putBatch(id, {{0, chunks[0]}, {2, chunks[2]}});
    ASSERT_EQ(first.status, 200) << first.body;
    EXPECT_EQ(first.json()["fileId"], id);
    EXPECT_EQ(indices(first.json()["uploadedChunks"]), (std::vector<uint64_t>{0, 2}));

    const std::vector<std::pair<uint64_t, uint64_t>> expected = {{0, 4096}, {1, 4096}, {2, 1000}};
    auto conflict = complete(id, expected);
    ASSERT_EQ(conflict.status, 409) << conflict.body;
    EXPECT_EQ(indices(conflict.json()["missingChunks"]), (std::vector<uint64_t>{1}));
    EXPECT_FALSE(conflict.json().value("message", "").empty());

    // A chunk stored with another size than expected counts as missing too.
    ASSERT_EQ(putBatch(id, {{1, chunks[1].substr(0, 10)}}).status, 200);
    EXPECT_EQ(indices(complete(id, expected).json()["missingChunks"]), (std::vector<uint64_t>{1}));
    auto resent = putBatch(id, {{1, chunks[1]}});
    EXPECT_EQ(indices(resent.json()["uploadedChunks"]), (std::vector<uint64_t>{0, 1, 2}));

    auto done = complete(id, expected);
    ASSERT_EQ(done.status, 200) << done.body;
    EXPECT_EQ(done.json()["isComplete"], true);
    EXPECT_EQ(get(done.json()["contentUri"].get<std::string>(), {}).body,
              chunks[0] + chunks[1] + chunks[2]);
    auto info = get(api("files/" + id)).json();
    EXPECT_EQ(info["isComplete"], true);
    EXPECT_EQ(indices(info["uploadedChunks"]), (std::vector<uint64_t>{0, 1, 2}));
    EXPECT_EQ(complete(id, expected).status, 403);
}

TEST_F(ProtocolTest, AcceptsABatchMadeByCurlForm) {
    std::string id = createFile();
    std::string dir = znv::test::makeTempDir("form");
    std::string a = patternBytes(70000, 5), b = patternBytes(123, 6);
    znv::test::writeFile(dir + "/a", a);
    znv::test::writeFile(dir + "/b", b);
    auto result = run("curl -sS -X PUT -H '" + std::string(kAuth) + "' -F 'chunkData.0=@" + dir +
                      "/a' -F 'chunkData.1=@" + dir + "/b;filename=1.chunk' -F note=hello " +
                      api("files/" + id));
    ASSERT_EQ(result.status, 0);
    EXPECT_EQ(indices(json::parse(result.output)["uploadedChunks"]), (std::vector<uint64_t>{0, 1}));
    auto done = complete(id, {{0, a.size()}, {1, b.size()}});
    ASSERT_EQ(done.status, 200) << done.body;
    EXPECT_EQ(get(root("content/" + id), {}).body, a + b);
    auto log = emulator_.requestLog();
    auto put =
        std::find_if(log.begin(), log.end(), [](const json& e) { return e["method"] == "PUT"; });
    ASSERT_NE(put, log.end());
    EXPECT_EQ((*put)["parts"], (json{"chunkData.0", "chunkData.1", "note"}));
}

TEST_F(ProtocolTest, MalformedBodiesStoreNothing) {
    std::string id = createFile();
    const std::string boundary = "XyZ";
    std::string good = batchBody(boundary, {{0, "zero"}, {1, "one"}});
    auto put = [&](const std::string& contentType, const std::string& body) {
        HttpRequest request;
        request.method = "PUT";
        request.url = api("files/" + id);
        request.headers = {kAuth, "Content-Type: " + contentType};
        request.body = body;
        request.sendBody = true;
        return perform(request);
    };
    const std::string multipart = "multipart/form-data; boundary=" + boundary;
    const std::pair<std::string, std::string> bad[] = {
        {multipart, good.substr(0, good.size() - 9)},  // truncated before the end
        {multipart, good.substr(0, 30)},               // truncated in a header
        {"application/octet-stream", good},            // wrong content type
        {"multipart/form-data", good},                 // no boundary
        {multipart, batchBody(boundary, {{0, ""}})},   // empty chunk
        {multipart,
         "\r\n--XyZ\r\nContent-Disposition: form-data; name=\"chunkData.x\"\r\n\r\n"
         "a\r\n--XyZ--\r\n"},  // no index
        {multipart,
         "\r\n--XyZ\r\nContent-Disposition: form-data; name=\"note\"\r\n\r\n"
         "a\r\n--XyZ--\r\n"},  // no chunk at all
    };
    for (const auto& [type, body] : bad) {
        auto response = put(type, body);
        EXPECT_EQ(response.status, 400) << type << " / " << body.size();
        EXPECT_FALSE(response.json().value("message", "").empty()) << response.body;
    }
    EXPECT_EQ(get(api("files/" + id)).json()["uploadedChunks"], json::array());
    EXPECT_TRUE(std::filesystem::is_empty(emulator_.dataDir() + "/tmp"));

    for (const char* body : {"not json", "{}", R"({"expectedChunks": []})",
                             R"({"expectedChunks": [{"index": -1, "sizeInBytes": 1}]})",
                             R"({"expectedChunks": [{"index": 0}]})"}) {
        EXPECT_EQ(sendJSON("POST", api("files/" + id + "/complete"), body).status, 400) << body;
    }
    EXPECT_EQ(put(multipart, good).status, 200);
}

TEST_F(ProtocolTest, HugeDeclaredLengthIsRefusedWithoutWaitingForTheBody) {
    std::string id = createFile();
    for (const std::string& target :
         {api("files/" + id + "/fullfile"), api("files/" + id), api("files")}) {
        HttpRequest request;
        request.method = target == api("files") ? "POST" : "PUT";
        request.url = target;
        request.headers = {kAuth, "Content-Type: multipart/form-data; boundary=B",
                           "Content-Length: 1000000000000"};
        request.body = "short body";
        request.timeout = std::chrono::seconds(3);
        auto response = perform(request);
        EXPECT_EQ(response.status, 413) << target << ": " << response.curlError;
    }
    EXPECT_EQ(get(api("files/" + id)).json()["isComplete"], false);
}

TEST(ProtocolLimits, FullFileLimitHoldsForDeclaredAndStreamedBodies) {
    EmulatorOptions options;
    options.maxFullFileBytes = 1000;
    Emulator emulator(options);
    ASSERT_TRUE(emulator.start());
    auto created = sendJSON("POST", emulator.baseURL() + "files", R"({"fileName": "f"})");
    EXPECT_EQ(created.json()["uploadMethods"][0]["maxBytesPerRequest"], 1000);
    std::string id = created.json()["fileId"];
    HttpRequest request;
    request.method = "PUT";
    request.url = emulator.baseURL() + "files/" + id + "/fullfile";
    request.headers = {kAuth};
    request.body = std::string(1001, 'x');
    EXPECT_EQ(perform(request).status, 413);
    // Without a declared length the limit is enforced while the body streams.
    request.headers.push_back("Transfer-Encoding: chunked");
    request.body = std::string(5000, 'x');
    EXPECT_EQ(perform(request).status, 413);
    EXPECT_EQ(get(emulator.baseURL() + "files/" + id).json()["isComplete"], false);
    request.body = std::string(1000, 'x');
    EXPECT_EQ(perform(request).status, 200);
}

TEST_F(ProtocolTest, ContentHonoursRangesAndValidators) {
    std::string id = createFile();
    std::string bytes = patternBytes(1000, 9);
    ASSERT_EQ(putFullFile(id, bytes).status, 200);
    const std::string url = root("content/" + id);

    auto whole = get(url, {});
    ASSERT_EQ(whole.status, 200);
    EXPECT_EQ(whole.body, bytes);
    std::string etag = whole.header("etag");
    std::string lastModified = whole.header("last-modified");
    EXPECT_FALSE(etag.empty());
    EXPECT_NE(lastModified.find(" GMT"), std::string::npos);
    EXPECT_EQ(whole.header("accept-ranges"), "bytes");

    struct Case {
        std::string range;
        size_t first, count;
    };
    for (const Case& c :
         {Case{"bytes=100-199", 100, 100}, Case{"bytes=990-", 990, 10}, Case{"bytes=-10", 990, 10},
          Case{"bytes=995-5000", 995, 5}, Case{"bytes=0-0", 0, 1}}) {
        auto part = get(url, {"Range: " + c.range});
        EXPECT_EQ(part.status, 206) << c.range;
        EXPECT_EQ(part.body, bytes.substr(c.first, c.count)) << c.range;
        EXPECT_EQ(part.header("content-range"), "bytes " + std::to_string(c.first) + "-" +
                                                    std::to_string(c.first + c.count - 1) + "/1000")
            << c.range;
    }
    auto beyond = get(url, {"Range: bytes=1000-"});
    EXPECT_EQ(beyond.status, 416);
    EXPECT_EQ(beyond.header("content-range"), "bytes */1000");

    EXPECT_EQ(get(url, {"Range: bytes=10-19", "If-Range: " + etag}).status, 206);
    EXPECT_EQ(get(url, {"Range: bytes=10-19", "If-Range: " + lastModified}).status, 206);
    auto stale = get(url, {"Range: bytes=10-19", "If-Range: \"stale-validator\""});
    EXPECT_EQ(stale.status, 200);
    EXPECT_EQ(stale.body, bytes);

    HttpRequest head;
    head.url = url;
    head.method = "HEAD";
    head.head = true;
    auto headResponse = perform(head);
    EXPECT_EQ(headResponse.status, 200);
    EXPECT_EQ(headResponse.header("content-length"), "1000");

    std::string incomplete = createFile();
    EXPECT_EQ(get(root("content/" + incomplete), {}).status, 404);
}

// Restarts keep every file and chunk; full-size chunks become the content
// without a copy.
TEST_F(ProtocolTest, RestartsKeepEveryFileAndChunkAndFullSizeChunksBecomeTheContent) {
    const std::string whole = patternBytes(5000, 4);
    const std::string wholeId = createFile("whole");
    ASSERT_EQ(putFullFile(wholeId, whole).status, 200);
    const std::string etag = get(root("content/" + wholeId), {}).header("etag");

    const uint64_t stride = 4194304;
    const std::string c0 = patternBytes(stride, 1), c1 = patternBytes(stride, 2),
                      c2 = patternBytes(12345, 3);
    const std::string id = createFile("large.bin");
    // Chunk 2 before chunk 1, and chunk 0 first with the wrong bytes.
    ASSERT_EQ(putBatch(id, {{2, c2}, {0, patternBytes(stride, 9)}}).status, 200);
    // A body cut before its closing delimiter stores none of its chunks, also
    // not the one whose bytes already went into its slot.
    HttpRequest cut;
    cut.method = "PUT";
    cut.url = api("files/" + id);
    cut.headers = {kAuth, "Content-Type: multipart/form-data; boundary=B"};
    const std::string body = batchBody("B", {{1, c1}});
    cut.body = body.substr(0, body.size() - 8);
    EXPECT_EQ(perform(cut).status, 400);
    EXPECT_EQ(indices(get(api("files/" + id)).json()["uploadedChunks"]),
              (std::vector<uint64_t>{0, 2}));

    // What was stored survives a restart, and a whole body whose receipt a
    // crash cut off does not; chunk 0 sent again replaces the stored one, and
    // chunk 1 goes into its slot.
    const std::string cutOff = emulator_.dataDir() + "/files/" + id + "/incoming-cut";
    znv::test::writePatternFile(cutOff, 1000);
    // A whole body whose client went away keeps nothing either.
    const std::string gone = createFile("gone.bin");
    {
        int fd = connectTo(emulator_.port());
        ASSERT_GE(fd, 0);
        const std::string head = "PUT /api/files/" + gone +
                                 "/fullfile HTTP/1.1\r\nHost: 127.0.0.1\r\n" + kAuth +
                                 "\r\nContent-Length: 100000\r\n\r\n" + patternBytes(5000, 5);
        ASSERT_EQ(::send(fd, head.data(), head.size(), MSG_NOSIGNAL),
                  static_cast<ssize_t>(head.size()));
        ::close(fd);
    }
    const std::string goneDir = emulator_.dataDir() + "/files/" + gone;
    EXPECT_TRUE(znv::test::waitFor([&] {
        for (const auto& entry : std::filesystem::directory_iterator(goneDir))
            if (entry.path().filename() != "meta.json") return false;
        return emulator_.requestLog().back().value("path", "").find(gone) != std::string::npos;
    }));
    emulator_.stop();
    Emulator second(onDisk(emulator_.dataDir(), 0));
    ASSERT_TRUE(second.start());
    current_ = &second;
    EXPECT_EQ(second.dataDir(), emulator_.dataDir());
    EXPECT_FALSE(std::filesystem::exists(cutOff));
    auto content = get(root("content/" + wholeId), {});
    EXPECT_EQ(content.body, whole);
    EXPECT_EQ(content.header("etag"), etag);
    auto info = get(api("files/" + id)).json();
    EXPECT_EQ(info["fileName"], "large.bin");
    EXPECT_EQ(indices(info["uploadedChunks"]), (std::vector<uint64_t>{0, 2}));
    ASSERT_EQ(putBatch(id, {{0, c0}, {1, c1}}).status, 200);
    const std::string dir = emulator_.dataDir() + "/files/" + id;
    struct stat data {};
    ASSERT_EQ(::stat((dir + "/chunks/data").c_str(), &data), 0);
    auto done = complete(id, {{0, stride}, {1, stride}, {2, c2.size()}});
    ASSERT_EQ(done.status, 200) << done.body;
    EXPECT_EQ(get(done.json()["contentUri"].get<std::string>(), {}).body, c0 + c1 + c2);
    // The data file itself, cut to size, became the content.
    struct stat stored {};
    ASSERT_EQ(::stat((dir + "/content").c_str(), &stored), 0);
    EXPECT_EQ(stored.st_ino, data.st_ino);
    EXPECT_EQ(static_cast<uint64_t>(stored.st_size), 2 * stride + c2.size());

    // A third run sees the assembled file, not the chunks it was made of.
    second.stop();
    Emulator third(onDisk(emulator_.dataDir(), 0));
    ASSERT_TRUE(third.start());
    current_ = &third;
    EXPECT_EQ(get(root("content/" + id), {}).body, c0 + c1 + c2);
    EXPECT_EQ(get(api("files/" + id)).json()["isComplete"], true);
}

TEST_F(ProtocolTest, StopsPromptlyAndFreesItsPortAndRefusesWhatItCannotUse) {
    // A client that keeps its connection open after a request.
    CURL* curl = curl_easy_init();
    curl_easy_setopt(curl, CURLOPT_URL, api("files/x").c_str());
    curl_easy_setopt(
        curl, CURLOPT_WRITEFUNCTION, +[](char*, size_t s, size_t n, void*) { return s * n; });
    ASSERT_EQ(curl_easy_perform(curl), CURLE_OK);
    const uint16_t port = emulator_.port();

    Emulator rival(onDisk("", port));
    std::string error;
    EXPECT_FALSE(rival.start(&error));
    EXPECT_NE(error.find(std::to_string(port)), std::string::npos) << error;

    auto start = std::chrono::steady_clock::now();
    emulator_.stop();
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(2));
    curl_easy_cleanup(curl);
    EXPECT_TRUE(rival.start(&error)) << error;
    EXPECT_EQ(rival.port(), port);

    // A data directory that is a plain file is refused, and named.
    std::string file = znv::test::makeTempDir("plain") + "/file";
    znv::test::writeFile(file, "x");
    Emulator unusable(onDisk(file, 0));
    EXPECT_FALSE(unusable.start(&error));
    EXPECT_NE(error.find(file), std::string::npos) << error;
}

}  // namespace
}  // namespace znv::emulator::test
