// Making and classifying the library's error values.
//
// Contract
// - Stateless free functions; thread-safe; callable from any thread.
// - None of them fails. Creating functions return no error (null) for an empty
//   message: an error is never made without a message, and a caller that
//   passes "" gets no error, which a task treats as success.
// - A null error has no status, domain or code: the status reads as
//   NSIntegerMax and every boolean classifier answers false.
// - The HTTP status of a failed request travels in the user info under
//   `ZNVURLErrorFailingStatusCodeKey` as a number or a numeric string.
#pragma once

#include <cstdint>
#include <string>

#include "znv/platform/error.h"

namespace znv {

// An NSURLErrorDomain error whose user info holds only the message, or null
// for an empty message.
ZNVErrorRef ZNVNetworkErrorHandler_createURLError(int64_t code, const std::string& message);
// The same in NSCocoaErrorDomain.
ZNVErrorRef ZNVNetworkErrorHandler_createCocoaError(int64_t code, const std::string& message);
// "internal error: <message>" as NSURLErrorCannotConnectToHost (-1004), a code
// that is always recovered from automatically: a task failing with it retries
// silently.
ZNVErrorRef ZNVNetworkErrorHandler_createArtificialRecoverableError(const std::string& message);

// The HTTP status under ZNVURLErrorFailingStatusCodeKey read as an integer (a
// number, or a string read like a decimal integer: leading blanks and a sign
// allowed, reading stops at the first non-digit, a string without digits reads
// as 0, overflow saturates). NSIntegerMax when the key is missing, the value
// has no integer reading or the error is null.
int64_t ZNVNetworkErrorHandler_serverStatusForError(const ZNVErrorRef& error);

// Whether a task may retry after this error without telling its client:
// statuses 401, 408, 429, 503 and 504 in any domain; in NSURLErrorDomain the
// transient connection codes (-1001, -1004, -1005, -1009, -1013, -1019, -1020),
// -1200, and -999 when the URL session filled in the failing URL (a
// cancellation the library made itself carries none).
bool ZNVNetworkErrorHandler_canAutomaticallyRecoverFromError(const ZNVErrorRef& error);

// The error with NSURLSessionDownloadTaskResumeData set to `resumeData`, every
// other entry, the domain and the code kept. Empty data returns `error`
// itself. A null error with data gives an error with an empty domain, code 0
// and only the resume data.
ZNVErrorRef ZNVNetworkErrorHandler_addResumeDataToError(const ZNVBytes& resumeData,
                                                        const ZNVErrorRef& error);

// Appends the system's reason for a background cancellation to a log text.
// A desktop has no such reason: returns `log` unchanged.
std::string ZNVNetworkErrorHandler_addCancelReasonToLog(const ZNVErrorRef& error,
                                                        const std::string& log);

// Whether a cancelled transfer's user info records that the user force-quit
// the application. A desktop keeps no such record: always false. Private to
// the library.
bool _ZNVNetworkErrorHandler_userInfoIndicatesAppForceQuit(const ZNVUserInfo& userInfo);

// True for an error that is not recoverable and is NSURLErrorDomain -999: a
// cancellation the library or its client made.
bool ZNVNetworkErrorHandler_errorIndicatesManuallyCancelledTask(const ZNVErrorRef& error);

// Server status 403.
bool ZNVStorageErrorHandler_errorIndicatesWrongAccount(const ZNVErrorRef& error);
// Server status 403 and a message from the service that contains "already
// completed" (case matters).
bool ZNVStorageErrorHandler_errorMessageIndicatesFileAlreadyCompleted(const ZNVErrorRef& error,
                                                                      const std::string& message);
// Server status 409.
bool ZNVStorageErrorHandler_canAutomaticallyRecoverFromFileCompletionConflict(
    const ZNVErrorRef& error);

}  // namespace znv
