// Task state persistence of ZNVNetwork: the state file
// ~/Library/Network/<configuration identifier>.state holds the whole task
// collection as one keyed archive with the root keys "configuration type" and
// "tasks".
//
// Each save takes its snapshot of the collection when it is asked for and
// keeps its place on the session manager's background queue, one after
// another; there it only hands the snapshot to the manager's state writer
// (state_writer.h), which encodes and writes it on its own queue. A save that
// finds a newer save queued behind it skips itself, so adding thousands of
// tasks does not write thousands of full archives; the newest snapshot always
// wins. Snapshots share the collection's storage (ZNVTaskList), so taking one
// per change copies nothing.
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

const char* const kConfigurationTypeKey = ZNVStateWriter::kConfigurationTypeKey;
const char* const kTasksKey = ZNVStateWriter::kTasksKey;

// The state file of a configuration, or none when the name is empty.
std::optional<ZNVURL> _fileURLForNetworkStateWithConfiguration(
    const ZNVAccountConfigurationRef& configuration) {
    const std::string identifier =
        ZNVNetworkUtilities_sanitizedIdentifierForConfiguration(configuration.get());
    if (identifier.empty()) return std::nullopt;
    return ZNVNetworkUtilities_libraryURLWithFileName(identifier + ".state");
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
    ZNVStateWriter::Save save{identifier, std::move(snapshot), *stateURL,
                              *tempURL,   generation,          mine};
    auto writer = stateWriter_;

    if (auto session = sessionManager()) {
        // The work item keeps the session manager (and so its queue) alive
        // until the save has been handed over, also after the manager has
        // dropped it. A save superseded meanwhile is not even handed over.
        session->performBackgroundSessionBlock([writer, save = std::move(save), session]() mutable {
            if (save.generation->load() == save.mine) writer->write(std::move(save));
        });
    } else {
        ZNVLogDefault("No session manager available to serialize save.");
        writer->writeNow(save);
    }
    decrementBackgroundActivity();
}

bool ZNVNetwork::waitUntilStateIsWritten(std::chrono::milliseconds timeout) {
    return stateWriter_->waitUntilWritten(saveGeneration_->load(), timeout);
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
