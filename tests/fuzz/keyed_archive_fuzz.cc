// The state file as the task managers read it, and every typed decoder of a
// keyed archive: damaged bytes become an error value, never a crash, an
// exception or a hang.
#include <cstddef>
#include <cstdint>
#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <vector>

#include "znv/foundation/log.h"
#include "znv/platform/keyed_archive.h"

// Decoding failures are logged; a million of them would drown the report.
extern "C" int LLVMFuzzerInitialize(int*, char***) {
    znv::ZNVLogSetLevel(spdlog::level::off);
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    using znv::ZNVKeyedUnarchiver;
    const std::string_view bytes(reinterpret_cast<const char*>(data), size);

    // The task list, with the task classes the library registers, decoded
    // from the whole document and while parsing (as the task managers read
    // it): both must come to the same list, or both fail.
    const std::set<std::string> taskClasses{znv::ZNVArchiveMutableArrayClassName, "ZNVNetworkTask"};
    const auto decodeTasks = [&](std::unique_ptr<ZNVKeyedUnarchiver> coder) {
        std::vector<std::string> classes;
        if (!coder) return std::optional<std::vector<std::string>>();
        if (coder->isStringForKey("configuration type")) {
            (void)coder->decodeStringForKey("configuration type");
        }
        auto tasks = coder->decodeArrayOfClassesForKey(taskClasses, "tasks");
        coder->finishDecoding();
        if (!tasks) classes.push_back(coder->error() ? "(failed)" : "(absent)");
        for (const auto& task : tasks.value_or(std::vector<std::shared_ptr<znv::ZNVCoding>>{}))
            classes.push_back(task->className());
        return std::optional<std::vector<std::string>>(classes);
    };
    const znv::ZNVBytes copy(bytes.begin(), bytes.end());
    if (decodeTasks(ZNVKeyedUnarchiver::create(bytes)) !=
        decodeTasks(ZNVKeyedUnarchiver::createDecodingArray(copy, "tasks", taskClasses))) {
        __builtin_trap();
    }
    (void)ZNVKeyedUnarchiver::unarchivedObjectOfClasses({"ZNVNetworkTask"}, bytes);

    // Each value decoder on every key the top level has (a fresh coder each,
    // as the first failure silences a coder).
    for (const char* key : {"tasks", "configuration type", "root", "a", "b"}) {
        auto coder = ZNVKeyedUnarchiver::create(bytes);
        if (!coder) break;
        if (!coder->containsValueForKey(key)) continue;
        (void)coder->decodeStringForKey(key);
        coder = ZNVKeyedUnarchiver::create(bytes);
        (void)coder->decodeInt64ForKey(key);
        coder = ZNVKeyedUnarchiver::create(bytes);
        (void)coder->decodeUInt64ForKey(key);
        coder = ZNVKeyedUnarchiver::create(bytes);
        (void)coder->decodeDoubleForKey(key);
        coder = ZNVKeyedUnarchiver::create(bytes);
        (void)coder->decodeDateForKey(key);
        coder = ZNVKeyedUnarchiver::create(bytes);
        (void)coder->decodeURLForKey(key);
        coder = ZNVKeyedUnarchiver::create(bytes);
        (void)coder->decodeDataForKey(key);
        coder = ZNVKeyedUnarchiver::create(bytes);
        (void)coder->decodeIndexSetForKey(key);
        coder = ZNVKeyedUnarchiver::create(bytes);
        (void)coder->decodeErrorForKey(key);
        coder = ZNVKeyedUnarchiver::create(bytes);
        (void)coder->decodeBoolForKey(key);
    }
    return 0;
}
