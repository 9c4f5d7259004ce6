// The state file as the task managers read it, and every typed decoder of a
// keyed archive: damaged bytes become an error value, never a crash, an
// exception or a hang.
#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

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

    // The task list, with the task classes the library registers.
    if (auto coder = ZNVKeyedUnarchiver::create(bytes)) {
        if (coder->isStringForKey("configuration type")) {
            (void)coder->decodeStringForKey("configuration type");
        }
        (void)coder->decodeArrayOfClassesForKey(
            {znv::ZNVArchiveMutableArrayClassName, "ZNVNetworkTask"}, "tasks");
        coder->finishDecoding();
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
