// Shared set-up of the emulator tests: an in-process emulator on a port the
// kernel picks, and helpers that speak its protocol through libcurl.
#pragma once

#include <gtest/gtest.h>

#include <string>
#include <utility>
#include <vector>

#include "apps/emulator/emulator.h"
#include "tests/emulator/http.h"

namespace znv::emulator::test {

// A chunk batch exactly as the library writes it: a CRLF before every
// delimiter (the first included), parts "chunkData.<i>" / "<i>.chunk".
inline std::string batchBody(const std::string& boundary,
                             const std::vector<std::pair<uint64_t, std::string>>& chunks) {
    std::string body;
    for (const auto& [index, data] : chunks) {
        body += "\r\n--" + boundary + "\r\n";
        body += "Content-Disposition: form-data; name=\"chunkData." + std::to_string(index) +
                "\"; filename=\"" + std::to_string(index) + ".chunk\"\r\n";
        body += "Content-Type: application/octet-stream\r\n\r\n";
        body += data;
    }
    body += "\r\n--" + boundary + "--\r\n";
    return body;
}

inline std::string expectedChunksBody(const std::vector<std::pair<uint64_t, uint64_t>>& chunks) {
    nlohmann::json list = nlohmann::json::array();
    for (const auto& [index, size] : chunks)
        list.push_back({{"index", index}, {"sizeInBytes", size}});
    return nlohmann::json{{"expectedChunks", list}}.dump();
}

class EmulatorTest : public ::testing::Test {
  protected:
    explicit EmulatorTest(EmulatorOptions options = {}) : emulator_(std::move(options)) {}

    void SetUp() override {
        std::string error;
        ASSERT_TRUE(emulator_.start(&error)) << error;
    }

    // URLs of the emulator the helpers talk to (`emulator_` unless a test
    // points `current_` at another one).
    std::string api(const std::string& path) const { return current_->baseURL() + path; }
    std::string root(const std::string& path) const { return current_->rootURL() + path; }

    std::string createFile(const std::string& name = "file.bin") {
        auto response = sendJSON("POST", api("files"), nlohmann::json{{"fileName", name}}.dump());
        EXPECT_EQ(response.status, 201) << response.body;
        return response.json().value("fileId", "");
    }

    HttpResponse putBatch(const std::string& id,
                          const std::vector<std::pair<uint64_t, std::string>>& chunks,
                          const std::string& boundary = "0xKhTmLbOuNdArY-TEST") {
        HttpRequest request;
        request.method = "PUT";
        request.url = api("files/" + id);
        request.headers = {kAuth, "Content-Type: multipart/form-data; boundary=" + boundary};
        request.body = batchBody(boundary, chunks);
        return perform(request);
    }

    HttpResponse complete(const std::string& id,
                          const std::vector<std::pair<uint64_t, uint64_t>>& chunks) {
        return sendJSON("POST", api("files/" + id + "/complete"), expectedChunksBody(chunks));
    }

    HttpResponse putFullFile(const std::string& id, const std::string& bytes) {
        HttpRequest request;
        request.method = "PUT";
        request.url = api("files/" + id + "/fullfile");
        request.headers = {kAuth, "Content-Type: application/octet-stream"};
        request.body = bytes;
        request.sendBody = true;
        return perform(request);
    }

    Emulator emulator_;
    Emulator* current_ = &emulator_;
};

}  // namespace znv::emulator::test
