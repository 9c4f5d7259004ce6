// Test hook of the chunk size. Not installed: an application never changes
// the chunk size, which is process-wide.
//
// `setMaximumChunkSizeForTesting(size)` makes `maximumChunkSize` answer `size`
// (0 restores 4194304), so that tests can lay out small files in many chunks.
// Never called by the library. Any thread may call it; tasks already laid out
// keep their chunks.
#pragma once

#include <cstdint>

namespace znv::internal {

void setMaximumChunkSizeForTesting(uint64_t size);

}  // namespace znv::internal
