// The znv commands. main.cc parses and validates the command line (usage
// errors end there with status 2); these functions do the work and return
// the process's exit status:
//   0   every task the command ran completed without error
//   1   one of them failed, or a remote operation did not succeed
//   2   bad input found only once the queue is loaded (an unknown task ID, a
//       server the profile is not bound to)
//   130 / 143  interrupted by SIGINT / SIGTERM after saving the queue
// They run on the main thread with SIGINT and SIGTERM blocked (see signals.h).
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace znv::cli {

inline constexpr int kExitOK = 0;
inline constexpr int kExitFailed = 1;
inline constexpr int kExitUsage = 2;

inline constexpr const char* kDefaultToken = "dev-token";

struct GlobalOptions {
    std::string server;  // storage service base URL; empty: the embedded emulator
    std::string token = kDefaultToken;
    std::string profile;  // account configuration identifier; empty: the default queue
    bool json = false;
    bool offline = false;  // queue only; start no transfer
    int verbosity = 0;     // -1 with -q (errors only), 1 with -v, 2 with -vv
    bool wait = false;     // wait while another process uses the queue
};

struct UploadOptions {
    std::vector<std::string> files;  // absolute paths, checked to be readable and non-empty
    std::string name;                // remote file name (one file only)
    bool video = false;
    bool forceChunks = false;
};

struct DownloadOptions {
    std::string url;                // absolute http(s) URL
    std::string output;             // absolute path of the directory or file to write
    bool outputIsDirectory = true;  // the name comes from the server or the URL
    bool force = false;             // replace an existing file
};

struct EmulatorCommandOptions {
    uint16_t port = 0;
    std::string dataDir;
    std::string token = kDefaultToken;
    uint64_t maxFullFileBytes = 1ull << 30;
};

struct DemoOptions {
    uint64_t size = 256ull << 20;
};

int runUpload(const GlobalOptions& global, const UploadOptions& options);
int runDownload(const GlobalOptions& global, const DownloadOptions& options);
int runStatus(const GlobalOptions& global);
int runResume(const GlobalOptions& global);
int runRetry(const GlobalOptions& global, const std::string& id);
int runCancel(const GlobalOptions& global, const std::string& id);
int runFinish(const GlobalOptions& global, const std::string& id, bool completed);
int runInfo(const GlobalOptions& global, const std::string& fileID);
int runDelete(const GlobalOptions& global, const std::string& fileID);
int runEmulator(const GlobalOptions& global, const EmulatorCommandOptions& options);
int runDemo(const GlobalOptions& global, const DemoOptions& options);

// Prints "znv: <message>" on standard error.
void printError(const std::string& message);

}  // namespace znv::cli
