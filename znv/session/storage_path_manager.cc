#include "znv/session/storage_path_manager.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <sys/stat.h>
#include <unistd.h>

#include <dirent.h>

#include <algorithm>
#include <cerrno>
#include <nlohmann/json.hpp>

#include "znv/foundation/error_handler.h"
#include "znv/foundation/log.h"
#include "znv/foundation/network_utilities.h"
#include "znv/platform/filesystem.h"
#include "znv/protocol/storage_response.h"

namespace znv {

namespace {

// The code the platform's JSON writer uses for a document it cannot write.
constexpr int64_t kJSONWriteInvalidError = 3851;

// A staged file being written: its path, descriptor and identity.
struct StagedFile {
    std::string path;
    int fd = -1;
    struct stat identity {};

    // Removes what a failed write left, so a full disk is not kept full by
    // it; only while the name still holds this file, so that a staging of
    // the same name that came in between keeps its body.
    void discard() const {
        struct stat there {};
        if (::lstat(path.c_str(), &there) == 0 && there.st_dev == identity.st_dev &&
            there.st_ino == identity.st_ino) {
            ::unlink(path.c_str());
        }
    }
};

// Clears the name and creates a new, empty file there (mode 0600) without
// following whatever was planted at the name. The file has no descriptor
// (-1) when it could not be created; `error` then says why.
StagedFile createStagedFile(const ZNVURL& url, ZNVErrorRef* error) {
    StagedFile file;
    file.path = url.path();
    if (::unlink(file.path.c_str()) != 0 && errno != ENOENT) {
        ZNVErrorRef failure = ZNVFileErrorFromErrno(errno, "failed to remove", file.path, true);
        ZNVLogDefault("failed to clear out file: {}", failure->localizedDescription());
    }
    file.fd = ::open(file.path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0600);
    if (file.fd < 0) {
        if (error) *error = ZNVFileErrorFromErrno(errno, "failed to create", file.path, true);
    } else if (::fstat(file.fd, &file.identity) != 0) {
        file.identity = {};  // matches no file: a failed write then leaves it
    }
    return file;
}

}  // namespace

ZNVStoragePathManagerRef ZNVStoragePathManager::managerForConfiguration(
    ZNVAccountConfigurationRef configuration) {
    if (!configuration) return nullptr;
    return std::make_shared<const ZNVStoragePathManager>(std::move(configuration));
}

ZNVStoragePathManager::ZNVStoragePathManager(ZNVAccountConfigurationRef configuration)
    : configuration_(std::move(configuration)) {}

bool ZNVStoragePathManager::isPlainRemoteFileID(std::string_view remoteFileID) {
    if (remoteFileID.empty() || remoteFileID == "." || remoteFileID == "..") return false;
    return std::none_of(remoteFileID.begin(), remoteFileID.end(), [](char c) {
        const auto byte = static_cast<unsigned char>(c);
        return byte <= 0x20 || byte == 0x7F || c == '/' || c == '\\' || c == '?' || c == '#' ||
               c == '%';
    });
}

ZNVErrorRef ZNVStoragePathManager::remoteFileIDError(const std::string& remoteFileID) {
    if (remoteFileID.empty()) {
        return ZNVNetworkErrorHandler_createURLError(NSURLErrorCannotWriteToFile,
                                                     "empty file identifier");
    }
    if (isPlainRemoteFileID(remoteFileID)) return nullptr;
    return ZNVNetworkErrorHandler_createURLError(
        NSURLErrorCannotWriteToFile, fmt::format("invalid file identifier \"{}\"", remoteFileID));
}

std::optional<ZNVURL> ZNVStoragePathManager::uploadURLForRemoteFile(
    const std::string& remoteFileID, const std::optional<ZNVIndexSet>& chunkIndices,
    const std::string& extension, ZNVErrorRef* error) const {
    ZNVErrorRef failure;
    if (!configuration_) {
        failure = ZNVNetworkErrorHandler_createCocoaError(NSFileWriteUnknownError,
                                                          "a configuration is required");
    } else if (remoteFileID.empty()) {
        failure = remoteFileIDError(remoteFileID);
    } else if (extension.empty()) {
        failure = ZNVNetworkErrorHandler_createCocoaError(NSFileWriteInvalidFileNameError,
                                                          "a file extension is required");
    } else {
        // The ID becomes part of a file name; it must not leave the directory.
        failure = remoteFileIDError(remoteFileID);
    }
    std::string directory;
    if (!failure) directory = ZNVPrivateTemporaryDirectory(&failure);
    if (!failure && directory.empty()) {
        failure = ZNVNetworkErrorHandler_createCocoaError(
            NSFileWriteUnknownError, "the temporary directory is not available");
    }
    if (error) *error = failure;
    if (failure) return std::nullopt;

    std::string chunkPart;
    if (chunkIndices && !chunkIndices->empty()) {
        chunkPart = fmt::format("-{}", chunkIndices->firstIndex());
    }
    std::string name =
        fmt::format("ZNVStorageUpload-{}-{}{}.{}",
                    ZNVNetworkUtilities_sanitizedIdentifierForConfiguration(configuration_.get()),
                    remoteFileID, chunkPart, extension);
    if (directory.back() != '/') directory += '/';
    return ZNVURL::fileURL(directory + name);
}

std::optional<ZNVURL> ZNVStoragePathManager::createUploadFileForChunkWriter(
    const ZNVStorageChunkWriter& writer, const std::string& remoteFileID, ZNVErrorRef* error,
    ZNVStorageChunkWriter::CopyMode mode, ZNVStorageChunkWriter::CopyStatistics* statistics) const {
    std::optional<ZNVURL> url =
        uploadURLForRemoteFile(remoteFileID, writer.chunkIndices(), "chunk", error);
    if (!url) return std::nullopt;
    const StagedFile file = createStagedFile(*url, error);
    if (file.fd < 0) return std::nullopt;
    ZNVErrorRef writeError;
    const bool written = writer.writeMultiPartFormToOutput(file.fd, mode, statistics, &writeError);
    ::close(file.fd);
    if (error) *error = writeError;
    if (!written) {
        file.discard();
        return std::nullopt;
    }
    return url;
}

std::optional<ZNVURL> ZNVStoragePathManager::createUploadFileForChunkDescriptions(
    const nlohmann::json& document, const std::string& remoteFileID, ZNVErrorRef* error) const {
    std::optional<ZNVURL> url = uploadURLForRemoteFile(remoteFileID, std::nullopt, "json", error);
    if (!url) return std::nullopt;
    std::string bytes;
    try {
        bytes = document.dump();
    } catch (const std::exception& e) {
        if (error) {
            *error = ZNVError::withMessage(
                NSCocoaErrorDomain, kJSONWriteInvalidError,
                fmt::format("The data couldn’t be written as JSON: {}", e.what()));
        }
        return std::nullopt;
    }
    const StagedFile file = createStagedFile(*url, error);
    if (file.fd < 0) return std::nullopt;
    bool written = ZNVWriteAll(file.fd, bytes.data(), bytes.size());
    int writeErrno = errno;
    if (::close(file.fd) != 0 && written) {
        written = false;
        writeErrno = errno;
    }
    if (!written) {
        file.discard();
        if (error) *error = ZNVFileErrorFromErrno(writeErrno, "failed to write", url->path(), true);
        return std::nullopt;
    }
    if (error) *error = nullptr;
    return url;
}

bool ZNVStoragePathManager::removeUploadFileForTask(const std::shared_ptr<ZNVURLSessionTask>& task,
                                                    ZNVErrorRef* error) const {
    ZNVStorageResponseRef response =
        ZNVStorageResponse::responseForTask(task, std::nullopt, nullptr);
    std::optional<ZNVURL> url;
    ZNVErrorRef failure;
    if (response && response->type() == ZNVStorageResponseTypeAssembledRemoteFile) {
        url = uploadURLForRemoteFile(response->remoteFileID(), std::nullopt, "json", &failure);
    } else if (response && response->type() == ZNVStorageResponseTypeUploadedChunk) {
        url = uploadURLForRemoteFile(response->remoteFileID(),
                                     response->localChunkIndicesToUpload(), "chunk", &failure);
    }
    // The name goes now; the blocks of a freshly sent body of up to 32 MiB are
    // freed off the session's queue, which would otherwise wait milliseconds
    // per batch before the next one starts.
    if (url && !ZNVRemoveFileInBackground(url->path())) ZNVNetworkUtilities_removeFileAtURL(*url);
    if (error) *error = failure;
    return failure == nullptr;
}

}  // namespace znv

namespace znv {

namespace {

// Taken when the library is loaded, before any staging of this process.
const std::chrono::system_clock::time_point kProcessStart = std::chrono::system_clock::now();

bool allDigits(const std::string& text) {
    return !text.empty() &&
           std::all_of(text.begin(), text.end(), [](char c) { return c >= '0' && c <= '9'; });
}

// The remote file IDs a staged name of `prefix` may stand for: an assemble
// body names the ID alone; a batch body may end in "-<first index>" (IDs may
// themselves hold "-", so both readings count). None for other names.
std::vector<std::string> remoteFileIDsOfStagedName(const std::string& name,
                                                   const std::string& prefix) {
    if (name.size() <= prefix.size() || name.compare(0, prefix.size(), prefix) != 0) return {};
    std::string rest = name.substr(prefix.size());
    const auto endsWith = [&](const std::string& suffix) {
        return rest.size() > suffix.size() &&
               rest.compare(rest.size() - suffix.size(), suffix.size(), suffix) == 0;
    };
    if (endsWith(".json")) return {rest.substr(0, rest.size() - 5)};
    if (!endsWith(".chunk")) return {};
    rest.resize(rest.size() - 6);
    std::vector<std::string> ids{rest};
    const size_t dash = rest.rfind('-');
    if (dash != std::string::npos && dash > 0 && allDigits(rest.substr(dash + 1))) {
        ids.push_back(rest.substr(0, dash));
    }
    return ids;
}

// Calls `visit(path, name, info)` for each regular file of the private
// temporary directory.
template <class Visit>
void forEachTemporaryFile(Visit&& visit) {
    const std::string directory = ZNVPrivateTemporaryDirectory();
    if (directory.empty()) return;
    DIR* dir = ::opendir(directory.c_str());
    if (!dir) return;
    while (const dirent* entry = ::readdir(dir)) {
        const std::string name = entry->d_name;
        const std::string path = directory + (directory.back() == '/' ? "" : "/") + name;
        struct stat info {};
        if (::lstat(path.c_str(), &info) != 0 || !S_ISREG(info.st_mode)) continue;
        visit(path, name, info);
    }
    ::closedir(dir);
}

}  // namespace

std::chrono::system_clock::time_point ZNVStoragePathManager::processStartTime() {
    return kProcessStart;
}

void ZNVStoragePathManager::removeUploadFilesForRemoteFile(const std::string& remoteFileID) const {
    if (!configuration_ || remoteFileID.empty()) return;
    const std::string prefix =
        fmt::format("ZNVStorageUpload-{}-",
                    ZNVNetworkUtilities_sanitizedIdentifierForConfiguration(configuration_.get()));
    forEachTemporaryFile([&](const std::string& path, const std::string& name, const struct stat&) {
        for (const auto& id : remoteFileIDsOfStagedName(name, prefix)) {
            if (id == remoteFileID) {
                ::unlink(path.c_str());
                return;
            }
        }
    });
}

size_t ZNVStoragePathManager::removeOrphanUploadFiles(
    const std::vector<std::string>& liveRemoteFileIDs,
    std::chrono::system_clock::time_point before) const {
    if (!configuration_) return 0;
    const std::string prefix =
        fmt::format("ZNVStorageUpload-{}-",
                    ZNVNetworkUtilities_sanitizedIdentifierForConfiguration(configuration_.get()));
    const auto limit =
        std::chrono::duration_cast<std::chrono::nanoseconds>(before.time_since_epoch()).count();
    size_t removed = 0;
    forEachTemporaryFile(
        [&](const std::string& path, const std::string& name, const struct stat& info) {
            const auto ids = remoteFileIDsOfStagedName(name, prefix);
            if (ids.empty()) return;
            for (const auto& id : ids) {
                if (std::find(liveRemoteFileIDs.begin(), liveRemoteFileIDs.end(), id) !=
                    liveRemoteFileIDs.end()) {
                    return;
                }
            }
            const int64_t written =
                static_cast<int64_t>(info.st_mtim.tv_sec) * 1000000000 + info.st_mtim.tv_nsec;
            if (written >= limit) return;
            if (::unlink(path.c_str()) == 0) {
                ZNVLogInfo("removed staged upload body that no task refers to: {}", name);
                ++removed;
            }
        });
    return removed;
}

}  // namespace znv
