// Keyed archive throughput on a state-file-sized list: 10,000 task-like
// objects, each with the kinds of values a task archives.
#include <benchmark/benchmark.h>

#include <memory>
#include <string>
#include <vector>

#include "znv/platform/keyed_archive.h"

namespace znv {
namespace {

class BenchTask : public ZNVCoding {
  public:
    std::string className() const override { return "BenchTask"; }
    void encodeWithCoder(ZNVCoder& coder) const override {
        ZNVKeyedArchiver* a = coder.asKeyedArchiver();
        if (a == nullptr) ZNVRaiseKeyedCodingOnly(className());
        a->encodeString("suspended", "state");
        a->encodeURL(source, "source URL");
        a->encodeUInt64(identifier, "task identifier");
        a->encodeInt64(0, "completed progress");
        a->encodeDate(start, "start date");
        a->encodeUInt64(0, "retry count");
        a->encodeBool(false, "discretionary");
        a->encodeBool(false, "needs early activation");
        a->encodeString(remoteID, "remote file ID");
        a->encodeData(bookmark, "source URL bookmark");
        a->encodeIndexSet(chunks, "chunk indices to upload");
        a->encodeUInt64(chunks.count(), "chunk count");
        a->encodeUInt64(4194304, "size of last chunk");
        a->encodeUInt64(0, "pending batch chunk count");
        a->encodeString("clip.mov", "remote file name");
        a->encodeUInt64(1ull << 30, "maximum full-file upload size");
        a->encodeBool(true, "requires video post processing");
    }

    ZNVURL source;
    uint64_t identifier = 0;
    ZNVDate start;
    std::string remoteID;
    ZNVBytes bookmark;
    ZNVIndexSet chunks;
};

std::vector<std::shared_ptr<BenchTask>> makeTasks(int count) {
    ZNVArchiveClassRegistry::shared().registerClass("BenchTask", "", [](ZNVKeyedUnarchiver& u) {
        auto t = std::make_shared<BenchTask>();
        t->source = u.decodeURLForKey("source URL").value_or(ZNVURL());
        t->identifier = u.decodeUInt64ForKey("task identifier").value_or(0);
        t->start = u.decodeDateForKey("start date").value_or(ZNVDate());
        (void)u.decodeStringForKey("state");
        (void)u.decodeInt64ForKey("completed progress");
        (void)u.decodeUInt64ForKey("retry count");
        (void)u.decodeBoolForKey("discretionary");
        (void)u.decodeBoolForKey("needs early activation");
        t->remoteID = u.decodeStringForKey("remote file ID").value_or("");
        t->bookmark = u.decodeDataForKey("source URL bookmark").value_or(ZNVBytes());
        t->chunks = u.decodeIndexSetForKey("chunk indices to upload").value_or(ZNVIndexSet());
        (void)u.decodeUInt64ForKey("chunk count");
        (void)u.decodeUInt64ForKey("size of last chunk");
        (void)u.decodeUInt64ForKey("pending batch chunk count");
        (void)u.decodeStringForKey("remote file name");
        (void)u.decodeUInt64ForKey("maximum full-file upload size");
        (void)u.decodeBoolForKey("requires video post processing");
        return t;
    });
    std::vector<std::shared_ptr<BenchTask>> tasks;
    for (int i = 0; i < count; ++i) {
        auto t = std::make_shared<BenchTask>();
        t->source = ZNVURL::fileURL("/home/user/Videos/clip-" + std::to_string(i) + ".mov");
        t->identifier = uint64_t(i);
        t->start = ZNVDate(std::chrono::seconds(1'700'000'000 + i));
        t->remoteID = "3F2504E0-4F89-11D3-9A0C-0305E82C" + std::to_string(1000 + i);
        t->bookmark = ZNVBytes(180, uint8_t(i));
        t->chunks = ZNVIndexSet::withRange(0, 1 + i % 64);
        tasks.push_back(t);
    }
    return tasks;
}

ZNVBytes encode(const std::vector<std::shared_ptr<BenchTask>>& tasks) {
    ZNVKeyedArchiver archiver;
    archiver.encodeString("live", "configuration type");
    archiver.encodeArray(tasks, "tasks");
    return archiver.encodedData();
}

void BM_Encode10000Tasks(benchmark::State& state) {
    auto tasks = makeTasks(10000);
    size_t bytes = 0;
    for (auto _ : state) {
        ZNVBytes data = encode(tasks);
        bytes = data.size();
        benchmark::DoNotOptimize(data);
    }
    state.counters["archive_bytes"] = double(bytes);
}
BENCHMARK(BM_Encode10000Tasks)->Unit(benchmark::kMillisecond);

void BM_Decode10000Tasks(benchmark::State& state) {
    ZNVBytes data = encode(makeTasks(10000));
    for (auto _ : state) {
        auto unarchiver = ZNVKeyedUnarchiver::create(data);
        auto tasks = unarchiver->decodeArrayOfClassesForKey({"BenchTask"}, "tasks");
        if (!tasks || tasks->size() != 10000) state.SkipWithError("decoding failed");
        benchmark::DoNotOptimize(tasks);
    }
}
BENCHMARK(BM_Decode10000Tasks)->Unit(benchmark::kMillisecond);

}  // namespace
}  // namespace znv

BENCHMARK_MAIN();
