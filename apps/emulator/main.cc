// znv-emulator: the storage service emulator as a program.
//
//   znv-emulator [--port N] [--data DIR | --sink] [--token T] [--admin-token T]
//                [--max-full-file BYTES] [--fault JSON]...
//
// Prints the base URL on the first line of standard output once it listens,
// serves until SIGINT or SIGTERM, then stops cleanly. Bad flags or an unusable
// data directory end it with exit code 2.
#include <signal.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <iostream>
#include <string>
#include <vector>

#include "apps/emulator/emulator.h"

namespace {

constexpr const char* kUsage =
    "usage: znv-emulator [--port N] [--data DIR | --sink] [--token T] [--admin-token T]\n"
    "                    [--max-full-file BYTES] [--fault JSON]...\n"
    "\n"
    "Serves the storage service protocol on http://127.0.0.1:<port>/api/ (port 0,\n"
    "the default, lets the kernel choose) and prints that URL on the first line.\n"
    "  --port N               port to listen on (0: any free port)\n"
    "  --data DIR             data directory (default: a fresh temporary directory)\n"
    "  --token T              access token that requests must carry (default dev-token)\n"
    "  --admin-token T        token of the admin endpoints (default: the access token)\n"
    "  --sink                 read and drop request bodies, keep only the bookkeeping\n"
    "                         (in memory) and serve content as zeros: measures a\n"
    "                         client apart from the disk\n"
    "  --max-full-file BYTES  largest file accepted in one request (default 1073741824)\n"
    "  --fault JSON           a fault rule, as for POST /_admin/faults (repeatable)\n"
    "Admin endpoints (Authorization: Bearer <admin token>): GET|DELETE /_admin/requests,\n"
    "GET|POST|DELETE /_admin/faults, DELETE /_admin/faults/<id>.\n";

int usageError(const std::string& message) {
    std::cerr << "znv-emulator: " << message << "\n\n" << kUsage;
    return 2;
}

bool parseUnsigned(const std::string& text, uint64_t max, uint64_t& out) {
    if (text.empty() || text.find_first_not_of("0123456789") != std::string::npos ||
        text.size() > 19) {
        return false;
    }
    errno = 0;
    unsigned long long value = std::strtoull(text.c_str(), nullptr, 10);
    if (errno != 0 || value > max) return false;
    out = value;
    return true;
}

}  // namespace

int main(int argc, char** argv) {
    znv::emulator::EmulatorOptions options;
    std::vector<nlohmann::json> faults;
    std::vector<std::string> args(argv + 1, argv + argc);
    for (size_t i = 0; i < args.size(); ++i) {
        std::string flag = args[i];
        std::string value;
        bool hasValue = false;
        if (auto eq = flag.find('='); flag.rfind("--", 0) == 0 && eq != std::string::npos) {
            value = flag.substr(eq + 1);
            flag = flag.substr(0, eq);
            hasValue = true;
        }
        if (flag == "-h" || flag == "--help") {
            std::cout << kUsage;
            return 0;
        }
        if (flag == "--sink") {
            if (hasValue) return usageError("--sink takes no value");
            options.sink = true;
            continue;
        }
        bool known = flag == "--port" || flag == "--data" || flag == "--token" ||
                     flag == "--admin-token" || flag == "--max-full-file" || flag == "--fault";
        if (!known) return usageError("unknown argument " + args[i]);
        if (!hasValue) {
            if (i + 1 >= args.size()) return usageError(flag + " needs a value");
            value = args[++i];
        }
        if (flag == "--port") {
            uint64_t port;
            if (!parseUnsigned(value, 65535, port)) return usageError("bad port " + value);
            options.port = static_cast<uint16_t>(port);
        } else if (flag == "--data") {
            if (value.empty()) return usageError("--data needs a directory");
            options.dataDir = value;
        } else if (flag == "--token") {
            if (value.empty()) return usageError("--token needs a non-empty token");
            options.token = value;
        } else if (flag == "--admin-token") {
            if (value.empty()) return usageError("--admin-token needs a non-empty token");
            options.adminToken = value;
        } else if (flag == "--max-full-file") {
            if (!parseUnsigned(value, UINT64_MAX, options.maxFullFileBytes)) {
                return usageError("bad byte count " + value);
            }
        } else if (flag == "--fault") {
            auto rule = nlohmann::json::parse(value, nullptr, false);
            if (rule.is_discarded()) return usageError("--fault needs JSON: " + value);
            faults.push_back(rule);
        }
    }

    // Signals are taken synchronously by the main thread; block them before
    // any worker thread exists so that none of those receives them.
    sigset_t signals;
    sigemptyset(&signals);
    sigaddset(&signals, SIGINT);
    sigaddset(&signals, SIGTERM);
    pthread_sigmask(SIG_BLOCK, &signals, nullptr);

    znv::emulator::Emulator emulator(options);
    for (const auto& rule : faults) {
        std::string error;
        if (!emulator.addFault(rule, &error)) return usageError("bad --fault rule: " + error);
    }
    if (options.sink && !options.dataDir.empty()) {
        return usageError("--sink keeps nothing on disk; leave out --data");
    }
    std::string error;
    if (!emulator.start(&error)) {
        std::cerr << "znv-emulator: " << error << "\n";
        return 2;
    }
    std::cout << emulator.baseURL() << std::endl;
    if (options.sink) {
        std::cerr << "znv-emulator: serving " << emulator.baseURL()
                  << " as a sink (bodies dropped, content served as zeros)\n";
    } else {
        std::cerr << "znv-emulator: serving " << emulator.baseURL() << " with data in "
                  << emulator.dataDir() << "\n";
    }

    int received = 0;
    sigwait(&signals, &received);
    std::cerr << "znv-emulator: " << strsignal(received) << ", stopping\n";
    emulator.stop();
    return 0;
}
