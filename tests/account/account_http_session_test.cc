#include "znv/account/account_http_session.h"

#include <gtest/gtest.h>

#include <map>

namespace znv {
namespace {

const ZNVURL kURL = *ZNVURL::fromString("http://127.0.0.1:8080/api/files/abc/complete");

int64_t statusOf(const ZNVErrorRef& error) {
    const auto* value = error->value(ZNVURLErrorFailingStatusCodeKey);
    if (!value || !std::holds_alternative<int64_t>(*value)) return -1;
    return std::get<int64_t>(*value);
}

TEST(AccountHTTPSession, OnlyFailingStatusesGiveABadServerResponseWithStatusURLAndReason) {
    for (int64_t status : {0, 100, 200, 201, 204, 206, 304, 399}) {
        EXPECT_EQ(ZNVAccountHTTPSession::parseServerErrorFromResponse(
                      status, {}, R"({"message":"not an error"})", kURL),
                  nullptr)
            << status;
    }
    const std::map<int64_t, std::string> reasons = {{409, "conflict"},
                                                    {503, "service unavailable"},
                                                    {507, "insufficient storage"},
                                                    {599, "server error"}};
    for (int64_t status : {400, 401, 403, 404, 409, 413, 500, 503, 504, 507, 599}) {
        SCOPED_TRACE(status);
        ZNVErrorRef error =
            ZNVAccountHTTPSession::parseServerErrorFromResponse(status, {}, "", kURL);
        ASSERT_NE(error, nullptr);
        EXPECT_EQ(error->domain(), NSURLErrorDomain);
        EXPECT_EQ(error->code(), NSURLErrorBadServerResponse);
        EXPECT_EQ(statusOf(error), status);
        EXPECT_EQ(error->stringValue(NSURLErrorFailingURLStringErrorKey), kURL.absoluteString());
        const auto* url = error->value(NSURLErrorFailingURLErrorKey);
        ASSERT_NE(url, nullptr);
        EXPECT_EQ(std::get<ZNVURL>(*url), kURL);
        if (auto reason = reasons.find(status); reason != reasons.end()) {
            EXPECT_EQ(error->localizedDescription(), "the server responded with status " +
                                                         std::to_string(status) + " (" +
                                                         reason->second + ")");
        }
    }
}

TEST(AccountHTTPSession, RetryAfterOfA429Or503IsKeptInSecondsAndCappedAtAnHour) {
    const auto retryAfter = [](int64_t status, const std::string& value) -> std::optional<double> {
        auto error = ZNVAccountHTTPSession::parseServerErrorFromResponse(
            status, {{"retry-AFTER", value}}, "", kURL);
        const ZNVUserInfoValue* found = error ? error->value(ZNVURLErrorRetryAfterKey) : nullptr;
        if (!found) return std::nullopt;
        return std::get<double>(*found);
    };
    EXPECT_EQ(retryAfter(503, "120"), 120.0);
    EXPECT_EQ(retryAfter(429, " 7 "), 7.0);
    EXPECT_EQ(retryAfter(503, "86400"), 3600.0);
    EXPECT_EQ(retryAfter(503, "99999999999999999999"), 3600.0);
    EXPECT_EQ(retryAfter(503, "Wed, 21 Oct 2015 07:28:00 GMT"), 0.0) << "a date in the past";
    const std::optional<double> future = retryAfter(503, "Fri, 31 Dec 9999 23:59:59 GMT");
    EXPECT_EQ(future, 3600.0);
    EXPECT_EQ(retryAfter(503, "soon"), std::nullopt);
    EXPECT_EQ(retryAfter(503, "-5"), std::nullopt);
    EXPECT_EQ(retryAfter(500, "120"), std::nullopt) << "only 429 and 503 ask to come back later";
}

TEST(AccountHTTPSession, UsesTheServersJSONMessageOnlyWhenThereIsAUsableOne) {
    const std::string withMessage =
        "  \n{\"code\": 403, \"message\": \"file already completed\", \"extra\": [1, 2]}";
    auto error = ZNVAccountHTTPSession::parseServerErrorFromResponse(
        403, {{"content-type", "application/json; charset=utf-8"}}, withMessage, kURL);
    ASSERT_NE(error, nullptr);
    EXPECT_EQ(error->localizedDescription(), "file already completed");
    EXPECT_EQ(statusOf(error), 403);

    // The same body as bytes.
    ZNVBytes bytes(withMessage.begin(), withMessage.end());
    EXPECT_EQ(ZNVAccountHTTPSession::parseServerErrorFromResponse(403, {}, bytes, kURL)
                  ->localizedDescription(),
              "file already completed");

    const std::string fallback = "the server responded with status 400 (bad request)";
    for (const char* body :
         {"{\"message\": 42}", "{\"message\": \"\"}", "{\"error\": \"x\"}", "[\"message\"]",
          "{\"message\": \"truncated", "<html>oops</html>", "plain text"}) {
        auto e = ZNVAccountHTTPSession::parseServerErrorFromResponse(400, {}, body, kURL);
        ASSERT_NE(e, nullptr);
        EXPECT_EQ(e->localizedDescription(), fallback) << body;
    }
    // A body declared as something other than JSON is not read for a message.
    auto html = ZNVAccountHTTPSession::parseServerErrorFromResponse(
        400, {{"Content-Type", "text/html"}}, R"({"message":"looks like json"})", kURL);
    EXPECT_EQ(html->localizedDescription(), fallback);
}

}  // namespace
}  // namespace znv
