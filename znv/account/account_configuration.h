// ZNVAccountConfiguration: the account library's description of the service an
// account talks to.
//
// Contract
// - Immutable after construction; shared as std::shared_ptr<const ...> and
//   readable from any thread.
// - `storageURL` is the storage service's base URL (for the emulator,
//   "http://127.0.0.1:<port>/api/"); `sharedContainerIdentifier` and
//   `accountConfigurationIdentifier` are optional texts (empty = none).
#pragma once

#include <memory>
#include <string>

#include "znv/platform/url.h"

namespace znv {

class ZNVAccountConfiguration {
public:
    ZNVAccountConfiguration(ZNVURL storageURL, std::string accountConfigurationIdentifier = {},
                            std::string sharedContainerIdentifier = {})
        : storageURL_(std::move(storageURL)),
          accountConfigurationIdentifier_(std::move(accountConfigurationIdentifier)),
          sharedContainerIdentifier_(std::move(sharedContainerIdentifier)) {}

    const ZNVURL& storageURL() const { return storageURL_; }
    const std::string& accountConfigurationIdentifier() const {
        return accountConfigurationIdentifier_;
    }
    const std::string& sharedContainerIdentifier() const { return sharedContainerIdentifier_; }

private:
    ZNVURL storageURL_;
    std::string accountConfigurationIdentifier_;
    std::string sharedContainerIdentifier_;
};

using ZNVAccountConfigurationRef = std::shared_ptr<const ZNVAccountConfiguration>;

}  // namespace znv
