// A step handed to the account counts as running until the account answers.
// However the answer goes wrong (signed out meanwhile, a failing token
// provider, the account gone with the step still queued), the upload must
// leave "running" with a recoverable error and no request on the wire, or it
// would hold one of the two upload slots for ever.
#include <gtest/gtest.h>

#include <atomic>
#include <thread>

#include "tests/tasks/task_test_support.h"

namespace znv {
namespace {

using test::EmulatorHarness;

TEST(AuthenticationWait, AStepTheAccountCannotAuthenticateLeavesRunning) {
    EmulatorHarness harness;
    const std::string source = test::makeTempDir("src") + "/wait.bin";
    test::writePatternFile(source, 1000, 3);
    std::atomic<bool> providerFails{false};
    const auto failure =
        ZNVError::withMessage(NSURLErrorDomain, NSURLErrorNotConnectedToInternet, "refresh failed");

    enum class Case { SignedOut, ProviderFails, AccountGone };
    for (Case which : {Case::SignedOut, Case::ProviderFails, Case::AccountGone}) {
        SCOPED_TRACE(static_cast<int>(which));
        providerFails = which == Case::ProviderFails;
        auto account = ZNVTokenAccount::create(harness.configuration, [&](ZNVErrorRef* error) {
            if (providerFails) *error = failure;
            return std::string("dev-token");
        });
        // A block ahead of the upload's holds the account's callback thread,
        // so the upload's step waits in the queue.
        std::atomic<bool> entered{false};
        std::atomic<bool> release{false};
        account->dispatchAuthenticatedBlock([&](ZNVAuthenticationRef, ZNVErrorRef) {
            entered = true;
            while (!release.load())
                std::this_thread::yield();
        });
        ASSERT_TRUE(test::waitFor([&] { return entered.load(); }));
        auto upload = ZNVStorageUpload::create(ZNVURL::fileURL(source), "", account, "", "", false,
                                               harness.session);
        harness.router->add(upload);
        harness.emulator.clearRequestLog();
        ASSERT_TRUE(upload->resume());
        EXPECT_EQ(upload->state(), ZNVNetworkTaskStateRunning) << "waiting for its token";
        EXPECT_FALSE(upload->resume()) << "a waiting step is started";

        std::weak_ptr<ZNVTokenAccount> weakAccount = account;
        if (which == Case::SignedOut) account->setStatus(ZNVAccountStatusSignedOut);
        if (which == Case::AccountGone) {
            upload->setAccount(nullptr);
            account.reset();  // the running block holds the last reference
        }
        release = true;
        ASSERT_TRUE(test::waitFor([&] { return upload->state() != ZNVNetworkTaskStateRunning; }));
        EXPECT_EQ(upload->state(), ZNVNetworkTaskStateSuspended);
        ASSERT_NE(upload->rawError(), nullptr);
        EXPECT_EQ(upload->error(), nullptr) << upload->rawError()->description();
        EXPECT_EQ(upload->rawError()->code(), NSURLErrorUserAuthenticationRequired);
        EXPECT_EQ(upload->task(), nullptr);
        EXPECT_EQ(weakAccount.expired(), which == Case::AccountGone);
        if (account) account->waitUntilIdle();
        EXPECT_EQ(harness.emulator.requestLog().size(), 0u) << harness.emulator.requestLog();
        upload->cancel();
    }
}

}  // namespace
}  // namespace znv
