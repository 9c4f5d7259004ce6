#include "znv/foundation/error_handler.h"

#include <cmath>
#include <limits>
#include <type_traits>
#include <variant>

namespace znv {
namespace {

ZNVErrorRef createError(const char* domain, int64_t code, const std::string& message) {
    if (message.empty()) return nullptr;
    return ZNVError::withMessage(domain, code, message);
}

// Reads a decimal integer the way a string's integer value is read: leading
// white space, an optional sign, then digits up to the first non-digit.
// No digits read as 0; overflow saturates.
int64_t integerValueOfString(const std::string& text) {
    size_t i = 0;
    while (i < text.size() && (text[i] == ' ' || text[i] == '\t' || text[i] == '\n' ||
                               text[i] == '\r' || text[i] == '\f' || text[i] == '\v')) {
        ++i;
    }
    bool negative = false;
    if (i < text.size() && (text[i] == '+' || text[i] == '-')) {
        negative = text[i] == '-';
        ++i;
    }
    // Accumulate as a magnitude; the negative limit is one larger than the positive one.
    const uint64_t limit = negative ? uint64_t{1} << 63 : uint64_t{INT64_MAX};
    uint64_t magnitude = 0;
    bool saturated = false;
    for (; i < text.size() && text[i] >= '0' && text[i] <= '9'; ++i) {
        if (saturated) continue;
        uint64_t digit = static_cast<uint64_t>(text[i] - '0');
        if (magnitude > (limit - digit) / 10) {
            magnitude = limit;
            saturated = true;
        } else {
            magnitude = magnitude * 10 + digit;
        }
    }
    if (!negative) return static_cast<int64_t>(magnitude);
    if (magnitude == (uint64_t{1} << 63)) return std::numeric_limits<int64_t>::min();
    return -static_cast<int64_t>(magnitude);
}

int64_t integerValueOfDouble(double value) {
    if (std::isnan(value)) return 0;
    // 2^63 is the first double past the int64 range.
    if (value >= 9223372036854775808.0) return std::numeric_limits<int64_t>::max();
    if (value < -9223372036854775808.0) return std::numeric_limits<int64_t>::min();
    return static_cast<int64_t>(value);
}

}  // namespace

ZNVErrorRef ZNVNetworkErrorHandler_createURLError(int64_t code, const std::string& message) {
    return createError(NSURLErrorDomain, code, message);
}

ZNVErrorRef ZNVNetworkErrorHandler_createCocoaError(int64_t code, const std::string& message) {
    return createError(NSCocoaErrorDomain, code, message);
}

ZNVErrorRef ZNVNetworkErrorHandler_createArtificialRecoverableError(const std::string& message) {
    return ZNVNetworkErrorHandler_createURLError(NSURLErrorCannotConnectToHost,
                                                 "internal error: " + message);
}

int64_t ZNVNetworkErrorHandler_serverStatusForError(const ZNVErrorRef& error) {
    if (!error) return NSIntegerMax;
    const ZNVUserInfoValue* value = error->value(ZNVURLErrorFailingStatusCodeKey);
    if (value == nullptr) return NSIntegerMax;
    return std::visit(
        [](const auto& v) -> int64_t {
            using T = std::decay_t<decltype(v)>;
            if constexpr (std::is_same_v<T, int64_t>) {
                return v;
            } else if constexpr (std::is_same_v<T, uint64_t>) {
                return static_cast<int64_t>(v);  // wraps, as a number's integer value does
            } else if constexpr (std::is_same_v<T, bool>) {
                return v ? 1 : 0;
            } else if constexpr (std::is_same_v<T, double>) {
                return integerValueOfDouble(v);
            } else if constexpr (std::is_same_v<T, std::string>) {
                return integerValueOfString(v);
            } else {
                return NSIntegerMax;  // bytes, URLs and errors have no integer reading
            }
        },
        *value);
}

bool _ZNVNetworkErrorHandler_userInfoIndicatesAppForceQuit(const ZNVUserInfo& /*userInfo*/) {
    return false;
}

bool ZNVNetworkErrorHandler_canAutomaticallyRecoverFromError(const ZNVErrorRef& error) {
    const int64_t status = ZNVNetworkErrorHandler_serverStatusForError(error);
    // Unsigned arithmetic: only 503 and 504 fall in [0, 2), and no value overflows.
    // 429 (too many requests) passes like 503: the server asks to come back later.
    if (static_cast<uint64_t>(status) - 503u < 2u || status == 401 || status == 408 ||
        status == 429) {
        return true;
    }
    if (!error || error->domain() != NSURLErrorDomain) return false;

    const int64_t code = error->code();
    // -1001, -1004, -1005, -1009, -1013, -1019 and -1020 as bits of (code + 1020).
    const uint64_t bit = static_cast<uint64_t>(code) + 1020u;
    if (bit < 20u && ((uint64_t{0x98883} >> bit) & 1u) != 0) return true;
    if (code == NSURLErrorSecureConnectionFailed) return true;
    if (code == NSURLErrorCancelled) {
        if (_ZNVNetworkErrorHandler_userInfoIndicatesAppForceQuit(error->userInfo())) return true;
        auto failingURL = error->stringValue(NSURLErrorFailingURLStringErrorKey);
        return failingURL && !failingURL->empty();
    }
    return false;
}

ZNVErrorRef ZNVNetworkErrorHandler_addResumeDataToError(const ZNVBytes& resumeData,
                                                        const ZNVErrorRef& error) {
    if (resumeData.empty()) return error;
    if (!error) return ZNVError::make("", 0, {{NSURLSessionDownloadTaskResumeData, resumeData}});
    return error->byAddingUserInfo({{NSURLSessionDownloadTaskResumeData, resumeData}});
}

std::string ZNVNetworkErrorHandler_addCancelReasonToLog(const ZNVErrorRef& /*error*/,
                                                        const std::string& log) {
    return log;
}

bool ZNVNetworkErrorHandler_errorIndicatesManuallyCancelledTask(const ZNVErrorRef& error) {
    return error && !ZNVNetworkErrorHandler_canAutomaticallyRecoverFromError(error) &&
           error->domain() == NSURLErrorDomain && error->code() == NSURLErrorCancelled;
}

bool ZNVStorageErrorHandler_errorIndicatesWrongAccount(const ZNVErrorRef& error) {
    return ZNVNetworkErrorHandler_serverStatusForError(error) == 403;
}

bool ZNVStorageErrorHandler_errorMessageIndicatesFileAlreadyCompleted(const ZNVErrorRef& error,
                                                                      const std::string& message) {
    return ZNVNetworkErrorHandler_serverStatusForError(error) == 403 && !message.empty() &&
           message.find("already completed") != std::string::npos;
}

bool ZNVStorageErrorHandler_canAutomaticallyRecoverFromFileCompletionConflict(
    const ZNVErrorRef& error) {
    return ZNVNetworkErrorHandler_serverStatusForError(error) == 409;
}

}  // namespace znv
