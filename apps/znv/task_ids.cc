#include "apps/znv/task_ids.h"

#include <algorithm>
#include <cctype>

#include <fmt/format.h>

namespace znv::cli {
namespace {

// FNV-1a: small, fixed forever (IDs must not change between versions).
uint64_t fnv1a(const std::string& text) {
    uint64_t hash = 0xcbf29ce484222325ull;
    for (unsigned char c : text) {
        hash ^= c;
        hash *= 0x100000001b3ull;
    }
    return hash;
}

size_t commonPrefix(const std::string& a, const std::string& b) {
    size_t n = 0;
    while (n < a.size() && n < b.size() && a[n] == b[n])
        ++n;
    return n;
}

}  // namespace

std::string fullTaskHash(const TaskIdentity& identity) {
    // The separators cannot occur in a kind or a decimal number, so distinct
    // identities give distinct keys.
    std::string key =
        fmt::format("{}\n{}\n{}", identity.kind, identity.createdMicros, identity.subject);
    return fmt::format("{:016x}", fnv1a(key));
}

std::vector<std::string> shortTaskIds(const std::vector<TaskIdentity>& identities) {
    std::vector<std::string> hashes;
    hashes.reserve(identities.size());
    for (const auto& identity : identities)
        hashes.push_back(fullTaskHash(identity));
    std::vector<std::string> ids;
    ids.reserve(hashes.size());
    for (size_t i = 0; i < hashes.size(); ++i) {
        size_t length = kShortIdLength;
        for (size_t j = 0; j < hashes.size(); ++j) {
            if (j == i || hashes[j] == hashes[i]) continue;
            length = std::max(length, commonPrefix(hashes[i], hashes[j]) + 1);
        }
        ids.push_back(hashes[i].substr(0, std::min(length, hashes[i].size())));
    }
    return ids;
}

IdMatch findTaskById(const std::string& typed, const std::vector<std::string>& fullHashes,
                     size_t* index) {
    std::string prefix = typed;
    std::transform(prefix.begin(), prefix.end(), prefix.begin(),
                   [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
    if (prefix.size() < kMinimumIdPrefix) return IdMatch::TooShort;
    size_t found = fullHashes.size();
    for (size_t i = 0; i < fullHashes.size(); ++i) {
        if (fullHashes[i].compare(0, prefix.size(), prefix) != 0) continue;
        if (found != fullHashes.size() && fullHashes[found] != fullHashes[i]) {
            return IdMatch::Ambiguous;
        }
        if (found == fullHashes.size()) found = i;
    }
    if (found == fullHashes.size()) return IdMatch::NotFound;
    if (index != nullptr) *index = found;
    return IdMatch::Found;
}

}  // namespace znv::cli
