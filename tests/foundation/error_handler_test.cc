#include "znv/foundation/error_handler.h"

#include <gtest/gtest.h>

#include <limits>

namespace znv {
namespace {

ZNVErrorRef withStatus(const char* domain, int64_t code, ZNVUserInfoValue status) {
    return ZNVError::make(domain, code, {{ZNVURLErrorFailingStatusCodeKey, std::move(status)}});
}

TEST(ErrorHandler, CreatingFunctionsNeedAMessage) {
    EXPECT_EQ(ZNVNetworkErrorHandler_createURLError(-1000, ""), nullptr);
    EXPECT_EQ(ZNVNetworkErrorHandler_createCocoaError(4, ""), nullptr);

    auto url = ZNVNetworkErrorHandler_createURLError(-1000, "a remote URL is required");
    ASSERT_TRUE(url);
    EXPECT_EQ(url->domain(), NSURLErrorDomain);
    EXPECT_EQ(url->code(), -1000);
    EXPECT_EQ(url->userInfo().size(), 1u);
    EXPECT_EQ(url->localizedDescription(), "a remote URL is required");

    auto cocoa = ZNVNetworkErrorHandler_createCocoaError(260, "no chunks specified");
    ASSERT_TRUE(cocoa);
    EXPECT_EQ(cocoa->domain(), NSCocoaErrorDomain);
    EXPECT_EQ(cocoa->code(), 260);

    auto artificial = ZNVNetworkErrorHandler_createArtificialRecoverableError(
        "URL session task appears to have stalled.");
    ASSERT_TRUE(artificial);
    EXPECT_EQ(artificial->code(), NSURLErrorCannotConnectToHost);
    EXPECT_EQ(artificial->localizedDescription(),
              "internal error: URL session task appears to have stalled.");
    EXPECT_TRUE(ZNVNetworkErrorHandler_canAutomaticallyRecoverFromError(artificial));
}

TEST(ErrorHandler, ServerStatusReadsEveryNumericRepresentation) {
    struct Case {
        ZNVUserInfoValue value;
        int64_t expected;
    };
    const Case cases[] = {
        {int64_t{503}, 503},
        {uint64_t{404}, 404},
        {403.9, 403},
        {true, 1},
        {std::string("504"), 504},
        {std::string("  +409 conflict"), 409},
        {std::string("-12"), -12},
        {std::string("abc"), 0},
        {std::string(""), 0},
        {std::string("99999999999999999999999"), std::numeric_limits<int64_t>::max()},
        {std::string("-99999999999999999999999"), std::numeric_limits<int64_t>::min()},
        {1e300, std::numeric_limits<int64_t>::max()},
        {ZNVBytes{'5', '0', '3'}, NSIntegerMax},
        {*ZNVURL::fromString("http://h/503"), NSIntegerMax},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(ZNVUserInfoValueDescription(c.value));
        EXPECT_EQ(
            ZNVNetworkErrorHandler_serverStatusForError(withStatus(NSURLErrorDomain, 0, c.value)),
            c.expected);
    }
    EXPECT_EQ(ZNVNetworkErrorHandler_serverStatusForError(nullptr), NSIntegerMax);
    EXPECT_EQ(ZNVNetworkErrorHandler_serverStatusForError(ZNVError::make(NSURLErrorDomain, -1)),
              NSIntegerMax);
}

TEST(ErrorHandler, RecoverabilityTable) {
    struct Case {
        const char* name;
        ZNVErrorRef error;
        bool recoverable;
    };
    const Case cases[] = {
        {"null", nullptr, false},
        {"cocoa with 503 (status wins)", withStatus(NSCocoaErrorDomain, 4, int64_t{503}), true},
        {"cocoa with 504", withStatus(NSCocoaErrorDomain, 4, int64_t{504}), true},
        {"other domain with 401", withStatus("Other", 7, int64_t{401}), true},
        {"408 as a string", withStatus(NSCocoaErrorDomain, 512, std::string("408")), true},
        {"429 (too many requests)", withStatus(NSURLErrorDomain, -1011, int64_t{429}), true},
        {"428 and 430 are not", withStatus(NSURLErrorDomain, -1011, int64_t{428}), false},
        {"504 as a string", withStatus(NSCocoaErrorDomain, 512, std::string("504")), true},
        {"502", withStatus(NSURLErrorDomain, -1011, int64_t{502}), false},
        {"500", withStatus(NSURLErrorDomain, -1011, int64_t{500}), false},
        {"403", withStatus(NSURLErrorDomain, -1011, int64_t{403}), false},
        {"409", withStatus(NSURLErrorDomain, -1011, int64_t{409}), false},
        {"505 is not 503/504", withStatus(NSURLErrorDomain, -1011, int64_t{505}), false},
        {"most negative status", withStatus(NSURLErrorDomain, -1, INT64_MIN), false},
        {"timed out with 404", withStatus(NSURLErrorDomain, -1001, int64_t{404}), true},
        {"cocoa -1001", ZNVError::make(NSCocoaErrorDomain, -1001), false},
        {"cocoa 4", ZNVError::make(NSCocoaErrorDomain, 4), false},
        {"cancelled by the library",
         ZNVNetworkErrorHandler_createURLError(-999, "network task cancelled"), false},
        {"cancelled with failing URL",
         ZNVError::make(NSURLErrorDomain, -999, {{NSURLErrorFailingURLStringErrorKey, "x"}}), true},
        {"cancelled with empty failing URL",
         ZNVError::make(NSURLErrorDomain, -999, {{NSURLErrorFailingURLStringErrorKey, ""}}), false},
        {"cancelled with failing URL as a URL value, not text",
         ZNVError::make(NSURLErrorDomain, -999,
                        {{NSURLErrorFailingURLStringErrorKey, *ZNVURL::fromString("http://h/")}}),
         false},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(ZNVNetworkErrorHandler_canAutomaticallyRecoverFromError(c.error), c.recoverable)
            << c.name;
    }
    // Bare URL-domain codes: the transient ones, then their neighbours and
    // the extremes (-1021 lies just below the mask).
    for (int64_t code : {-1001, -1004, -1005, -1009, -1013, -1019, -1020, -1200}) {
        EXPECT_TRUE(ZNVNetworkErrorHandler_canAutomaticallyRecoverFromError(
            ZNVError::make(NSURLErrorDomain, code)))
            << code;
    }
    for (int64_t code : {int64_t{-1000}, int64_t{-1002}, int64_t{-1003}, int64_t{-1021},
                         int64_t{-1}, int64_t{-1100}, int64_t{-3000}, INT64_MAX, INT64_MIN}) {
        EXPECT_FALSE(ZNVNetworkErrorHandler_canAutomaticallyRecoverFromError(
            ZNVError::make(NSURLErrorDomain, code)))
            << code;
    }
}

TEST(ErrorHandler, ManualCancellationIsAnUnrecoverableCancel) {
    EXPECT_TRUE(ZNVNetworkErrorHandler_errorIndicatesManuallyCancelledTask(
        ZNVNetworkErrorHandler_createURLError(-999, "network task cancelled")));
    EXPECT_FALSE(ZNVNetworkErrorHandler_errorIndicatesManuallyCancelledTask(
        ZNVError::make(NSURLErrorDomain, -999, {{NSURLErrorFailingURLStringErrorKey, "x"}})));
    EXPECT_FALSE(ZNVNetworkErrorHandler_errorIndicatesManuallyCancelledTask(
        ZNVError::make(NSCocoaErrorDomain, -999)));
    EXPECT_FALSE(ZNVNetworkErrorHandler_errorIndicatesManuallyCancelledTask(nullptr));
    EXPECT_FALSE(_ZNVNetworkErrorHandler_userInfoIndicatesAppForceQuit({{"anything", true}}));
}

TEST(ErrorHandler, ResumeDataWidensTheUserInfo) {
    auto original = ZNVError::make(NSURLErrorDomain, -1005,
                                   {{NSLocalizedDescriptionKey, "lost"},
                                    {NSURLSessionDownloadTaskResumeData, ZNVBytes{1}},
                                    {ZNVURLErrorFailingStatusCodeKey, int64_t{503}}});
    EXPECT_EQ(ZNVNetworkErrorHandler_addResumeDataToError({}, original), original);

    auto widened = ZNVNetworkErrorHandler_addResumeDataToError(ZNVBytes{7, 8}, original);
    ASSERT_TRUE(widened);
    EXPECT_NE(widened, original);
    EXPECT_EQ(widened->domain(), NSURLErrorDomain);
    EXPECT_EQ(widened->code(), -1005);
    EXPECT_EQ(widened->userInfo().size(), 3u);
    EXPECT_EQ(widened->localizedDescription(), "lost");
    EXPECT_EQ(std::get<ZNVBytes>(*widened->value(NSURLSessionDownloadTaskResumeData)),
              (ZNVBytes{7, 8}));
    // The original is untouched.
    EXPECT_EQ(std::get<ZNVBytes>(*original->value(NSURLSessionDownloadTaskResumeData)),
              (ZNVBytes{1}));

    auto fromNothing = ZNVNetworkErrorHandler_addResumeDataToError(ZNVBytes{9}, nullptr);
    ASSERT_TRUE(fromNothing);
    EXPECT_EQ(fromNothing->domain(), "");
    EXPECT_EQ(fromNothing->code(), 0);
    EXPECT_EQ(fromNothing->userInfo().size(), 1u);
    EXPECT_EQ(ZNVNetworkErrorHandler_addResumeDataToError({}, nullptr), nullptr);

    EXPECT_EQ(ZNVNetworkErrorHandler_addCancelReasonToLog(original, "line\n   detail"),
              "line\n   detail");
}

TEST(ErrorHandler, StorageReadingsOf403And409) {
    auto forbidden = withStatus(NSURLErrorDomain, -1011, int64_t{403});
    auto badRequest = withStatus(NSURLErrorDomain, -1011, int64_t{400});
    auto conflict = withStatus(NSURLErrorDomain, -1011, std::string("409"));

    EXPECT_TRUE(ZNVStorageErrorHandler_errorIndicatesWrongAccount(forbidden));
    EXPECT_FALSE(ZNVStorageErrorHandler_errorIndicatesWrongAccount(badRequest));
    EXPECT_FALSE(ZNVStorageErrorHandler_errorIndicatesWrongAccount(nullptr));

    EXPECT_TRUE(ZNVStorageErrorHandler_errorMessageIndicatesFileAlreadyCompleted(
        forbidden, "upload of file 7 already completed at 12:00"));
    EXPECT_FALSE(ZNVStorageErrorHandler_errorMessageIndicatesFileAlreadyCompleted(
        forbidden, "Already Completed"));
    EXPECT_FALSE(ZNVStorageErrorHandler_errorMessageIndicatesFileAlreadyCompleted(forbidden, ""));
    EXPECT_FALSE(ZNVStorageErrorHandler_errorMessageIndicatesFileAlreadyCompleted(
        badRequest, "already completed"));
    EXPECT_FALSE(ZNVStorageErrorHandler_errorMessageIndicatesFileAlreadyCompleted(
        nullptr, "already completed"));

    EXPECT_TRUE(ZNVStorageErrorHandler_canAutomaticallyRecoverFromFileCompletionConflict(conflict));
    EXPECT_FALSE(
        ZNVStorageErrorHandler_canAutomaticallyRecoverFromFileCompletionConflict(forbidden));
    EXPECT_FALSE(ZNVStorageErrorHandler_canAutomaticallyRecoverFromFileCompletionConflict(nullptr));
}

}  // namespace
}  // namespace znv
