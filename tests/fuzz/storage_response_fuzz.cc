// Service answers to every kind of storage request: parsing never throws and
// never crashes, and what it yields can be described.
#include <cstddef>
#include <cstdint>
#include <string>

#include <nlohmann/json.hpp>

#include "znv/foundation/log.h"
#include "znv/protocol/storage_response.h"

namespace {

const char* const kRequests[][2] = {
    {"POST", "http://127.0.0.1:1/api/files"},
    {"PUT", "http://127.0.0.1:1/api/files/f1/fullfile"},
    {"PUT", "http://127.0.0.1:1/api/files/f1"},
    {"POST", "http://127.0.0.1:1/api/files/f1/complete"},
    {"POST", "http://127.0.0.1:1/api/files/f1/process"},
    {"GET", "http://127.0.0.1:1/api/files/f1"},
    {"DELETE", "http://127.0.0.1:1/api/files/f1"},
    {"GET", "http://127.0.0.1:1/content/f1"},
};

}  // namespace

// Decoding failures are logged; a million of them would drown the report.
extern "C" int LLVMFuzzerInitialize(int*, char***) {
    znv::ZNVLogSetLevel(spdlog::level::off);
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size == 0) return 0;
    const auto& request = kRequests[data[0] % (sizeof kRequests / sizeof kRequests[0])];
    auto url = znv::ZNVURL::fromString(request[1]);
    std::optional<znv::ZNVIndexSet> chunks;
    if (data[0] & 0x80) {
        chunks.emplace();
        chunks->addRange(0, 1 + (data[0] & 7));
    }
    znv::ZNVBytes body(data + 1, data + size);
    auto response =
        znv::ZNVStorageResponse::responseForRequest(request[0], *url, chunks, body, nullptr);
    if (response) (void)response->description();
    znv::ZNVErrorRef error;
    (void)znv::ZNVStorageResponse::parseBody(body, &error);
    return 0;
}
