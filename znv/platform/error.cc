#include "znv/platform/error.h"

#include <cstdio>

namespace znv {

const char* const NSURLErrorDomain = "NSURLErrorDomain";
const char* const NSCocoaErrorDomain = "NSCocoaErrorDomain";
const char* const NSLocalizedDescriptionKey = "NSLocalizedDescription";
const char* const NSURLErrorFailingURLStringErrorKey = "NSErrorFailingURLStringKey";
const char* const NSURLErrorFailingURLErrorKey = "NSErrorFailingURLKey";
const char* const NSURLSessionDownloadTaskResumeData = "NSURLSessionDownloadTaskResumeData";
const char* const NSUnderlyingErrorKey = "NSUnderlyingError";
const char* const NSFilePathErrorKey = "NSFilePath";
const char* const ZNVURLErrorFailingStatusCodeKey = "ZNVURLErrorFailingStatusCode";
const char* const ZNVURLErrorRetryAfterKey = "ZNVURLErrorRetryAfter";

ZNVError::ZNVError(std::string domain, int64_t code, ZNVUserInfo userInfo)
    : domain_(std::move(domain)), code_(code), userInfo_(std::move(userInfo)) {}

ZNVErrorRef ZNVError::make(std::string domain, int64_t code, ZNVUserInfo userInfo) {
    return std::make_shared<const ZNVError>(std::move(domain), code, std::move(userInfo));
}

ZNVErrorRef ZNVError::withMessage(std::string domain, int64_t code, std::string message) {
    return make(std::move(domain), code, {{NSLocalizedDescriptionKey, std::move(message)}});
}

const ZNVUserInfoValue* ZNVError::value(const std::string& key) const {
    auto it = userInfo_.find(key);
    return it == userInfo_.end() ? nullptr : &it->second;
}

std::optional<std::string> ZNVError::stringValue(const std::string& key) const {
    const ZNVUserInfoValue* v = value(key);
    if (v == nullptr) return std::nullopt;
    if (const auto* s = std::get_if<std::string>(v)) return *s;
    return std::nullopt;
}

std::string ZNVError::localizedDescription() const {
    if (auto message = stringValue(NSLocalizedDescriptionKey)) return *message;
    return "The operation couldn't be completed. (" + domain_ + " error " +
           std::to_string(code_) + ".)";
}

std::string ZNVError::description() const {
    std::string out = "Error Domain=" + domain_ + " Code=" + std::to_string(code_) + " \"" +
                      localizedDescription() + "\"";
    if (!userInfo_.empty()) {
        out += " UserInfo={";
        bool first = true;
        for (const auto& [key, v] : userInfo_) {
            if (!first) out += ", ";
            first = false;
            out += key + "=" + ZNVUserInfoValueDescription(v);
        }
        out += "}";
    }
    return out;
}

ZNVErrorRef ZNVError::byAddingUserInfo(const ZNVUserInfo& extra) const {
    ZNVUserInfo merged = userInfo_;
    for (const auto& [key, v] : extra) merged[key] = v;
    return make(domain_, code_, std::move(merged));
}

bool ZNVError::operator==(const ZNVError& other) const {
    if (domain_ != other.domain_ || code_ != other.code_) return false;
    if (userInfo_.size() != other.userInfo_.size()) return false;
    auto a = userInfo_.begin();
    auto b = other.userInfo_.begin();
    for (; a != userInfo_.end(); ++a, ++b) {
        if (a->first != b->first || !ZNVUserInfoValueEqual(a->second, b->second)) return false;
    }
    return true;
}

bool ZNVError::equal(const ZNVErrorRef& a, const ZNVErrorRef& b) {
    if (a == b) return true;
    if (!a || !b) return false;
    return *a == *b;
}

bool ZNVUserInfoValueEqual(const ZNVUserInfoValue& a, const ZNVUserInfoValue& b) {
    if (a.index() != b.index()) return false;
    if (const auto* ea = std::get_if<ZNVErrorRef>(&a)) {
        return ZNVError::equal(*ea, std::get<ZNVErrorRef>(b));
    }
    return a == b;
}

std::string ZNVUserInfoValueDescription(const ZNVUserInfoValue& value) {
    struct Visitor {
        std::string operator()(const std::string& s) const { return s; }
        std::string operator()(int64_t v) const { return std::to_string(v); }
        std::string operator()(uint64_t v) const { return std::to_string(v); }
        std::string operator()(bool v) const { return v ? "1" : "0"; }
        std::string operator()(double v) const {
            char buf[64];
            std::snprintf(buf, sizeof buf, "%g", v);
            return buf;
        }
        std::string operator()(const ZNVBytes& b) const {
            return "{length = " + std::to_string(b.size()) + " bytes}";
        }
        std::string operator()(const ZNVURL& u) const { return u.absoluteString(); }
        std::string operator()(const ZNVErrorRef& e) const {
            return e ? e->description() : std::string("(null)");
        }
    };
    return std::visit(Visitor{}, value);
}

}  // namespace znv
