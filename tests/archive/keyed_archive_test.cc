#include "znv/platform/keyed_archive.h"

#include <gtest/gtest.h>

#include <chrono>
#include <cmath>
#include <limits>
#include <thread>

#include "archive_test_classes.h"

namespace znv {
namespace {

using test::registerTestClasses;
using test::TestNode;
using test::TestOther;
using test::TestSpecialNode;

class KeyedArchive : public ::testing::Test {
  protected:
    static void SetUpTestSuite() { registerTestClasses(); }
};

std::string archiveText(const ZNVCoding& object) {
    ZNVErrorRef error;
    ZNVBytes data = ZNVKeyedArchiver::archivedDataWithRootObject(object, &error);
    EXPECT_EQ(error, nullptr);
    return std::string(data.begin(), data.end());
}

template <class T>
std::shared_ptr<T> roundTrip(const ZNVCoding& object, const std::set<std::string>& allowed) {
    std::string text = archiveText(object);
    ZNVErrorRef error;
    auto decoded = ZNVKeyedUnarchiver::unarchivedObjectOfClasses(allowed, text, &error);
    EXPECT_EQ(error, nullptr) << (error ? error->description() : "") << "\n" << text;
    return std::dynamic_pointer_cast<T>(decoded);
}

ZNVErrorRef richError() {
    auto innermost = ZNVError::withMessage(NSURLErrorDomain, NSURLErrorTimedOut, "timed out");
    auto inner = ZNVError::make(NSCocoaErrorDomain, NSFileReadCorruptFileError,
                                {{NSUnderlyingErrorKey, innermost}, {"depth", int64_t(1)}});
    return ZNVError::make(
        NSURLErrorDomain, NSURLErrorCannotConnectToHost,
        {{NSLocalizedDescriptionKey, std::string("could not connect")},
         {"signed", int64_t(-42)},
         {"positive signed", int64_t(7)},
         {"unsigned", uint64_t(7)},
         {"huge unsigned", std::numeric_limits<uint64_t>::max()},
         {"flag", true},
         {"fraction", 0.1},
         {"whole double", 3.0},
         {"not a number", std::numeric_limits<double>::quiet_NaN()},
         {"infinite", -std::numeric_limits<double>::infinity()},
         {NSURLSessionDownloadTaskResumeData, ZNVBytes{0, 1, 2, 0xfe, 0xff}},
         {NSURLErrorFailingURLErrorKey, *ZNVURL::fromString("http://h/api/files/7?x=1")},
         {"$class", std::string("a key that looks like a marker")},
         {NSUnderlyingErrorKey, inner}});
}

// Doubles compare NaN-aware so that the error with a NaN value can be compared.
void expectSameUserInfoValue(const ZNVUserInfoValue& a, const ZNVUserInfoValue& b,
                             const std::string& key) {
    ASSERT_EQ(a.index(), b.index()) << "kind of \"" << key << "\" changed";
    if (auto* da = std::get_if<double>(&a)) {
        double db = std::get<double>(b);
        if (std::isnan(*da)) {
            EXPECT_TRUE(std::isnan(db)) << key;
        } else {
            EXPECT_EQ(*da, db) << key;
        }
    } else if (auto* ea = std::get_if<ZNVErrorRef>(&a)) {
        const ZNVErrorRef& eb = std::get<ZNVErrorRef>(b);
        ASSERT_TRUE(*ea && eb) << key;
        EXPECT_EQ((*ea)->domain(), eb->domain());
        EXPECT_EQ((*ea)->code(), eb->code());
        ASSERT_EQ((*ea)->userInfo().size(), eb->userInfo().size());
        for (const auto& [k, v] : (*ea)->userInfo()) {
            ASSERT_NE(eb->value(k), nullptr) << k;
            expectSameUserInfoValue(v, *eb->value(k), k);
        }
    } else {
        EXPECT_TRUE(ZNVUserInfoValueEqual(a, b)) << key;
    }
}

TEST_F(KeyedArchive, EveryValueKindRoundTrips) {
    TestNode node;
    node.name = "résumé \"quoted\" \\ and\nnewline";
    node.counter = std::numeric_limits<int64_t>::min();
    node.size = std::numeric_limits<uint64_t>::max();
    node.flag = false;
    node.ratio = 1.0 / 3.0;
    node.date = ZNVDate(std::chrono::microseconds(1'700'000'000'123'456LL));
    node.url = ZNVURL::fileURL("/home/user/My Movies/clip #1.mov");
    node.data = ZNVBytes{0, 0xff, 0x10, 0x80};
    node.indexes = ZNVIndexSet{0, 1, 2, 7, 9, 10, static_cast<uint64_t>(ZNVNotFound) - 1};
    node.error = richError();

    auto decoded = roundTrip<TestNode>(node, {"TestNode"});
    ASSERT_TRUE(decoded);
    EXPECT_EQ(decoded->name, node.name);
    EXPECT_EQ(decoded->counter, node.counter);
    EXPECT_EQ(decoded->size, node.size);
    EXPECT_EQ(decoded->flag, node.flag);
    EXPECT_EQ(decoded->ratio, node.ratio);
    EXPECT_EQ(decoded->date, node.date);
    EXPECT_EQ(decoded->url, node.url);
    EXPECT_EQ(decoded->data, node.data);
    EXPECT_EQ(decoded->indexes, node.indexes);
    ASSERT_TRUE(decoded->error);
    expectSameUserInfoValue(node.error, decoded->error, "rawError");
    EXPECT_FALSE(decoded->child);
    EXPECT_FALSE(decoded->childrenPresent);

    // The extremes of the date range survive (to the microsecond).
    for (ZNVDate extreme : {ZNVDate::max(), ZNVDate::min(), ZNVDate()}) {
        TestNode dated;
        dated.date = extreme;
        auto back = roundTrip<TestNode>(dated, {"TestNode"});
        ASSERT_TRUE(back && back->date);
        EXPECT_LE(std::chrono::abs(*back->date - extreme), std::chrono::microseconds(1));
    }

    // Empty values are values too, not missing ones.
    TestNode empty;
    empty.name = "";
    empty.data = ZNVBytes{};
    empty.indexes = ZNVIndexSet{};
    empty.counter = 0;
    auto decodedEmpty = roundTrip<TestNode>(empty, {"TestNode"});
    ASSERT_TRUE(decodedEmpty);
    EXPECT_EQ(decodedEmpty->name, "");
    EXPECT_EQ(decodedEmpty->data, ZNVBytes{});
    EXPECT_EQ(decodedEmpty->indexes, ZNVIndexSet{});
    EXPECT_EQ(decodedEmpty->counter, 0);
    EXPECT_FALSE(decodedEmpty->size.has_value());
}

TEST_F(KeyedArchive, DocumentHasTheEnvelopeAndWrappedValues) {
    TestNode node;
    node.name = "n";
    node.date = ZNVDate(std::chrono::seconds(1'500'000'000));
    node.data = ZNVBytes{'a', 'b', 'c', 'd'};
    node.indexes = ZNVIndexSet{3, 4, 5, 9};
    node.url = ZNVURL::fileURL("/tmp/x");
    node.error = ZNVError::withMessage(NSURLErrorDomain, -1009, "offline");
    node.childrenPresent = true;
    node.children = {std::make_shared<TestNode>()};

    auto json = nlohmann::json::parse(archiveText(node));
    EXPECT_EQ(json["$archiver"], "ZNVKeyedArchiver");
    EXPECT_EQ(json["$version"], 1);
    const auto& root = json["$top"]["root"];
    EXPECT_EQ(root["$class"], "TestNode");
    EXPECT_EQ(root["name"], "n");
    EXPECT_EQ(root["start date"], nlohmann::json({{"$date", 1.5e9}}));
    EXPECT_EQ(root["resumeData"], nlohmann::json({{"$data", "YWJjZA=="}}));
    EXPECT_EQ(root["chunk indices to upload"],
              nlohmann::json::parse(R"({"$indexes": [[3, 3], [9, 1]]})"));
    EXPECT_EQ(root["source URL"], nlohmann::json({{"$url", "file:///tmp/x"}}));
    EXPECT_EQ(root["rawError"], nlohmann::json::parse(R"({"$class": "NSError",
        "domain": "NSURLErrorDomain", "code": -1009,
        "userInfo": {"NSLocalizedDescription": "offline"}})"));
    EXPECT_EQ(root["children"]["$class"], "NSMutableArray");
    EXPECT_EQ(root["children"]["$objects"][0]["$class"], "TestNode");
}

TEST_F(KeyedArchive, NestedObjectGraphRoundTrips) {
    auto root = std::make_shared<TestNode>();
    root->name = "root";
    root->childrenPresent = true;
    for (int i = 0; i < 3; ++i) {
        auto child = std::make_shared<TestSpecialNode>();
        child->name = "child " + std::to_string(i);
        child->extra = "extra " + std::to_string(i);
        auto grandchild = std::make_shared<TestNode>();
        grandchild->counter = i;
        child->child = grandchild;
        root->children.push_back(child);
    }
    auto decoded = roundTrip<TestNode>(*root, {"TestNode"});
    ASSERT_TRUE(decoded);
    ASSERT_EQ(decoded->children.size(), 3u);
    for (int i = 0; i < 3; ++i) {
        auto child = std::dynamic_pointer_cast<TestSpecialNode>(decoded->children[i]);
        ASSERT_TRUE(child) << "subclass identity lost for element " << i;
        EXPECT_EQ(child->name, "child " + std::to_string(i));
        EXPECT_EQ(child->extra, "extra " + std::to_string(i));
        ASSERT_TRUE(child->child);
        EXPECT_EQ(child->child->counter, i);
    }
}

TEST_F(KeyedArchive, AllowedClassesAreEnforcedWithInheritance) {
    TestSpecialNode special;
    special.extra = "x";
    // A subclass of an allowed class is allowed, and decodes as the subclass.
    auto asBase = roundTrip<TestSpecialNode>(special, {"TestNode"});
    ASSERT_TRUE(asBase);
    EXPECT_EQ(asBase->extra, "x");
    EXPECT_TRUE(roundTrip<TestNode>(special, {"NSObject"}));

    auto refuse = [](const std::string& text, const std::set<std::string>& allowed,
                     const std::string& fragment) {
        ZNVErrorRef error;
        auto object = ZNVKeyedUnarchiver::unarchivedObjectOfClasses(allowed, text, &error);
        EXPECT_FALSE(object);
        ASSERT_TRUE(error);
        EXPECT_EQ(error->domain(), NSCocoaErrorDomain);
        EXPECT_EQ(error->code(), NSCoderReadCorruptError);
        EXPECT_NE(error->localizedDescription().find(fragment), std::string::npos)
            << error->localizedDescription();
    };
    // A superclass is not allowed when only the subclass is.
    TestNode base;
    refuse(archiveText(base), {"TestSpecialNode"}, "\"TestNode\", which is not allowed");
    refuse(archiveText(TestOther()), {"TestNode"}, "\"TestOther\", which is not allowed");

    // Inside an array, every element is checked against the call's classes.
    TestNode parent;
    parent.childrenPresent = true;
    parent.children = {std::make_shared<TestNode>()};
    std::string withChildren = archiveText(parent);
    auto other = nlohmann::json::parse(withChildren);
    other["$top"]["root"]["children"]["$objects"].push_back({{"$class", "TestOther"}});
    refuse(other.dump(), {"TestNode"}, "\"TestOther\", which is not allowed");

    // A nested object is checked against the classes of the nested call.
    auto nested = nlohmann::json::parse(archiveText(base));
    nested["$top"]["root"]["child"] = {{"$class", "TestOther"}};
    refuse(nested.dump(), {"TestNode", "TestOther"}, "\"TestOther\", which is not allowed");

    // An array at the top needs the array class among the allowed ones.
    ZNVKeyedArchiver archiver;
    archiver.encodeArray(std::vector<std::shared_ptr<TestNode>>{std::make_shared<TestNode>()},
                         "tasks");
    std::string tasks = archiver.encodedString();
    auto unarchiver = ZNVKeyedUnarchiver::create(tasks);
    ASSERT_TRUE(unarchiver);
    ZNVErrorRef error;
    EXPECT_FALSE(unarchiver->decodeTopLevelObjectOfClassesForKey({"TestNode"}, "tasks", &error));
    EXPECT_TRUE(error);
    unarchiver = ZNVKeyedUnarchiver::create(tasks);
    auto array = std::dynamic_pointer_cast<ZNVArchivedArray>(
        unarchiver->decodeTopLevelObjectOfClassesForKey({"NSArray", "TestNode"}, "tasks", &error));
    EXPECT_FALSE(error);
    ASSERT_TRUE(array);
    EXPECT_EQ(array->objects.size(), 1u);
}

TEST_F(KeyedArchive, MissingKeysAreNotFailuresButWrongTypesAre) {
    ZNVKeyedArchiver archiver;
    archiver.encodeString("live", "configuration type");
    archiver.encodeInt64(-5, "negative");
    archiver.encodeUInt64(5, "retry count");
    archiver.encodeBool(true, "discretionary");
    std::string text = archiver.encodedString();

    auto unarchiver = ZNVKeyedUnarchiver::create(text);
    ASSERT_TRUE(unarchiver);
    EXPECT_FALSE(unarchiver->decodeStringForKey("absent"));
    EXPECT_FALSE(unarchiver->decodeErrorForKey("absent"));
    EXPECT_FALSE(unarchiver->decodeObjectOfClassesForKey({"TestNode"}, "absent"));
    EXPECT_FALSE(unarchiver->error());
    EXPECT_TRUE(unarchiver->isNumberForKey("retry count"));
    EXPECT_FALSE(unarchiver->isNumberForKey("configuration type"));
    EXPECT_EQ(unarchiver->decodeInt64ForKey("retry count"), 5);
    EXPECT_EQ(unarchiver->decodeDoubleForKey("retry count"), 5.0);
    EXPECT_EQ(unarchiver->decodeBoolForKey("discretionary"), true);
    EXPECT_FALSE(unarchiver->error());

    // A negative number is no unsigned value; the first failure is kept and
    // decoding stops answering.
    EXPECT_FALSE(unarchiver->decodeUInt64ForKey("negative"));
    ASSERT_TRUE(unarchiver->error());
    EXPECT_EQ(unarchiver->error()->code(), NSCoderReadCorruptError);
    EXPECT_NE(unarchiver->error()->localizedDescription().find("\"negative\""), std::string::npos);
    auto first = unarchiver->error();
    EXPECT_FALSE(unarchiver->decodeStringForKey("configuration type"));
    EXPECT_FALSE(unarchiver->decodeBoolForKey("configuration type"));
    EXPECT_EQ(unarchiver->error(), first);
    // Each typed decoder refusing the other kinds is in the damaged archives.
    auto u = ZNVKeyedUnarchiver::create(text);
    u->finishDecoding();
    EXPECT_FALSE(u->decodeStringForKey("configuration type"));
}

TEST_F(KeyedArchive, NonKeyedCoderRaisesTheArchiveException) {
    ZNVNonKeyedCoder coder;
    EXPECT_FALSE(coder.allowsKeyedCoding());
    EXPECT_EQ(coder.asKeyedArchiver(), nullptr);
    EXPECT_EQ(coder.asKeyedUnarchiver(), nullptr);
    try {
        TestSpecialNode().encodeWithCoder(coder);
        FAIL() << "no exception";
    } catch (const ZNVInvalidArchiveOperationException& e) {
        EXPECT_STREQ(e.what(), "TestSpecialNode only supports NSKeyedArchiver encoders");
        EXPECT_STREQ(e.name(), "NSInvalidArchiveOperationException");
    }
    // The archive's own array refuses too, and the exception is a logic error.
    EXPECT_THROW(ZNVArchivedArray().encodeWithCoder(coder), std::logic_error);
    ZNVKeyedArchiver keyed;
    EXPECT_NO_THROW(TestSpecialNode().encodeWithCoder(keyed));
}

TEST_F(KeyedArchive, ExceptionsInsideDecodingBecomeErrors) {
    auto& registry = ZNVArchiveClassRegistry::shared();
    registry.registerClass("TestThrowing", "",
                           [](ZNVKeyedUnarchiver&) -> std::shared_ptr<ZNVCoding> {
                               throw std::runtime_error("boom");
                           });
    std::string text =
        R"({"$archiver":"ZNVKeyedArchiver","$version":1,"$top":{"root":{"$class":"TestThrowing"}}})";
    ZNVErrorRef error;
    EXPECT_FALSE(ZNVKeyedUnarchiver::unarchivedObjectOfClasses({"NSObject"}, text, &error));
    ASSERT_TRUE(error);
    EXPECT_EQ(error->code(), NSCoderReadCorruptError);
    EXPECT_NE(error->localizedDescription().find("boom"), std::string::npos);
}

TEST_F(KeyedArchive, ArchiverAndUnarchiverAgreeOnTheDepthLimit) {
    // The deepest chain the archiver accepts must decode; one more level is
    // refused by the archiver rather than written as an unreadable file.
    int accepted = 0;
    for (int depth = 1; depth < 400; ++depth) {
        auto head = std::make_shared<TestNode>();
        for (int i = 1; i < depth; ++i) {
            auto parent = std::make_shared<TestNode>();
            parent->child = head;
            head = parent;
        }
        ZNVErrorRef error;
        ZNVBytes data = ZNVKeyedArchiver::archivedDataWithRootObject(*head, &error);
        if (error) {
            EXPECT_TRUE(data.empty());
            EXPECT_EQ(error->domain(), NSCocoaErrorDomain);
            break;
        }
        accepted = depth;
        ZNVErrorRef decodeError;
        auto decoded =
            ZNVKeyedUnarchiver::unarchivedObjectOfClasses({"TestNode"}, data, &decodeError);
        ASSERT_TRUE(decoded) << "depth " << depth << ": " << decodeError->description();
    }
    EXPECT_GT(accepted, 50);
    EXPECT_LT(accepted, 400);

    // The same for errors nested through their user info.
    ZNVErrorRef deep = ZNVError::withMessage("d", 0, "bottom");
    for (int i = 0; i < 1000; ++i) {
        deep = ZNVError::make("d", i, {{NSUnderlyingErrorKey, deep}});
    }
    TestNode node;
    node.error = deep;
    ZNVErrorRef error;
    EXPECT_TRUE(ZNVKeyedArchiver::archivedDataWithRootObject(node, &error).empty());
    EXPECT_TRUE(error);
}

TEST_F(KeyedArchive, RegistryIsSafeToUseFromSeveralThreads) {
    TestNode node;
    node.childrenPresent = true;
    for (int i = 0; i < 50; ++i)
        node.children.push_back(std::make_shared<TestSpecialNode>());
    std::string text = archiveText(node);
    std::vector<std::thread> threads;
    std::atomic<int> decoded{0};
    for (int t = 0; t < 3; ++t) {
        threads.emplace_back([&] {
            for (int i = 0; i < 20; ++i) {
                if (ZNVKeyedUnarchiver::unarchivedObjectOfClasses({"TestNode"}, text)) ++decoded;
            }
        });
    }
    threads.emplace_back([] {
        for (int i = 0; i < 200; ++i) {
            ZNVArchiveClassRegistry::shared().registerClass(
                "TestLate" + std::to_string(i % 10), "TestNode",
                [](ZNVKeyedUnarchiver&) { return std::make_shared<TestNode>(); });
        }
    });
    for (auto& t : threads)
        t.join();
    EXPECT_EQ(decoded.load(), 60);
    EXPECT_TRUE(ZNVArchiveClassRegistry::shared().isKindOfClass("TestLate3", "NSObject"));
}

TEST_F(KeyedArchive, TenThousandObjectsEncodeAndDecodeWellUnderASecond) {
    std::vector<std::shared_ptr<TestNode>> nodes;
    for (int i = 0; i < 10000; ++i) {
        auto node = std::make_shared<TestNode>();
        node->name = "suspended";
        node->url = ZNVURL::fileURL("/home/user/videos/clip-" + std::to_string(i) + ".mov");
        node->counter = i;
        node->size = 4194304;
        node->flag = false;
        node->date = ZNVDate(std::chrono::seconds(1'700'000'000 + i));
        node->data = ZNVBytes(120, uint8_t(i));
        node->indexes = ZNVIndexSet::withRange(0, 1 + i % 40);
        nodes.push_back(node);
    }
    auto start = test::threadCpuTime();
    ZNVKeyedArchiver archiver;
    archiver.encodeString("live", "configuration type");
    archiver.encodeArray(nodes, "tasks");
    ZNVBytes data = archiver.encodedData();
    auto encoded = test::threadCpuTime();
    auto unarchiver = ZNVKeyedUnarchiver::create(data);
    ASSERT_TRUE(unarchiver);
    auto objects = unarchiver->decodeArrayOfClassesForKey({"TestNode"}, "tasks");
    auto decoded = test::threadCpuTime();
    ASSERT_TRUE(objects);
    ASSERT_EQ(objects->size(), 10000u);
    EXPECT_EQ(std::dynamic_pointer_cast<TestNode>(objects->back())->counter, 9999);

    auto ms = [](auto d) {
        return std::chrono::duration_cast<std::chrono::milliseconds>(d).count();
    };
    RecordProperty("encode_ms", std::to_string(ms(encoded - start)));
    RecordProperty("decode_ms", std::to_string(ms(decoded - encoded)));
    std::chrono::milliseconds budget(1000 * test::kTimingAllowance);
    EXPECT_LT(decoded - start, budget)
        << "encode " << ms(encoded - start) << " ms, decode " << ms(decoded - encoded) << " ms";
}

TEST_F(KeyedArchive, AnArchiveAssembledFromElementsEqualsTheWholeEncoding) {
    // Elements with every value kind, invalid UTF-8, control characters,
    // nested objects and marker-like keys, in arrays of 0, 1 and 3 elements.
    auto plain = std::make_shared<TestNode>();
    auto rich = std::make_shared<TestSpecialNode>();
    rich->name = std::string("bad \xff utf-8, \"quotes\", \x01 and \u00e9");
    rich->counter = -3;
    rich->size = std::numeric_limits<uint64_t>::max();
    rich->ratio = std::numeric_limits<double>::quiet_NaN();
    rich->date = ZNVDate(std::chrono::microseconds(1'700'000'000'123'456));
    rich->url = ZNVURL::fileURL("/tmp/a b/\xc3\xa9.bin");
    rich->data = ZNVBytes{0, 1, 0xff};
    rich->indexes = ZNVIndexSet::withRange(3, 5);
    rich->error = richError();
    rich->child = std::make_shared<TestNode>();
    rich->extra = "$class";
    auto parent = std::make_shared<TestNode>();
    parent->childrenPresent = true;
    parent->children = {plain, rich};

    const std::vector<std::vector<std::shared_ptr<TestNode>>> lists{
        {}, {rich}, {plain, rich, parent}};
    for (const auto& list : lists) {
        for (const std::string key : {"tasks", "$objects"}) {
            ZNVKeyedArchiver whole;
            whole.encodeString("conf \xfe", "configuration type");
            whole.encodeArray(list, key);
            const std::string expected = whole.encodedString();

            ZNVKeyedArchiver outer;
            outer.encodeString("conf \xfe", "configuration type");
            std::string head, tail;
            ASSERT_TRUE(outer.encodedStringAroundObjectArray(key, &head, &tail));
            std::string assembled = head;
            for (size_t i = 0; i < list.size(); ++i) {
                ZNVErrorRef error;
                if (i != 0) assembled += ',';
                assembled += ZNVKeyedArchiver::encodedTopLevelArrayElement(*list[i], &error);
                ASSERT_EQ(error, nullptr);
            }
            assembled += tail;
            EXPECT_EQ(assembled, expected) << "key " << key << ", " << list.size() << " elements";
        }
    }

    // A key already written cannot take the array, and an element too deep to
    // archive is refused with an error, as the whole encoding refuses it.
    ZNVKeyedArchiver twice;
    twice.encodeString("x", "tasks");
    std::string head, tail;
    EXPECT_FALSE(twice.encodedStringAroundObjectArray("tasks", &head, &tail));
    auto deep = std::make_shared<TestNode>();
    for (int i = 0; i < 300; ++i) {
        auto next = std::make_shared<TestNode>();
        next->child = deep;
        deep = next;
    }
    ZNVErrorRef error;
    EXPECT_TRUE(ZNVKeyedArchiver::encodedTopLevelArrayElement(*deep, &error).empty());
    EXPECT_TRUE(error);
}

}  // namespace
}  // namespace znv
