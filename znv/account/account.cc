#include "znv/account/account.h"

#include "znv/platform/operation_queue.h"

namespace znv {

namespace {

// A block waiting on the callback queue. Destroyed without having run (the
// account went away while it was queued) it is called with an error, so the
// work waiting for it is never left waiting.
struct PendingBlock {
    ZNVAuthenticatedBlock block;
    ~PendingBlock() {
        if (block) {
            block(nullptr,
                  ZNVError::withMessage(NSURLErrorDomain, NSURLErrorUserAuthenticationRequired,
                                        "the account is no longer available"));
        }
    }
};

}  // namespace

std::shared_ptr<ZNVTokenAccount> ZNVTokenAccount::create(ZNVAccountConfigurationRef configuration,
                                                         TokenProvider tokenProvider,
                                                         int64_t status) {
    return std::make_shared<ZNVTokenAccount>(Private{}, std::move(configuration),
                                             std::move(tokenProvider), status);
}

std::shared_ptr<ZNVTokenAccount> ZNVTokenAccount::createWithToken(
    ZNVAccountConfigurationRef configuration, std::string token, int64_t status) {
    auto account = create(
        std::move(configuration), [token = std::move(token)](ZNVErrorRef*) { return token; },
        status);
    std::lock_guard lock(account->mutex_);
    account->fixedToken_ = true;
    return account;
}

ZNVTokenAccount::ZNVTokenAccount(Private, ZNVAccountConfigurationRef configuration,
                                 TokenProvider tokenProvider, int64_t status)
    : configuration_(std::move(configuration)),
      status_(status),
      tokenProvider_(std::move(tokenProvider)),
      callbackQueue_(std::make_unique<ZNVOperationQueue>("znv.account")) {}

ZNVTokenAccount::~ZNVTokenAccount() = default;

void ZNVTokenAccount::setStatus(int64_t status) {
    if (status_.load(std::memory_order_acquire) == status) return;
    willChangeValueForKey(StatusKey);
    status_.store(status, std::memory_order_release);
    didChangeValueForKey(StatusKey);
}

void ZNVTokenAccount::setTokenProvider(TokenProvider tokenProvider) {
    std::lock_guard lock(mutex_);
    tokenProvider_ = std::move(tokenProvider);
    fixedToken_ = false;
}

void ZNVTokenAccount::dispatchAuthenticatedBlock(ZNVAuthenticatedBlock block) {
    if (!block) return;
    bool fixedToken = false;
    {
        std::lock_guard lock(mutex_);
        fixedToken = fixedToken_;
    }
    if (fixedToken) {
        runBlock(block);
        return;
    }
    auto pending = std::make_shared<PendingBlock>();
    pending->block = std::move(block);
    callbackQueue_->addOperation([weakSelf = weak_from_this(), pending]() {
        auto self = weakSelf.lock();
        if (!self) return;
        ZNVAuthenticatedBlock work = std::move(pending->block);
        pending->block = nullptr;
        self->runBlock(work);
    });
}

void ZNVTokenAccount::runBlock(const ZNVAuthenticatedBlock& block) {
    if (status() != ZNVAccountStatusSignedIn) {
        block(nullptr, ZNVError::withMessage(NSURLErrorDomain, NSURLErrorUserAuthenticationRequired,
                                             "the account is not signed in"));
        return;
    }
    TokenProvider provider;
    {
        std::lock_guard lock(mutex_);
        provider = tokenProvider_;
    }
    ZNVErrorRef error;
    std::string token = provider ? provider(&error) : std::string();
    if (error) {
        block(nullptr, error);
        return;
    }
    if (token.empty()) {
        block(nullptr, ZNVError::withMessage(NSURLErrorDomain, NSURLErrorUserAuthenticationRequired,
                                             "missing access token"));
        return;
    }
    block(std::make_shared<const ZNVAuthentication>(std::move(token)), nullptr);
}

bool ZNVTokenAccount::isCallbackThread() const {
    return callbackQueue_->isCurrent();
}

void ZNVTokenAccount::waitUntilIdle() {
    callbackQueue_->waitUntilAllOperationsAreFinished();
}

}  // namespace znv
