// The text form of a set of chunk indices: whatever is read writes back to a
// text that reads as the same set.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>

#include "znv/foundation/network_utilities.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const std::string text(reinterpret_cast<const char*>(data), size);
    auto indices = znv::ZNVNetworkUtilities_indicesFromString(text);
    if (!indices) return 0;
    auto written = znv::ZNVNetworkUtilities_stringFromIndices(*indices);
    if (!written) std::abort();  // a set that was read is not empty
    auto again = znv::ZNVNetworkUtilities_indicesFromString(*written);
    if (!again || !(*again == *indices)) std::abort();
    return 0;
}
