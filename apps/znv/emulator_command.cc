// `znv emulator`: the storage service emulator in the foreground, until
// Ctrl-C or SIGTERM.

#include <cstdio>

#include <nlohmann/json.hpp>

#include "apps/znv/commands.h"
#include "apps/znv/embedded.h"
#include "apps/znv/output.h"
#include "apps/znv/paths.h"
#include "apps/znv/signals.h"

namespace znv::cli {

int runEmulator(const GlobalOptions& global, const EmulatorCommandOptions& options) {
    std::string dataDir = options.dataDir.empty() ? emulatorDataDirectory() : options.dataDir;
    EmbeddedEmulator server;
    std::string error;
    // Port 0: the one it had last time when free, else any.
    if (!server.start(dataDir, options.token, options.port, options.maxFullFileBytes, &error)) {
        printError(error);
        return kExitFailed;
    }
    if (options.port != 0 && server.port() != options.port) {
        printError("the emulator could not listen on port " + std::to_string(options.port));
        return kExitFailed;
    }
    if (global.json) {
        nlohmann::json event = {
            {"event", "listening"},   {"url", server.baseURL()},           {"port", server.port()},
            {"token", options.token}, {"adminToken", server.adminToken()}, {"data", dataDir}};
        std::printf("%s\n", dumpJson(event).c_str());
    } else {
        std::printf(
            "emulator listening on %s\n  token: %s\n  admin: %s (for /_admin/ requests)\n"
            "  data:  %s\n  use:   znv --server %s --token %s COMMAND\n",
            server.baseURL().c_str(), options.token.c_str(), server.adminToken().c_str(),
            dataDir.c_str(), server.baseURL().c_str(), options.token.c_str());
    }
    std::fflush(stdout);
    int signal = 0;
    while ((signal = waitForTerminationSignal(std::chrono::seconds(1))) == 0) {
    }
    server.stop();
    if (!global.json) std::printf("emulator stopped\n");
    std::fflush(stdout);
    return kExitOK;
}

}  // namespace znv::cli
