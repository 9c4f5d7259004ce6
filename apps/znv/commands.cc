// The commands that work on the task queue and the remote files.

#include "apps/znv/commands.h"

#include "apps/znv/queue.h"

#ifdef ZNV_CLI_HAVE_QUEUE

#include <cstdio>
#include <future>

#include <fmt/format.h>
#include <nlohmann/json.hpp>

#include "apps/znv/paths.h"
#include "apps/znv/signals.h"

namespace znv::cli {
namespace {

void printFailures(const RunResult& result) {
    for (const auto& task : result.tasks) {
        if (task.failed()) {
            printError(
                fmt::format("{} {} {} failed: {}", task.id, task.kind, task.subject, task.error));
        }
    }
}

TransferSession* openSession(const GlobalOptions& global) {
    routeLibraryLog();
    std::string error;
    auto session = TransferSession::open(global, &error);
    if (!session) printError(error);
    return session;
}

int runTasks(TransferSession& session, const std::vector<ZNVNetworkTaskRef>& tasks) {
    auto reporter = makeReporter(session.options().json, stdout);
    RunResult result = session.run(*reporter, tasks);
    printFailures(result);
    return result.exitStatus;
}

// Waits for a one-shot answer of the library, giving up on SIGINT/SIGTERM.
template <class T>
std::optional<T> await(std::future<T>& future, int* signal) {
    for (;;) {
        if (future.wait_for(std::chrono::seconds(0)) == std::future_status::ready) {
            return future.get();
        }
        *signal = waitForTerminationSignal(std::chrono::milliseconds(50));
        if (*signal != 0) return std::nullopt;
    }
}

}  // namespace

int runUpload(const GlobalOptions& global, const UploadOptions& options) {
    auto session = openSession(global);
    if (!session) return kExitFailed;
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
    auto session = openSession(global);
    if (!session) return kExitFailed;
    std::string error;
    auto download = session->addDownload(options.url, options.output, &error);
    if (!download) {
        printError(error);
        return kExitFailed;
    }
    return runTasks(*session, {download});
}

int runResume(const GlobalOptions& global) {
    auto session = openSession(global);
    if (!session) return kExitFailed;
    return runTasks(*session, {});
}

int runRetry(const GlobalOptions& global, const std::string& id) {
    auto session = openSession(global);
    if (!session) return kExitFailed;
    std::string problem;
    auto entry = findEntry(queueEntries(session->storage().tasks()), id, &problem);
    if (!entry) {
        printError(problem);
        return kExitUsage;
    }
    if (!entry->task->error()) {
        printError("task " + entry->id + " has not failed; nothing to retry");
        return kExitUsage;
    }
    entry->task->retry();
    return runTasks(*session, {entry->task});
}

int runStatus(const GlobalOptions& global) {
    routeLibraryLog();
    QueueFile queue(global);
    if (!queue.problem().empty()) {
        printError(queue.problem());
        return kExitFailed;
    }
    DownloadDestinations destinations(global.profile);
    auto entries = queue.entries();
    if (global.json) {
        nlohmann::json list = nlohmann::json::array();
        for (const auto& entry : entries) {
            TaskView view = viewOf(entry);
            view.output = destinations.get(entry.hash);
            auto j = taskJson(view);
            if (view.error.empty() && entry.task->rawError()) {
                j["retrying"] = entry.task->rawError()->localizedDescription();
            }
            list.push_back(std::move(j));
        }
        nlohmann::json status = {{"event", "status"}, {"tasks", std::move(list)}};
        std::printf("%s\n",
                    status.dump(-1, ' ', false, nlohmann::json::error_handler_t::replace).c_str());
        return kExitOK;
    }
    if (entries.empty()) {
        std::printf("no tasks in the queue\n");
        return kExitOK;
    }
    std::printf("%-8s %-8s %-10s %-22s %s\n", "ID", "KIND", "STATE", "PROGRESS", "FILE OR URL");
    for (const auto& entry : entries) {
        TaskView view = viewOf(entry);
        std::string progress = view.totalBytes >= 0
                                   ? fmt::format("{} / {}", formatBytes(view.completedBytes),
                                                 formatBytes(view.totalBytes))
                                   : "?";
        std::string subject = view.subject;
        if (std::string output = destinations.get(entry.hash); !output.empty()) {
            subject += " -> " + output;
        }
        std::printf("%-8s %-8s %-10s %-22s %s\n", view.id.c_str(), view.kind.c_str(),
                    stateName(view).c_str(), progress.c_str(), subject.c_str());
        if (!view.error.empty()) {
            std::printf("%-8s error: %s\n", "", view.error.c_str());
        } else if (auto raw = entry.task->rawError()) {
            std::printf("%-8s retrying after: %s\n", "", raw->localizedDescription().c_str());
        }
        if (auto upload = std::dynamic_pointer_cast<ZNVStorageUpload>(entry.task);
            upload && !upload->remoteFileID().empty()) {
            std::printf("%-8s file ID: %s\n", "", upload->remoteFileID().c_str());
        }
    }
    return kExitOK;
}

int runCancel(const GlobalOptions& global, const std::string& id) {
    routeLibraryLog();
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
    if (entry->task->state() == ZNVNetworkTaskStateCompleted && !entry->task->error()) {
        printError("task " + entry->id + " has already completed; nothing to cancel");
        return kExitUsage;
    }
    entry->task->cancel();
    queue.save();
    if (global.json) {
        std::printf("%s\n",
                    nlohmann::json({{"event", "cancelled"}, {"task", entry->id}}).dump().c_str());
    } else {
        std::printf("cancelled %s\n", entry->id.c_str());
    }
    return kExitOK;
}

int runFinish(const GlobalOptions& global, const std::string& id, bool completed) {
    routeLibraryLog();
    QueueFile queue(global);
    if (!queue.problem().empty()) {
        printError(queue.problem());
        return kExitFailed;
    }
    DownloadDestinations destinations(global.profile);
    std::vector<QueueEntry> chosen;
    if (completed) {
        for (const auto& entry : queue.entries()) {
            if (entry.task->state() == ZNVNetworkTaskStateCompleted) chosen.push_back(entry);
        }
    } else {
        std::string problem;
        auto entry = findEntry(queue.entries(), id, &problem);
        if (!entry) {
            printError(problem);
            return kExitUsage;
        }
        if (entry->task->state() != ZNVNetworkTaskStateCompleted) {
            printError("task " + entry->id + " is still " + stateName(viewOf(*entry)) +
                       "; cancel it first");
            return kExitUsage;
        }
        chosen.push_back(*entry);
    }
    for (const auto& entry : chosen) {
        queue.network().finishTask(entry.task);
        destinations.erase(entry.hash);
        if (global.json) {
            std::printf("%s\n",
                        nlohmann::json({{"event", "finished"}, {"task", entry.id}}).dump().c_str());
        } else {
            std::printf("finished %s\n", entry.id.c_str());
        }
    }
    if (chosen.empty() && !global.json) std::printf("no completed tasks\n");
    return kExitOK;
}

int runInfo(const GlobalOptions& global, const std::string& fileID) {
    auto session = openSession(global);
    if (!session) return kExitFailed;
    auto promise = std::make_shared<std::promise<std::optional<ZNVURL>>>();
    auto future = promise->get_future();
    session->storage().URLForRemoteFile(
        fileID, [promise](const std::optional<ZNVURL>& url) { promise->set_value(url); });
    int signal = 0;
    auto answer = await(future, &signal);
    if (!answer) return exitStatusForSignal(signal);
    if (!*answer) {
        printError("no remote file " + fileID + " (or the service did not answer)");
        return kExitFailed;
    }
    if (global.json) {
        std::printf("%s\n", nlohmann::json({{"event", "info"},
                                            {"fileId", fileID},
                                            {"contentURL", (*answer)->absoluteString()}})
                                .dump()
                                .c_str());
    } else {
        std::printf("file ID:     %s\ncontent URL: %s\n", fileID.c_str(),
                    (*answer)->absoluteString().c_str());
    }
    return kExitOK;
}

int runDelete(const GlobalOptions& global, const std::string& fileID) {
    auto session = openSession(global);
    if (!session) return kExitFailed;
    auto promise = std::make_shared<std::promise<bool>>();
    auto future = promise->get_future();
    session->storage().deleteRemoteFile(fileID,
                                        [promise](bool deleted) { promise->set_value(deleted); });
    int signal = 0;
    auto answer = await(future, &signal);
    if (!answer) return exitStatusForSignal(signal);
    if (!*answer) {
        printError("could not delete remote file " + fileID);
        return kExitFailed;
    }
    if (global.json) {
        std::printf("%s\n",
                    nlohmann::json({{"event", "deleted"}, {"fileId", fileID}}).dump().c_str());
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
