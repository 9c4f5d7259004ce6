// Task state persistence of ZNVNetwork: the state file
// ~/Library/Network/<configuration identifier>.state holds the whole task
// collection as one keyed archive with the root keys "configuration type" and
// "tasks".
//
// Each save takes its snapshot of the collection when it is asked for and
// runs on the session manager's background queue, one after another. A save
// that finds a newer save queued behind it skips itself, so adding thousands
// of tasks does not write thousands of full archives; the newest snapshot
// always wins. Snapshots share the collection's storage (ZNVTaskList), so
// taking one per change copies nothing. Each save writes "<state file>.tmp"
// (mode 0600), flushes it to disk and moves it over the state file durably,
// so a crash leaves either the old or the new file, never a torn one.
#include <errno.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstring>
#include <mutex>
#include <optional>
#include <string>

#include "znv/foundation/error_handler.h"
#include "znv/foundation/log.h"
#include "znv/foundation/network_utilities.h"
#include "znv/managers/network.h"
#include "znv/platform/keyed_archive.h"

namespace znv {

namespace {

const char* const kConfigurationTypeKey = "configuration type";
const char* const kTasksKey = "tasks";

// Serialises the file work of every save in the process: managers of one
// configuration identifier share the state file and its temporary file.
std::mutex& stateFileMutex() {
    static std::mutex mutex;
    return mutex;
}

// The state file of a configuration, or none when the name is empty.
std::optional<ZNVURL> _fileURLForNetworkStateWithConfiguration(
    const ZNVAccountConfigurationRef& configuration) {
    const std::string identifier =
        ZNVNetworkUtilities_sanitizedIdentifierForConfiguration(configuration.get());
    if (identifier.empty()) return std::nullopt;
    return ZNVNetworkUtilities_libraryURLWithFileName(identifier + ".state");
}

ZNVErrorRef posixError(int code, const std::string& what, const ZNVURL& url) {
    return ZNVError::make(NSCocoaErrorDomain, NSFileWriteUnknownError,
                          {{NSLocalizedDescriptionKey, what + ": " + std::strerror(code)},
                           {NSFilePathErrorKey, url.path()}});
}

// Writes the bytes to an existing file, restricts it to its owner and flushes
// it to disk before returning.
bool writeDurably(const ZNVURL& url, const ZNVBytes& bytes, ZNVErrorRef* error) {
    const std::string path = url.path();
    int fd = ::open(path.c_str(), O_WRONLY | O_TRUNC | O_CLOEXEC);
    if (fd < 0) {
        *error = posixError(errno, "cannot open the task state file for writing", url);
        return false;
    }
    bool ok = ::fchmod(fd, 0600) == 0;
    size_t written = 0;
    while (ok && written < bytes.size()) {
        ssize_t n = ::write(fd, bytes.data() + written, bytes.size() - written);
        if (n < 0) {
            if (errno == EINTR) continue;
            ok = false;
            break;
        }
        written += static_cast<size_t>(n);
    }
    if (ok && ::fsync(fd) != 0) ok = false;
    const int savedErrno = errno;
    ::close(fd);
    if (!ok) *error = posixError(savedErrno, "cannot write the task state file", url);
    return ok;
}

// One save: archive the snapshot, write the temporary file, install it.
void saveTaskState(const std::string& identifier,
                   const ZNVTaskList<ZNVNetworkTask>::Snapshot& tasks, const ZNVURL& stateURL,
                   const ZNVURL& tempURL) {
    ZNVKeyedArchiver archiver;
    archiver.encodeString(identifier, kConfigurationTypeKey);
    std::vector<const ZNVCoding*> objects;
    objects.reserve(tasks.size());
    tasks.forEach([&](const ZNVNetworkTaskRef& task) { objects.push_back(task.get()); });
    archiver.encodeObjectArray(objects, kTasksKey);
    archiver.finishEncoding();
    ZNVErrorRef error = archiver.error();
    ZNVBytes bytes;
    if (!error) bytes = archiver.encodedData();

    bool replaced = false;
    if (!error) {
        ZNVNetworkUtilities_removeFileAtURL(tempURL);
        ZNVNetworkUtilities_ensureFileAtURL(tempURL);
        if (writeDurably(tempURL, bytes, &error)) {
            replaced =
                ZNVNetworkUtilities_copyFileAtURLToProtectedTarget(tempURL, stateURL, &error);
            ZNVNetworkUtilities_removeFileAtURL(tempURL);
        }
    }
    if (!replaced) {
        ZNVLogError("failed to save task state: {}",
                    error ? error->description() : std::string("(null)"));
        return;
    }

    ZNVLogInfo("saving task state:");
    uint64_t suspended = 0;
    uint64_t completed = 0;
    for (size_t i = 0; i < tasks.size(); ++i) {
        const auto& task = tasks[i];
        switch (task->state()) {
            case ZNVNetworkTaskStateRunning:
                ZNVLogInfo("   stored state for {}", task->description());
                break;
            case ZNVNetworkTaskStateCompleted:
                ++completed;
                break;
            default:
                ++suspended;
                break;
        }
    }
    if (completed != 0) ZNVLogInfo("   stored state for {} completed tasks", completed);
    if (suspended != 0) ZNVLogInfo("   stored state for {} suspended tasks", suspended);
}

std::string describe(const ZNVErrorRef& error) {
    return error ? error->description() : std::string("(null)");
}

}  // namespace

void ZNVNetwork::writeState() {
    const auto stateURL = _fileURLForNetworkStateWithConfiguration(accountConfiguration_);
    std::optional<ZNVURL> tempURL;
    if (stateURL && stateURL->isFileURL()) tempURL = ZNVURL::fileURL(stateURL->path() + ".tmp");
    if (isReadingState() || isBatchingSave() || !stateURL || !tempURL) return;

    incrementBackgroundActivity();
    // The snapshot is taken now, on the calling thread: the save writes the
    // collection as it was when the save was asked for, whatever happens to
    // the manager or its collection meanwhile.
    const std::string identifier =
        ZNVNetworkUtilities_sanitizedIdentifierForConfiguration(accountConfiguration_.get());
    auto snapshot = taskSnapshot();
    auto generation = saveGeneration_;
    const uint64_t mine = ++*generation;
    auto save = [identifier, snapshot = std::move(snapshot), stateURL = *stateURL,
                 tempURL = *tempURL, generation, mine] {
        std::lock_guard<std::mutex> lock(stateFileMutex());
        // A newer snapshot is queued behind this one (or already written).
        if (generation->load() != mine) return;
        saveTaskState(identifier, snapshot, stateURL, tempURL);
    };

    if (auto session = sessionManager()) {
        // The work item keeps the session manager (and so its queue) alive
        // until the save has run, also after the manager has dropped it.
        session->performBackgroundSessionBlock([save = std::move(save), session]() { save(); });
    } else {
        ZNVLogDefault("No session manager available to serialize save.");
        save();
    }
    decrementBackgroundActivity();
}

void ZNVNetwork::readState() {
    readingState_ = true;
    struct ClearFlag {
        std::atomic<bool>& flag;
        ~ClearFlag() { flag = false; }
    } clearFlag{readingState_};

    const auto stateURL = _fileURLForNetworkStateWithConfiguration(accountConfiguration_);
    if (!stateURL) return;
    struct stat info {};
    if (::stat(stateURL->path().c_str(), &info) != 0) return;  // first launch

    ZNVErrorRef readError;
    auto data = ZNVNetworkUtilities_loadDataFromURL(*stateURL, &readError);
    if (!data || data->empty()) {
        ZNVLogError("failed to read network task state: {}", describe(readError));
        return;
    }

    ZNVErrorRef setupError;
    auto unarchiver = ZNVKeyedUnarchiver::create(*data, &setupError);
    if (!unarchiver) {
        ZNVLogError("failed to set up reader for network task state: {}", describe(setupError));
        return;
    }

    const std::string identifier =
        ZNVNetworkUtilities_sanitizedIdentifierForConfiguration(accountConfiguration_.get());
    std::optional<std::string> stored;
    if (unarchiver->isStringForKey(kConfigurationTypeKey)) {
        stored = unarchiver->decodeStringForKey(kConfigurationTypeKey);
    }
    if (!stored || *stored != identifier) {
        ZNVLogDefault("Failed to load {} task state for {} network session.",
                      stored.value_or("(null)"), identifier);
        unarchiver->finishDecoding();
        return;
    }

    ZNVErrorRef decodeError;
    auto decoded = unarchiver->decodeArrayOfClassesForKey(
        {ZNVArchiveMutableArrayClassName, "ZNVNetworkTask"}, kTasksKey);
    if (unarchiver->error()) {
        // Damaged or foreign content anywhere in the list: restore nothing.
        decoded.reset();
        decodeError = ZNVNetworkErrorHandler_createCocoaError(NSFileReadCorruptFileError,
                                                              "Unable to decode 32-bit task data.");
    }

    if (!decoded) {
        ZNVLogError("failed to parse network task state: {}", describe(decodeError));
    } else {
        ZNVLogInfo("restoring task state:");
        for (const auto& object : *decoded) {
            auto task = std::dynamic_pointer_cast<ZNVNetworkTask>(object);
            if (!task) continue;
            addTask(task);
            ZNVLogInfo("   restored state for {}", task->description());
        }
    }
    unarchiver->finishDecoding();
}

}  // namespace znv
