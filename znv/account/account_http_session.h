// ZNVAccountHTTPSession: the account layer's reading of HTTP answers.
//
// Contract
// - `parseServerErrorFromResponse(statusCode, headers, body, url)` turns a
//   failing HTTP answer (status 400 or above) into an NSURLErrorDomain error with
//   code -1011 (NSURLErrorBadServerResponse) whose user info holds the status
//   (int64) under ZNVURLErrorFailingStatusCodeKey, the URL under
//   NSURLErrorFailingURLStringErrorKey (text) and NSURLErrorFailingURLErrorKey
//   (URL), and a readable message under NSLocalizedDescriptionKey: the string
//   member "message" of a JSON object body when there is one (and the answer
//   declares no Content-Type other than a JSON one), otherwise a phrase naming
//   the status. Any other status (including 0, "no HTTP answer") gives
//   a null error.
// - Pure function of its arguments; any thread. Header names are matched
//   without regard to case. Only the first 1 MiB of a body is ever parsed.
#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <string_view>

#include "znv/platform/error.h"
#include "znv/platform/url.h"

namespace znv {

class ZNVAccountHTTPSession {
  public:
    using Headers = std::map<std::string, std::string>;

    static ZNVErrorRef parseServerErrorFromResponse(int64_t statusCode, const Headers& headers,
                                                    std::string_view body, const ZNVURL& url);
    static ZNVErrorRef parseServerErrorFromResponse(int64_t statusCode, const Headers& headers,
                                                    const ZNVBytes& body, const ZNVURL& url);

    // The reason phrase of a status code in lower case ("not found"), or the
    // phrase of its class ("server error") for codes without one; the same
    // table as ZNVHTTPURLResponse's.
    static std::string localizedStringForStatusCode(int64_t statusCode);
};

}  // namespace znv
