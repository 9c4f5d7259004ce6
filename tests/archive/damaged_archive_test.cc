// Damaged archives: every one must come back as an error value, never as a
// crash, an exception or a half-decoded object.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <chrono>
#include <set>
#include <string>
#include <vector>

#include "archive_test_classes.h"
#include "tests/support/test_support.h"
#include "znv/platform/keyed_archive.h"

namespace znv {
namespace {

struct Damage {
    std::string name;
    std::string text;
    int64_t code;                 // expected NSCocoaErrorDomain code
    std::string messageFragment;  // must appear in the description
};

std::string envelope(const std::string& root) {
    return R"({"$archiver":"ZNVKeyedArchiver","$version":1,"$top":{"root":)" + root + "}}";
}

std::string node(const std::string& members) {
    return envelope(R"({"$class":"TestNode")" + (members.empty() ? "" : "," + members) + "}");
}

std::string validArchive() {
    test::TestNode root;
    root.name = "root";
    root.error = ZNVError::make(NSURLErrorDomain, -1001,
                                {{NSUnderlyingErrorKey, ZNVError::withMessage("x", 1, "inner")}});
    root.indexes = ZNVIndexSet{1, 2, 3};
    root.childrenPresent = true;
    root.children = {std::make_shared<test::TestNode>(), std::make_shared<test::TestNode>()};
    ZNVBytes data = ZNVKeyedArchiver::archivedDataWithRootObject(root);
    return std::string(data.begin(), data.end());
}

std::vector<Damage> damagedArchives() {
    std::vector<Damage> cases = {
        {"empty", "", NSCoderReadCorruptError, "empty"},
        {"not JSON", "this is not an archive", NSCoderReadCorruptError, "not valid JSON"},
        {"binary garbage", std::string("\x00\x01\x02\xff", 4), NSCoderReadCorruptError, "JSON"},
        {"top-level array", "[1,2,3]", NSCoderReadCorruptError, "not an object"},
        {"top-level string", "\"text\"", NSCoderReadCorruptError, "not an object"},
        {"no archiver", R"({"$version":1,"$top":{}})", NSCoderValueNotFoundError, "$archiver"},
        {"foreign archiver", R"({"$archiver":"Other","$version":1,"$top":{}})",
         NSCoderReadCorruptError, "not written by ZNVKeyedArchiver"},
        {"archiver not text", R"({"$archiver":7,"$version":1,"$top":{}})", NSCoderReadCorruptError,
         "ZNVKeyedArchiver"},
        {"newer version", R"({"$archiver":"ZNVKeyedArchiver","$version":2,"$top":{}})",
         NSCoderReadCorruptError, "version 2"},
        {"version as text", R"({"$archiver":"ZNVKeyedArchiver","$version":"1","$top":{}})",
         NSCoderReadCorruptError, "version"},
        {"no top", R"({"$archiver":"ZNVKeyedArchiver","$version":1})", NSCoderValueNotFoundError,
         "$top"},
        {"top is array", R"({"$archiver":"ZNVKeyedArchiver","$version":1,"$top":[]})",
         NSCoderReadCorruptError, "$top"},
        {"no root object", R"({"$archiver":"ZNVKeyedArchiver","$version":1,"$top":{}})",
         NSCoderValueNotFoundError, "no root object"},
        {"root is a number", envelope("5"), NSCoderReadCorruptError, "expected an archived object"},
        {"object without class", envelope(R"({"name":"x"})"), NSCoderValueNotFoundError,
         "no \"$class\""},
        {"class not text", envelope(R"({"$class":["TestNode"]})"), NSCoderReadCorruptError,
         "not a string"},
        {"unknown class", envelope(R"({"$class":"NoSuchClass"})"), NSCoderReadCorruptError,
         "unknown class \"NoSuchClass\""},
        {"disallowed class", envelope(R"({"$class":"TestOther"})"), NSCoderReadCorruptError,
         "not allowed"},
        {"string field is number", node(R"("name":12)"), NSCoderReadCorruptError,
         "\"name\" of TestNode is an integer, expected a string"},
        {"integer field is text", node(R"("counter":"12")"), NSCoderReadCorruptError, "counter"},
        {"integer field is boolean", node(R"("counter":true)"), NSCoderReadCorruptError, "counter"},
        {"integer field has fraction", node(R"("counter":1.5)"), NSCoderReadCorruptError,
         "counter"},
        {"signed integer too large", node(R"("counter":9223372036854775808)"),
         NSCoderReadCorruptError, "counter"},
        {"unsigned integer too large", node(R"("size":18446744073709551616)"),
         NSCoderReadCorruptError, "size"},
        {"unsigned integer negative", node(R"("size":-1)"), NSCoderReadCorruptError, "size"},
        {"number beyond double", node(R"("ratio":1e400)"), NSCoderReadCorruptError, "JSON"},
        {"boolean as number", node(R"("flag":1)"), NSCoderReadCorruptError, "flag"},
        {"date not wrapped", node(R"("start date":1700000000)"), NSCoderReadCorruptError,
         "start date"},
        {"date far out of range", node(R"("start date":{"$date":1e300})"), NSCoderReadCorruptError,
         "start date"},
        {"date with extra member", node(R"("start date":{"$date":1,"x":2})"),
         NSCoderReadCorruptError, "start date"},
        {"URL not absolute", node(R"("source URL":{"$url":"relative/path"})"),
         NSCoderReadCorruptError, "not an absolute URL"},
        {"URL as plain text", node(R"("source URL":"file:///x")"), NSCoderReadCorruptError,
         "source URL"},
        {"invalid base64 character", node(R"("resumeData":{"$data":"YW*j"})"),
         NSCoderReadCorruptError, "base64"},
        {"base64 bad length", node(R"("resumeData":{"$data":"YWJ"})"), NSCoderReadCorruptError,
         "base64"},
        {"base64 padding inside", node(R"("resumeData":{"$data":"YQ==YWJj"})"),
         NSCoderReadCorruptError, "base64"},
        {"index range overflows",
         node(R"("chunk indices to upload":{"$indexes":[[1,18446744073709551615]]})"),
         NSCoderReadCorruptError, "invalid index range"},
        {"index at the no-index marker",
         node(R"("chunk indices to upload":{"$indexes":[[9223372036854775807,1]]})"),
         NSCoderReadCorruptError, "invalid index range"},
        {"index ranges descending", node(R"("chunk indices to upload":{"$indexes":[[5,1],[1,1]]})"),
         NSCoderReadCorruptError, "invalid index range"},
        {"index range empty", node(R"("chunk indices to upload":{"$indexes":[[5,0]]})"),
         NSCoderReadCorruptError, "invalid index range"},
        {"index range negative", node(R"("chunk indices to upload":{"$indexes":[[-1,2]]})"),
         NSCoderReadCorruptError, "invalid index range"},
        {"index range triple", node(R"("chunk indices to upload":{"$indexes":[[1,2,3]]})"),
         NSCoderReadCorruptError, "invalid index range"},
        {"error without domain", node(R"("rawError":{"$class":"NSError","code":1})"),
         NSCoderValueNotFoundError, "no \"domain\""},
        {"error without code", node(R"("rawError":{"$class":"NSError","domain":"d"})"),
         NSCoderValueNotFoundError, "no \"code\""},
        {"error code is text", node(R"("rawError":{"$class":"NSError","domain":"d","code":"1"})"),
         NSCoderReadCorruptError, "code"},
        {"error of another class", node(R"("rawError":{"$class":"TestNode"})"),
         NSCoderReadCorruptError, "not of class NSError"},
        {"error user info is array",
         node(R"("rawError":{"$class":"NSError","domain":"d","code":1,"userInfo":[]})"),
         NSCoderReadCorruptError, "user info"},
        {"error user info value is array",
         node(R"("rawError":{"$class":"NSError","domain":"d","code":1,"userInfo":{"k":[1]}})"),
         NSCoderReadCorruptError, "\"k\""},
        {"nested error damaged",
         node(R"("rawError":{"$class":"NSError","domain":"d","code":1,"userInfo":)"
              R"({"NSUnderlyingError":{"$class":"NSError","domain":"d"}}})"),
         NSCoderValueNotFoundError, "no \"code\""},
        {"error user info bad base64",
         node(R"("rawError":{"$class":"NSError","domain":"d","code":1,)"
              R"("userInfo":{"k":{"$data":"!!!!"}}})"),
         NSCoderReadCorruptError, "\"k\""},
        {"array without objects", node(R"("children":{"$class":"NSMutableArray"})"),
         NSCoderValueNotFoundError, "$objects"},
        {"array objects not array", node(R"("children":{"$class":"NSMutableArray","$objects":{}})"),
         NSCoderReadCorruptError, "$objects"},
        {"array element not object",
         node(R"("children":{"$class":"NSMutableArray","$objects":[{"$class":"TestNode"},3]})"),
         NSCoderReadCorruptError, "expected an archived object"},
        {"array where object expected",
         node(R"("child":{"$class":"NSMutableArray","$objects":[]})"), NSCoderReadCorruptError,
         "not allowed"},
        {"damage deep inside a child",
         node(R"("child":{"$class":"TestNode","child":)"
              R"({"$class":"TestNode","counter":"x"}})"),
         NSCoderReadCorruptError, "counter"},
        {"invalid UTF-8 in a string", node("\"name\":\"a\xff\xfe b\""), NSCoderReadCorruptError,
         "JSON"},
        {"lone surrogate escape", node(R"("name":"\ud800")"), NSCoderReadCorruptError, "JSON"},
        {"deep arrays", std::string(100000, '[') + std::string(100000, ']'),
         NSCoderReadCorruptError, "nested more than"},
        {"deep objects inside the top", envelope([] {
             std::string s;
             for (int i = 0; i < 100000; ++i)
                 s += R"({"a":)";
             s += "1";
             s += std::string(100000, '}');
             return s;
         }()),
         NSCoderReadCorruptError, "nested more than"},
        {"unbalanced deep opening", std::string(100000, '{'), NSCoderReadCorruptError,
         "nested more than"},
    };
    std::string valid = validArchive();
    for (size_t cut : {size_t(1), valid.size() / 4, valid.size() / 2, valid.size() - 1}) {
        cases.push_back({"truncated at " + std::to_string(cut), valid.substr(0, cut),
                         NSCoderReadCorruptError, "not valid JSON"});
    }
    return cases;
}

TEST(DamagedArchive, EveryDamageIsAnErrorValue) {
    test::registerTestClasses();
    // The undamaged archive decodes, so that the cases below fail for their damage.
    ZNVErrorRef validError;
    ASSERT_TRUE(
        ZNVKeyedUnarchiver::unarchivedObjectOfClasses({"TestNode"}, validArchive(), &validError));
    ASSERT_FALSE(validError);

    for (const Damage& damage : damagedArchives()) {
        SCOPED_TRACE(damage.name);
        ZNVErrorRef error;
        std::shared_ptr<ZNVCoding> object;
        EXPECT_NO_THROW(object = ZNVKeyedUnarchiver::unarchivedObjectOfClasses(
                            {"TestNode"}, damage.text, &error));
        EXPECT_FALSE(object);
        ASSERT_TRUE(error);
        EXPECT_EQ(error->domain(), NSCocoaErrorDomain);
        EXPECT_EQ(error->code(), damage.code) << error->localizedDescription();
        EXPECT_NE(error->localizedDescription().find(damage.messageFragment), std::string::npos)
            << error->localizedDescription();
    }
}

// The outcome of decoding the list under "tasks": the class of each object, or
// "failed".
std::vector<std::string> listOutcome(std::unique_ptr<ZNVKeyedUnarchiver> unarchiver,
                                     const std::set<std::string>& allowed) {
    if (!unarchiver) return {"unreadable"};
    auto objects = unarchiver->decodeArrayOfClassesForKey(allowed, "tasks");
    if (!objects) return {unarchiver->error() ? "failed" : "absent"};
    std::vector<std::string> classes;
    for (const auto& object : *objects)
        classes.push_back(object->className());
    return classes;
}

TEST(DamagedArchive, ListsDecodedWhileParsingMatchTheWholeDocument) {
    // Decoding the list's elements as the text is read (from bytes or a file)
    // must answer exactly what decoding the parsed document answers, for sound
    // and damaged lists; a damaged element fails the whole list. Random damage
    // is the keyed archive fuzz target's job.
    test::registerTestClasses();
    const std::string head = R"({"$archiver":"ZNVKeyedArchiver","$version":1,"$top":{)";
    const std::string node = R"({"$class":"TestNode","name":"n"})";
    const std::string special = R"({"$class":"TestSpecialNode"})";
    const auto list = [](const std::string& objects, const std::string& cls = "NSMutableArray") {
        return R"({"$class":")" + cls + R"(","$objects":[)" + objects + "]}";
    };
    std::vector<std::string> texts = {
        head + R"("tasks":)" + list(node + "," + special + "," + node) + "}}",
        head + R"("tasks":)" + list("") + "}}",
        head + R"("other":1})",
        head + R"("tasks":)" + list(node + R"(,{"$class":"TestNode","size":"big"},)" + node) + "}}",
        head + R"("tasks":)" + list(node + ",7") + "}}",
        head + R"("tasks":)" + list(node + R"(,{"$class":"TestOther"})") + "}}",
        head + R"("tasks":)" + list(node, "TestNode") + "}}",
        head + R"("tasks":{"$objects":[)" + node + R"(],"$class":"NSArray"}})",
        head + R"("tasks":{"$objects":[)" + node + "]}}}",
        head + R"("tasks":)" + list(node + "," + node) + R"(,"tasks":)" + list(special) + "}}",
        head + R"("tasks":)" + list(R"({"$class":"TestNode","size":"big"})") + R"(,"tasks":)" +
            list(node) + "}}",
        head + R"("tasks":)" + list(list(node)) + "}}",
        head + R"("tasks":[)" + node + "]}}",
        R"({"$archiver":"ZNVKeyedArchiver","$version":2,"$top":{"tasks":)" + list(node) + "}}",
        R"({"$top":{"tasks":)" + list(node) + R"(},"$archiver":"ZNVKeyedArchiver","$version":1})",
    };
    // Nested deeper than allowed inside an element, and beside the list.
    const std::string deep = std::string(250, '[') + std::string(250, ']');
    texts.push_back(head + R"("tasks":)" + list(R"({"$class":"TestNode","x":)" + deep + "}") +
                    "}}");
    texts.push_back(head + R"("tasks":)" + list(node) + R"(,"x":)" + deep + "}}");
    const std::set<std::string> allowed{"NSMutableArray", "TestNode"};
    const std::string path = test::makeTempDir() + "/archive";
    size_t decodedSome = 0;
    for (const auto& text : texts) {
        SCOPED_TRACE(text);
        ZNVBytes bytes(text.begin(), text.end());
        const auto whole = listOutcome(ZNVKeyedUnarchiver::create(bytes), allowed);
        const auto streamed =
            listOutcome(ZNVKeyedUnarchiver::createDecodingArray(bytes, "tasks", allowed), allowed);
        EXPECT_EQ(streamed, whole);
        test::writeFile(path, text);
        const int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
        ASSERT_GE(fd, 0);
        const auto read =
            listOutcome(ZNVKeyedUnarchiver::createDecodingArray(fd, "tasks", allowed), allowed);
        ::close(fd);
        EXPECT_EQ(read, whole);
        if (!whole.empty() && whole[0] == "TestNode") ++decodedSome;
    }
    EXPECT_GE(decodedSome, 2u);
}

TEST(DamagedArchive, ManyIndexRangesDecodeInLinearTime) {
    // A hostile or simply large set must not make decoding quadratic.
    std::string ranges;
    const int count = 200000;
    for (int i = 0; i < count; ++i) {
        if (i) ranges += ",";
        ranges += "[" + std::to_string(uint64_t(i) * 3) + ",2]";
    }
    std::string text =
        R"({"$archiver":"ZNVKeyedArchiver","$version":1,"$top":{"set":{"$indexes":[)" + ranges +
        "]}}}";
    auto start = test::threadCpuTime();
    auto unarchiver = ZNVKeyedUnarchiver::create(text);
    ASSERT_TRUE(unarchiver);
    auto set = unarchiver->decodeIndexSetForKey("set");
    ASSERT_TRUE(set);
    EXPECT_EQ(set->ranges().size(), size_t(count));
    EXPECT_EQ(set->count(), uint64_t(count) * 2);
    // Linear work takes a fraction of a second; quadratic work would take minutes.
    EXPECT_LT(test::threadCpuTime() - start, std::chrono::seconds(5 * test::kTimingAllowance));
}

TEST(DamagedArchive, Base64DecoderIsStrictAndInvertsTheEncoder) {
    for (size_t n = 0; n < 40; ++n) {
        ZNVBytes bytes(n);
        for (size_t i = 0; i < n; ++i)
            bytes[i] = uint8_t(i * 37 + n);
        std::string text = ZNVBase64Encode(bytes.data(), bytes.size());
        EXPECT_EQ(text.size() % 4, 0u);
        EXPECT_EQ(ZNVBase64Decode(text), bytes) << n;
    }
    EXPECT_EQ(ZNVBase64Encode(reinterpret_cast<const uint8_t*>("foobar"), 6), "Zm9vYmFy");
    EXPECT_EQ(ZNVBase64Encode(reinterpret_cast<const uint8_t*>("fo"), 2), "Zm8=");
    for (const char* bad : {"Zm9", "Zm9v\n", "Z===", "=Zm8", "Zm=8", "Zm8=Zm8=", "Zm 8"}) {
        EXPECT_FALSE(ZNVBase64Decode(bad)) << bad;
    }
}

}  // namespace
}  // namespace znv
