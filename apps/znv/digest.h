// File digests and the demo's sample files.
//
// `sha256OfFile` streams the file through OpenSSL's EVP interface in 1 MiB
// reads (never the whole file in memory) and returns the lower-case hex
// digest, or "" with a message on failure. `writeSampleFile` writes `size`
// bytes of varied content (random stretches, repeated runs and text), the
// same for the same seed, so transfers cannot pass by accident on uniform
// data. Any thread.
#pragma once

#include <cstdint>
#include <string>

namespace znv::cli {

std::string sha256OfFile(const std::string& path, std::string* error = nullptr);
bool writeSampleFile(const std::string& path, uint64_t size, uint64_t seed,
                     std::string* error = nullptr);

}  // namespace znv::cli
