// The commands that work on the task queue and the remote files.

#include "apps/znv/commands.h"

#include "apps/znv/queue.h"

#ifdef ZNV_CLI_HAVE_QUEUE

#include <algorithm>
#include <cstdio>
#include <future>
#include <unordered_set>

#include <fmt/format.h>
#include <nlohmann/json.hpp>

#include "apps/znv/binding.h"
#include "apps/znv/names.h"
#include "apps/znv/paths.h"
#include "apps/znv/signals.h"
#include "znv/foundation/error_handler.h"

namespace znv::cli {
namespace {

void printFailures(const RunResult& result) {
    for (const auto& task : result.tasks) {
        if (task.failed()) {
            printError(fmt::format("{} {} {} failed: {}", task.id, task.kind,
                                   escapeControls(task.subject), escapeControls(task.error)));
        }
    }
}

TransferSession* openSession(const GlobalOptions& global, int* exitStatus) {
    routeLibraryLog(global.verbosity);
    std::string error;
    auto session = TransferSession::open(global, &error, exitStatus);
    if (!session) printError(error);
    return session;
}

std::unique_ptr<Reporter> reporterFor(const GlobalOptions& global) {
    ReporterOptions options;
    options.json = global.json;
    options.verbosity = global.verbosity;
    return makeReporter(options);
}

int runTasks(TransferSession& session, const std::vector<ZNVNetworkTaskRef>& tasks,
             bool countAll = false) {
    auto reporter = reporterFor(session.options());
    RunResult result = session.run(*reporter, tasks, countAll);
    printFailures(result);
    return result.exitStatus;
}

// How `status` shows a state, with what a user needs to know about it.
std::string statusDetail(const TaskView& view) {
    if (view.failed()) return "error: " + escapeControls(view.error);
    if (view.retrying()) {
        return "waiting to retry after: " + escapeControls(view.retryError) +
               " (retried when the queue runs next: znv resume)";
    }
    return {};
}

// Waits for a one-shot answer of the library, giving up on SIGINT/SIGTERM.
template <class T>
std::optional<T> await(std::future<T>& future, int* signal) {
    for (;;) {
        if (future.wait_for(std::chrono::seconds(0)) == std::future_status::ready) {
            return future.get();
        }
        // The answer's callback wakes the wait.
        *signal = waitForTerminationSignal(std::chrono::milliseconds(50));
        if (*signal != 0) return std::nullopt;
    }
}

}  // namespace

int runUpload(const GlobalOptions& global, const UploadOptions& options) {
    int status = kExitFailed;
    auto session = openSession(global, &status);
    if (!session) return status;
    std::vector<ZNVNetworkTaskRef> tasks;
    for (const auto& file : options.files) {
        std::string error;
        auto upload =
            session->addUpload(file, options.name, options.video, options.forceChunks, &error);
        if (!upload) {
            printError(error);
            return kExitFailed;
        }
        tasks.push_back(upload);
    }
    return runTasks(*session, tasks);
}

int runDownload(const GlobalOptions& global, const DownloadOptions& options) {
    int status = kExitFailed;
    auto session = openSession(global, &status);
    if (!session) return status;
    std::string error;
    auto download = session->addDownload(
        options.url, Destination{options.output, options.outputIsDirectory, options.force}, &error);
    if (!download) {
        printError(error);
        return kExitFailed;
    }
    return runTasks(*session, {download});
}

int runResume(const GlobalOptions& global) {
    // Tasks the state file holds as unfinished: those that fail while the
    // queue is restored (a source gone, a damaged entry) are part of this run.
    const std::vector<int64_t> archived = archivedUnfinishedTasks(global.profile);
    const std::unordered_set<int64_t> unfinished(archived.begin(), archived.end());
    int status = kExitFailed;
    auto session = openSession(global, &status);
    if (!session) return status;
    std::vector<ZNVNetworkTaskRef> failedAtRestore;
    size_t restored = 0;
    for (const auto& task : session->storage().tasks()) {
        int64_t start = identityOf(task).createdMicros;
        if (!unfinished.count(start)) continue;
        ++restored;
        if (task->error()) failedAtRestore.push_back(task);
    }
    int result = runTasks(*session, failedAtRestore, true);
    if (restored < archived.size()) {
        printError(fmt::format("{} unfinished task(s) of the queue could not be restored (see {})",
                               archived.size() - restored, logFilePath()));
        if (result == kExitOK) result = kExitFailed;
    }
    return result;
}

int runRetry(const GlobalOptions& global, const std::string& id) {
    int status = kExitFailed;
    auto session = openSession(global, &status);
    if (!session) return status;
    std::string problem;
    auto entry = findEntry(queueEntries(session->storage().tasks()), id, &problem);
    if (!entry) {
        printError(problem);
        return kExitUsage;
    }
    switch (deliveryOf(entry->task, [&] { return session->destinations().get(entry->hash); })) {
        case Delivery::Pending:
            // The bytes are here: only their delivery is tried again.
            entry->task->setRawError(nullptr);
            return runTasks(*session, {entry->task});
        case Delivery::Lost:
            if (!entry->task->error()) {
                entry->task->setRawError(ZNVNetworkErrorHandler_createURLError(
                    NSURLErrorFileDoesNotExist, "the downloaded file is gone"));
            }
            break;
        case Delivery::None:
            break;
    }
    if (!entry->task->error()) {
        printError("task " + entry->id + " has not failed; nothing to retry");
        return kExitUsage;
    }
    // The upload was of the file as it was; the file it finds now is another.
    if (auto upload = std::dynamic_pointer_cast<ZNVStorageUpload>(entry->task);
        upload && ZNVStorageUpload_errorIsSourceChange(upload->error())) {
        auto source = upload->sourceURL();
        printError("task " + entry->id +
                   " cannot be retried: its file changed after the upload started; upload it "
                   "again (znv upload " +
                   shellQuoted(source ? source->path() : std::string("FILE")) + ")");
        return kExitUsage;
    }
    entry->task->retry();
    return runTasks(*session, {entry->task});
}

int runStatus(const GlobalOptions& global) {
    routeLibraryLog(global.verbosity);
    QueueFile queue(global);
    if (!queue.problem().empty()) {
        printError(queue.problem());
        return kExitFailed;
    }
    DownloadDestinations destinations(global.profile);
    auto entries = queue.entries();
    std::string server = boundServer(global.profile);
    auto viewWithOutput = [&](const QueueEntry& entry) {
        TaskView view = viewOf(entry);
        auto destination = destinations.get(entry.hash);
        if (!destination) return view;
        applyDelivery(view, deliveryOf(entry.task, [&] { return destination; }));
        view.output = destination->path;
        // A delivered download's task keeps no size; its file's was noted.
        if (destination->delivered && destination->size >= 0 && view.succeeded() &&
            view.totalBytes < 0) {
            view.totalBytes = view.completedBytes = destination->size;
        }
        return view;
    };
    if (global.json) {
        nlohmann::json list = nlohmann::json::array();
        for (const auto& entry : entries) {
            auto j = taskEventJson("task", viewWithOutput(entry));
            j.erase("event");
            j.erase("time");
            list.push_back(std::move(j));
        }
        auto status = eventJson("status");
        status["profile"] = profileIdentifier(global.profile);
        status["queue"] = stateFilePath(global.profile);
        status["server"] = server.empty() ? nlohmann::json() : nlohmann::json(server);
        status["tasks"] = std::move(list);
        std::printf("%s\n", dumpJson(status).c_str());
        return kExitOK;
    }
    std::printf("queue:   %s (profile \"%s\")\n",
                escapeControls(stateFilePath(global.profile)).c_str(),
                escapeControls(profileIdentifier(global.profile)).c_str());
    std::printf("server:  %s\n", server.empty() ? "(none yet)" : escapeControls(server).c_str());
    if (entries.empty()) {
        std::printf("no tasks in the queue\n");
        return kExitOK;
    }
    std::printf("%-8s %-8s %-10s %-22s %s\n", "ID", "KIND", "STATE", "PROGRESS", "FILE OR URL");
    for (const auto& entry : entries) {
        TaskView view = viewWithOutput(entry);
        std::string progress = view.totalBytes >= 0
                                   ? fmt::format("{} / {}", formatBytes(view.completedBytes),
                                                 formatBytes(view.totalBytes))
                                   : "?";
        std::string subject = escapeControls(view.subject);
        if (!view.output.empty()) subject += " -> " + escapeControls(view.output);
        std::printf("%-8s %-8s %-10s %-22s %s\n", view.id.c_str(), view.kind.c_str(),
                    stateName(view).c_str(), progress.c_str(), subject.c_str());
        if (std::string detail = statusDetail(view); !detail.empty()) {
            std::printf("%-8s %s\n", "", detail.c_str());
        }
        if (!view.remoteFileID.empty()) {
            std::printf("%-8s file ID: %s\n", "", escapeControls(view.remoteFileID).c_str());
        }
    }
    return kExitOK;
}

int runCancel(const GlobalOptions& global, const std::string& id) {
    routeLibraryLog(global.verbosity);
    QueueFile queue(global);
    if (!queue.problem().empty()) {
        printError(queue.problem());
        return kExitFailed;
    }
    std::string problem;
    auto entry = findEntry(queue.entries(), id, &problem);
    if (!entry) {
        printError(problem);
        return kExitUsage;
    }
    DownloadDestinations destinations(global.profile);
    const bool undelivered =
        deliveryOf(entry->task, [&] { return destinations.get(entry->hash); }) == Delivery::Pending;
    if (entry->task->state() == ZNVNetworkTaskStateCompleted && !entry->task->error() &&
        !undelivered) {
        printError("task " + entry->id + " has already completed; nothing to cancel");
        return kExitUsage;
    }
    if (undelivered && !entry->task->error()) {
        // The transfer ended, the delivery did not: the library has nothing
        // left to cancel, and a run delivers only downloads without an error.
        entry->task->setRawError(
            ZNVNetworkErrorHandler_createURLError(NSURLErrorCancelled, "network task cancelled"));
    } else {
        entry->task->cancel();
    }
    if (std::string problem = queue.save(); !problem.empty()) {
        printError(problem);
        return kExitFailed;
    }
    if (global.json) {
        std::printf("%s\n", dumpJson(taskEventJson("cancelled", viewOf(*entry))).c_str());
    } else {
        std::printf("cancelled %s\n", entry->id.c_str());
    }
    return kExitOK;
}

int runFinish(const GlobalOptions& global, const std::string& id, bool completed) {
    routeLibraryLog(global.verbosity);
    QueueFile queue(global);
    if (!queue.problem().empty()) {
        printError(queue.problem());
        return kExitFailed;
    }
    DownloadDestinations destinations(global.profile);
    // A download whose file waits for its delivery is not done: finishing it
    // would delete the only copy of its bytes.
    auto delivery = [&](const QueueEntry& entry) {
        return deliveryOf(entry.task, [&] { return destinations.get(entry.hash); });
    };
    std::vector<QueueEntry> chosen;
    if (completed) {
        for (const auto& entry : queue.entries()) {
            if (entry.task->state() != ZNVNetworkTaskStateCompleted) continue;
            if (delivery(entry) == Delivery::Pending) {
                printError("kept " + entry.id + ": downloaded but not delivered yet (" +
                           (entry.task->rawError() ? "znv retry " + entry.id : "znv resume") +
                           " delivers it)");
                continue;
            }
            chosen.push_back(entry);
        }
    } else {
        std::string problem;
        auto entry = findEntry(queue.entries(), id, &problem);
        if (!entry) {
            printError(problem);
            return kExitUsage;
        }
        const Delivery state = delivery(*entry);
        if (entry->task->state() != ZNVNetworkTaskStateCompleted ||
            (state == Delivery::Pending && !entry->task->rawError())) {
            TaskView view = viewOf(*entry);
            applyDelivery(view, state);
            printError("task " + entry->id + " is still " + stateName(view) + "; cancel it first");
            return kExitUsage;
        }
        chosen.push_back(*entry);
    }
    // One save for all of them: a save per task would rewrite the queue once
    // for every task it still holds.
    queue.network().beginBatch();
    std::vector<std::string> hashes;
    for (const auto& entry : chosen) {
        queue.network().finishTask(entry.task);
        hashes.push_back(entry.hash);
    }
    if (std::string problem = queue.save(); !problem.empty()) {
        // The queue on disk still holds the tasks, and so their destinations stay.
        printError(problem);
        return kExitFailed;
    }
    // The tasks are gone from the queue; a destination left behind is only
    // read by nobody.
    if (std::string problem = destinations.erase(hashes); !problem.empty()) printError(problem);
    for (const auto& entry : chosen) {
        if (global.json) {
            std::printf("%s\n", dumpJson(taskEventJson("finished", viewOf(entry))).c_str());
        } else {
            std::printf("finished %s\n", entry.id.c_str());
        }
    }
    if (chosen.empty() && !global.json) std::printf("no completed tasks\n");
    return kExitOK;
}

int runInfo(const GlobalOptions& global, const std::string& fileID) {
    int status = kExitFailed;
    auto session = openSession(global, &status);
    if (!session) return status;
    auto promise = std::make_shared<std::promise<std::optional<ZNVURL>>>();
    auto future = promise->get_future();
    session->storage().URLForRemoteFile(fileID, [promise](const std::optional<ZNVURL>& url) {
        promise->set_value(url);
        wakeTerminationWait();
    });
    int signal = 0;
    auto answer = await(future, &signal);
    if (!answer) return exitStatusForSignal(signal);
    if (!*answer) {
        printError("no remote file " + fileID + " (or the service did not answer)");
        return kExitFailed;
    }
    if (global.json) {
        auto event = eventJson("info");
        event["fileId"] = fileID;
        event["contentURL"] = (*answer)->absoluteString();
        std::printf("%s\n", dumpJson(event).c_str());
    } else {
        std::printf("file ID:     %s\ncontent URL: %s\n", fileID.c_str(),
                    escapeControls((*answer)->absoluteString()).c_str());
    }
    return kExitOK;
}

int runDelete(const GlobalOptions& global, const std::string& fileID) {
    int status = kExitFailed;
    auto session = openSession(global, &status);
    if (!session) return status;
    auto promise = std::make_shared<std::promise<bool>>();
    auto future = promise->get_future();
    session->storage().deleteRemoteFile(fileID, [promise](bool deleted) {
        promise->set_value(deleted);
        wakeTerminationWait();
    });
    int signal = 0;
    auto answer = await(future, &signal);
    if (!answer) return exitStatusForSignal(signal);
    if (!*answer) {
        printError("could not delete remote file " + fileID);
        return kExitFailed;
    }
    if (global.json) {
        auto event = eventJson("deleted");
        event["fileId"] = fileID;
        std::printf("%s\n", dumpJson(event).c_str());
    } else {
        std::printf("deleted %s\n", fileID.c_str());
    }
    return kExitOK;
}

}  // namespace znv::cli

#else  // the task managers are not part of this build yet

namespace znv::cli {
namespace {
int unavailable(const char* command) {
    printError(std::string(command) +
               ": this build has no task managers yet (znv/managers is missing)");
    return kExitFailed;
}
}  // namespace

int runUpload(const GlobalOptions&, const UploadOptions&) {
    return unavailable("upload");
}
int runDownload(const GlobalOptions&, const DownloadOptions&) {
    return unavailable("download");
}
int runStatus(const GlobalOptions&) {
    return unavailable("status");
}
int runResume(const GlobalOptions&) {
    return unavailable("resume");
}
int runRetry(const GlobalOptions&, const std::string&) {
    return unavailable("retry");
}
int runCancel(const GlobalOptions&, const std::string&) {
    return unavailable("cancel");
}
int runFinish(const GlobalOptions&, const std::string&, bool) {
    return unavailable("finish");
}
int runInfo(const GlobalOptions&, const std::string&) {
    return unavailable("info");
}
int runDelete(const GlobalOptions&, const std::string&) {
    return unavailable("delete");
}
int runDemo(const GlobalOptions&, const DemoOptions&) {
    return unavailable("demo (it cannot upload or verify anything without them)");
}

}  // namespace znv::cli

#endif
