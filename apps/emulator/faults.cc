#include "apps/emulator/faults.h"

#include <algorithm>
#include <cctype>

namespace znv::emulator {
namespace {

struct ActionName {
    FaultAction action;
    const char* name;
};

constexpr ActionName kActionNames[] = {
    {FaultAction::Status, "status"},
    {FaultAction::Reset, "reset"},
    {FaultAction::Stall, "stall"},
    {FaultAction::Throttle, "throttle"},
    {FaultAction::MissingChunks, "missingChunks"},
    {FaultAction::AlreadyCompleted, "alreadyCompleted"},
};

bool setError(std::string* error, std::string message) {
    if (error) *error = std::move(message);
    return false;
}

// Whether a JSON value is an integer >= 0. Parsed text gives unsigned
// numbers, but values built in C++ from plain ints are signed ones.
bool isNonNegativeInteger(const nlohmann::json& value) {
    return value.is_number_unsigned() || (value.is_number_integer() && value.get<int64_t>() >= 0);
}

// Reads an optional unsigned integer member; false when present with another type.
bool readUnsigned(const nlohmann::json& json, const char* key, std::optional<uint64_t>& out,
                  std::string* error) {
    auto it = json.find(key);
    if (it == json.end() || it->is_null()) return true;
    if (!isNonNegativeInteger(*it)) {
        return setError(error, std::string("\"") + key + "\" must be a non-negative integer");
    }
    out = it->get<uint64_t>();
    return true;
}

bool globMatch(std::string_view pattern, std::string_view text) {
    if (pattern.empty()) return text.empty();
    if (pattern.substr(0, 2) == "**") {
        auto rest = pattern.substr(2);
        for (size_t i = 0; i <= text.size(); ++i) {
            if (globMatch(rest, text.substr(i))) return true;
        }
        return false;
    }
    if (pattern[0] == '*') {
        auto rest = pattern.substr(1);
        for (size_t i = 0; i <= text.size(); ++i) {
            if (globMatch(rest, text.substr(i))) return true;
            if (i < text.size() && text[i] == '/') break;
        }
        return false;
    }
    if (text.empty() || pattern[0] != text[0]) return false;
    return globMatch(pattern.substr(1), text.substr(1));
}

}  // namespace

const char* faultActionName(FaultAction action) {
    for (const auto& entry : kActionNames) {
        if (entry.action == action) return entry.name;
    }
    return "unknown";
}

bool pathMatches(const std::string& pattern, const std::string& path) {
    return pattern.empty() || globMatch(pattern, path);
}

std::optional<FaultRule> FaultRule::fromJSON(const nlohmann::json& json, std::string* error) {
    if (!json.is_object()) {
        setError(error, "a fault rule must be a JSON object");
        return std::nullopt;
    }
    FaultRule rule;
    auto text = [&](const char* key, std::string& out) {
        auto it = json.find(key);
        if (it == json.end() || it->is_null()) return true;
        if (!it->is_string()) return setError(error, std::string("\"") + key + "\" must be text");
        out = it->get<std::string>();
        return true;
    };
    std::string action;
    if (!text("method", rule.method) || !text("path", rule.path) || !text("action", action) ||
        !text("message", rule.message)) {
        return std::nullopt;
    }
    std::transform(rule.method.begin(), rule.method.end(), rule.method.begin(),
                   [](unsigned char c) { return static_cast<char>(std::toupper(c)); });
    if (rule.method == "*") rule.method.clear();
    if (action.empty()) action = json.contains("status") ? "status" : "";
    bool known = false;
    for (const auto& entry : kActionNames) {
        if (action == entry.name) {
            rule.action = entry.action;
            known = true;
        }
    }
    if (!known) {
        setError(error,
                 "\"action\" must be one of status, reset, stall, throttle, missingChunks, "
                 "alreadyCompleted");
        return std::nullopt;
    }

    std::optional<uint64_t> times, skip, status, afterBytes, bytesPerSecond;
    if (!readUnsigned(json, "times", times, error) || !readUnsigned(json, "skip", skip, error) ||
        !readUnsigned(json, "status", status, error) ||
        !readUnsigned(json, "afterBytes", afterBytes, error) ||
        !readUnsigned(json, "bytesPerSecond", bytesPerSecond, error)) {
        return std::nullopt;
    }
    rule.times = times;
    rule.skip = skip.value_or(0);
    rule.afterBytes = afterBytes.value_or(0);
    rule.bytesPerSecond = bytesPerSecond.value_or(0);

    if (rule.action == FaultAction::Status) {
        rule.status = static_cast<int>(status.value_or(503));
        if (rule.status < 200 || rule.status > 599) {
            setError(error, "\"status\" must be an HTTP status from 200 to 599");
            return std::nullopt;
        }
        if (auto it = json.find("body"); it != json.end() && !it->is_null()) {
            rule.body = *it;
        }
        if (auto it = json.find("headers"); it != json.end() && !it->is_null()) {
            if (!it->is_object()) {
                setError(error, "\"headers\" must be an object");
                return std::nullopt;
            }
            for (const auto& [name, value] : it->items()) {
                if (!value.is_string()) {
                    setError(error, "header values must be text");
                    return std::nullopt;
                }
            }
            rule.headers = *it;
        }
    }
    if (rule.action == FaultAction::Throttle && rule.bytesPerSecond == 0) {
        setError(error, "a throttle rule needs \"bytesPerSecond\" above 0");
        return std::nullopt;
    }
    if (rule.action == FaultAction::MissingChunks) {
        auto it = json.find("chunks");
        if (it == json.end() || !it->is_array()) {
            setError(error, "a missingChunks rule needs \"chunks\": an array of indices");
            return std::nullopt;
        }
        for (const auto& index : *it) {
            if (!isNonNegativeInteger(index)) {
                setError(error, "chunk indices must be non-negative integers");
                return std::nullopt;
            }
            rule.chunks.push_back(index.get<uint64_t>());
        }
    }
    return rule;
}

nlohmann::json FaultRule::toJSON() const {
    nlohmann::json json = {{"id", id}, {"action", faultActionName(action)}};
    if (!method.empty()) json["method"] = method;
    if (!path.empty()) json["path"] = path;
    if (times) {
        json["times"] = *times;
        json["remaining"] = *times > used ? *times - used : 0;
    }
    if (skip) json["skip"] = skip;
    json["used"] = used;
    switch (action) {
        case FaultAction::Status:
            json["status"] = status;
            if (!body.is_null()) json["body"] = body;
            if (!message.empty()) json["message"] = message;
            if (!headers.is_null()) json["headers"] = headers;
            break;
        case FaultAction::Reset:
            json["afterBytes"] = afterBytes;
            break;
        case FaultAction::Throttle:
            json["bytesPerSecond"] = bytesPerSecond;
            break;
        case FaultAction::MissingChunks:
            json["chunks"] = chunks;
            break;
        case FaultAction::Stall:
        case FaultAction::AlreadyCompleted:
            break;
    }
    return json;
}

bool FaultRule::matches(const std::string& requestMethod, const std::string& requestPath) const {
    if (!method.empty() && method != requestMethod) return false;
    return pathMatches(path, requestPath);
}

std::optional<std::vector<uint64_t>> FaultSet::add(const nlohmann::json& json, std::string* error) {
    std::vector<FaultRule> parsed;
    if (json.is_array()) {
        for (const auto& element : json) {
            auto rule = FaultRule::fromJSON(element, error);
            if (!rule) return std::nullopt;
            parsed.push_back(std::move(*rule));
        }
    } else {
        auto rule = FaultRule::fromJSON(json, error);
        if (!rule) return std::nullopt;
        parsed.push_back(std::move(*rule));
    }
    std::vector<uint64_t> ids;
    std::lock_guard lock(mutex_);
    for (auto& rule : parsed) {
        rule.id = nextId_++;
        ids.push_back(rule.id);
        rules_.push_back(std::move(rule));
    }
    ++generation_;
    return ids;
}

bool FaultSet::remove(uint64_t id) {
    std::lock_guard lock(mutex_);
    auto it = std::find_if(rules_.begin(), rules_.end(), [&](const auto& r) { return r.id == id; });
    if (it == rules_.end()) return false;
    rules_.erase(it);
    ++generation_;
    return true;
}

void FaultSet::clear() {
    std::lock_guard lock(mutex_);
    rules_.clear();
    ++generation_;
}

uint64_t FaultSet::generation() const {
    std::lock_guard lock(mutex_);
    return generation_;
}

bool FaultSet::contains(uint64_t id) const {
    std::lock_guard lock(mutex_);
    return std::any_of(rules_.begin(), rules_.end(), [&](const auto& r) { return r.id == id; });
}

std::optional<FaultRule> FaultSet::take(const std::string& method, const std::string& path,
                                        std::initializer_list<FaultAction> actions) {
    std::lock_guard lock(mutex_);
    for (auto& rule : rules_) {
        if (std::find(actions.begin(), actions.end(), rule.action) == actions.end()) continue;
        if (rule.times && rule.used >= *rule.times) continue;
        if (!rule.matches(method, path)) continue;
        if (rule.matched++ < rule.skip) continue;
        ++rule.used;
        return rule;
    }
    return std::nullopt;
}

bool FaultSet::anyMatch(const std::string& method, const std::string& path,
                        std::initializer_list<FaultAction> actions) const {
    std::lock_guard lock(mutex_);
    for (const auto& rule : rules_) {
        if (std::find(actions.begin(), actions.end(), rule.action) == actions.end()) continue;
        if (rule.times && rule.used >= *rule.times) continue;
        if (rule.matches(method, path)) return true;
    }
    return false;
}

nlohmann::json FaultSet::toJSON() const {
    std::lock_guard lock(mutex_);
    nlohmann::json out = nlohmann::json::array();
    for (const auto& rule : rules_)
        out.push_back(rule.toJSON());
    return out;
}

}  // namespace znv::emulator
