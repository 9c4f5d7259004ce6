#include "znv/account/account_http_session.h"

#include <nlohmann/json.hpp>

#include <cctype>

#include "znv/platform/url_request.h"

namespace znv {
namespace {

constexpr size_t kMaxParsedBody = 1 << 20;

// The "message" member of a JSON object body, or "".
std::string messageFromBody(std::string_view body) {
    size_t start = 0;
    while (start < body.size() && std::isspace(static_cast<unsigned char>(body[start])))
        ++start;
    if (start == body.size() || body[start] != '{' || body.size() > kMaxParsedBody) return {};
    nlohmann::json json = nlohmann::json::parse(body, nullptr, /*allow_exceptions=*/false);
    if (!json.is_object()) return {};
    auto it = json.find("message");
    if (it == json.end() || !it->is_string()) return {};
    return it->get<std::string>();
}

std::string lowercase(std::string_view text) {
    std::string out(text);
    for (char& c : out)
        c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    return out;
}

// A body may carry a JSON message unless the answer declares another type.
bool mayHoldJSON(const ZNVAccountHTTPSession::Headers& headers) {
    for (const auto& [name, value] : headers) {
        if (lowercase(name) == "content-type") {
            return value.empty() || lowercase(value).find("json") != std::string::npos;
        }
    }
    return true;
}

}  // namespace

std::string ZNVAccountHTTPSession::localizedStringForStatusCode(int64_t statusCode) {
    return ZNVHTTPURLResponse::localizedStringForStatusCode(statusCode);
}

ZNVErrorRef ZNVAccountHTTPSession::parseServerErrorFromResponse(int64_t statusCode,
                                                                const Headers& headers,
                                                                std::string_view body,
                                                                const ZNVURL& url) {
    if (statusCode < 400) return nullptr;
    std::string message = mayHoldJSON(headers) ? messageFromBody(body) : std::string();
    if (message.empty()) {
        message = "the server responded with status " + std::to_string(statusCode) + " (" +
                  localizedStringForStatusCode(statusCode) + ")";
    }
    ZNVUserInfo userInfo{
        {NSLocalizedDescriptionKey, std::move(message)},
        {ZNVURLErrorFailingStatusCodeKey, statusCode},
    };
    if (!url.isEmpty()) {
        userInfo.emplace(NSURLErrorFailingURLStringErrorKey, url.absoluteString());
        userInfo.emplace(NSURLErrorFailingURLErrorKey, url);
    }
    return ZNVError::make(NSURLErrorDomain, NSURLErrorBadServerResponse, std::move(userInfo));
}

ZNVErrorRef ZNVAccountHTTPSession::parseServerErrorFromResponse(int64_t statusCode,
                                                                const Headers& headers,
                                                                const ZNVBytes& body,
                                                                const ZNVURL& url) {
    return parseServerErrorFromResponse(
        statusCode, headers,
        std::string_view(reinterpret_cast<const char*>(body.data()), body.size()), url);
}

}  // namespace znv
