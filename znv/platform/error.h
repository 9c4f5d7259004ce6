// ZNVError: the library's error value.
//
// Contract
// - An error is a domain, a signed 64-bit code and a user-info map from string
//   keys to variant values. It is immutable once made and shared as
//   `ZNVErrorRef` (a shared pointer to const); a null `ZNVErrorRef` means
//   "no error". Any thread may read an error at any time.
// - "Adding" to an error (`byAddingUserInfo`) makes a new error; the original
//   is never modified.
// - Two errors are equal (`ZNVError::equal`) when domain, code and user info
//   are equal; two null refs are equal; a null and a non-null ref are not.
// - The library has no error domain of its own: network and request failures
//   use `NSURLErrorDomain`, file and archive failures `NSCocoaErrorDomain`.
#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <variant>
#include <vector>

#include "znv/platform/url.h"

namespace znv {

// Domains.
extern const char* const NSURLErrorDomain;
extern const char* const NSCocoaErrorDomain;

// User-info keys.
extern const char* const NSLocalizedDescriptionKey;
extern const char* const NSURLErrorFailingURLStringErrorKey;
extern const char* const NSURLErrorFailingURLErrorKey;
extern const char* const NSURLSessionDownloadTaskResumeData;
extern const char* const NSUnderlyingErrorKey;
extern const char* const NSFilePathErrorKey;
// The HTTP status of a failed request, put there by the account layer's
// HTTP error parsing (a number, or a numeric string).
extern const char* const ZNVURLErrorFailingStatusCodeKey;
// How long a 429 or 503 answer asked the client to wait before trying again,
// in seconds (a number, at most 3600), from its Retry-After header.
extern const char* const ZNVURLErrorRetryAfterKey;

// The "no index" / "no status" sentinel (largest signed 64-bit value).
inline constexpr int64_t ZNVNotFound = 0x7FFFFFFFFFFFFFFF;
inline constexpr int64_t NSIntegerMax = ZNVNotFound;

// URL-domain codes.
enum : int64_t {
    NSURLErrorUnknown = -1,
    NSURLErrorCancelled = -999,
    NSURLErrorBadURL = -1000,
    NSURLErrorTimedOut = -1001,
    NSURLErrorUnsupportedURL = -1002,
    NSURLErrorCannotFindHost = -1003,
    NSURLErrorCannotConnectToHost = -1004,
    NSURLErrorNetworkConnectionLost = -1005,
    NSURLErrorNotConnectedToInternet = -1009,
    NSURLErrorBadServerResponse = -1011,
    NSURLErrorUserAuthenticationRequired = -1013,
    NSURLErrorDataLengthExceedsMaximum = -1103,
    NSURLErrorCallIsActive = -1019,
    NSURLErrorDataNotAllowed = -1020,
    NSURLErrorFileDoesNotExist = -1100,
    NSURLErrorSecureConnectionFailed = -1200,
    NSURLErrorCannotCreateFile = -3000,
    NSURLErrorCannotOpenFile = -3001,
    NSURLErrorCannotWriteToFile = -3003,
};

// Cocoa-domain codes.
enum : int64_t {
    NSFileNoSuchFileError = 4,
    NSFileLockingError = 255,
    NSFileReadUnknownError = 256,
    NSFileReadNoPermissionError = 257,
    NSFileReadCorruptFileError = 259,
    NSFileReadNoSuchFileError = 260,
    NSFileWriteUnknownError = 512,
    NSFileWriteNoPermissionError = 513,
    NSFileWriteInvalidFileNameError = 514,
    NSFileWriteOutOfSpaceError = 640,
    NSCoderReadCorruptError = 4864,
    NSCoderValueNotFoundError = 4865,
};

class ZNVError;
using ZNVErrorRef = std::shared_ptr<const ZNVError>;
using ZNVBytes = std::vector<uint8_t>;

// A user-info value. An underlying error is held as an error ref.
using ZNVUserInfoValue =
    std::variant<std::string, int64_t, uint64_t, bool, double, ZNVBytes, ZNVURL, ZNVErrorRef>;
using ZNVUserInfo = std::map<std::string, ZNVUserInfoValue>;

class ZNVError {
public:
    ZNVError(std::string domain, int64_t code, ZNVUserInfo userInfo = {});

    static ZNVErrorRef make(std::string domain, int64_t code, ZNVUserInfo userInfo = {});
    // An error with exactly one user-info entry, the message.
    static ZNVErrorRef withMessage(std::string domain, int64_t code, std::string message);

    const std::string& domain() const { return domain_; }
    int64_t code() const { return code_; }
    const ZNVUserInfo& userInfo() const { return userInfo_; }

    // The user-info value for a key, or null.
    const ZNVUserInfoValue* value(const std::string& key) const;
    // The string under a key, if the value there is a string.
    std::optional<std::string> stringValue(const std::string& key) const;

    // NSLocalizedDescriptionKey if present, else a generic text naming domain and code.
    std::string localizedDescription() const;
    // "Error Domain=<domain> Code=<code> \"<description>\" UserInfo={key=value, ...}"
    std::string description() const;

    // A new error with the same domain and code and the user info widened
    // (existing keys replaced).
    ZNVErrorRef byAddingUserInfo(const ZNVUserInfo& extra) const;

    bool operator==(const ZNVError& other) const;
    static bool equal(const ZNVErrorRef& a, const ZNVErrorRef& b);

private:
    std::string domain_;
    int64_t code_;
    ZNVUserInfo userInfo_;
};

// Readable text of a user-info value (for descriptions and logs).
std::string ZNVUserInfoValueDescription(const ZNVUserInfoValue& value);
bool ZNVUserInfoValueEqual(const ZNVUserInfoValue& a, const ZNVUserInfoValue& b);

}  // namespace znv
