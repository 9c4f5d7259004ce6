// `znv demo`: the library's main job end to end on a sample file. It uploads
// the file once whole and once in chunks to a fresh embedded emulator (or to
// --server), downloads both copies back, compares their SHA-256 with the
// source and prints what each transfer took.

#include "apps/znv/commands.h"
#include "apps/znv/queue.h"

#ifdef ZNV_CLI_HAVE_QUEUE

#include <unistd.h>

#include <cstdio>
#include <filesystem>

#include <fmt/format.h>
#include <nlohmann/json.hpp>

#include "apps/znv/binding.h"
#include "apps/znv/digest.h"
#include "apps/znv/paths.h"
#include "znv/foundation/network_utilities.h"
#include "znv/platform/filesystem.h"

namespace znv::cli {
namespace {

struct Row {
    std::string path;
    int64_t bytes = 0;
    double seconds = 0;
    bool ok = false;     // the transfer completed without error
    bool match = false;  // the copy's SHA-256 equals the source's
};

// How the emulator saw an upload of `fileID` arrive: "full file", "chunks"
// or "full file, then chunks".
std::string uploadPathSeen(const emulator::Emulator& server, const std::string& fileID) {
    bool whole = false, chunks = false;
    for (const auto& entry : server.requestLog()) {
        std::string path = entry.value("path", "");
        if (entry.value("method", "") != "PUT" || path.find(fileID) == std::string::npos) continue;
        bool ok = entry.value("status", 0) == 200;
        if (path.size() >= 9 && path.compare(path.size() - 9, 9, "/fullfile") == 0) {
            whole = whole || ok;
        } else if (ok) {
            chunks = true;
        }
    }
    if (whole && chunks) return "full file, then chunks";
    if (chunks) return "chunks";
    return whole ? "full file" : "?";
}

}  // namespace

int runDemo(const GlobalOptions& globalOptions, const DemoOptions& options) {
    routeLibraryLog(globalOptions.verbosity);
    GlobalOptions global = globalOptions;
    global.offline = false;
    // A queue of its own, so that the demo neither runs nor disturbs the user's.
    global.profile = fmt::format("znv-demo-{}", ::getpid());

    ZNVErrorRef tempError;
    std::string temp = ZNVPrivateTemporaryDirectory(&tempError);
    if (temp.empty()) {
        printError("no private temporary directory: " +
                   (tempError ? tempError->localizedDescription() : std::string("unknown")));
        return kExitFailed;
    }
    std::string work = fmt::format("{}/znv-demo-{}", temp, ::getpid());
    std::filesystem::remove_all(work);
    if (std::string problem = ensureDirectory(work); !problem.empty()) {
        printError(problem);
        return kExitFailed;
    }
    std::string sample = work + "/sample.bin";
    ReporterOptions reporterOptions;
    reporterOptions.json = global.json;
    reporterOptions.verbosity = global.verbosity;
    auto reporter = makeReporter(reporterOptions);

    reporter->note(fmt::format("writing a {} sample file: {}",
                               formatBytes(static_cast<int64_t>(options.size)), sample));
    std::string error;
    if (!writeSampleFile(sample, options.size, 20260101, &error)) {
        printError(error);
        return kExitFailed;
    }
    std::string sourceDigest = sha256OfFile(sample, &error);
    if (sourceDigest.empty()) {
        printError(error);
        return kExitFailed;
    }
    reporter->note("source SHA-256 " + sourceDigest);

    int openStatus = kExitFailed;
    auto session = TransferSession::open(global, &error, &openStatus, work + "/emulator");
    if (!session) {
        printError(error);
        return openStatus;
    }
    if (session->emulator().running()) {
        reporter->note("emulator started on " + session->emulator().baseURL());
    }

    std::vector<Row> rows;
    int interrupted = 0;
    // Runs one task to its end; fills its row. False when interrupted.
    auto transfer = [&](const ZNVNetworkTaskRef& task, Row& row, TaskView* view) {
        RunResult result = session->run(*reporter, {task});
        if (result.exitStatus >= 128) {
            interrupted = result.exitStatus;
            return false;
        }
        row.seconds = result.seconds;
        // The run reports the tasks it was given first.
        if (!result.tasks.empty()) {
            *view = result.tasks.front();
            row.ok = view->succeeded();
        }
        return true;
    };

    struct Variant {
        const char* label;
        bool forceChunks;
    };
    const Variant variants[] = {{"full-file", false}, {"chunks", true}};
    for (const auto& variant : variants) {
        Row up, down;
        TaskView upView, downView;
        auto upload = session->addUpload(sample, fmt::format("znv-demo-{}.bin", variant.label),
                                         false, variant.forceChunks, &error);
        if (!upload) {
            printError(error);
            return kExitFailed;
        }
        up.bytes = static_cast<int64_t>(options.size);
        if (!transfer(upload, up, &upView)) break;
        up.path = "upload, " + std::string(variant.label);
        if (session->emulator().running() && up.ok) {
            std::string seen = uploadPathSeen(*session->emulator().emulator(), upView.remoteFileID);
            if (seen != (variant.forceChunks ? "chunks" : "full file")) {
                up.path += " (sent as " + seen + ")";
            }
        }
        down.path = "download, " + std::string(variant.label) + " copy";
        std::string copy = fmt::format("{}/{}.copy", work, variant.label);
        if (up.ok && !upView.contentURL.empty()) {
            auto download =
                session->addDownload(upView.contentURL, Destination{copy, false, true}, &error);
            if (download && !transfer(download, down, &downView)) break;
            if (!download) printError(error);
        }
        if (down.ok) {
            down.bytes = downView.completedBytes;
            std::string digest = sha256OfFile(copy, &error);
            down.match = up.match = digest == sourceDigest;
        }
        rows.push_back(up);
        rows.push_back(down);
    }

    // Leave the user's machine as it was: the demo's queue and files go.
    for (const auto& task : session->storage().tasks())
        session->storage().finishTask(task);
    session->save();
    if (auto stateFile = ZNVNetworkUtilities_libraryURLWithFileName(
            ZNVNetworkUtilities_sanitizedIdentifierForConfiguration(
                session->storage().accountConfiguration().get()) +
            ".state")) {
        std::filesystem::remove(stateFile->path());
        // The demo's profile is its own: nobody else waits on its lock.
        std::filesystem::remove(stateFile->path() + ".lock");
        std::filesystem::remove(stateFile->path() + ".journal");
    }
    std::filesystem::remove(bindingFilePath(global.profile));
    session->emulator().stop();
    if (interrupted != 0) {
        std::filesystem::remove_all(work);
        return interrupted;
    }

    bool allGood = rows.size() == 4;
    for (const auto& row : rows)
        allGood = allGood && row.ok && row.match;
    reporter->close();
    if (global.json) {
        nlohmann::json list = nlohmann::json::array();
        for (const auto& row : rows) {
            double rate = row.seconds > 0 ? static_cast<double>(row.bytes) / 1e6 / row.seconds : 0;
            list.push_back({{"path", row.path},
                            {"bytes", row.bytes},
                            {"seconds", row.seconds},
                            {"MBps", rate},
                            {"sha256Match", row.match}});
        }
        auto event = eventJson("demo");
        event["state"] = allGood ? "completed" : "failed";
        event["sha256"] = sourceDigest;
        event["ok"] = allGood;
        event["rows"] = std::move(list);
        std::printf("%s\n", dumpJson(event).c_str());
    } else {
        std::printf("\n%-28s %12s %9s %9s  %s\n", "path", "bytes", "seconds", "MB/s",
                    "SHA-256 match");
        for (const auto& row : rows) {
            double rate = row.seconds > 0 ? static_cast<double>(row.bytes) / 1e6 / row.seconds : 0;
            std::printf("%-28s %12lld %9.3f %9.1f  %s\n", row.path.c_str(),
                        static_cast<long long>(row.bytes), row.seconds, rate,
                        !row.ok     ? "transfer failed"
                        : row.match ? "yes"
                                    : "NO");
        }
        std::string verdict = allGood ? std::string("verified: both copies equal the source")
                                      : "FAILED: see the table above and " + logFilePath();
        std::printf("\n%s\n", verdict.c_str());
    }
    std::fflush(stdout);
    if (allGood) std::filesystem::remove_all(work);
    return allGood ? kExitOK : kExitFailed;
}

}  // namespace znv::cli

#endif
