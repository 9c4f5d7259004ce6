#include "tests/emulator/http.h"

#include <curl/curl.h>
#include <sys/wait.h>

#include <algorithm>
#include <cstdio>

namespace znv::emulator::test {
namespace {

size_t collectBody(char* data, size_t size, size_t count, void* out) {
    static_cast<std::string*>(out)->append(data, size * count);
    return size * count;
}

size_t collectHeader(char* data, size_t size, size_t count, void* out) {
    std::string line(data, size * count);
    auto colon = line.find(':');
    if (colon != std::string::npos) {
        std::string name = line.substr(0, colon);
        std::transform(name.begin(), name.end(), name.begin(), ::tolower);
        std::string value = line.substr(colon + 1);
        value.erase(0, value.find_first_not_of(' '));
        value.erase(value.find_last_not_of("\r\n") + 1);
        (*static_cast<std::map<std::string, std::string>*>(out))[name] = value;
    }
    return size * count;
}

}  // namespace

nlohmann::json HttpResponse::json() const {
    return nlohmann::json::parse(body, nullptr, false);
}

std::string HttpResponse::header(const std::string& lowerName) const {
    auto it = headers.find(lowerName);
    return it == headers.end() ? "" : it->second;
}

HttpResponse perform(const HttpRequest& request) {
    HttpResponse response;
    CURL* curl = curl_easy_init();
    curl_slist* headers = nullptr;
    for (const auto& h : request.headers)
        headers = curl_slist_append(headers, h.c_str());
    curl_easy_setopt(curl, CURLOPT_URL, request.url.c_str());
    curl_easy_setopt(curl, CURLOPT_HTTPHEADER, headers);
    curl_easy_setopt(curl, CURLOPT_WRITEFUNCTION, collectBody);
    curl_easy_setopt(curl, CURLOPT_WRITEDATA, &response.body);
    curl_easy_setopt(curl, CURLOPT_HEADERFUNCTION, collectHeader);
    curl_easy_setopt(curl, CURLOPT_HEADERDATA, &response.headers);
    curl_easy_setopt(curl, CURLOPT_TIMEOUT_MS, static_cast<long>(request.timeout.count()));
    curl_easy_setopt(curl, CURLOPT_NOSIGNAL, 1L);
    FILE* upload = nullptr;
    if (!request.uploadFile.empty()) {
        upload = std::fopen(request.uploadFile.c_str(), "rb");
        std::fseek(upload, 0, SEEK_END);
        curl_off_t size = std::ftell(upload);
        std::rewind(upload);
        curl_easy_setopt(curl, CURLOPT_UPLOAD, 1L);
        curl_easy_setopt(curl, CURLOPT_READDATA, upload);
        curl_easy_setopt(curl, CURLOPT_INFILESIZE_LARGE, size);
    } else if (!request.body.empty() || request.sendBody) {
        curl_easy_setopt(curl, CURLOPT_POSTFIELDS, request.body.data());
        curl_easy_setopt(curl, CURLOPT_POSTFIELDSIZE_LARGE,
                         static_cast<curl_off_t>(request.body.size()));
    }
    if (request.head) curl_easy_setopt(curl, CURLOPT_NOBODY, 1L);
    curl_easy_setopt(curl, CURLOPT_CUSTOMREQUEST, request.method.c_str());
    response.curlCode = curl_easy_perform(curl);
    if (response.curlCode != CURLE_OK) {
        response.curlError = curl_easy_strerror(static_cast<CURLcode>(response.curlCode));
    }
    curl_easy_getinfo(curl, CURLINFO_RESPONSE_CODE, &response.status);
    if (upload) std::fclose(upload);
    curl_slist_free_all(headers);
    curl_easy_cleanup(curl);
    return response;
}

HttpResponse get(const std::string& url, std::vector<std::string> headers) {
    HttpRequest request;
    request.url = url;
    request.headers = std::move(headers);
    return perform(request);
}

HttpResponse sendJSON(const std::string& method, const std::string& url, const std::string& body,
                      std::vector<std::string> headers) {
    HttpRequest request;
    request.method = method;
    request.url = url;
    request.body = body;
    request.sendBody = true;
    request.headers = std::move(headers);
    return perform(request);
}

CommandResult run(const std::string& command) {
    CommandResult result;
    FILE* pipe = popen(command.c_str(), "r");
    if (!pipe) return result;
    char buffer[4096];
    size_t n;
    while ((n = std::fread(buffer, 1, sizeof buffer, pipe)) > 0)
        result.output.append(buffer, n);
    int status = pclose(pipe);
    result.status = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    return result;
}

}  // namespace znv::emulator::test
