#include "znv/account/account.h"

#include <gtest/gtest.h>

#include <atomic>
#include <thread>
#include <vector>

#include "tests/support/test_support.h"

namespace znv {
namespace {

using test::waitFor;

ZNVAccountConfigurationRef testConfiguration() {
    return std::make_shared<const ZNVAccountConfiguration>(
        *ZNVURL::fromString("http://127.0.0.1:1/api/"));
}

struct Outcome {
    std::mutex mutex;
    std::vector<std::string> tokens;  // "" for no authentication
    std::vector<ZNVErrorRef> errors;
    std::vector<bool> onCallbackThread;
    std::vector<std::thread::id> threads;
};

ZNVAuthenticatedBlock recorder(Outcome& outcome, const std::shared_ptr<ZNVTokenAccount>& account) {
    std::weak_ptr<ZNVTokenAccount> weakAccount = account;
    return [&outcome, weakAccount](ZNVAuthenticationRef auth, ZNVErrorRef error) {
        auto acc = weakAccount.lock();
        std::lock_guard lock(outcome.mutex);
        outcome.tokens.push_back(auth ? auth->accessToken() : "");
        outcome.errors.push_back(error);
        outcome.onCallbackThread.push_back(acc && acc->isCallbackThread());
        outcome.threads.push_back(std::this_thread::get_id());
    };
}

TEST(Account, RunsAuthenticatedBlocksInOrderOnItsOwnThreadWithAFreshTokenEachTime) {
    std::atomic<int> refreshes{0};
    std::thread::id providerThread;
    auto account = ZNVTokenAccount::create(testConfiguration(), [&](ZNVErrorRef*) {
        providerThread = std::this_thread::get_id();
        return "token-" + std::to_string(++refreshes);
    });
    EXPECT_EQ(account->configuration()->storageURL().absoluteString(), "http://127.0.0.1:1/api/");
    EXPECT_TRUE(account->isSignedIn());
    Outcome outcome;
    std::vector<std::thread> callers;
    // Two blocks from this thread keep their order; others come from elsewhere.
    account->dispatchAuthenticatedBlock(recorder(outcome, account));
    account->dispatchAuthenticatedBlock(recorder(outcome, account));
    for (int i = 0; i < 3; ++i) {
        callers.emplace_back(
            [&] { account->dispatchAuthenticatedBlock(recorder(outcome, account)); });
    }
    for (auto& c : callers)
        c.join();
    account->waitUntilIdle();

    std::lock_guard lock(outcome.mutex);
    ASSERT_EQ(outcome.tokens.size(), 5u);
    EXPECT_EQ(outcome.tokens[0], "token-1");
    EXPECT_EQ(outcome.tokens[1], "token-2");
    for (size_t i = 0; i < 5; ++i) {
        EXPECT_EQ(outcome.errors[i], nullptr);
        EXPECT_TRUE(outcome.onCallbackThread[i]);
        EXPECT_NE(outcome.threads[i], std::this_thread::get_id());
        EXPECT_EQ(outcome.threads[i], providerThread);
    }
    EXPECT_EQ(refreshes.load(), 5);
}

// A fixed token needs no refresh: its blocks run before the dispatch returns,
// on the caller's thread, until a provider takes over.
TEST(Account, AFixedTokenRunsBlocksOnTheCallersThreadUntilAProviderIsSet) {
    auto account = ZNVTokenAccount::createWithToken(testConfiguration(), "fixed");
    Outcome outcome;
    account->dispatchAuthenticatedBlock(recorder(outcome, account));
    {
        std::lock_guard lock(outcome.mutex);
        ASSERT_EQ(outcome.tokens, std::vector<std::string>{"fixed"});
        EXPECT_EQ(outcome.threads[0], std::this_thread::get_id());
    }
    account->setStatus(ZNVAccountStatusNeedsReauthentication);
    account->dispatchAuthenticatedBlock(recorder(outcome, account));
    account->setStatus(ZNVAccountStatusSignedIn);
    account->setTokenProvider([](ZNVErrorRef*) { return std::string("refreshed"); });
    account->dispatchAuthenticatedBlock(recorder(outcome, account));
    account->waitUntilIdle();
    std::lock_guard lock(outcome.mutex);
    ASSERT_EQ(outcome.tokens, (std::vector<std::string>{"fixed", "", "refreshed"}));
    ASSERT_NE(outcome.errors[1], nullptr);
    EXPECT_EQ(outcome.errors[1]->code(), NSURLErrorUserAuthenticationRequired);
    EXPECT_EQ(outcome.threads[1], std::this_thread::get_id());
    EXPECT_TRUE(outcome.onCallbackThread[2]);
    EXPECT_NE(outcome.threads[2], std::this_thread::get_id());
}

TEST(Account, ProviderErrorsAndMissingTokensReachTheBlockWithoutAnAuthentication) {
    int call = 0;
    auto failure = ZNVError::withMessage(NSURLErrorDomain, NSURLErrorNotConnectedToInternet,
                                         "token refresh failed");
    auto account = ZNVTokenAccount::create(testConfiguration(), [&](ZNVErrorRef* error) {
        switch (call++) {
            case 0:
                *error = failure;
                return std::string("ignored-with-error");
            case 1:
                return std::string();
            default:
                return std::string("good");
        }
    });
    Outcome outcome;
    for (int i = 0; i < 3; ++i)
        account->dispatchAuthenticatedBlock(recorder(outcome, account));
    account->waitUntilIdle();
    std::lock_guard lock(outcome.mutex);
    ASSERT_EQ(outcome.tokens.size(), 3u);
    EXPECT_EQ(outcome.tokens[0], "");
    EXPECT_EQ(outcome.errors[0], failure);
    EXPECT_EQ(outcome.tokens[1], "");
    ASSERT_NE(outcome.errors[1], nullptr);
    EXPECT_EQ(outcome.errors[1]->code(), NSURLErrorUserAuthenticationRequired);
    EXPECT_EQ(outcome.errors[1]->localizedDescription(), "missing access token");
    EXPECT_EQ(outcome.tokens[2], "good");
    EXPECT_EQ(outcome.errors[2], nullptr);
}

TEST(Account, SignedOutAccountDoesNotAskForATokenAndStatusChangesAreObservable) {
    std::atomic<int> asked{0};
    auto account = ZNVTokenAccount::create(
        testConfiguration(),
        [&](ZNVErrorRef*) {
            ++asked;
            return std::string("t");
        },
        ZNVAccountStatusSignedOut);
    std::vector<std::pair<bool, int64_t>> seen;  // (initial, status at call)
    account->addObserver(
        ZNVAccount::StatusKey,
        [&](const ZNVKeyValueChangeRecord& c) {
            seen.emplace_back(c.isInitial, account->status());
        },
        ZNVKeyValueObservingOptionInitial);

    Outcome outcome;
    account->dispatchAuthenticatedBlock(recorder(outcome, account));
    account->waitUntilIdle();
    account->setStatus(ZNVAccountStatusSignedIn);
    account->setStatus(ZNVAccountStatusSignedIn);  // unchanged: not announced
    account->dispatchAuthenticatedBlock(recorder(outcome, account));
    account->waitUntilIdle();

    EXPECT_EQ(seen, (std::vector<std::pair<bool, int64_t>>{{true, ZNVAccountStatusSignedOut},
                                                           {false, ZNVAccountStatusSignedIn}}));
    EXPECT_EQ(asked.load(), 1);
    std::lock_guard lock(outcome.mutex);
    ASSERT_EQ(outcome.tokens.size(), 2u);
    ASSERT_NE(outcome.errors[0], nullptr);
    EXPECT_EQ(outcome.errors[0]->domain(), NSURLErrorDomain);
    EXPECT_EQ(outcome.errors[0]->code(), NSURLErrorUserAuthenticationRequired);
    EXPECT_EQ(outcome.tokens[1], "t");
}

TEST(Account, BlocksPendingWhenTheAccountDiesAreToldSoWithoutAToken) {
    std::atomic<bool> release{false};
    std::atomic<bool> providerEntered{false};
    std::atomic<int> ran{0};
    auto account = ZNVTokenAccount::create(testConfiguration(), [&](ZNVErrorRef*) {
        providerEntered = true;
        while (!release.load())
            std::this_thread::yield();
        return std::string("t");
    });
    std::weak_ptr<ZNVTokenAccount> weakAccount = account;
    std::mutex mutex;
    ZNVErrorRef lateError;     // guarded by mutex
    bool lateHadToken = true;  // guarded by mutex
    account->dispatchAuthenticatedBlock([&](ZNVAuthenticationRef, ZNVErrorRef) { ++ran; });
    account->dispatchAuthenticatedBlock([&](ZNVAuthenticationRef auth, ZNVErrorRef error) {
        std::lock_guard lock(mutex);
        lateHadToken = auth != nullptr;
        lateError = error;
        ran += 100;
    });
    ASSERT_TRUE(waitFor([&] { return providerEntered.load(); }));
    // The running block keeps the account alive; the account dies as soon as
    // it returns, on its own callback thread, with the second block pending.
    account.reset();
    EXPECT_FALSE(weakAccount.expired());
    release = true;
    ASSERT_TRUE(waitFor([&] { return weakAccount.expired() && ran.load() == 101; }));
    std::lock_guard lock(mutex);
    EXPECT_FALSE(lateHadToken);
    ASSERT_NE(lateError, nullptr);
    EXPECT_EQ(lateError->code(), NSURLErrorUserAuthenticationRequired);
    EXPECT_EQ(lateError->localizedDescription(), "the account is no longer available");
}

}  // namespace
}  // namespace znv
