// The journal of remote file IDs, as read back after a kill: any bytes give
// entries (or none) without a crash, and every entry read is written back as
// a line that reads as that entry alone.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string_view>

#include "znv/managers/remote_file_journal.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const std::string_view text(reinterpret_cast<const char*>(data), size);
    for (const auto& entry : znv::ZNVRemoteFileJournal::parse(text)) {
        if (entry.remoteFileID.empty()) std::abort();
        const auto again = znv::ZNVRemoteFileJournal::parse(znv::ZNVRemoteFileJournal::line(entry));
        if (again.size() != 1 || !(again[0] == entry)) std::abort();
    }
    return 0;
}
