// UUIDs from the system's generator (libuuid).
//
// Contract: thread-safe; each call returns a fresh random UUID as 36
// characters of upper-case hexadecimal digits and dashes
// ("0A1B2C3D-4E5F-4071-8293-A4B5C6D7E8F9").
#pragma once

#include <string>

namespace znv {

std::string ZNVUUIDString();

}  // namespace znv
