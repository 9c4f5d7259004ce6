#include "apps/znv/task_ids.h"

#include <algorithm>
#include <cctype>
#include <numeric>

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

std::vector<std::string> shortIdsOf(const std::vector<std::string>& hashes) {
    // In sorted order, the hash sharing the longest prefix with a given one is
    // next to it, or next to the run of its duplicates; so one sort and a look
    // at both neighbours replace a comparison of every pair.
    std::vector<size_t> order(hashes.size());
    std::iota(order.begin(), order.end(), size_t{0});
    std::sort(order.begin(), order.end(),
              [&](size_t a, size_t b) { return hashes[a] < hashes[b]; });
    std::vector<std::string> ids(hashes.size());
    for (size_t first = 0; first < order.size();) {
        const std::string& hash = hashes[order[first]];
        size_t end = first + 1;
        while (end < order.size() && hashes[order[end]] == hash)
            ++end;
        size_t length = kShortIdLength;
        if (first > 0) length = std::max(length, commonPrefix(hash, hashes[order[first - 1]]) + 1);
        if (end < order.size())
            length = std::max(length, commonPrefix(hash, hashes[order[end]]) + 1);
        for (size_t k = first; k < end; ++k)
            ids[order[k]] = hash.substr(0, std::min(length, hash.size()));
        first = end;
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
