// ZNVURLRequest and ZNVHTTPURLResponse: the HTTP request a URL session task
// sends and the response head it received.
//
// Contract
// - Both are value types. A request is built on one thread and copied into a
//   task when the task is made; the task's copy never changes afterwards. A
//   response is made once by the session when the final response head has
//   arrived and is shared as `std::shared_ptr<const ZNVHTTPURLResponse>`, so any
//   thread may read it.
// - Header field names compare without regard to case; a field set twice keeps
//   the last value (`addValue` joins values with ", ", as HTTP allows).
// - The body of a request is held in memory and is meant for small bodies (JSON
//   parameters); large bodies are sent from files by upload tasks.
#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "znv/platform/url.h"

namespace znv {

using ZNVBytes = std::vector<uint8_t>;

struct ZNVCaseInsensitiveLess {
    bool operator()(const std::string& a, const std::string& b) const;
};

// Header fields by name; names compare without regard to case.
using ZNVHTTPHeaderFields = std::map<std::string, std::string, ZNVCaseInsensitiveLess>;

class ZNVURLRequest {
  public:
    // The request timeout of a new request (seconds without progress).
    static constexpr double kDefaultTimeoutInterval = 60.0;

    ZNVURLRequest() = default;
    explicit ZNVURLRequest(ZNVURL url, double timeoutInterval = kDefaultTimeoutInterval);

    const ZNVURL& URL() const { return url_; }
    void setURL(ZNVURL url) { url_ = std::move(url); }

    // "GET" unless set; stored as given (methods are case sensitive).
    const std::string& HTTPMethod() const { return method_; }
    void setHTTPMethod(std::string method);

    const ZNVHTTPHeaderFields& allHTTPHeaderFields() const { return headers_; }
    std::optional<std::string> valueForHTTPHeaderField(const std::string& field) const;
    // Sets (or, with std::nullopt, removes) a header field.
    void setValue(std::optional<std::string> value, const std::string& field);
    // Appends to an existing value with ", ", or sets it.
    void addValue(const std::string& value, const std::string& field);

    const ZNVBytes& HTTPBody() const { return body_; }
    void setHTTPBody(ZNVBytes body) { body_ = std::move(body); }

    // Seconds without progress after which the request fails (-1001). The
    // session uses the shorter of this and its configuration's request timeout.
    double timeoutInterval() const { return timeoutInterval_; }
    void setTimeoutInterval(double seconds) { timeoutInterval_ = seconds; }

  private:
    ZNVURL url_;
    std::string method_ = "GET";
    ZNVHTTPHeaderFields headers_;
    ZNVBytes body_;
    double timeoutInterval_ = kDefaultTimeoutInterval;
};

class ZNVHTTPURLResponse {
  public:
    ZNVHTTPURLResponse(ZNVURL url, int64_t statusCode, ZNVHTTPHeaderFields headerFields);

    // The URL the response came from (after redirects).
    const ZNVURL& URL() const { return url_; }
    int64_t statusCode() const { return statusCode_; }
    const ZNVHTTPHeaderFields& allHeaderFields() const { return headers_; }
    std::optional<std::string> valueForHTTPHeaderField(const std::string& field) const;
    // The media type of "Content-Type" in lower case, without parameters;
    // empty when the response has none.
    const std::string& MIMEType() const { return mimeType_; }
    // The "charset" parameter of "Content-Type", or empty.
    const std::string& textEncodingName() const { return textEncoding_; }
    // "Content-Length", or -1 when the length is not known.
    int64_t expectedContentLength() const { return expectedContentLength_; }

    // A short lower-case phrase for a status code ("no error", "not found",
    // "conflict", ...); codes without a phrase of their own get their class's.
    static std::string localizedStringForStatusCode(int64_t statusCode);

    std::string description() const;

  private:
    ZNVURL url_;
    int64_t statusCode_;
    ZNVHTTPHeaderFields headers_;
    std::string mimeType_;
    std::string textEncoding_;
    int64_t expectedContentLength_ = -1;
};

}  // namespace znv
