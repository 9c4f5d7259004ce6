#include "archive_test_classes.h"

#include <time.h>

#include <mutex>

namespace znv::test {

void TestNode::encodeWithCoder(ZNVCoder& coder) const {
    ZNVKeyedArchiver* archiver = coder.asKeyedArchiver();
    if (!coder.allowsKeyedCoding() || archiver == nullptr) ZNVRaiseKeyedCodingOnly(className());
    if (name) archiver->encodeString(*name, "name");
    if (counter) archiver->encodeInt64(*counter, "counter");
    if (size) archiver->encodeUInt64(*size, "size");
    if (flag) archiver->encodeBool(*flag, "flag");
    if (ratio) archiver->encodeDouble(*ratio, "ratio");
    if (date) archiver->encodeDate(*date, "start date");
    if (url) archiver->encodeURL(*url, "source URL");
    if (data) archiver->encodeData(*data, "resumeData");
    if (indexes) archiver->encodeIndexSet(*indexes, "chunk indices to upload");
    archiver->encodeError(error, "rawError");
    archiver->encodeObject(child.get(), "child");
    if (childrenPresent) archiver->encodeArray(children, "children");
}

void TestNode::decodeFields(ZNVKeyedUnarchiver& coder) {
    name = coder.decodeStringForKey("name");
    counter = coder.decodeInt64ForKey("counter");
    size = coder.decodeUInt64ForKey("size");
    flag = coder.decodeBoolForKey("flag");
    ratio = coder.decodeDoubleForKey("ratio");
    date = coder.decodeDateForKey("start date");
    url = coder.decodeURLForKey("source URL");
    data = coder.decodeDataForKey("resumeData");
    indexes = coder.decodeIndexSetForKey("chunk indices to upload");
    error = coder.decodeErrorForKey("rawError");
    child = coder.decodeObjectOfClassForKey<TestNode>("TestNode", "child");
    childrenPresent = coder.containsValueForKey("children");
    if (auto objects = coder.decodeArrayOfClassesForKey({"TestNode"}, "children")) {
        for (auto& object : *objects) {
            auto node = std::dynamic_pointer_cast<TestNode>(object);
            if (node) children.push_back(node);
        }
    }
}

void TestSpecialNode::encodeWithCoder(ZNVCoder& coder) const {
    TestNode::encodeWithCoder(coder);
    coder.asKeyedArchiver()->encodeString(extra, "extra");
}

void TestOther::encodeWithCoder(ZNVCoder& coder) const {
    if (!coder.allowsKeyedCoding()) ZNVRaiseKeyedCodingOnly(className());
}

std::chrono::nanoseconds threadCpuTime() {
    timespec ts{};
    clock_gettime(CLOCK_THREAD_CPUTIME_ID, &ts);
    return std::chrono::seconds(ts.tv_sec) + std::chrono::nanoseconds(ts.tv_nsec);
}

void registerTestClasses() {
    static std::once_flag once;
    std::call_once(once, [] {
        auto& registry = ZNVArchiveClassRegistry::shared();
        registry.registerClass("TestNode", "", [](ZNVKeyedUnarchiver& coder) {
            auto node = std::make_shared<TestNode>();
            node->decodeFields(coder);
            return node;
        });
        registry.registerClass("TestSpecialNode", "TestNode", [](ZNVKeyedUnarchiver& coder) {
            auto node = std::make_shared<TestSpecialNode>();
            node->decodeFields(coder);
            node->extra = coder.decodeStringForKey("extra").value_or("");
            return node;
        });
        registry.registerClass("TestOther", "",
                               [](ZNVKeyedUnarchiver&) { return std::make_shared<TestOther>(); });
    });
}

}  // namespace znv::test
