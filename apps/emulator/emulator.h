// The storage service emulator, embeddable in a process.
//
// `Emulator` serves the storage service's REST protocol on 127.0.0.1 (base URL
// "http://127.0.0.1:<port>/api/"), keeps files and chunks in a data directory
// that survives restarts, serves finished files under "/content/<id>" with
// ranges, injects faults on request and records every request it sees.
//
// Admin endpoints ("/_admin/faults", "/_admin/requests") need
// "Authorization: Bearer <admin token>" (401 otherwise); the admin token is
// the service token unless one of its own is given. The request log keeps
// bearer credentials cut to their first four characters, and the data
// directory is created with mode 0700, so another local user learns neither
// tokens nor file IDs nor content from the emulator.
//
// Sink mode (`EmulatorOptions::sink`) measures a client apart from the disk:
// request bodies are read and dropped, nothing is written to disk, and the
// bookkeeping stays the same (file sizes, chunk indices and sizes, completion,
// missing-chunk answers); content is served as zeros of the stored size, with
// ranges. Its records live in memory only and end with the emulator.
//
// Threads: `start`, `stop` and the destructor belong to the owner's thread;
// `port`, `baseURL`, `rootURL`, `dataDir`, `addFault`, `clearFaults`,
// `requestLog` and `clearRequestLog` may be called from any thread at any time
// (requests are served on the emulator's own worker threads).
// Ownership: the emulator owns its server, its worker threads and, when it made
// it, nothing else: a temporary data directory is left on disk so that a test
// can inspect it after `stop` (a sink has no data directory).
// Failures: `start` returns false with a message (unusable data directory, port
// in use); `addFault` returns false with a message for a rule it cannot read.
// `stop` never blocks on a stalled request: stalled and throttled requests are
// released and their connections dropped.
//
// Fault rules (the JSON of `addFault` and of POST /_admin/faults):
//   {"method": "PUT", "path": "/api/files/*/fullfile", "times": 1, "skip": 0,
//    "action": "status" | "reset" | "stall" | "throttle" | "missingChunks" |
//              "alreadyCompleted",
//    "status": 503, "body": {...}, "message": "...", "headers": {...},   (status)
//    "afterBytes": K,                                                    (reset)
//    "bytesPerSecond": B,                                                (throttle)
//    "chunks": [2, 5]}                                                   (missingChunks)
// "method" and "path" are optional (absent: any); in "path" a "*" matches within
// one path segment and "**" matches across segments. "times" absent means every
// matching request until the rule is cleared; "skip" lets that many matching
// requests through first. The first matching rule that still has uses applies.
#pragma once

#include <cstdint>
#include <memory>
#include <string>

#include <nlohmann/json.hpp>

namespace znv::emulator {

struct EmulatorOptions {
    std::string dataDir;  // empty: a fresh temporary directory
    uint16_t port = 0;    // 0: the kernel picks one
    std::string token = "dev-token";
    uint64_t maxFullFileBytes = 1ull << 30;
    std::string adminToken;  // empty: the admin endpoints take `token`
    bool sink = false;       // drop bodies, keep bookkeeping in memory, serve zeros
};

class Emulator {
  public:
    explicit Emulator(EmulatorOptions options = {});
    ~Emulator();  // stops

    Emulator(const Emulator&) = delete;
    Emulator& operator=(const Emulator&) = delete;

    // Opens the data directory, loads what it holds and listens on 127.0.0.1.
    bool start(std::string* error = nullptr);
    // Stops serving and joins the worker threads; idempotent.
    void stop();

    uint16_t port() const;
    std::string baseURL() const;         // "http://127.0.0.1:<port>/api/"
    std::string rootURL() const;         // "http://127.0.0.1:<port>/"
    const std::string& dataDir() const;  // empty for a sink
    // The token the admin endpoints require.
    const std::string& adminToken() const;

    // Adds one rule (an object) or several (an array). Same JSON as
    // POST /_admin/faults.
    bool addFault(const nlohmann::json& rule, std::string* error = nullptr);
    void clearFaults();

    // Same JSON as GET /_admin/requests: an array of entries, oldest first, each
    // {"method", "path", "query"?, "headers": {...}, "bodySize", "parts"?,
    //  "status", "fault"?, "durationMs", "startMs", "endMs", "fileId"?,
    //  "fileName"?, "aborted"?}
    // ("durationMs" and the monotonic-clock readings "startMs"/"endMs" appear
    // once the request is finished, for content once its body was sent;
    // "fileId" and "fileName" name the file a create made; "aborted": true when the client
    // closed the connection before the answer, "endMs" then being when the
    // emulator saw it close; status 0 while it is served or when its
    // connection was dropped). An
    // "Authorization" header is kept as its scheme and the first four
    // characters of its credential followed by "..." ("Bearer dev-...").
    nlohmann::json requestLog() const;
    void clearRequestLog();

    class Impl;

  private:
    std::unique_ptr<Impl> impl_;
};

}  // namespace znv::emulator
