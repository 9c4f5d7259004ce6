#include "znv/account/account_http_session.h"

#include <nlohmann/json.hpp>

#include <curl/curl.h>

#include <algorithm>
#include <cctype>
#include <ctime>
#include <optional>

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

// Seconds to wait that a Retry-After value asks for: a number of seconds or an
// HTTP date (relative to now), at most an hour; none for anything else.
std::optional<double> retryAfterSeconds(const ZNVAccountHTTPSession::Headers& headers) {
    constexpr double kLongest = 3600.0;
    for (const auto& [name, value] : headers) {
        if (name.size() != 11) continue;
        std::string lower;
        for (char c : name)
            lower += static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
        if (lower != "retry-after") continue;
        const auto begin = value.find_first_not_of(" \t");
        if (begin == std::string::npos) return std::nullopt;
        const std::string text = value.substr(begin, value.find_last_not_of(" \t") - begin + 1);
        if (std::all_of(text.begin(), text.end(),
                        [](char c) { return std::isdigit(static_cast<unsigned char>(c)); })) {
            if (text.size() > 6) return kLongest;
            return std::min(kLongest, static_cast<double>(std::stoul(text)));
        }
        const time_t when = curl_getdate(text.c_str(), nullptr);
        if (when < 0) return std::nullopt;
        const double delta = std::difftime(when, std::time(nullptr));
        return std::clamp(delta, 0.0, kLongest);
    }
    return std::nullopt;
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
    if (statusCode == 429 || statusCode == 503) {
        if (std::optional<double> wait = retryAfterSeconds(headers))
            userInfo.emplace(ZNVURLErrorRetryAfterKey, *wait);
    }
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
