// A small blocking HTTP client for the emulator tests, on libcurl.
#pragma once

#include <chrono>
#include <cstdint>
#include <map>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

namespace znv::emulator::test {

struct HttpRequest {
    std::string method = "GET";
    std::string url;
    std::vector<std::string> headers;  // "Name: value"
    std::string body;                  // sent when non-empty (or when sendBody)
    bool sendBody = false;
    std::string uploadFile;  // sent from this file instead of `body`
    std::chrono::milliseconds timeout{30000};
    bool head = false;
};

struct HttpResponse {
    int curlCode = 0;  // CURLE_OK is 0
    std::string curlError;
    long status = 0;
    std::map<std::string, std::string> headers;  // lower-case names
    std::string body;
    nlohmann::json json() const;
    std::string header(const std::string& lowerName) const;
};

HttpResponse perform(const HttpRequest& request);

// Shorthands with the emulator's default bearer token.
inline const char* kAuth = "Authorization: Bearer dev-token";
HttpResponse get(const std::string& url, std::vector<std::string> headers = {kAuth});
HttpResponse sendJSON(const std::string& method, const std::string& url, const std::string& body,
                      std::vector<std::string> headers = {kAuth, "Content-Type: application/json"});

// Runs a shell command; returns its exit status and standard output.
struct CommandResult {
    int status = -1;
    std::string output;
};
CommandResult run(const std::string& command);

}  // namespace znv::emulator::test
