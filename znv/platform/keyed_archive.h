// Keyed archives: how the library's objects (tasks and the state file) turn
// themselves into bytes and back.
//
// Contract
// - An archive is one UTF-8 JSON document:
//     {"$archiver": "ZNVKeyedArchiver", "$version": 1, "$top": {<key>: <value>, ...}}
//   Every archived object is a JSON object carrying "$class"; keys are written
//   verbatim as member names (a key that itself starts with "$" is written with
//   one more "$" in front, so it never collides with the markers). Values JSON
//   lacks are wrapped: {"$url": "..."}, {"$date": <seconds since 1970>},
//   {"$data": "<base64>"}, {"$indexes": [[first, length], ...]},
//   {"$uint64": n} (an unsigned user-info number), {"$double": "nan"|"inf"|"-inf"};
//   errors are {"$class": "NSError", "domain", "code", "userInfo": {...}} and
//   arrays of objects {"$class": "NSMutableArray", "$objects": [...]}.
// - Strings are UTF-8; bytes that are not valid UTF-8 are written as U+FFFD.
//   Binary values belong in encodeData.
// - An archivable class derives from `ZNVCoding`, writes its fields in
//   `encodeWithCoder` and registers a decoding factory with
//   `ZNVArchiveClassRegistry` under the name its `className()` returns, naming
//   its superclass. Decoding a class requires that the class, or one of its
//   superclasses, is among the classes the decoding call allows.
// - Coders (`ZNVKeyedArchiver`, `ZNVKeyedUnarchiver`, `ZNVNonKeyedCoder`) are
//   used by one thread at a time; each save or restore makes its own. The class
//   registry may be used from any thread.
// - Decoding never throws and never crashes on damaged input: malformed JSON,
//   truncation, wrong member types, unknown or disallowed classes, missing
//   members, nesting deeper than `kMaxDepth`, out-of-range numbers, bad base64
//   and invalid UTF-8 all become an `NSCocoaErrorDomain` error (4864
//   NSCoderReadCorruptError, or 4865 NSCoderValueNotFoundError for a member
//   that must be there and is not), with a message under
//   NSLocalizedDescriptionKey. The first failure is kept in `error()`; after
//   it, every decode call answers "nothing".
// - A missing key is not a failure: `decodeXForKey` answers std::nullopt / null.
// - The only exception in this area is `ZNVInvalidArchiveOperationException`,
//   which an archivable class raises (through `ZNVRaiseKeyedCodingOnly`) when
//   it is handed a coder that is not keyed.
#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <set>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

#include <nlohmann/json.hpp>

#include "znv/platform/error.h"
#include "znv/platform/index_set.h"
#include "znv/platform/url.h"

namespace znv {

class ZNVKeyedArchiver;
class ZNVKeyedUnarchiver;

using ZNVDate = std::chrono::system_clock::time_point;

// The platform's invalid-archive-operation exception.
extern const char* const NSInvalidArchiveOperationException;

class ZNVInvalidArchiveOperationException : public std::logic_error {
  public:
    using std::logic_error::logic_error;
    // "NSInvalidArchiveOperationException"
    const char* name() const noexcept { return NSInvalidArchiveOperationException; }
};

// "<className> only supports NSKeyedArchiver encoders"
std::string ZNVKeyedCodingOnlyMessage(const std::string& className);
// Throws ZNVInvalidArchiveOperationException with ZNVKeyedCodingOnlyMessage(className).
[[noreturn]] void ZNVRaiseKeyedCodingOnly(const std::string& className);

// Any coder. Archivable classes are handed a coder and check
// `allowsKeyedCoding()` before using the keyed interface.
class ZNVCoder {
  public:
    virtual ~ZNVCoder() = default;
    virtual bool allowsKeyedCoding() const = 0;
    // The keyed archiver / unarchiver behind this coder, or null.
    virtual ZNVKeyedArchiver* asKeyedArchiver() { return nullptr; }
    virtual ZNVKeyedUnarchiver* asKeyedUnarchiver() { return nullptr; }
};

// A coder without keys: it encodes and decodes nothing. It exists so that the
// refusal of non-keyed coding can be exercised.
class ZNVNonKeyedCoder final : public ZNVCoder {
  public:
    bool allowsKeyedCoding() const override { return false; }
};

// An object that can be archived.
class ZNVCoding {
  public:
    virtual ~ZNVCoding() = default;
    // The name written as "$class" and looked up in the registry on decoding.
    virtual std::string className() const = 0;
    // Writes the object's fields. With a coder that is not keyed, classes of
    // this library raise ZNVInvalidArchiveOperationException.
    virtual void encodeWithCoder(ZNVCoder& coder) const = 0;
};

// An ordered collection of archivable objects ("NSMutableArray").
class ZNVArchivedArray final : public ZNVCoding {
  public:
    ZNVArchivedArray() = default;
    explicit ZNVArchivedArray(std::vector<std::shared_ptr<ZNVCoding>> objects)
        : objects(std::move(objects)) {}
    std::string className() const override;
    void encodeWithCoder(ZNVCoder& coder) const override;

    std::vector<std::shared_ptr<ZNVCoding>> objects;
};

// Names of the built-in classes.
extern const char* const ZNVArchiveRootClassName;          // "NSObject"
extern const char* const ZNVArchiveArrayClassName;         // "NSArray"
extern const char* const ZNVArchiveMutableArrayClassName;  // "NSMutableArray"
extern const char* const ZNVArchiveErrorClassName;         // "NSError"

// Makes an object of a registered class from the unarchiver positioned on
// that object's members. Returns null when it cannot (the unarchiver's error,
// if set, says why).
using ZNVArchiveDecodeFactory = std::function<std::shared_ptr<ZNVCoding>(ZNVKeyedUnarchiver&)>;

// The process-wide table of decodable classes. Thread-safe.
// NSObject, NSArray and NSMutableArray (subclass of NSArray) are built in.
class ZNVArchiveClassRegistry {
  public:
    static ZNVArchiveClassRegistry& shared();

    // Registers (or replaces) a class. `superclassName` empty means NSObject.
    void registerClass(const std::string& className, const std::string& superclassName,
                       ZNVArchiveDecodeFactory factory);
    bool isRegistered(const std::string& className) const;
    // True when `className` is `ancestor` or inherits from it (registered chain).
    bool isKindOfClass(const std::string& className, const std::string& ancestor) const;
    // True when `className` or one of its superclasses is in `allowed`.
    bool isAllowed(const std::string& className, const std::set<std::string>& allowed) const;
    ZNVArchiveDecodeFactory factory(const std::string& className) const;

  private:
    ZNVArchiveClassRegistry();
    struct Impl;
    std::unique_ptr<Impl> impl_;
};

// Writes a keyed archive. Encode values into the top level (or, inside
// `encodeWithCoder`, into the object being encoded), then `finishEncoding`.
class ZNVKeyedArchiver final : public ZNVCoder {
  public:
    ZNVKeyedArchiver();
    ~ZNVKeyedArchiver() override;

    bool allowsKeyedCoding() const override { return true; }
    ZNVKeyedArchiver* asKeyedArchiver() override { return this; }
    // Always true: archives are always read with allowed classes.
    bool requiresSecureCoding() const { return true; }

    void encodeString(const std::string& value, const std::string& key);
    void encodeInt64(int64_t value, const std::string& key);
    void encodeUInt64(uint64_t value, const std::string& key);
    void encodeBool(bool value, const std::string& key);
    void encodeDouble(double value, const std::string& key);
    void encodeDate(ZNVDate value, const std::string& key);
    void encodeURL(const ZNVURL& value, const std::string& key);
    void encodeData(const ZNVBytes& value, const std::string& key);
    void encodeIndexSet(const ZNVIndexSet& value, const std::string& key);
    // A null error writes nothing.
    void encodeError(const ZNVErrorRef& value, const std::string& key);
    // Encodes the object under its className(); a null object writes nothing.
    void encodeObject(const ZNVCoding* object, const std::string& key);
    void encodeObject(const std::shared_ptr<const ZNVCoding>& object, const std::string& key) {
        encodeObject(object.get(), key);
    }
    // An NSMutableArray of objects (null elements are skipped).
    template <class T>
    void encodeArray(const std::vector<std::shared_ptr<T>>& objects, const std::string& key) {
        std::vector<const ZNVCoding*> plain;
        plain.reserve(objects.size());
        for (const auto& o : objects)
            plain.push_back(o.get());
        encodeObjectArray(plain, key);
    }
    void encodeObjectArray(const std::vector<const ZNVCoding*>& objects, const std::string& key);

    // Ends encoding; further encode calls are ignored.
    void finishEncoding();
    // The archive's bytes (finishes encoding first). Empty when encoding
    // failed (see error()).
    ZNVBytes encodedData();
    std::string encodedString();
    // Set when an object graph nested deeper than the archive allows.
    ZNVErrorRef error() const { return error_; }

    // One object as the archive's "root" key.
    static ZNVBytes archivedDataWithRootObject(const ZNVCoding& object,
                                               ZNVErrorRef* error = nullptr);

    // Archives assembled from objects encoded one at a time, for callers that
    // keep each object's text between archives and re-encode only the objects
    // that changed. With
    //   element_i = encodedTopLevelArrayElement(object_i)
    //   encodedStringAroundObjectArray(key, &head, &tail)
    // the text head + element_1 + "," + ... + "," + element_n + tail is, byte
    // for byte, what encodeObjectArray({object_1, ..., object_n}, key) and
    // encodedString() would have written.
    //
    // The text of one object as an element of an object array at the top
    // level. Empty, with the error, when the object cannot be archived.
    static std::string encodedTopLevelArrayElement(const ZNVCoding& object,
                                                   ZNVErrorRef* error = nullptr);
    // Finishes encoding with an (empty) object array under `key` as the last
    // top-level value and splits the archive's text where its elements go.
    // False when encoding failed or `key` was already encoded.
    bool encodedStringAroundObjectArray(const std::string& key, std::string* head,
                                        std::string* tail);

  private:
    using Json = nlohmann::ordered_json;
    Json* current();
    void put(const std::string& key, Json value);
    // `depth` is the JSON nesting level the value will have in the document.
    Json encodeObjectValue(const ZNVCoding& object, int depth);
    void fail(const std::string& message);
    static Json errorToJson(const ZNVError& error, int depth, bool* tooDeep);
    static Json userInfoValueToJson(const ZNVUserInfoValue& value, int depth, bool* tooDeep);

    Json root_;
    std::vector<Json*> stack_;  // objects being encoded; front is $top
    int currentDepth_ = 2;      // JSON nesting level of stack_.back()
    bool finished_ = false;
    ZNVErrorRef error_;
};

// Reads a keyed archive made by ZNVKeyedArchiver.
class ZNVKeyedUnarchiver final : public ZNVCoder {
  public:
    // Deepest nesting of JSON containers accepted.
    static constexpr int kMaxDepth = 200;

    // Parses and checks the envelope. Null, with the error, when the data is
    // not an archive of a supported version.
    static std::unique_ptr<ZNVKeyedUnarchiver> create(std::string_view data,
                                                      ZNVErrorRef* error = nullptr);
    static std::unique_ptr<ZNVKeyedUnarchiver> create(const ZNVBytes& data,
                                                      ZNVErrorRef* error = nullptr);
    // Like `create`, but the elements of the object array under the top-level
    // key `arrayKey` are decoded (as `decodeArrayOfClassesForKey(allowed,
    // arrayKey)` would) while the text is parsed, each as soon as its text
    // has been read, and its document is dropped at once: a long array is
    // never held as a document. `decodeArrayOfClassesForKey(allowed,
    // arrayKey)` then checks the array itself and answers the objects made,
    // or fails as it would have; other keys decode as usual. The elements
    // are decoded before the envelope is checked and whatever the other keys
    // hold, so they must be of classes whose decoding has no effect beyond
    // the objects made.
    static std::unique_ptr<ZNVKeyedUnarchiver> createDecodingArray(
        const ZNVBytes& data, const std::string& arrayKey, const std::set<std::string>& allowed,
        ZNVErrorRef* error = nullptr);
    // The same, reading the archive from an open file, front to back in
    // blocks, so the file is never held in memory either. A read failure is
    // an unreadable archive.
    static std::unique_ptr<ZNVKeyedUnarchiver> createDecodingArray(
        int fd, const std::string& arrayKey, const std::set<std::string>& allowed,
        ZNVErrorRef* error = nullptr);
    ~ZNVKeyedUnarchiver() override;

    bool allowsKeyedCoding() const override { return true; }
    ZNVKeyedUnarchiver* asKeyedUnarchiver() override { return this; }
    bool requiresSecureCoding() const { return true; }

    // The first decoding failure, or null.
    ZNVErrorRef error() const { return error_; }
    // Records a failure (only the first is kept). Factories call it when the
    // object they decode is unusable.
    void failWithError(ZNVErrorRef error);
    void failWithMessage(int64_t code, const std::string& message);

    // The class name of the object being decoded ("" at the top level).
    std::string currentClassName() const;

    bool containsValueForKey(const std::string& key) const;

    // Missing key: nullopt / null, no failure. Present with another type or
    // out of range: nullopt / null and a failure.
    std::optional<std::string> decodeStringForKey(const std::string& key);
    std::optional<int64_t> decodeInt64ForKey(const std::string& key);
    std::optional<uint64_t> decodeUInt64ForKey(const std::string& key);
    std::optional<bool> decodeBoolForKey(const std::string& key);
    std::optional<double> decodeDoubleForKey(const std::string& key);
    // Dates keep microsecond precision.
    std::optional<ZNVDate> decodeDateForKey(const std::string& key);
    std::optional<ZNVURL> decodeURLForKey(const std::string& key);
    std::optional<ZNVBytes> decodeDataForKey(const std::string& key);
    std::optional<ZNVIndexSet> decodeIndexSetForKey(const std::string& key);
    ZNVErrorRef decodeErrorForKey(const std::string& key);

    // True when the value under the key is a number (integer or not).
    bool isNumberForKey(const std::string& key) const;
    bool isStringForKey(const std::string& key) const;

    // An object whose class (or a superclass of it) is in `allowed`. Elements
    // of an array are checked against the same set, so decoding an array of
    // tasks allows {"NSArray", "ZNVNetworkTask"}.
    std::shared_ptr<ZNVCoding> decodeObjectOfClassesForKey(const std::set<std::string>& allowed,
                                                           const std::string& key);
    template <class T>
    std::shared_ptr<T> decodeObjectOfClassForKey(const std::string& className,
                                                 const std::string& key) {
        auto object = decodeObjectOfClassesForKey({className}, key);
        if (!object) return nullptr;
        auto typed = std::dynamic_pointer_cast<T>(object);
        if (!typed) failWrongType(key, "an object of class " + className);
        return typed;
    }
    // The elements of an array whose elements are all of allowed classes.
    std::optional<std::vector<std::shared_ptr<ZNVCoding>>> decodeArrayOfClassesForKey(
        const std::set<std::string>& allowed, const std::string& key);

    // Like decodeObjectOfClassesForKey, but reports through `error`: null with
    // an error when decoding failed anywhere (also inside the object), null
    // without an error when the key is missing.
    std::shared_ptr<ZNVCoding> decodeTopLevelObjectOfClassesForKey(
        const std::set<std::string>& allowed, const std::string& key, ZNVErrorRef* error = nullptr);

    // Ends decoding; further decode calls answer nothing.
    void finishDecoding();

    // The object stored under the "root" key of `data`.
    static std::shared_ptr<ZNVCoding> unarchivedObjectOfClasses(
        const std::set<std::string>& allowed, std::string_view data, ZNVErrorRef* error = nullptr);
    static std::shared_ptr<ZNVCoding> unarchivedObjectOfClasses(
        const std::set<std::string>& allowed, const ZNVBytes& data, ZNVErrorRef* error = nullptr);

  private:
    using Json = nlohmann::json;
    ZNVKeyedUnarchiver() = default;
    const Json* lookup(const std::string& key) const;
    void failWrongType(const std::string& key, const std::string& expected);
    std::shared_ptr<ZNVCoding> decodeObjectValue(const Json& value,
                                                 const std::set<std::string>& allowed,
                                                 const std::string& key);
    ZNVErrorRef errorFromJson(const Json& value, const std::string& key, int depth);
    bool userInfoValueFromJson(const Json& value, const std::string& key, int depth,
                               ZNVUserInfoValue* out);

    // From `data`, or from `fd` when it is not negative.
    static std::unique_ptr<ZNVKeyedUnarchiver> parse(std::string_view data, int fd,
                                                     const std::string* arrayKey,
                                                     const std::set<std::string>* allowed,
                                                     ZNVErrorRef* error);

    Json root_;
    std::vector<const Json*> stack_;  // objects being decoded; front is $top
    bool finished_ = false;
    ZNVErrorRef error_;
    // The array decoded while parsing (createDecodingArray): its key, its
    // objects and the first failure met decoding them.
    std::optional<std::string> streamedKey_;
    std::vector<std::shared_ptr<ZNVCoding>> streamed_;
    ZNVErrorRef streamedError_;
};

// Base64 (standard alphabet, padded). Decoding is strict: nullopt for any
// character outside the alphabet, bad padding or a length not a multiple of 4.
std::string ZNVBase64Encode(const uint8_t* data, size_t size);
std::optional<ZNVBytes> ZNVBase64Decode(std::string_view text);

}  // namespace znv
