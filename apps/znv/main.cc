// znv: move files to and from the storage service from a shell.
//
// This file owns the command line: CLI11 parses it, the checks below turn bad
// input into one line on standard error and exit status 2 before anything
// starts, and the command functions (commands.h) do the work.

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <iostream>
#include <optional>

#include <CLI/CLI.hpp>

#include "apps/znv/commands.h"
#include "apps/znv/signals.h"
#include "znv/foundation/log.h"
#include "znv/platform/url.h"

namespace znv::cli {

void printError(const std::string& message) {
    std::fprintf(stderr, "znv: %s\n", message.c_str());
    std::fflush(stderr);
}

namespace {

std::string absolutePath(const std::string& path) {
    std::error_code ec;
    auto absolute = std::filesystem::absolute(path, ec);
    return ec ? path : absolute.lexically_normal().string();
}

// "" when the file can be uploaded, else what is wrong with it.
std::string checkUploadFile(const std::string& path) {
    struct stat st {};
    if (::stat(path.c_str(), &st) != 0) {
        if (errno == ENOENT) return "no such file: " + path;
        return "cannot read " + path + ": " + std::strerror(errno);
    }
    if (S_ISDIR(st.st_mode)) return "is a directory, not a file: " + path;
    if (!S_ISREG(st.st_mode)) return "not a regular file: " + path;
    int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0) return "cannot read " + path + ": " + std::strerror(errno);
    char byte;
    ssize_t n = ::read(fd, &byte, 1);
    int readErrno = errno;
    ::close(fd);
    if (n < 0) return "cannot read " + path + ": " + std::strerror(readErrno);
    if (n == 0 || st.st_size == 0) return "empty file, nothing to upload: " + path;
    return {};
}

std::optional<ZNVURL> webURL(const std::string& text) {
    if (text.find("://") == std::string::npos) return std::nullopt;
    auto url = ZNVURL::fromString(text);
    if (!url || (url->scheme() != "http" && url->scheme() != "https") || url->host().empty()) {
        return std::nullopt;
    }
    return url;
}

// Where a download of `url` goes: `output` as given, inside it when it is a
// directory, or the URL's last path component in the current directory.
std::string downloadDestination(const ZNVURL& url, const std::string& output,
                                std::string* problem) {
    std::string name = url.lastPathComponent();
    if (name.empty() || name == "/" || name == "." || name == "..") name = "download";
    std::string path = output.empty() ? name : output;
    std::error_code ec;
    if (!output.empty() && (output.back() == '/' || std::filesystem::is_directory(output, ec))) {
        path = (std::filesystem::path(output) / name).string();
    }
    path = absolutePath(path);
    auto parent = std::filesystem::path(path).parent_path();
    if (!std::filesystem::is_directory(parent, ec)) {
        *problem = "no such directory for the download: " + parent.string();
    } else if (::access(parent.c_str(), W_OK) != 0) {
        *problem = "cannot write to " + parent.string() + ": " + std::strerror(errno);
    }
    return path;
}

int usageError(const std::string& message) {
    printError(message);
    return kExitUsage;
}

int run(int argc, char** argv) {
    CLI::App app{
        "znv: upload files to and download files from the storage service.\n"
        "Without --server, an emulator of the service runs inside znv."};
    app.set_help_all_flag("--help-all", "Show every command's options");
    app.require_subcommand(1, 1);
    app.fallthrough();

    GlobalOptions global;
    app.add_option("--server", global.server,
                   "Storage service base URL (default: the embedded emulator)")
        ->envname("ZNV_SERVER");
    app.add_option("--token", global.token, "Access token")->envname("ZNV_TOKEN");
    app.add_option("--profile", global.profile, "Account profile; each has its own queue");
    app.add_flag("--json", global.json, "One JSON object per line");
    app.add_flag("--offline", global.offline, "Queue tasks without starting transfers");
    app.add_flag("--wait", global.wait, "Wait while another znv uses the profile's queue");

    UploadOptions upload;
    auto* uploadCommand = app.add_subcommand("upload", "Upload files");
    uploadCommand->add_option("FILE", upload.files, "Files to upload")->required();
    uploadCommand->add_option("--name", upload.name, "Remote file name (one FILE only)");
    uploadCommand->add_flag("--video", upload.video, "Ask the service to convert it to video/mp4");
    uploadCommand->add_flag("--force-chunks", upload.forceChunks,
                            "Send the file in chunks even when it could go whole");

    DownloadOptions download;
    std::string downloadOutput;
    auto* downloadCommand = app.add_subcommand("download", "Download a file by its URL");
    downloadCommand->add_option("URL", download.url, "Content URL")->required();
    downloadCommand->add_option("-o,--output", downloadOutput, "File or directory to write");

    auto* statusCommand = app.add_subcommand("status", "List the queued tasks");
    auto* resumeCommand = app.add_subcommand("resume", "Run the unfinished tasks of the queue");

    std::string taskID;
    auto* retryCommand = app.add_subcommand("retry", "Run a failed task again");
    retryCommand->add_option("ID", taskID, "Task ID (from status)")->required();
    auto* cancelCommand = app.add_subcommand("cancel", "Cancel a task");
    cancelCommand->add_option("ID", taskID, "Task ID (from status)")->required();
    bool finishCompleted = false;
    auto* finishCommand = app.add_subcommand("finish", "Remove finished tasks from the queue");
    auto* finishID = finishCommand->add_option("ID", taskID, "Task ID (from status)");
    auto* finishAll =
        finishCommand->add_flag("--completed", finishCompleted, "Every completed or failed task");
    finishID->excludes(finishAll);
    finishCommand->require_option(1);

    std::string fileID;
    auto* infoCommand = app.add_subcommand("info", "Show a remote file's content URL");
    infoCommand->add_option("FILEID", fileID, "Remote file ID")->required();
    auto* deleteCommand = app.add_subcommand("delete", "Delete a remote file");
    deleteCommand->add_option("FILEID", fileID, "Remote file ID")->required();

    EmulatorCommandOptions emulator;
    auto* emulatorCommand = app.add_subcommand("emulator", "Run the storage service emulator");
    emulatorCommand->add_option("--port", emulator.port, "Port (0: any free port)");
    emulatorCommand->add_option("--data", emulator.dataDir, "Data directory");
    emulatorCommand->add_option("--token", emulator.token, "Access token it accepts");
    emulatorCommand->add_option("--max-full-file", emulator.maxFullFileBytes,
                                "Largest file accepted in one request");

    DemoOptions demo;
    auto* demoCommand =
        app.add_subcommand("demo", "Upload and download a sample file and verify it");
    // Hidden (empty group): tests use a small file.
    demoCommand->add_option("--size", demo.size, "Sample size in bytes")->group("");

    try {
        app.parse(argc, argv);
    } catch (const CLI::CallForHelp& e) {
        return app.exit(e);
    } catch (const CLI::CallForAllHelp& e) {
        return app.exit(e);
    } catch (const CLI::CallForVersion& e) {
        return app.exit(e);
    } catch (const CLI::ParseError& e) {
        std::string message = e.what();
        // A mistyped command shows up as a missing one plus a leftover word.
        if (auto left = app.remaining(); !left.empty() && !app.get_subcommands().size()) {
            message = "unknown command: " + left.front();
        }
        if (message.empty()) message = "bad command line";
        return usageError(message + " (see znv --help)");
    }

    if (!global.server.empty()) {
        auto url = webURL(global.server);
        if (!url) return usageError("bad server URL: " + global.server);
        if (global.server.back() != '/') global.server += '/';
    }
    if (global.token.empty()) return usageError("the access token is empty");
    for (char c : global.profile) {
        if (c == '/' || c == '\0') return usageError("bad profile name: " + global.profile);
    }

    if (uploadCommand->parsed()) {
        if (!upload.name.empty() && upload.files.size() != 1) {
            return usageError("--name needs exactly one FILE");
        }
        for (auto& file : upload.files) {
            std::string problem = checkUploadFile(file);
            if (!problem.empty()) return usageError(problem);
            file = absolutePath(file);
        }
        return runUpload(global, upload);
    }
    if (downloadCommand->parsed()) {
        auto url = webURL(download.url);
        if (!url) return usageError("bad URL: " + download.url + " (expected http:// or https://)");
        std::string problem;
        download.output = downloadDestination(*url, downloadOutput, &problem);
        if (!problem.empty()) return usageError(problem);
        download.url = url->absoluteString();
        return runDownload(global, download);
    }
    if (statusCommand->parsed()) return runStatus(global);
    if (resumeCommand->parsed()) return runResume(global);
    if (retryCommand->parsed()) return runRetry(global, taskID);
    if (cancelCommand->parsed()) return runCancel(global, taskID);
    if (finishCommand->parsed()) return runFinish(global, taskID, finishCompleted);
    if (infoCommand->parsed() || deleteCommand->parsed()) {
        if (fileID.find_first_of("/?#% ") != std::string::npos) {
            return usageError("bad file ID: " + fileID);
        }
        return infoCommand->parsed() ? runInfo(global, fileID) : runDelete(global, fileID);
    }
    if (emulatorCommand->parsed()) return runEmulator(global, emulator);
    if (demoCommand->parsed()) {
        if (demo.size == 0) return usageError("the demo needs a size above 0");
        return runDemo(global, demo);
    }
    return usageError("no command given (see znv --help)");
}

}  // namespace
}  // namespace znv::cli

int main(int argc, char** argv) {
    znv::cli::blockTerminationSignals();
    int status = znv::cli::run(argc, argv);
    // Leave without static destructors: library threads may still be at work,
    // and nothing on the way out may touch the saved queue.
    std::fflush(stdout);
    std::fflush(stderr);
    znv::ZNVLog().flush();
    ::_exit(status);
}
