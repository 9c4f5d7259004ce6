#include "znv/account/account.h"

#include "znv/platform/operation_queue.h"

namespace znv {

std::shared_ptr<ZNVTokenAccount> ZNVTokenAccount::create(ZNVAccountConfigurationRef configuration,
                                                         TokenProvider tokenProvider,
                                                         int64_t status) {
    return std::make_shared<ZNVTokenAccount>(Private{}, std::move(configuration),
                                             std::move(tokenProvider), status);
}

std::shared_ptr<ZNVTokenAccount> ZNVTokenAccount::createWithToken(
    ZNVAccountConfigurationRef configuration, std::string token, int64_t status) {
    return create(
        std::move(configuration), [token = std::move(token)](ZNVErrorRef*) { return token; },
        status);
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
}

void ZNVTokenAccount::dispatchAuthenticatedBlock(ZNVAuthenticatedBlock block) {
    if (!block) return;
    callbackQueue_->addOperation([weakSelf = weak_from_this(), block = std::move(block)]() mutable {
        auto self = weakSelf.lock();
        if (!self) return;
        ZNVAuthenticatedBlock work = std::move(block);
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
