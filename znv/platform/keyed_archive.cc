#include "znv/platform/keyed_archive.h"

#include <errno.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cmath>
#include <cstring>
#include <iterator>
#include <limits>
#include <mutex>
#include <stdexcept>
#include <unordered_map>

#include "znv/platform/json_depth.h"

namespace znv {

const char* const NSInvalidArchiveOperationException = "NSInvalidArchiveOperationException";
const char* const ZNVArchiveRootClassName = "NSObject";
const char* const ZNVArchiveArrayClassName = "NSArray";
const char* const ZNVArchiveMutableArrayClassName = "NSMutableArray";
const char* const ZNVArchiveErrorClassName = "NSError";

namespace {

constexpr const char* kArchiverName = "ZNVKeyedArchiver";
constexpr int64_t kArchiveVersion = 1;
constexpr const char* kRootKey = "root";

// Keys starting with "$" get one more "$" so they never clash with markers.
std::string memberName(const std::string& key) {
    if (!key.empty() && key[0] == '$') return "$" + key;
    return key;
}

std::string keyFromMemberName(const std::string& name) {
    if (name.size() > 1 && name[0] == '$' && name[1] == '$') return name.substr(1);
    return name;
}

ZNVErrorRef coderError(int64_t code, const std::string& message) {
    return ZNVError::withMessage(NSCocoaErrorDomain, code, message);
}

const char* jsonTypeName(const nlohmann::json& value) {
    switch (value.type()) {
        case nlohmann::json::value_t::null:
            return "null";
        case nlohmann::json::value_t::object:
            return "an object";
        case nlohmann::json::value_t::array:
            return "an array";
        case nlohmann::json::value_t::string:
            return "a string";
        case nlohmann::json::value_t::boolean:
            return "a boolean";
        case nlohmann::json::value_t::number_integer:
        case nlohmann::json::value_t::number_unsigned:
            return "an integer";
        case nlohmann::json::value_t::number_float:
            return "a number with a fraction or exponent";
        default:
            return "an unsupported value";
    }
}

// A single-member object {"<marker>": value}; null when `value` is not one.
const nlohmann::json* wrapped(const nlohmann::json& value, const char* marker) {
    if (!value.is_object() || value.size() != 1) return nullptr;
    auto it = value.find(marker);
    return it == value.end() ? nullptr : &*it;
}

constexpr char kBase64Alphabet[] =
    "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";

}  // namespace

std::string ZNVKeyedCodingOnlyMessage(const std::string& className) {
    return className + " only supports NSKeyedArchiver encoders";
}

void ZNVRaiseKeyedCodingOnly(const std::string& className) {
    throw ZNVInvalidArchiveOperationException(ZNVKeyedCodingOnlyMessage(className));
}

// ---------------------------------------------------------------------------
// Base64

std::string ZNVBase64Encode(const uint8_t* data, size_t size) {
    std::string out;
    out.reserve((size + 2) / 3 * 4);
    size_t i = 0;
    for (; i + 2 < size; i += 3) {
        uint32_t n = (uint32_t(data[i]) << 16) | (uint32_t(data[i + 1]) << 8) | data[i + 2];
        out.push_back(kBase64Alphabet[(n >> 18) & 63]);
        out.push_back(kBase64Alphabet[(n >> 12) & 63]);
        out.push_back(kBase64Alphabet[(n >> 6) & 63]);
        out.push_back(kBase64Alphabet[n & 63]);
    }
    if (i < size) {
        uint32_t n = uint32_t(data[i]) << 16;
        if (i + 1 < size) n |= uint32_t(data[i + 1]) << 8;
        out.push_back(kBase64Alphabet[(n >> 18) & 63]);
        out.push_back(kBase64Alphabet[(n >> 12) & 63]);
        out.push_back(i + 1 < size ? kBase64Alphabet[(n >> 6) & 63] : '=');
        out.push_back('=');
    }
    return out;
}

std::optional<ZNVBytes> ZNVBase64Decode(std::string_view text) {
    static const auto table = [] {
        std::array<int8_t, 256> t{};
        t.fill(-1);
        for (int i = 0; i < 64; ++i)
            t[static_cast<uint8_t>(kBase64Alphabet[i])] = int8_t(i);
        return t;
    }();
    if (text.size() % 4 != 0) return std::nullopt;
    ZNVBytes out;
    out.reserve(text.size() / 4 * 3);
    for (size_t i = 0; i < text.size(); i += 4) {
        bool last = i + 4 == text.size();
        int v[4];
        int padding = 0;
        for (int k = 0; k < 4; ++k) {
            char c = text[i + k];
            if (c == '=') {
                // Padding only in the last group, only in its last two places,
                // and nothing but padding after it.
                if (!last || k < 2) return std::nullopt;
                ++padding;
                v[k] = 0;
            } else {
                if (padding > 0) return std::nullopt;
                v[k] = table[static_cast<uint8_t>(c)];
                if (v[k] < 0) return std::nullopt;
            }
        }
        uint32_t n = (uint32_t(v[0]) << 18) | (uint32_t(v[1]) << 12) | (uint32_t(v[2]) << 6) |
                     uint32_t(v[3]);
        out.push_back(uint8_t(n >> 16));
        if (padding < 2) out.push_back(uint8_t(n >> 8));
        if (padding < 1) out.push_back(uint8_t(n));
    }
    return out;
}

// ---------------------------------------------------------------------------
// Class registry

struct ZNVArchiveClassRegistry::Impl {
    struct Entry {
        std::string superclass;
        ZNVArchiveDecodeFactory factory;
    };
    mutable std::mutex mutex;
    std::unordered_map<std::string, Entry> classes;  // guarded by mutex

    // Walks the superclass chain of `name` (itself first) while `visit`
    // answers false. Bounded, so a registration cycle cannot hang a lookup.
    template <class Visit>
    bool walk(const std::string& name, Visit visit) const {
        std::string current = name;
        for (int hops = 0; hops < 64 && !current.empty(); ++hops) {
            if (visit(current)) return true;
            auto it = classes.find(current);
            if (it == classes.end()) return false;
            current = it->second.superclass;
        }
        return false;
    }
};

ZNVArchiveClassRegistry::ZNVArchiveClassRegistry() : impl_(std::make_unique<Impl>()) {
    impl_->classes[ZNVArchiveRootClassName] = {"", nullptr};
    impl_->classes[ZNVArchiveArrayClassName] = {ZNVArchiveRootClassName, nullptr};
    impl_->classes[ZNVArchiveMutableArrayClassName] = {ZNVArchiveArrayClassName, nullptr};
}

ZNVArchiveClassRegistry& ZNVArchiveClassRegistry::shared() {
    static ZNVArchiveClassRegistry* registry = new ZNVArchiveClassRegistry();
    return *registry;
}

void ZNVArchiveClassRegistry::registerClass(const std::string& className,
                                            const std::string& superclassName,
                                            ZNVArchiveDecodeFactory factory) {
    std::lock_guard<std::mutex> lock(impl_->mutex);
    impl_->classes[className] = {superclassName.empty() ? ZNVArchiveRootClassName : superclassName,
                                 std::move(factory)};
}

bool ZNVArchiveClassRegistry::isRegistered(const std::string& className) const {
    std::lock_guard<std::mutex> lock(impl_->mutex);
    return impl_->classes.count(className) != 0;
}

bool ZNVArchiveClassRegistry::isKindOfClass(const std::string& className,
                                            const std::string& ancestor) const {
    std::lock_guard<std::mutex> lock(impl_->mutex);
    return impl_->walk(className, [&](const std::string& c) { return c == ancestor; });
}

bool ZNVArchiveClassRegistry::isAllowed(const std::string& className,
                                        const std::set<std::string>& allowed) const {
    std::lock_guard<std::mutex> lock(impl_->mutex);
    return impl_->walk(className, [&](const std::string& c) { return allowed.count(c) != 0; });
}

ZNVArchiveDecodeFactory ZNVArchiveClassRegistry::factory(const std::string& className) const {
    std::lock_guard<std::mutex> lock(impl_->mutex);
    auto it = impl_->classes.find(className);
    return it == impl_->classes.end() ? nullptr : it->second.factory;
}

// ---------------------------------------------------------------------------
// ZNVArchivedArray

std::string ZNVArchivedArray::className() const {
    return ZNVArchiveMutableArrayClassName;
}

void ZNVArchivedArray::encodeWithCoder(ZNVCoder& coder) const {
    // The keyed archiver writes arrays itself ("$objects"); only a coder
    // without keys reaches this point with work to refuse.
    if (!coder.allowsKeyedCoding()) ZNVRaiseKeyedCodingOnly(className());
}

// ---------------------------------------------------------------------------
// ZNVKeyedArchiver

ZNVKeyedArchiver::ZNVKeyedArchiver() {
    root_ = Json::object();
    root_["$archiver"] = kArchiverName;
    root_["$version"] = kArchiveVersion;
    root_["$top"] = Json::object();
    stack_.push_back(&root_["$top"]);
}

ZNVKeyedArchiver::~ZNVKeyedArchiver() = default;

ZNVKeyedArchiver::Json* ZNVKeyedArchiver::current() {
    if (finished_ || stack_.empty()) return nullptr;
    return stack_.back();
}

void ZNVKeyedArchiver::put(const std::string& key, Json value) {
    Json* target = current();
    if (target == nullptr) return;
    (*target)[memberName(key)] = std::move(value);
}

void ZNVKeyedArchiver::fail(const std::string& message) {
    if (!error_) error_ = coderError(NSCoderReadCorruptError, message);
}

void ZNVKeyedArchiver::encodeString(const std::string& value, const std::string& key) {
    put(key, value);
}
void ZNVKeyedArchiver::encodeInt64(int64_t value, const std::string& key) {
    put(key, value);
}
void ZNVKeyedArchiver::encodeUInt64(uint64_t value, const std::string& key) {
    put(key, value);
}
void ZNVKeyedArchiver::encodeBool(bool value, const std::string& key) {
    put(key, value);
}

namespace {
nlohmann::ordered_json doubleToJson(double value) {
    if (std::isfinite(value)) return value;
    const char* text = std::isnan(value) ? "nan" : (value > 0 ? "inf" : "-inf");
    return nlohmann::ordered_json{{"$double", text}};
}
}  // namespace

void ZNVKeyedArchiver::encodeDouble(double value, const std::string& key) {
    put(key, doubleToJson(value));
}

void ZNVKeyedArchiver::encodeDate(ZNVDate value, const std::string& key) {
    auto micros =
        std::chrono::duration_cast<std::chrono::microseconds>(value.time_since_epoch()).count();
    put(key, Json{{"$date", static_cast<double>(micros) / 1e6}});
}

void ZNVKeyedArchiver::encodeURL(const ZNVURL& value, const std::string& key) {
    put(key, Json{{"$url", value.absoluteString()}});
}

void ZNVKeyedArchiver::encodeData(const ZNVBytes& value, const std::string& key) {
    put(key, Json{{"$data", ZNVBase64Encode(value.data(), value.size())}});
}

void ZNVKeyedArchiver::encodeIndexSet(const ZNVIndexSet& value, const std::string& key) {
    Json ranges = Json::array();
    for (const auto& r : value.ranges())
        ranges.push_back(Json::array({r.first, r.length}));
    put(key, Json{{"$indexes", std::move(ranges)}});
}

ZNVKeyedArchiver::Json ZNVKeyedArchiver::userInfoValueToJson(const ZNVUserInfoValue& value,
                                                             int depth, bool* tooDeep) {
    return std::visit(
        [&](const auto& v) -> Json {
            using T = std::decay_t<decltype(v)>;
            if constexpr (std::is_same_v<T, std::string> || std::is_same_v<T, int64_t> ||
                          std::is_same_v<T, bool>) {
                return v;
            } else if constexpr (std::is_same_v<T, uint64_t>) {
                // A plain non-negative number reads back as signed; keep the kind.
                return Json{{"$uint64", v}};
            } else if constexpr (std::is_same_v<T, double>) {
                return doubleToJson(v);
            } else if constexpr (std::is_same_v<T, ZNVBytes>) {
                return Json{{"$data", ZNVBase64Encode(v.data(), v.size())}};
            } else if constexpr (std::is_same_v<T, ZNVURL>) {
                return Json{{"$url", v.absoluteString()}};
            } else {
                if (!v) return nullptr;
                return errorToJson(*v, depth, tooDeep);
            }
        },
        value);
}

ZNVKeyedArchiver::Json ZNVKeyedArchiver::errorToJson(const ZNVError& error, int depth,
                                                     bool* tooDeep) {
    // The error is at `depth`, its user info one deeper, and a wrapped or
    // nested value in there one deeper again.
    if (depth + 2 > ZNVKeyedUnarchiver::kMaxDepth) {
        *tooDeep = true;
        return nullptr;
    }
    Json out = Json::object();
    out["$class"] = ZNVArchiveErrorClassName;
    out["domain"] = error.domain();
    out["code"] = error.code();
    Json info = Json::object();
    for (const auto& [key, value] : error.userInfo()) {
        info[memberName(key)] = userInfoValueToJson(value, depth + 2, tooDeep);
        if (*tooDeep) return nullptr;
    }
    out["userInfo"] = std::move(info);
    return out;
}

void ZNVKeyedArchiver::encodeError(const ZNVErrorRef& value, const std::string& key) {
    if (!value || current() == nullptr) return;
    bool tooDeep = false;
    Json encoded = errorToJson(*value, currentDepth_ + 1, &tooDeep);
    if (tooDeep) {
        fail("error under key \"" + key + "\" is nested too deeply to archive");
        return;
    }
    put(key, std::move(encoded));
}

ZNVKeyedArchiver::Json ZNVKeyedArchiver::encodeObjectValue(const ZNVCoding& object, int depth) {
    Json out = Json::object();
    out["$class"] = object.className();
    // Leave room for the wrapped values inside the object.
    if (depth + 2 > ZNVKeyedUnarchiver::kMaxDepth) {
        fail("object graph is nested too deeply to archive");
        return out;
    }
    if (const auto* array = dynamic_cast<const ZNVArchivedArray*>(&object)) {
        Json elements = Json::array();
        for (const auto& element : array->objects) {
            if (element) elements.push_back(encodeObjectValue(*element, depth + 2));
        }
        out["$objects"] = std::move(elements);
        return out;
    }
    // Encode into `out` while it is the current object. Restore on every
    // exit, including an exception from the object's own code.
    struct Restore {
        ZNVKeyedArchiver& archiver;
        int depth;
        ~Restore() {
            archiver.stack_.pop_back();
            archiver.currentDepth_ = depth;
        }
    } restore{*this, currentDepth_};
    stack_.push_back(&out);
    currentDepth_ = depth;
    object.encodeWithCoder(*this);
    return out;
}

void ZNVKeyedArchiver::encodeObject(const ZNVCoding* object, const std::string& key) {
    if (object == nullptr || current() == nullptr) return;
    put(key, encodeObjectValue(*object, currentDepth_ + 1));
}

void ZNVKeyedArchiver::encodeObjectArray(const std::vector<const ZNVCoding*>& objects,
                                         const std::string& key) {
    if (current() == nullptr) return;
    int depth = currentDepth_ + 1;
    if (depth + 2 > ZNVKeyedUnarchiver::kMaxDepth) {
        fail("object graph is nested too deeply to archive");
        return;
    }
    Json elements = Json::array();
    for (const ZNVCoding* element : objects) {
        if (element) elements.push_back(encodeObjectValue(*element, depth + 2));
    }
    Json out = Json::object();
    out["$class"] = ZNVArchiveMutableArrayClassName;
    out["$objects"] = std::move(elements);
    put(key, std::move(out));
}

void ZNVKeyedArchiver::finishEncoding() {
    finished_ = true;
}

std::string ZNVKeyedArchiver::encodedString() {
    finishEncoding();
    if (error_) return {};
    // Invalid UTF-8 in a string is replaced rather than thrown about.
    return root_.dump(-1, ' ', false, nlohmann::ordered_json::error_handler_t::replace);
}

ZNVBytes ZNVKeyedArchiver::encodedData() {
    std::string text = encodedString();
    return ZNVBytes(text.begin(), text.end());
}

ZNVBytes ZNVKeyedArchiver::archivedDataWithRootObject(const ZNVCoding& object, ZNVErrorRef* error) {
    ZNVKeyedArchiver archiver;
    archiver.encodeObject(&object, kRootKey);
    ZNVBytes data = archiver.encodedData();
    if (error) *error = archiver.error();
    return data;
}

std::string ZNVKeyedArchiver::encodedTopLevelArrayElement(const ZNVCoding& object,
                                                          ZNVErrorRef* error) {
    // The elements of an array under a top-level key sit two levels below the
    // array: $top (2), the array object (3), "$objects" (4), the element (5).
    ZNVKeyedArchiver archiver;
    Json value = archiver.encodeObjectValue(object, archiver.currentDepth_ + 3);
    if (error) *error = archiver.error_;
    if (archiver.error_) return {};
    return value.dump(-1, ' ', false, Json::error_handler_t::replace);
}

bool ZNVKeyedArchiver::encodedStringAroundObjectArray(const std::string& key, std::string* head,
                                                      std::string* tail) {
    Json* top = current();
    if (top == nullptr || stack_.size() != 1 || top->contains(memberName(key))) return false;
    encodeObjectArray({}, key);
    std::string text = encodedString();
    // The empty array is the last value of $top, which is the last value of
    // the document: the text ends with its brackets and three closing braces.
    static constexpr std::string_view kEnd = "[]}}}";
    if (error_ || !text.ends_with(kEnd)) return false;
    *tail = text.substr(text.size() - kEnd.size() + 1);
    text.resize(text.size() - kEnd.size() + 1);
    *head = std::move(text);
    return true;
}

// ---------------------------------------------------------------------------
// ZNVKeyedUnarchiver

ZNVKeyedUnarchiver::~ZNVKeyedUnarchiver() = default;

std::unique_ptr<ZNVKeyedUnarchiver> ZNVKeyedUnarchiver::create(const ZNVBytes& data,
                                                               ZNVErrorRef* error) {
    return create(std::string_view(reinterpret_cast<const char*>(data.data()), data.size()), error);
}

std::unique_ptr<ZNVKeyedUnarchiver> ZNVKeyedUnarchiver::create(std::string_view data,
                                                               ZNVErrorRef* error) {
    return parse(data, -1, nullptr, nullptr, error);
}

std::unique_ptr<ZNVKeyedUnarchiver> ZNVKeyedUnarchiver::createDecodingArray(
    const ZNVBytes& data, const std::string& arrayKey, const std::set<std::string>& allowed,
    ZNVErrorRef* error) {
    return parse(std::string_view(reinterpret_cast<const char*>(data.data()), data.size()), -1,
                 &arrayKey, &allowed, error);
}

std::unique_ptr<ZNVKeyedUnarchiver> ZNVKeyedUnarchiver::createDecodingArray(
    int fd, const std::string& arrayKey, const std::set<std::string>& allowed, ZNVErrorRef* error) {
    return parse(std::string_view(), fd, &arrayKey, &allowed, error);
}

namespace {

// The bytes of a file descriptor as an input iterator, read in blocks: the
// parser reads the file once, front to back, without holding it.
class FileBytes {
  public:
    explicit FileBytes(int fd) : fd_(fd) {}
    bool atEnd() {
        if (position_ < length_) return false;
        if (fd_ < 0) return true;
        ssize_t n;
        do {
            n = ::read(fd_, buffer_.data(), buffer_.size());
        } while (n < 0 && errno == EINTR);
        if (n < 0) throw std::runtime_error(std::string("cannot read: ") + std::strerror(errno));
        position_ = 0;
        length_ = static_cast<size_t>(n);
        if (n == 0) fd_ = -1;
        return n == 0;
    }
    char current() const { return buffer_[position_]; }
    void advance() { ++position_; }

  private:
    int fd_;
    std::array<char, 1 << 16> buffer_{};
    size_t position_ = 0;
    size_t length_ = 0;
};

class FileByteIterator {
  public:
    using iterator_category = std::input_iterator_tag;
    using value_type = char;
    using difference_type = std::ptrdiff_t;
    using pointer = const char*;
    using reference = char;

    FileByteIterator() = default;  // the end
    explicit FileByteIterator(FileBytes* bytes) : bytes_(bytes) {}
    char operator*() const { return bytes_->current(); }
    FileByteIterator& operator++() {
        bytes_->advance();
        return *this;
    }
    FileByteIterator operator++(int) {
        FileByteIterator before = *this;
        bytes_->advance();
        return before;
    }
    bool operator==(const FileByteIterator& other) const { return atEnd() == other.atEnd(); }
    bool operator!=(const FileByteIterator& other) const { return !(*this == other); }

  private:
    bool atEnd() const { return !bytes_ || bytes_->atEnd(); }
    FileBytes* bytes_ = nullptr;
};

// Thrown from the parser's callback to stop at a nesting deeper than allowed.
struct TooDeep {};

}  // namespace

std::unique_ptr<ZNVKeyedUnarchiver> ZNVKeyedUnarchiver::parse(std::string_view data, int fd,
                                                              const std::string* arrayKey,
                                                              const std::set<std::string>* allowed,
                                                              ZNVErrorRef* error) {
    auto refuse = [&](int64_t code, const std::string& message) {
        if (error) *error = coderError(code, message);
        return nullptr;
    };
    const auto tooDeep = [&] {
        return refuse(NSCoderReadCorruptError, "the archive is nested more than " +
                                                   std::to_string(kMaxDepth) + " levels deep");
    };
    if (error) *error = nullptr;
    if (fd < 0 && data.empty()) return refuse(NSCoderReadCorruptError, "the archive is empty");
    if (fd < 0 && ZNVJSONNestingDepth(data, kMaxDepth) > static_cast<size_t>(kMaxDepth)) {
        return tooDeep();
    }
    std::unique_ptr<ZNVKeyedUnarchiver> unarchiver(new ZNVKeyedUnarchiver());
    try {
        if (!arrayKey) {
            unarchiver->root_ = Json::parse(data.begin(), data.end());
        } else {
            unarchiver->streamedKey_ = *arrayKey;
            std::set<std::string> withArray = *allowed;
            withArray.insert(ZNVArchiveArrayClassName);
            // Elements are decoded with an empty object standing in for $top
            // (they never look above themselves).
            const Json standIn = Json::object();
            unarchiver->stack_.push_back(&standIn);
            // The key and the kind of container at each depth of the text
            // being read; an element of the array is an object at depth 4
            // in "$top" / arrayKey / "$objects".
            std::vector<std::string> keys(ZNVKeyedUnarchiver::kMaxDepth + 2);
            std::vector<char> kinds(ZNVKeyedUnarchiver::kMaxDepth + 2, 0);
            ZNVKeyedUnarchiver& self = *unarchiver;
            const auto isElementDepth = [&](int depth) {
                return depth == 4 && kinds[0] == 'o' && kinds[1] == 'o' && kinds[2] == 'o' &&
                       kinds[3] == 'a' && keys[1] == "$top" && keys[2] == *arrayKey &&
                       keys[3] == "$objects";
            };
            auto callback = [&](int depth, Json::parse_event_t event, Json& parsed) {
                const size_t at = static_cast<size_t>(depth);
                // A file is not scanned beforehand: its depth is checked here.
                if ((event == Json::parse_event_t::object_start ||
                     event == Json::parse_event_t::array_start) &&
                    at + 1 > static_cast<size_t>(kMaxDepth)) {
                    throw TooDeep{};
                }
                if (at + 1 >= keys.size()) return true;  // deeper than any element looks
                switch (event) {
                    case Json::parse_event_t::key:
                        keys[at] = parsed.is_string() ? parsed.get<std::string>() : std::string();
                        return true;
                    case Json::parse_event_t::object_start:
                    case Json::parse_event_t::array_start:
                        kinds[at] = event == Json::parse_event_t::object_start ? 'o' : 'a';
                        keys[at + 1].clear();
                        // A repeated array key replaces the earlier array.
                        if (depth == 3 && isElementDepth(4)) {
                            self.streamed_.clear();
                            self.streamedError_ = nullptr;
                            self.error_ = nullptr;
                        }
                        return true;
                    case Json::parse_event_t::object_end:
                        if (!isElementDepth(depth)) return true;
                        if (!self.error_) {
                            try {
                                auto object = self.decodeObjectValue(parsed, withArray, *arrayKey);
                                if (object) self.streamed_.push_back(std::move(object));
                            } catch (const std::exception& e) {
                                self.failWithMessage(
                                    NSCoderReadCorruptError,
                                    std::string("decoding failed with an exception: ") + e.what());
                            }
                            if (self.error_) self.streamedError_ = self.error_;
                        }
                        return false;  // the element's document is not kept
                    default:
                        return true;
                }
            };
            if (fd >= 0) {
                FileBytes bytes(fd);
                unarchiver->root_ =
                    Json::parse(FileByteIterator(&bytes), FileByteIterator(), callback);
            } else {
                unarchiver->root_ = Json::parse(data.begin(), data.end(), callback);
            }
            unarchiver->stack_.clear();
            unarchiver->error_ = nullptr;
        }
    } catch (const TooDeep&) {
        return tooDeep();
    } catch (const nlohmann::json::exception& e) {
        return refuse(NSCoderReadCorruptError,
                      std::string("the archive is not valid JSON: ") + e.what());
    } catch (const std::exception& e) {
        return refuse(NSCoderReadCorruptError,
                      std::string("the archive could not be read: ") + e.what());
    }
    const Json& root = unarchiver->root_;
    if (!root.is_object()) {
        return refuse(NSCoderReadCorruptError,
                      std::string("the archive is ") + jsonTypeName(root) + ", not an object");
    }
    auto archiver = root.find("$archiver");
    if (archiver == root.end()) {
        return refuse(NSCoderValueNotFoundError, "the archive has no \"$archiver\"");
    }
    if (!archiver->is_string() || archiver->get_ref<const std::string&>() != kArchiverName) {
        return refuse(NSCoderReadCorruptError, "the archive was not written by ZNVKeyedArchiver");
    }
    auto version = root.find("$version");
    if (version == root.end()) {
        return refuse(NSCoderValueNotFoundError, "the archive has no \"$version\"");
    }
    if (!version->is_number_integer() || version->get<int64_t>() != kArchiveVersion) {
        return refuse(NSCoderReadCorruptError, "unsupported archive version " + version->dump());
    }
    auto top = root.find("$top");
    if (top == root.end()) return refuse(NSCoderValueNotFoundError, "the archive has no \"$top\"");
    if (!top->is_object()) {
        return refuse(NSCoderReadCorruptError,
                      std::string("the archive's \"$top\" is ") + jsonTypeName(*top));
    }
    unarchiver->stack_.push_back(&*top);
    return unarchiver;
}

void ZNVKeyedUnarchiver::failWithError(ZNVErrorRef error) {
    if (!error_ && error) error_ = std::move(error);
}

void ZNVKeyedUnarchiver::failWithMessage(int64_t code, const std::string& message) {
    if (!error_) error_ = coderError(code, message);
}

std::string ZNVKeyedUnarchiver::currentClassName() const {
    if (stack_.size() < 2) return "";
    auto it = stack_.back()->find("$class");
    return it != stack_.back()->end() && it->is_string() ? it->get<std::string>() : "";
}

void ZNVKeyedUnarchiver::failWrongType(const std::string& key, const std::string& expected) {
    if (error_) return;
    std::string where = currentClassName();
    std::string message = "value for key \"" + key + "\"";
    if (!where.empty()) message += " of " + where;
    const Json* value = lookup(key);
    message +=
        " is " + std::string(value ? jsonTypeName(*value) : "missing") + ", expected " + expected;
    error_ = coderError(NSCoderReadCorruptError, message);
}

const ZNVKeyedUnarchiver::Json* ZNVKeyedUnarchiver::lookup(const std::string& key) const {
    if (stack_.empty()) return nullptr;
    const Json& object = *stack_.back();
    auto it = object.find(memberName(key));
    return it == object.end() ? nullptr : &*it;
}

bool ZNVKeyedUnarchiver::containsValueForKey(const std::string& key) const {
    if (finished_ || error_) return false;
    return lookup(key) != nullptr;
}

bool ZNVKeyedUnarchiver::isNumberForKey(const std::string& key) const {
    if (finished_ || error_) return false;
    const Json* v = lookup(key);
    return v != nullptr && v->is_number();
}

bool ZNVKeyedUnarchiver::isStringForKey(const std::string& key) const {
    if (finished_ || error_) return false;
    const Json* v = lookup(key);
    return v != nullptr && v->is_string();
}

std::optional<std::string> ZNVKeyedUnarchiver::decodeStringForKey(const std::string& key) {
    if (finished_ || error_) return std::nullopt;
    const Json* v = lookup(key);
    if (v == nullptr) return std::nullopt;
    if (!v->is_string()) {
        failWrongType(key, "a string");
        return std::nullopt;
    }
    return v->get<std::string>();
}

std::optional<int64_t> ZNVKeyedUnarchiver::decodeInt64ForKey(const std::string& key) {
    if (finished_ || error_) return std::nullopt;
    const Json* v = lookup(key);
    if (v == nullptr) return std::nullopt;
    if (v->is_number_integer() && !v->is_number_unsigned()) return v->get<int64_t>();
    if (v->is_number_unsigned() &&
        v->get<uint64_t>() <= static_cast<uint64_t>(std::numeric_limits<int64_t>::max())) {
        return static_cast<int64_t>(v->get<uint64_t>());
    }
    failWrongType(key, "a signed 64-bit integer");
    return std::nullopt;
}

std::optional<uint64_t> ZNVKeyedUnarchiver::decodeUInt64ForKey(const std::string& key) {
    if (finished_ || error_) return std::nullopt;
    const Json* v = lookup(key);
    if (v == nullptr) return std::nullopt;
    if (v->is_number_unsigned()) return v->get<uint64_t>();
    failWrongType(key, "an unsigned 64-bit integer");
    return std::nullopt;
}

std::optional<bool> ZNVKeyedUnarchiver::decodeBoolForKey(const std::string& key) {
    if (finished_ || error_) return std::nullopt;
    const Json* v = lookup(key);
    if (v == nullptr) return std::nullopt;
    if (v->is_boolean()) return v->get<bool>();
    failWrongType(key, "a boolean");
    return std::nullopt;
}

namespace {
std::optional<double> doubleFromJson(const nlohmann::json& v) {
    if (v.is_number()) return v.get<double>();
    if (const auto* special = wrapped(v, "$double"); special && special->is_string()) {
        const auto& text = special->get_ref<const std::string&>();
        if (text == "nan") return std::numeric_limits<double>::quiet_NaN();
        if (text == "inf") return std::numeric_limits<double>::infinity();
        if (text == "-inf") return -std::numeric_limits<double>::infinity();
    }
    return std::nullopt;
}
}  // namespace

std::optional<double> ZNVKeyedUnarchiver::decodeDoubleForKey(const std::string& key) {
    if (finished_ || error_) return std::nullopt;
    const Json* v = lookup(key);
    if (v == nullptr) return std::nullopt;
    if (auto d = doubleFromJson(*v)) return d;
    failWrongType(key, "a number");
    return std::nullopt;
}

std::optional<ZNVDate> ZNVKeyedUnarchiver::decodeDateForKey(const std::string& key) {
    if (finished_ || error_) return std::nullopt;
    const Json* v = lookup(key);
    if (v == nullptr) return std::nullopt;
    const Json* seconds = wrapped(*v, "$date");
    // Microseconds that still fit a system_clock time point (nanoseconds in a
    // signed 64-bit count): everything the archiver can write, give or take
    // the rounding of a double.
    constexpr double kMaxMicros = 9.2233720368548e15;  // a little over, then clamped
    double micros = seconds != nullptr && seconds->is_number() ? seconds->get<double>() * 1e6 : NAN;
    if (!(std::fabs(micros) <= kMaxMicros)) {
        failWrongType(key, "a date ({\"$date\": seconds since 1970 within 292 years})");
        return std::nullopt;
    }
    auto count =
        std::clamp<long long>(std::llround(micros), -9223372036854775LL, 9223372036854775LL);
    return ZNVDate(std::chrono::duration_cast<ZNVDate::duration>(std::chrono::microseconds(count)));
}

std::optional<ZNVURL> ZNVKeyedUnarchiver::decodeURLForKey(const std::string& key) {
    if (finished_ || error_) return std::nullopt;
    const Json* v = lookup(key);
    if (v == nullptr) return std::nullopt;
    const Json* text = wrapped(*v, "$url");
    if (text == nullptr || !text->is_string()) {
        failWrongType(key, "a URL ({\"$url\": text})");
        return std::nullopt;
    }
    auto url = ZNVURL::fromString(text->get_ref<const std::string&>());
    if (!url) {
        failWithMessage(NSCoderReadCorruptError,
                        "value for key \"" + key + "\" is not an absolute URL");
    }
    return url;
}

std::optional<ZNVBytes> ZNVKeyedUnarchiver::decodeDataForKey(const std::string& key) {
    if (finished_ || error_) return std::nullopt;
    const Json* v = lookup(key);
    if (v == nullptr) return std::nullopt;
    const Json* text = wrapped(*v, "$data");
    if (text == nullptr || !text->is_string()) {
        failWrongType(key, "data ({\"$data\": base64})");
        return std::nullopt;
    }
    auto bytes = ZNVBase64Decode(text->get_ref<const std::string&>());
    if (!bytes) {
        failWithMessage(NSCoderReadCorruptError,
                        "value for key \"" + key + "\" is not valid base64");
    }
    return bytes;
}

std::optional<ZNVIndexSet> ZNVKeyedUnarchiver::decodeIndexSetForKey(const std::string& key) {
    if (finished_ || error_) return std::nullopt;
    const Json* v = lookup(key);
    if (v == nullptr) return std::nullopt;
    const Json* ranges = wrapped(*v, "$indexes");
    if (ranges == nullptr || !ranges->is_array()) {
        failWrongType(key, "an index set ({\"$indexes\": [[first, length], ...]})");
        return std::nullopt;
    }
    const uint64_t limit = static_cast<uint64_t>(ZNVNotFound);
    ZNVIndexSet set;
    uint64_t end = 0;  // exclusive end of the previous range
    for (const Json& range : *ranges) {
        bool ok = range.is_array() && range.size() == 2 && range[0].is_number_unsigned() &&
                  range[1].is_number_unsigned();
        uint64_t first = ok ? range[0].get<uint64_t>() : 0;
        uint64_t length = ok ? range[1].get<uint64_t>() : 0;
        // Ranges are ascending, non-empty, apart from each other and below the
        // no-index marker, as the archiver writes them.
        ok = ok && length > 0 && first < limit && length <= limit - first &&
             (set.empty() || first > end);
        if (!ok) {
            failWithMessage(
                NSCoderReadCorruptError,
                "value for key \"" + key + "\" has an invalid index range " +
                    range.dump(-1, ' ', false, nlohmann::json::error_handler_t::replace));
            return std::nullopt;
        }
        set.addRange(first, length);
        end = first + length;
    }
    return set;
}

bool ZNVKeyedUnarchiver::userInfoValueFromJson(const Json& v, const std::string& key, int depth,
                                               ZNVUserInfoValue* out) {
    switch (v.type()) {
        case Json::value_t::string:
            *out = v.get<std::string>();
            return true;
        case Json::value_t::boolean:
            *out = v.get<bool>();
            return true;
        case Json::value_t::number_integer:
            *out = v.get<int64_t>();
            return true;
        case Json::value_t::number_unsigned:
            if (v.get<uint64_t>() > static_cast<uint64_t>(std::numeric_limits<int64_t>::max())) {
                break;
            }
            *out = static_cast<int64_t>(v.get<uint64_t>());
            return true;
        case Json::value_t::number_float:
            *out = v.get<double>();
            return true;
        case Json::value_t::object: {
            if (const Json* u = wrapped(v, "$uint64"); u && u->is_number_unsigned()) {
                *out = u->get<uint64_t>();
                return true;
            }
            if (wrapped(v, "$double")) {
                if (auto d = doubleFromJson(v)) {
                    *out = *d;
                    return true;
                }
                break;
            }
            if (const Json* d = wrapped(v, "$data"); d && d->is_string()) {
                auto bytes = ZNVBase64Decode(d->get_ref<const std::string&>());
                if (!bytes) break;
                *out = std::move(*bytes);
                return true;
            }
            if (const Json* u = wrapped(v, "$url"); u && u->is_string()) {
                auto url = ZNVURL::fromString(u->get_ref<const std::string&>());
                if (!url) break;
                *out = std::move(*url);
                return true;
            }
            auto nested = errorFromJson(v, key, depth + 1);
            if (!nested) return false;
            *out = std::move(nested);
            return true;
        }
        default:
            break;
    }
    failWithMessage(NSCoderReadCorruptError, "user-info value \"" + key + "\" of an error is " +
                                                 jsonTypeName(v) + " that cannot be decoded");
    return false;
}

ZNVErrorRef ZNVKeyedUnarchiver::errorFromJson(const Json& v, const std::string& key, int depth) {
    if (error_) return nullptr;
    auto corrupt = [&](int64_t code, const std::string& what) -> ZNVErrorRef {
        failWithMessage(code, "error under key \"" + key + "\" " + what);
        return nullptr;
    };
    if (depth > kMaxDepth) return corrupt(NSCoderReadCorruptError, "is nested too deeply");
    if (!v.is_object())
        return corrupt(NSCoderReadCorruptError, std::string("is ") + jsonTypeName(v));
    auto cls = v.find("$class");
    if (cls == v.end()) return corrupt(NSCoderValueNotFoundError, "has no \"$class\"");
    if (!cls->is_string() || cls->get_ref<const std::string&>() != ZNVArchiveErrorClassName) {
        return corrupt(NSCoderReadCorruptError, "is not of class NSError");
    }
    auto domain = v.find("domain");
    auto code = v.find("code");
    if (domain == v.end()) return corrupt(NSCoderValueNotFoundError, "has no \"domain\"");
    if (code == v.end()) return corrupt(NSCoderValueNotFoundError, "has no \"code\"");
    if (!domain->is_string())
        return corrupt(NSCoderReadCorruptError, "has a domain that is not a string");
    int64_t codeValue = 0;
    if (code->is_number_integer() && !code->is_number_unsigned()) {
        codeValue = code->get<int64_t>();
    } else if (code->is_number_unsigned() &&
               code->get<uint64_t>() <=
                   static_cast<uint64_t>(std::numeric_limits<int64_t>::max())) {
        codeValue = static_cast<int64_t>(code->get<uint64_t>());
    } else {
        return corrupt(NSCoderReadCorruptError, "has a code that is not a signed 64-bit integer");
    }
    ZNVUserInfo info;
    auto userInfo = v.find("userInfo");
    if (userInfo != v.end()) {
        if (!userInfo->is_object()) {
            return corrupt(NSCoderReadCorruptError, "has user info that is not an object");
        }
        for (auto it = userInfo->begin(); it != userInfo->end(); ++it) {
            ZNVUserInfoValue value;
            std::string infoKey = keyFromMemberName(it.key());
            if (!userInfoValueFromJson(it.value(), infoKey, depth, &value)) return nullptr;
            info.emplace(std::move(infoKey), std::move(value));
        }
    }
    return ZNVError::make(domain->get<std::string>(), codeValue, std::move(info));
}

ZNVErrorRef ZNVKeyedUnarchiver::decodeErrorForKey(const std::string& key) {
    if (finished_ || error_) return nullptr;
    const Json* v = lookup(key);
    if (v == nullptr) return nullptr;
    return errorFromJson(*v, key, static_cast<int>(stack_.size()));
}

std::shared_ptr<ZNVCoding> ZNVKeyedUnarchiver::decodeObjectValue(
    const Json& value, const std::set<std::string>& allowed, const std::string& key) {
    if (error_) return nullptr;
    if (!value.is_object()) {
        failWrongType(key, "an archived object");
        return nullptr;
    }
    auto cls = value.find("$class");
    if (cls == value.end()) {
        failWithMessage(NSCoderValueNotFoundError,
                        "object under key \"" + key + "\" has no \"$class\"");
        return nullptr;
    }
    if (!cls->is_string()) {
        failWithMessage(NSCoderReadCorruptError,
                        "object under key \"" + key + "\" has a \"$class\" that is not a string");
        return nullptr;
    }
    const std::string& className = cls->get_ref<const std::string&>();
    auto& registry = ZNVArchiveClassRegistry::shared();
    if (!registry.isRegistered(className)) {
        failWithMessage(
            NSCoderReadCorruptError,
            "object under key \"" + key + "\" is of unknown class \"" + className + "\"");
        return nullptr;
    }
    if (!registry.isAllowed(className, allowed)) {
        std::string names;
        for (const auto& name : allowed)
            names += (names.empty() ? "" : ", ") + name;
        failWithMessage(NSCoderReadCorruptError,
                        "value for key \"" + key + "\" was of class \"" + className +
                            "\", which is not allowed (allowed: " + names + ")");
        return nullptr;
    }
    if (static_cast<int>(stack_.size()) > kMaxDepth) {
        failWithMessage(NSCoderReadCorruptError, "objects are nested too deeply");
        return nullptr;
    }
    if (registry.isKindOfClass(className, ZNVArchiveArrayClassName)) {
        auto objects = value.find("$objects");
        if (objects == value.end()) {
            failWithMessage(NSCoderValueNotFoundError,
                            "array under key \"" + key + "\" has no \"$objects\"");
            return nullptr;
        }
        if (!objects->is_array()) {
            failWithMessage(NSCoderReadCorruptError, "array under key \"" + key +
                                                         "\" has \"$objects\" that is " +
                                                         jsonTypeName(*objects));
            return nullptr;
        }
        auto array = std::make_shared<ZNVArchivedArray>();
        array->objects.reserve(objects->size());
        for (const Json& element : *objects) {
            auto object = decodeObjectValue(element, allowed, key);
            if (!object) return nullptr;
            array->objects.push_back(std::move(object));
        }
        return array;
    }
    ZNVArchiveDecodeFactory factory = registry.factory(className);
    if (!factory) {
        failWithMessage(NSCoderReadCorruptError, "class \"" + className + "\" cannot be decoded");
        return nullptr;
    }
    struct Pop {
        std::vector<const Json*>& stack;
        ~Pop() { stack.pop_back(); }
    } pop{stack_};
    stack_.push_back(&value);
    std::shared_ptr<ZNVCoding> object = factory(*this);
    if (error_) return nullptr;
    if (!object) {
        failWithMessage(NSCoderReadCorruptError,
                        "object of class \"" + className + "\" could not be decoded");
    }
    return object;
}

std::shared_ptr<ZNVCoding> ZNVKeyedUnarchiver::decodeObjectOfClassesForKey(
    const std::set<std::string>& allowed, const std::string& key) {
    if (finished_ || error_) return nullptr;
    const Json* v = lookup(key);
    if (v == nullptr || v->is_null()) return nullptr;
    return decodeObjectValue(*v, allowed, key);
}

std::optional<std::vector<std::shared_ptr<ZNVCoding>>>
ZNVKeyedUnarchiver::decodeArrayOfClassesForKey(const std::set<std::string>& allowed,
                                               const std::string& key) {
    std::set<std::string> withArray = allowed;
    withArray.insert(ZNVArchiveArrayClassName);
    // An array decoded while parsing: what is left of it (its class and an
    // emptied "$objects") is checked as a whole array would be.
    const bool streamed = streamedKey_ && *streamedKey_ == key;
    auto object = decodeObjectOfClassesForKey(withArray, key);
    if (!object) return std::nullopt;
    auto array = std::dynamic_pointer_cast<ZNVArchivedArray>(object);
    if (!array) {
        failWrongType(key, "an array");
        return std::nullopt;
    }
    if (streamed) {
        streamedKey_.reset();
        if (streamedError_) {
            failWithError(streamedError_);
            return std::nullopt;
        }
        return std::move(streamed_);
    }
    return std::move(array->objects);
}

std::shared_ptr<ZNVCoding> ZNVKeyedUnarchiver::decodeTopLevelObjectOfClassesForKey(
    const std::set<std::string>& allowed, const std::string& key, ZNVErrorRef* error) {
    std::shared_ptr<ZNVCoding> object;
    try {
        object = decodeObjectOfClassesForKey(allowed, key);
    } catch (const ZNVInvalidArchiveOperationException& e) {
        failWithMessage(NSCoderReadCorruptError, e.what());
    } catch (const std::exception& e) {
        failWithMessage(NSCoderReadCorruptError,
                        std::string("decoding failed with an exception: ") + e.what());
    }
    if (error_) object = nullptr;
    if (error) *error = error_;
    return object;
}

void ZNVKeyedUnarchiver::finishDecoding() {
    finished_ = true;
}

std::shared_ptr<ZNVCoding> ZNVKeyedUnarchiver::unarchivedObjectOfClasses(
    const std::set<std::string>& allowed, const ZNVBytes& data, ZNVErrorRef* error) {
    return unarchivedObjectOfClasses(
        allowed, std::string_view(reinterpret_cast<const char*>(data.data()), data.size()), error);
}

std::shared_ptr<ZNVCoding> ZNVKeyedUnarchiver::unarchivedObjectOfClasses(
    const std::set<std::string>& allowed, std::string_view data, ZNVErrorRef* error) {
    auto unarchiver = create(data, error);
    if (!unarchiver) return nullptr;
    ZNVErrorRef decodeError;
    auto object = unarchiver->decodeTopLevelObjectOfClassesForKey(allowed, kRootKey, &decodeError);
    if (!object && !decodeError) {
        decodeError = coderError(NSCoderValueNotFoundError, "the archive has no root object");
    }
    if (error) *error = decodeError;
    return object;
}

}  // namespace znv
