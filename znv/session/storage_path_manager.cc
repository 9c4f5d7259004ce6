#include "znv/session/storage_path_manager.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <sys/stat.h>
#include <unistd.h>

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

bool writeAll(int fd, const char* bytes, size_t size) {
    while (size > 0) {
        ssize_t n = ::write(fd, bytes, size);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) {
            if (n == 0) errno = EIO;
            return false;
        }
        bytes += n;
        size -= static_cast<size_t>(n);
    }
    return true;
}

// Clears the name and creates a new, empty file there (mode 0600) without
// following whatever was planted at the name. The descriptor, or -1 with
// `error` set.
int createStagedFile(const ZNVURL& url, ZNVErrorRef* error) {
    const std::string path = url.path();
    if (::unlink(path.c_str()) != 0 && errno != ENOENT) {
        ZNVErrorRef failure = ZNVFileErrorFromErrno(errno, "failed to remove", path, true);
        ZNVLogDefault("failed to clear out file: {}", failure->localizedDescription());
    }
    int fd = ::open(path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0600);
    if (fd < 0 && error) *error = ZNVFileErrorFromErrno(errno, "failed to create", path, true);
    return fd;
}

}  // namespace

ZNVStoragePathManagerRef ZNVStoragePathManager::managerForConfiguration(
    ZNVAccountConfigurationRef configuration) {
    if (!configuration) return nullptr;
    return std::make_shared<const ZNVStoragePathManager>(std::move(configuration));
}

ZNVStoragePathManager::ZNVStoragePathManager(ZNVAccountConfigurationRef configuration)
    : configuration_(std::move(configuration)) {}

std::optional<ZNVURL> ZNVStoragePathManager::uploadURLForRemoteFile(
    const std::string& remoteFileID, const std::optional<ZNVIndexSet>& chunkIndices,
    const std::string& extension, ZNVErrorRef* error) const {
    ZNVErrorRef failure;
    if (!configuration_) {
        failure = ZNVNetworkErrorHandler_createCocoaError(NSFileWriteUnknownError,
                                                          "a configuration is required");
    } else if (remoteFileID.empty()) {
        failure = ZNVNetworkErrorHandler_createURLError(NSURLErrorCannotWriteToFile,
                                                        "empty file identifier");
    } else if (extension.empty()) {
        failure = ZNVNetworkErrorHandler_createCocoaError(NSFileWriteInvalidFileNameError,
                                                          "a file extension is required");
    } else if (remoteFileID == "." || remoteFileID == ".." ||
               remoteFileID.find_first_of(std::string("/\0", 2)) != std::string::npos) {
        // The ID becomes part of a file name; it must not leave the directory.
        failure = ZNVNetworkErrorHandler_createURLError(
            NSURLErrorCannotWriteToFile,
            fmt::format("invalid file identifier \"{}\"", remoteFileID));
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
    int fd = createStagedFile(*url, error);
    if (fd < 0) return std::nullopt;
    ZNVErrorRef writeError;
    bool written = writer.writeMultiPartFormToOutput(fd, mode, statistics, &writeError);
    ::close(fd);
    if (error) *error = writeError;
    if (!written) return std::nullopt;
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
    int fd = createStagedFile(*url, error);
    if (fd < 0) return std::nullopt;
    bool written = writeAll(fd, bytes.data(), bytes.size());
    int writeErrno = errno;
    if (::close(fd) != 0 && written) {
        written = false;
        writeErrno = errno;
    }
    if (!written) {
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
