// ZNVAccount: a signed-in (or not) user of the storage service, as the library
// sees it: the service configuration, an observable sign-in status, and access
// tokens handed out for authenticated work.
//
// Contract
// - `configuration()` is fixed for the account's life (null: the account has
//   none, and no storage manager can be made for it). Any thread.
// - `status()` may be read from any thread. Changes are announced through
//   ZNVObservable under the key "status" (kind Setting) on the thread that
//   changes it. `ZNVAccountStatusSignedIn` (2) is the only status in which
//   authenticated work gets a token.
// - `dispatchAuthenticatedBlock(block)` may be called from any thread and
//   returns at once. The block runs later, exactly once, on the account's own
//   callback thread (one serial queue per account, FIFO; but see the fixed
//   token below), with an
//   authentication whose token is non-empty and no error, or with no
//   authentication and an error (not signed in: URL error -1013; the token
//   provider's error; an empty token: -1013 "missing access token"). Blocks
//   still pending when the account is destroyed run then, on the destroying
//   thread (or the callback thread), with -1013 "the account is no longer
//   available": nobody waits for a block that never comes.
// - `ZNVTokenAccount` is the implementation an application uses: it asks the
//   application's token provider for a token each time it runs a block, on the
//   callback thread, so the provider can refresh an expired token whenever it
//   likes. The provider may block (a refresh over the network) and must not
//   wait for other blocks of the same account.
// - A `ZNVTokenAccount` made with `createWithToken` has nothing to refresh: it
//   runs each block at once, on the calling thread, before
//   `dispatchAuthenticatedBlock` returns, which saves two thread switches per
//   request. Callers of `dispatchAuthenticatedBlock` therefore hold no lock
//   that the block may take. Once `setTokenProvider` gives such an account a
//   provider, its blocks go through the callback thread as above.
#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <string>

#include "znv/account/account_configuration.h"
#include "znv/account/authentication.h"
#include "znv/platform/error.h"
#include "znv/platform/observable.h"

namespace znv {

class ZNVOperationQueue;

// Values of an account's `status`.
enum : int64_t {
    ZNVAccountStatusSignedOut = 0,
    ZNVAccountStatusSigningIn = 1,
    ZNVAccountStatusSignedIn = 2,
    ZNVAccountStatusNeedsReauthentication = 3,
};

using ZNVAuthenticatedBlock =
    std::function<void(ZNVAuthenticationRef authentication, ZNVErrorRef error)>;

class ZNVAccount : public ZNVObservable {
  public:
    static constexpr const char* StatusKey = "status";

    ~ZNVAccount() override = default;

    virtual ZNVAccountConfigurationRef configuration() const = 0;
    virtual int64_t status() const = 0;
    bool isSignedIn() const { return status() == ZNVAccountStatusSignedIn; }
    virtual void dispatchAuthenticatedBlock(ZNVAuthenticatedBlock block) = 0;
};

using ZNVAccountRef = std::shared_ptr<ZNVAccount>;

class ZNVTokenAccount : public ZNVAccount, public std::enable_shared_from_this<ZNVTokenAccount> {
  public:
    // Returns the current access token, or fills `error` (and returns anything).
    using TokenProvider = std::function<std::string(ZNVErrorRef* error)>;

    static std::shared_ptr<ZNVTokenAccount> create(ZNVAccountConfigurationRef configuration,
                                                   TokenProvider tokenProvider,
                                                   int64_t status = ZNVAccountStatusSignedIn);
    // An account whose provider always answers `token`.
    static std::shared_ptr<ZNVTokenAccount> createWithToken(
        ZNVAccountConfigurationRef configuration, std::string token,
        int64_t status = ZNVAccountStatusSignedIn);

    ~ZNVTokenAccount() override;

    ZNVAccountConfigurationRef configuration() const override { return configuration_; }
    int64_t status() const override { return status_.load(std::memory_order_acquire); }
    // Any thread; announces "status" when the value changes.
    void setStatus(int64_t status);
    // Any thread; blocks dispatched afterwards use the new provider.
    void setTokenProvider(TokenProvider tokenProvider);

    void dispatchAuthenticatedBlock(ZNVAuthenticatedBlock block) override;

    // True on the account's callback thread while it runs a block.
    bool isCallbackThread() const;
    // Blocks until every block dispatched before the call has run. Not on the
    // callback thread.
    void waitUntilIdle();

    // Construct through `create`.
    struct Private {};
    ZNVTokenAccount(Private, ZNVAccountConfigurationRef configuration, TokenProvider tokenProvider,
                    int64_t status);

  private:
    void runBlock(const ZNVAuthenticatedBlock& block);

    const ZNVAccountConfigurationRef configuration_;
    std::atomic<int64_t> status_;
    mutable std::mutex mutex_;
    TokenProvider tokenProvider_;  // guarded by mutex_; copied out before it is called
    bool fixedToken_ = false;      // guarded by mutex_; blocks run on the caller's thread
    // Declared last so that it is destroyed first: its destructor waits for a
    // running block while the rest of the account is still intact.
    std::unique_ptr<ZNVOperationQueue> callbackQueue_;
};

}  // namespace znv
