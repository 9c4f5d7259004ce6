// Resume data read back from bytes: anything decode accepts encodes to bytes
// that decode to the same thing.
#include <cstddef>
#include <cstdint>
#include <cstdlib>

#include "znv/platform/url_session_resume_data.h"

namespace {

bool same(const znv::ZNVURLSessionResumeData::Info& a,
          const znv::ZNVURLSessionResumeData::Info& b) {
    return a.url == b.url && a.method == b.method && a.headers == b.headers &&
           a.partialFile == b.partialFile && a.bytesReceived == b.bytesReceived &&
           a.etag == b.etag && a.lastModified == b.lastModified &&
           a.expectedTotalBytes == b.expectedTotalBytes && a.growing == b.growing;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    using znv::ZNVURLSessionResumeData;
    auto info = ZNVURLSessionResumeData::decode(znv::ZNVBytes(data, data + size));
    if (!info) return 0;
    auto again = ZNVURLSessionResumeData::decode(ZNVURLSessionResumeData::encode(*info));
    if (!again || !same(*info, *again)) std::abort();
    return 0;
}
