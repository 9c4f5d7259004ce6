// Short task IDs that stay the same across runs.
//
// A task's ID is derived from what its archive keeps unchanged for the task's
// whole life: its kind, its creation time (kept to the microsecond) and what
// it transfers (the remote file name of an upload, the URL of a download).
// The 64-bit hash of that identity is shown by its first six hex digits, or
// by as many more as it takes to tell it apart from the other tasks of the
// same queue. A user may type any prefix of at least four digits that names
// exactly one task.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace znv::cli {

struct TaskIdentity {
    std::string kind;  // "upload" or "download"
    int64_t createdMicros = 0;
    std::string subject;  // remote file name or download URL
};

// 16 hex digits.
std::string fullTaskHash(const TaskIdentity& identity);

// The short ID of every full hash, in order: its first six digits, or one
// more than it shares with any different hash; equal hashes get equal IDs.
std::vector<std::string> shortIdsOf(const std::vector<std::string>& hashes);

inline constexpr size_t kShortIdLength = 6;
inline constexpr size_t kMinimumIdPrefix = 4;

enum class IdMatch { Found, NotFound, Ambiguous, TooShort };

// Finds the task whose full hash starts with `typed` (case-insensitive).
IdMatch findTaskById(const std::string& typed, const std::vector<std::string>& fullHashes,
                     size_t* index);

}  // namespace znv::cli
