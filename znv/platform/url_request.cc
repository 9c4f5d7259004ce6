#include "znv/platform/url_request.h"

#include <strings.h>

#include <algorithm>
#include <cctype>
#include <cstdlib>

#include <fmt/format.h>

namespace znv {

namespace {

std::string trim(const std::string& text) {
    size_t begin = 0;
    size_t end = text.size();
    while (begin < end && std::isspace(static_cast<unsigned char>(text[begin])))
        ++begin;
    while (end > begin && std::isspace(static_cast<unsigned char>(text[end - 1])))
        --end;
    return text.substr(begin, end - begin);
}

std::string lower(std::string text) {
    std::transform(text.begin(), text.end(), text.begin(),
                   [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
    return text;
}

std::optional<std::string> lookup(const ZNVHTTPHeaderFields& fields, const std::string& field) {
    auto it = fields.find(field);
    if (it == fields.end()) return std::nullopt;
    return it->second;
}

}  // namespace

bool ZNVCaseInsensitiveLess::operator()(const std::string& a, const std::string& b) const {
    return strcasecmp(a.c_str(), b.c_str()) < 0;
}

ZNVURLRequest::ZNVURLRequest(ZNVURL url, double timeoutInterval)
    : url_(std::move(url)), timeoutInterval_(timeoutInterval) {}

void ZNVURLRequest::setHTTPMethod(std::string method) {
    method_ = method.empty() ? std::string("GET") : std::move(method);
}

std::optional<std::string> ZNVURLRequest::valueForHTTPHeaderField(const std::string& field) const {
    return lookup(headers_, field);
}

void ZNVURLRequest::setValue(std::optional<std::string> value, const std::string& field) {
    if (field.empty()) return;
    if (!value) {
        headers_.erase(field);
        return;
    }
    // Keep the spelling of the newest name: erase first, then insert.
    headers_.erase(field);
    headers_.emplace(field, std::move(*value));
}

void ZNVURLRequest::addValue(const std::string& value, const std::string& field) {
    if (field.empty()) return;
    auto it = headers_.find(field);
    if (it == headers_.end()) {
        headers_.emplace(field, value);
    } else {
        it->second += ", " + value;
    }
}

ZNVHTTPURLResponse::ZNVHTTPURLResponse(ZNVURL url, int64_t statusCode,
                                       ZNVHTTPHeaderFields headerFields)
    : url_(std::move(url)), statusCode_(statusCode), headers_(std::move(headerFields)) {
    if (auto type = lookup(headers_, "Content-Type")) {
        const std::string& text = *type;
        size_t semicolon = text.find(';');
        mimeType_ = lower(trim(text.substr(0, semicolon)));
        while (semicolon != std::string::npos) {
            size_t next = text.find(';', semicolon + 1);
            std::string parameter = trim(text.substr(semicolon + 1, next - semicolon - 1));
            size_t equals = parameter.find('=');
            if (equals != std::string::npos &&
                lower(trim(parameter.substr(0, equals))) == "charset") {
                std::string value = trim(parameter.substr(equals + 1));
                if (value.size() >= 2 && value.front() == '"' && value.back() == '"') {
                    value = value.substr(1, value.size() - 2);
                }
                textEncoding_ = lower(value);
            }
            semicolon = next;
        }
    }
    if (auto length = lookup(headers_, "Content-Length")) {
        char* end = nullptr;
        long long value = std::strtoll(length->c_str(), &end, 10);
        if (end != length->c_str() && value >= 0) expectedContentLength_ = value;
    }
}

std::optional<std::string> ZNVHTTPURLResponse::valueForHTTPHeaderField(
    const std::string& field) const {
    return lookup(headers_, field);
}

std::string ZNVHTTPURLResponse::localizedStringForStatusCode(int64_t statusCode) {
    switch (statusCode) {
        case 100:
            return "continue";
        case 101:
            return "switching protocols";
        case 200:
            return "no error";
        case 201:
            return "created";
        case 202:
            return "accepted";
        case 203:
            return "non-authoritative information";
        case 204:
            return "no content";
        case 205:
            return "reset content";
        case 206:
            return "partial content";
        case 300:
            return "multiple choices";
        case 301:
            return "moved permanently";
        case 302:
            return "found";
        case 303:
            return "see other";
        case 304:
            return "not modified";
        case 305:
            return "use proxy";
        case 307:
            return "temporarily redirected";
        case 308:
            return "permanently redirected";
        case 400:
            return "bad request";
        case 401:
            return "unauthorized";
        case 402:
            return "payment required";
        case 403:
            return "forbidden";
        case 404:
            return "not found";
        case 405:
            return "method not allowed";
        case 406:
            return "unacceptable";
        case 407:
            return "proxy authentication required";
        case 408:
            return "request timed out";
        case 409:
            return "conflict";
        case 410:
            return "no longer exists";
        case 411:
            return "length required";
        case 412:
            return "precondition failed";
        case 413:
            return "request too large";
        case 414:
            return "requested URL too long";
        case 415:
            return "unsupported media type";
        case 416:
            return "requested range not satisfiable";
        case 417:
            return "expectation failed";
        case 422:
            return "unprocessable entity";
        case 423:
            return "locked";
        case 429:
            return "too many requests";
        case 500:
            return "internal server error";
        case 501:
            return "unimplemented";
        case 502:
            return "bad gateway";
        case 503:
            return "service unavailable";
        case 504:
            return "gateway timed out";
        case 505:
            return "unsupported version";
        case 507:
            return "insufficient storage";
        default:
            break;
    }
    if (statusCode >= 100 && statusCode < 200) return "informational";
    if (statusCode >= 200 && statusCode < 300) return "success";
    if (statusCode >= 300 && statusCode < 400) return "redirected";
    if (statusCode >= 400 && statusCode < 500) return "client error";
    if (statusCode >= 500 && statusCode < 600) return "server error";
    return "unknown status";
}

std::string ZNVHTTPURLResponse::description() const {
    return fmt::format(
        "<ZNVHTTPURLResponse: {}> {{ URL: {} }} {{ Status Code: {}, MIME type: {} }}",
        static_cast<const void*>(this), url_.absoluteString(), statusCode_,
        mimeType_.empty() ? std::string("(null)") : mimeType_);
}

}  // namespace znv
