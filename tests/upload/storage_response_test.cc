#include "znv/protocol/storage_response.h"

#include <gtest/gtest.h>

#include <cctype>
#include <chrono>
#include <nlohmann/json.hpp>
#include <random>

#include "znv/foundation/error_handler.h"
#include "znv/platform/url_session.h"
#include "znv/session/network_session_manager.h"

namespace znv {
namespace {

using json = nlohmann::json;

ZNVBytes bytes(const std::string& text) {
    return ZNVBytes(text.begin(), text.end());
}

ZNVURL url(const std::string& text) {
    auto parsed = ZNVURL::fromString(text);
    EXPECT_TRUE(parsed) << text;
    return parsed ? *parsed : ZNVURL();
}

ZNVStorageResponseRef respond(const std::string& method, const std::string& link,
                              const std::string& body = "", ZNVErrorRef error = nullptr) {
    std::optional<ZNVBytes> data;
    if (!body.empty()) data = bytes(body);
    return ZNVStorageResponse::responseForRequest(method, url(link), std::nullopt, data, error);
}

TEST(StorageResponse, TypeFollowsMethodAndPathOnly) {
    struct Case {
        const char* method;
        const char* url;
        ZNVStorageResponseType type;
        const char* fileID;
    };
    const Case cases[] = {
        {"POST", "http://h/api/files", ZNVStorageResponseTypeNewRemoteFile, ""},
        {"POST", "http://h/api/files/", ZNVStorageResponseTypeNewRemoteFile, ""},
        // A POST to a file that is neither "complete" nor "process" is nothing known.
        {"POST", "http://h/api/files/F1", ZNVStorageResponseTypeUnknown, "F1"},
        {"PUT", "http://h/api/files/F1/fullfile", ZNVStorageResponseTypeUploadedFullFile, "F1"},
        {"PUT", "http://h/api/files/F1", ZNVStorageResponseTypeUploadedChunk, "F1"},
        {"PUT", "http://h/api/files", ZNVStorageResponseTypeUnknown, ""},
        {"POST", "http://h/api/files/F1/complete", ZNVStorageResponseTypeAssembledRemoteFile, "F1"},
        {"POST", "http://h/api/files/F1/process",
         ZNVStorageResponseTypePostProcessedRemoteVideoFile, "F1"},
        {"GET", "http://h/api/files/F1", ZNVStorageResponseTypeRemoteFileInformation, "F1"},
        {"GET", "http://h/api/files", ZNVStorageResponseTypeUnknown, ""},
        {"DELETE", "http://h/api/files/F1", ZNVStorageResponseTypeDeletedRemoteFile, "F1"},
        // Methods compare case-sensitively.
        {"post", "http://h/api/files", ZNVStorageResponseTypeUnknown, ""},
        {"Get", "http://h/api/files/F1", ZNVStorageResponseTypeUnknown, "F1"},
        // "files" must be the third component, counting the root.
        {"GET", "http://h/a/b/files/F1", ZNVStorageResponseTypeUnknown, ""},
        {"POST", "http://h/files", ZNVStorageResponseTypeUnknown, ""},
        {"GET", "http://h/api/Files/F1", ZNVStorageResponseTypeUnknown, ""},
        // Query and percent-encoding do not disturb the path.
        {"GET", "http://h/api/files/F%201?x=1", ZNVStorageResponseTypeRemoteFileInformation, "F 1"},
        {"GET", "http://h/content/F1", ZNVStorageResponseTypeUnknown, ""},
    };
    for (const Case& c : cases) {
        auto response = respond(c.method, c.url);
        ASSERT_TRUE(response);
        EXPECT_EQ(response->type(), c.type) << c.method << " " << c.url;
        EXPECT_EQ(response->remoteFileID(), c.fileID) << c.method << " " << c.url;
        EXPECT_FALSE(response->error()) << c.url;
    }
}

TEST(StorageResponse, UrlFileIdWinsOverTheBody) {
    auto response = respond("PUT", "http://h/api/files/F1/fullfile",
                            R"({"fileId": "other", "fileName": "a.mov", "isComplete": true})");
    EXPECT_EQ(response->type(), ZNVStorageResponseTypeUploadedFullFile);
    EXPECT_EQ(response->remoteFileID(), "F1");
    EXPECT_EQ(response->remoteFilename(), "a.mov");
    EXPECT_TRUE(response->remoteFileIsComplete());

    // Without a file ID in the URL the body's is kept (which URLs name one is
    // in the table above).
    auto created = respond("POST", "http://h/api/files", R"({"fileId": "NEW"})");
    EXPECT_EQ(created->remoteFileID(), "NEW");
}

TEST(StorageResponse, ReadsEveryBodyMember) {
    json body = {
        {"fileId", "F9"},
        {"fileName", "clip.mov"},
        {"isComplete", 1},
        {"message", "hello"},
        {"contentUri", "http://h/content/F9"},
        {"uploadMethods",
         {"junk",
          {{"name", "chunks"}, {"maxBytesPerRequest", 4194304}},
          {{"name", "fullfile"}, {"maxBytesPerRequest", 104857600}},
          {{"name", "fullfile"}, {"maxBytesPerRequest", 1}}}},
        {"uploadedChunks", {{{"index", 3}}, {{"index", 1}}, {{"index", 3}}}},
        {"missingChunks", json::array({json::object()})},
    };
    ZNVStorageResponse response(body, nullptr);
    EXPECT_EQ(response.type(), ZNVStorageResponseTypeUnknown);
    EXPECT_EQ(response.remoteFileID(), "F9");
    EXPECT_EQ(response.remoteFilename(), "clip.mov");
    EXPECT_TRUE(response.remoteFileIsComplete());
    EXPECT_EQ(response.message(), "hello");
    ASSERT_TRUE(response.remoteContentURL());
    EXPECT_EQ(response.remoteContentURL()->absoluteString(), "http://h/content/F9");
    // The first "fullfile" entry wins; other methods and non-objects are skipped.
    EXPECT_EQ(response.maximumFullFileUploadSize(), 104857600u);
    EXPECT_EQ(response.remoteChunkIndices(), (ZNVIndexSet{1, 3}));
    // An element without "index" counts as chunk 0.
    EXPECT_EQ(response.missingRemoteChunkIndices(), (ZNVIndexSet{0}));
    EXPECT_FALSE(response.localChunkIndicesToUpload());
    EXPECT_FALSE(response.error());
}

TEST(StorageResponse, ChunkListsAreNoneUnlessTheyHoldSomething) {
    EXPECT_EQ(ZNVStorageResponse::parseChunkIndicesFromArray(json::array()), std::nullopt);
    EXPECT_EQ(ZNVStorageResponse::parseChunkIndicesFromArray(json::object()), std::nullopt);
    EXPECT_EQ(ZNVStorageResponse::parseChunkIndicesFromArray(json("3")), std::nullopt);
    // Nothing usable left: none, never an empty set.
    EXPECT_EQ(ZNVStorageResponse::parseChunkIndicesFromArray(
                  json::parse(R"([1, "x", {"index": -1}, {"index": "2"}])")),
              std::nullopt);
    EXPECT_EQ(ZNVStorageResponse::parseChunkIndicesFromArray(
                  json::parse(R"([{"index": 7}, 5, {"index": 6.0}, {"index": 9}])")),
              (ZNVIndexSet{6, 7, 9}));
    auto response = respond("POST", "http://h/api/files/F/complete", R"({"missingChunks": []})");
    EXPECT_FALSE(response->missingRemoteChunkIndices());
}

TEST(StorageResponse, ErrorsPreferTheTransportOverTheBody) {
    // A JSON value that is not an object.
    auto array = respond("GET", "http://h/api/files/F", "[]");
    ASSERT_TRUE(array->error());
    EXPECT_EQ(array->error()->domain(), NSURLErrorDomain);
    EXPECT_EQ(array->error()->code(), NSURLErrorUnknown);
    EXPECT_EQ(array->error()->localizedDescription(), "unknown format for response body");
    EXPECT_EQ(array->remoteFileID(), "F");  // from the URL
    EXPECT_TRUE(array->remoteFilename().empty());

    // Text that is no JSON at all.
    auto garbage = respond("GET", "http://h/api/files/F", "<html>busy</html>");
    ASSERT_TRUE(garbage->error());
    EXPECT_EQ(garbage->error()->domain(), NSCocoaErrorDomain);
    EXPECT_EQ(garbage->error()->code(), 3840);

    // A server error with a useful body: the error stays, the body is read.
    ZNVErrorRef serverError = ZNVError::make(NSURLErrorDomain, NSURLErrorBadServerResponse,
                                             {{ZNVURLErrorFailingStatusCodeKey, int64_t{409}}});
    auto conflict = respond(
        "POST", "http://h/api/files/F/complete",
        R"({"message": "missing", "missingChunks": [{"index": 2}, {"index": 5}]})", serverError);
    EXPECT_TRUE(ZNVError::equal(conflict->error(), serverError));
    EXPECT_EQ(conflict->type(), ZNVStorageResponseTypeAssembledRemoteFile);
    EXPECT_EQ(conflict->missingRemoteChunkIndices(), (ZNVIndexSet{2, 5}));
    EXPECT_EQ(conflict->message(), "missing");

    // A transport error also wins over a parse error.
    auto both = respond("GET", "http://h/api/files/F", "{", serverError);
    EXPECT_TRUE(ZNVError::equal(both->error(), serverError));

    // No bytes at all: no parse error.
    EXPECT_FALSE(respond("GET", "http://h/api/files/F")->error());
}

TEST(StorageResponse, HostileBodiesNeverCrash) {
    // Nesting far beyond any answer of the service.
    std::string deep(200000, '[');
    auto nested = respond("GET", "http://h/api/files/F", deep + std::string(200000, ']'));
    ASSERT_TRUE(nested->error());
    EXPECT_EQ(nested->error()->code(), 3840);
    std::string deepObject;
    for (int i = 0; i < 100000; ++i)
        deepObject += R"({"a":)";
    EXPECT_TRUE(respond("GET", "http://h/api/files/F", deepObject)->error());
    // Brackets inside strings do not count as nesting.
    auto quoted = respond("GET", "http://h/api/files/F",
                          R"({"message": ")" + std::string(1000, '[') + R"("})");
    EXPECT_FALSE(quoted->error());
    EXPECT_EQ(quoted->message().size(), 1000u);

    // Every member with the wrong type.
    auto wrong = respond("POST", "http://h/api/files",
                         R"({"fileId": 5, "fileName": [], "isComplete": "yes", "message": {},
                             "contentUri": 7, "uploadMethods": {"name": "fullfile"},
                             "uploadedChunks": "0, 1", "missingChunks": [[1], null, true]})");
    EXPECT_FALSE(wrong->error());
    EXPECT_TRUE(wrong->remoteFileID().empty());
    EXPECT_TRUE(wrong->remoteFilename().empty());
    EXPECT_FALSE(wrong->remoteFileIsComplete());
    EXPECT_TRUE(wrong->message().empty());
    EXPECT_FALSE(wrong->remoteContentURL());
    EXPECT_EQ(wrong->maximumFullFileUploadSize(), 0u);
    EXPECT_FALSE(wrong->remoteChunkIndices());
    EXPECT_FALSE(wrong->missingRemoteChunkIndices());
    auto limits = respond("POST", "http://h/api/files",
                          R"({"uploadMethods": [{"name": "fullfile", "maxBytesPerRequest": -5}],
                              "contentUri": "not a url"})");
    EXPECT_EQ(limits->maximumFullFileUploadSize(), 0u);
    EXPECT_FALSE(limits->remoteContentURL());

    // Invalid UTF-8 inside a string.
    std::string invalid = "{\"fileName\": \"a\xff\xfe\"}";
    auto utf8 = respond("POST", "http://h/api/files", invalid);
    ASSERT_TRUE(utf8->error());
    EXPECT_TRUE(utf8->remoteFilename().empty());
    EXPECT_FALSE(utf8->description().empty());

    // 300,000 chunk entries in shuffled order.
    std::vector<uint64_t> order(300000);
    for (size_t i = 0; i < order.size(); ++i)
        order[i] = 2 * i;
    std::shuffle(order.begin(), order.end(), std::mt19937_64(7));
    std::string huge = R"({"uploadedChunks": [)";
    for (size_t i = 0; i < order.size(); ++i) {
        if (i) huge += ',';
        huge += R"({"index":)" + std::to_string(order[i]) + "}";
    }
    huge += "]}";
    auto start = std::chrono::steady_clock::now();
    auto many = respond("PUT", "http://h/api/files/F", huge);
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(20));
    ASSERT_TRUE(many->remoteChunkIndices());
    EXPECT_EQ(many->remoteChunkIndices()->count(), 300000u);
    EXPECT_EQ(many->remoteChunkIndices()->lastIndex(), 599998u);
}

TEST(StorageResponse, DescriptionListsWhatIsPresent) {
    // The object's address varies: replace it by a fixed text.
    auto strip = [](std::string text) {
        size_t at = text.find("0x");
        if (at == std::string::npos) return text;
        size_t end = at + 2;
        while (end < text.size() && std::isxdigit(static_cast<unsigned char>(text[end])))
            ++end;
        return text.replace(at, end - at, "0xPTR");
    };
    // Nothing known: the missing-chunks line is there all the same.
    EXPECT_EQ(strip(ZNVStorageResponse().description()),
              "<ZNVStorageResponse: 0xPTR, type: unkown\n   missing remote chunks: \n>");

    ZNVErrorRef error = ZNVNetworkErrorHandler_createURLError(-1001, "timed out");
    auto info = ZNVStorageResponse::responseForRequest(
        "GET", url("http://h/api/files/F1"), ZNVIndexSet{4, 5},
        bytes(R"({"fileName": "n.mov", "isComplete": false, "contentUri": "http://h/content/F1",
                  "uploadMethods": [{"name": "fullfile", "maxBytesPerRequest": 77}],
                  "uploadedChunks": [{"index": 0}, {"index": 1}, {"index": 2}],
                  "missingChunks": [{"index": 3}], "message": "m"})"),
        error);
    EXPECT_EQ(strip(info->description()),
              "<ZNVStorageResponse: 0xPTR, type: remote file information"
              "\n   error: timed out"
              "\n   remote file ID: F1"
              "\n   remote filename: n.mov"
              "\n   maximum full-file upload size: 77"
              "\n   remote file is complete: NO"
              "\n   remote file content: http://h/content/F1"
              "\n   local chunk indices to upload: 4, 5"
              "\n   remote chunks: 0, 1, 2"
              "\n   missing remote chunks: 3"
              "\n   message: m"
              "\n>");
    // The completeness line belongs to information answers only.
    auto created = respond("POST", "http://h/api/files", R"({"fileId": "F", "isComplete": true})");
    EXPECT_EQ(created->description().find("complete"), std::string::npos);
    EXPECT_STREQ(ZNVStorageResponseTypeDescription(8), "unkown");
    EXPECT_STREQ(ZNVStorageResponseTypeDescription(5), "post processing remote video file");
}

// Responses for real session tasks: only tasks with a bearer authorisation are
// storage requests, and a chunk task's indices come from its tag.
TEST(StorageResponse, ClassifiesSessionTasksByTheirRequest) {
    auto session = ZNVURLSession::create(ZNVURLSessionConfiguration::defaultSessionConfiguration());
    ZNVURLRequest chunkRequest(url("http://127.0.0.1:9/api/files/R7"));
    chunkRequest.setHTTPMethod("PUT");
    chunkRequest.setValue("Bearer token", "Authorization");
    auto chunkTask = session->dataTaskWithRequest(chunkRequest);
    ASSERT_TRUE(chunkTask);
    chunkTask->setTaskDescription("chunk index 8, 9, 10");
    auto response = ZNVStorageResponse::responseForTask(chunkTask, std::nullopt, nullptr);
    ASSERT_TRUE(response);
    EXPECT_EQ(response->type(), ZNVStorageResponseTypeUploadedChunk);
    EXPECT_EQ(response->remoteFileID(), "R7");
    EXPECT_EQ(response->localChunkIndicesToUpload(), (ZNVIndexSet{8, 9, 10}));

    // "Bearer" must be followed by a blank; a plain download has no token.
    ZNVURLRequest basic(url("http://127.0.0.1:9/api/files/R7"));
    basic.setValue("Basic abc", "Authorization");
    EXPECT_FALSE(ZNVStorageResponse::responseForTask(session->dataTaskWithRequest(basic),
                                                     std::nullopt, nullptr));
    EXPECT_FALSE(ZNVStorageResponse::responseForTask(
        session->downloadTaskWithURL(url("http://127.0.0.1:9/api/files/R7")), std::nullopt,
        nullptr));
    EXPECT_FALSE(ZNVStorageResponse::responseForTask(nullptr, std::nullopt, nullptr));
    session->invalidateAndCancel();
}

}  // namespace
}  // namespace znv
