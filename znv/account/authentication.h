// ZNVAuthentication: an access token handed out by an account for one piece of
// authenticated work.
//
// Contract: immutable, shared as std::shared_ptr<const ZNVAuthentication>,
// readable from any thread. An empty token is "missing".
#pragma once

#include <memory>
#include <string>

namespace znv {

class ZNVAuthentication {
public:
    explicit ZNVAuthentication(std::string accessToken) : accessToken_(std::move(accessToken)) {}
    const std::string& accessToken() const { return accessToken_; }

private:
    std::string accessToken_;
};

using ZNVAuthenticationRef = std::shared_ptr<const ZNVAuthentication>;

}  // namespace znv
