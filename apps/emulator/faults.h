// Fault rules of the emulator: which requests they match and what they do.
//
// `FaultSet` is safe to use from any thread (one mutex). `take` picks the first
// rule that matches a request and still has uses, and consumes one use; rules
// whose uses are spent stay listed (with "remaining": 0) until cleared.
// The JSON format is described in emulator.h.
#pragma once

#include <cstdint>
#include <initializer_list>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

namespace znv::emulator {

enum class FaultAction { Status, Reset, Stall, Throttle, MissingChunks, AlreadyCompleted };

struct FaultRule {
    uint64_t id = 0;
    std::string method;  // empty: any
    std::string path;    // glob; empty: any
    std::optional<uint64_t> times;
    uint64_t skip = 0;
    FaultAction action = FaultAction::Status;
    int status = 503;
    nlohmann::json body;  // object, or null for {"message": message}
    std::string message;
    nlohmann::json headers;  // object of header name to text
    uint64_t afterBytes = 0;
    uint64_t bytesPerSecond = 0;
    std::vector<uint64_t> chunks;

    uint64_t used = 0;     // uses consumed so far
    uint64_t matched = 0;  // matching requests seen, skipped ones included

    static std::optional<FaultRule> fromJSON(const nlohmann::json& json, std::string* error);
    nlohmann::json toJSON() const;
    bool matches(const std::string& method, const std::string& path) const;
};

const char* faultActionName(FaultAction action);

// Glob match where "*" stays within one path segment and "**" crosses them.
bool pathMatches(const std::string& pattern, const std::string& path);

class FaultSet {
  public:
    // Adds the rule(s) of an object or an array; returns the ids given.
    std::optional<std::vector<uint64_t>> add(const nlohmann::json& json, std::string* error);
    bool remove(uint64_t id);
    void clear();
    // Bumped by every change; stalled requests watch it to learn that their
    // rule was cleared.
    uint64_t generation() const;
    bool contains(uint64_t id) const;

    // The first rule with one of `actions` that matches and has uses left;
    // consumes one use of it.
    std::optional<FaultRule> take(const std::string& method, const std::string& path,
                                  std::initializer_list<FaultAction> actions);
    // Whether `take` would find a rule, without consuming a use.
    bool anyMatch(const std::string& method, const std::string& path,
                  std::initializer_list<FaultAction> actions) const;
    nlohmann::json toJSON() const;

  private:
    mutable std::mutex mutex_;
    std::vector<FaultRule> rules_;  // guarded by mutex_
    uint64_t nextId_ = 1;           // guarded by mutex_
    uint64_t generation_ = 0;       // guarded by mutex_
};

}  // namespace znv::emulator
