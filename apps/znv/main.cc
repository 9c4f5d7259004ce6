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

#include <curl/curl.h>
#include <CLI/CLI.hpp>

#include "apps/znv/commands.h"
#include "apps/znv/delivery.h"
#include "apps/znv/names.h"
#include "apps/znv/output.h"
#include "apps/znv/signals.h"
#include "znv/foundation/log.h"
#include "znv/platform/url.h"
#include "znv/session/storage_path_manager.h"

namespace znv::cli {

void printError(const std::string& message) {
    // Messages quote names, URLs and server texts: no control character of
    // theirs reaches the terminal (escaping twice changes nothing).
    std::fprintf(stderr, "znv: %s\n", escapeControls(message).c_str());
    std::fflush(stderr);
}

namespace {

#ifndef ZNV_VERSION
#define ZNV_VERSION "unknown"
#endif

std::string versionText() {
    const curl_version_info_data* curl = curl_version_info(CURLVERSION_NOW);
    return std::string("znv ") + ZNV_VERSION + "\nlibznvstorage " + ZNV_VERSION + "\nlibcurl " +
           (curl && curl->version ? curl->version : "unknown") +
           (curl && curl->ssl_version ? std::string(" (") + curl->ssl_version + ")" : "");
}

// The end of `znv --help`, and so of the manual page made from it.
const char* const kHelpFooter = R"(Output:
  Standard output carries results only: "FILEID URL" per completed upload, the
  path per completed download, status tables, info output, or one JSON object
  per line with --json. Progress bars (on a terminal), state lines, hints and
  the summary go to standard error. -q leaves only errors there.

Uploads:
  Files up to the service's whole-file limit go up in one request unless
  --force-chunks is given; an interruption restarts such an upload from zero.
  Chunked uploads (larger files, or --force-chunks) continue where they
  stopped.

Exit status:
  0    every task the command ran completed
  1    a task the command ran failed (its error is printed), a remote
       operation did not succeed, or the queue could not be saved
  2    bad command line or input, or a server the profile is not bound to
  130  interrupted by Ctrl-C (SIGINT); 143: by SIGTERM. The queue is saved
       and the printed command continues it

Files (PROFILE is "live" unless --profile NAME is given):
  queue      ~/Library/Network/PROFILE.state
  lock       ~/Library/Network/PROFILE.state.lock
  journal    ~/Library/Network/PROFILE.state.journal (remote files created
             since the last save of the queue)
  server     ~/Library/Network/PROFILE.server (the server PROFILE is bound to)
  log        $XDG_STATE_HOME/znv/znv.log (default ~/.local/state/znv/znv.log),
             at most 16 MiB; older parts in znv.1.log and znv.2.log
  downloads  $XDG_STATE_HOME/znv/PROFILE.downloads.json and .journal
             (download destinations)
  emulator   $XDG_DATA_HOME/znv/emulator (default ~/.local/share/znv/emulator)
  staging    ${TMPDIR:-/tmp}/znv-UID/ (upload bodies on their way)
  A profile is bound to the first server it is used with (without --server:
  the built-in emulator, whose URLs work only while a znv runs it; use
  `znv emulator` or --server for lasting ones).)";

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
    // Not blocking should a FIFO have taken the file's place since the stat.
    int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK);
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

// Where a download goes: into the current directory or the directory
// `output` names (the file's name comes later, from the server or the URL),
// or to the file `output` names.
void chooseDestination(const std::string& output, DownloadOptions* download, std::string* problem) {
    std::error_code ec;
    download->outputIsDirectory =
        output.empty() || output.back() == '/' || std::filesystem::is_directory(output, ec);
    std::string path = absolutePath(output.empty() ? "." : output);
    std::string directory =
        download->outputIsDirectory ? path : std::filesystem::path(path).parent_path().string();
    if (!download->outputIsDirectory) {
        std::string name = std::filesystem::path(path).filename().string();
        if (name.empty() || name == "." || name == "..") {
            *problem = "not a file name for the download: " + output;
            return;
        }
        // Only a regular file (or a link, replaced, never followed) gives way
        // to a download: a device, a pipe or a socket keeps its name.
        struct stat info {};
        if (::lstat(path.c_str(), &info) == 0 && !S_ISREG(info.st_mode) && !S_ISLNK(info.st_mode)) {
            *problem = "not a regular file, so no download replaces it: " + output;
            return;
        }
    }
    if (!std::filesystem::is_directory(directory, ec)) {
        *problem = "no such directory for the download: " + directory;
    } else if (::access(directory.c_str(), W_OK) != 0) {
        *problem = "cannot write to " + directory + ": " + std::strerror(errno);
    }
    download->output = path;
}

bool hasControlCharacter(const std::string& text) {
    for (unsigned char c : text) {
        if (c < 0x20 || c == 0x7f) return true;
    }
    return false;
}

constexpr size_t kMaximumProfileBytes = 128;

int usageError(const std::string& message) {
    printError(message);
    return kExitUsage;
}

int run(int argc, char** argv) {
    CLI::App app{
        "znv: upload files to and download files from the storage service.\n"
        "Without --server, an emulator of the service runs inside znv."};
    app.set_help_all_flag("--help-all", "Show every command's options");
    app.set_version_flag("--version", versionText, "Show the versions of znv and libcurl");
    app.footer(kHelpFooter);
    app.require_subcommand(1, 1);
    app.fallthrough();

    GlobalOptions global;
    app.add_option("--server", global.server,
                   "Storage service base URL (default: the embedded emulator)")
        ->envname("ZNV_SERVER");
    app.add_option("--token", global.token, "Access token")->envname("ZNV_TOKEN");
    app.add_option("--profile", global.profile,
                   "Account profile; each has its own queue and server (default: live)");
    app.add_flag("--json", global.json, "One JSON object per event on standard output");
    app.add_flag("--offline", global.offline, "Queue tasks without starting transfers");
    int verbose = 0;
    bool quiet = false;
    auto* quietFlag = app.add_flag("-q,--quiet", quiet,
                                   "Print errors only (results still go to standard output)");
    app.add_flag("-v,--verbose", verbose,
                 "Show the library's log on standard error (-vv: debug messages too)")
        ->excludes(quietFlag);
    app.add_flag("--wait", global.wait,
                 "Wait while another znv uses the profile's queue (or the built-in emulator)");

    UploadOptions upload;
    auto* uploadCommand = app.add_subcommand("upload", "Upload files");
    uploadCommand->add_option("FILE", upload.files, "Files to upload")->required();
    uploadCommand->add_option("--name", upload.name, "Remote file name (one FILE only)");
    uploadCommand->add_flag("--video", upload.video, "Ask the service to convert it to video/mp4");
    uploadCommand->add_flag("--force-chunks", upload.forceChunks,
                            "Send the file in chunks even when it could go whole: the resumable "
                            "choice (a whole-file upload restarts from zero when interrupted)");

    DownloadOptions download;
    std::string downloadOutput;
    auto* downloadCommand = app.add_subcommand("download", "Download a file by its URL");
    downloadCommand->add_option("URL", download.url, "Content URL")->required();
    downloadCommand->add_option("-o,--output", downloadOutput,
                                "File or directory to write (default: the current directory)");
    downloadCommand->add_flag("-f,--force", download.force,
                              "Replace an existing file (default: keep it and write \"NAME (1)\")");

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
    global.verbosity = quiet ? -1 : verbose;
    if (global.token.empty()) return usageError("the access token is empty");
    // It goes into a header line: a line break would add headers of its own.
    if (hasControlCharacter(global.token)) {
        return usageError("the access token has control characters");
    }
    // The name becomes part of file names and of printed commands. The
    // longest of those files (a damaged one kept aside) adds about fifty
    // bytes to it, and a name the file system refuses would leave a damaged
    // queue where the next save replaces it.
    if (global.profile.find('/') != std::string::npos || hasControlCharacter(global.profile) ||
        global.profile == "." || global.profile == "..") {
        return usageError("bad profile name: " + global.profile);
    }
    if (global.profile.size() > kMaximumProfileBytes) {
        return usageError("the profile name is longer than " +
                          std::to_string(kMaximumProfileBytes) + " bytes");
    }

    if (uploadCommand->parsed()) {
        if (!upload.name.empty() && upload.files.size() != 1) {
            return usageError("--name needs exactly one FILE");
        }
        // The service takes names as JSON text, which is UTF-8.
        if (!isUTF8(upload.name)) return usageError("the remote name is not UTF-8: " + upload.name);
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
        chooseDestination(downloadOutput, &download, &problem);
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
        // One path segment of the service's URL, and nothing else.
        if (!ZNVStoragePathManager::isPlainRemoteFileID(fileID)) {
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
    // A standard stream that is closed gets /dev/null: else the next file
    // opened (the queue, the log) would take its number, and the results
    // would be written into it.
    bool closed[3] = {false, false, false};
    for (int fd = 0; fd < 3; ++fd) {
        if (::fcntl(fd, F_GETFD) < 0 && errno == EBADF) {
            closed[fd] = true;
            int null = ::open("/dev/null", O_RDWR);
            if (null >= 0 && null != fd) {
                ::dup2(null, fd);
                ::close(null);
            }
        }
    }
    znv::cli::blockTerminationSignals();
    znv::cli::rememberUmask();
    int status = znv::cli::run(argc, argv);
    // Results that could not be written are no success (a full disk, a
    // closed standard output).
    errno = 0;
    const bool flushed = std::fflush(stdout) == 0;
    const int flushError = errno;
    const int lineError = znv::cli::resultsWriteError();
    if ((!flushed || std::ferror(stdout) || lineError || closed[1]) &&
        status == znv::cli::kExitOK) {
        znv::cli::printError(std::string("cannot write the results: ") +
                             (closed[1]    ? "standard output is closed"
                              : lineError  ? std::strerror(lineError)
                              : flushError ? std::strerror(flushError)
                                           : "write error"));
        status = znv::cli::kExitFailed;
    }
    // Leave without static destructors: library threads may still be at work,
    // and nothing on the way out may touch the saved queue.
    std::fflush(stderr);
    znv::ZNVLog().flush();
    ::_exit(status);
}
