// ZNVStoragePathManager: where the request bodies of chunk batches and of
// assemble requests are staged, their writing, and their removal once the
// session task that sent them has completed.
//
// Contract
// - Staged files live in the private per-user temporary directory
//   (`ZNVPrivateTemporaryDirectory`) under the name
//   "ZNVStorageUpload-<configuration identifier>-<remote file ID>[-<first chunk
//   index>].<extension>" with the extensions "chunk" (multipart batch body) and "json" (assemble
//   body). Only the batch's smallest index enters the name; staging a name again replaces the old
//   file.
// - Staged files are created fresh with mode 0600; a symbolic link (or any
//   other entry) planted at the name is removed, never followed.
// - The manager holds no mutable state: any thread may call it. Staging runs
//   on the thread of the service operation, or on an upload's own thread for
//   the batch it stages ahead; removal on the session's callback queue.
// - Failures come back through the error out-parameter. A staging that fails
//   once its file exists (a full disk, a source that cannot be read) removes
//   the file it wrote, unless another staging of the name replaced it since.
// - Clean-up beyond single tasks: the bodies of an upload that ended for good
//   (`removeUploadFilesForRemoteFile`) and, at launch, bodies of this
//   configuration that no task of the manager refers to and that predate the
//   process (`removeOrphanUploadFiles`).
#pragma once

#include <chrono>
#include <memory>
#include <nlohmann/json_fwd.hpp>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "znv/account/account_configuration.h"
#include "znv/platform/error.h"
#include "znv/platform/index_set.h"
#include "znv/platform/url.h"
#include "znv/protocol/storage_chunk_writer.h"

namespace znv {

class ZNVURLSessionTask;

class ZNVStoragePathManager;
using ZNVStoragePathManagerRef = std::shared_ptr<const ZNVStoragePathManager>;

class ZNVStoragePathManager {
  public:
    // Null when `configuration` is null.
    static ZNVStoragePathManagerRef managerForConfiguration(
        ZNVAccountConfigurationRef configuration);
    explicit ZNVStoragePathManager(ZNVAccountConfigurationRef configuration);

    const ZNVAccountConfigurationRef& configuration() const { return configuration_; }

    // Whether a remote file ID can stand as it is for one path segment, of a
    // request's URL or of a staged file's name: not empty, not "." or "..",
    // and without "/", "\\", "?", "#", "%", spaces or control characters.
    // IDs come from the service's answers and from saved state; one that
    // would end, leave or escape its segment is refused, not sent.
    static bool isPlainRemoteFileID(std::string_view remoteFileID);
    // Why `remoteFileID` cannot be used, or null: URL -3003 "empty file
    // identifier", or "invalid file identifier \"<ID>\"" when it is not plain.
    static ZNVErrorRef remoteFileIDError(const std::string& remoteFileID);

    // The staged file's URL. Checks, in order: a configuration (Cocoa 512
    // "a configuration is required"), a non-empty remote file ID (URL -3003
    // "empty file identifier"), a non-empty extension (Cocoa 514 "a file
    // extension is required"). A remote file ID that is not plain (below)
    // cannot name a file (URL -3003 "invalid file identifier \"<ID>\"").
    std::optional<ZNVURL> uploadURLForRemoteFile(const std::string& remoteFileID,
                                                 const std::optional<ZNVIndexSet>& chunkIndices,
                                                 const std::string& extension,
                                                 ZNVErrorRef* error = nullptr) const;

    // Stages the writer's multipart body ("chunk"); the URL, or none.
    std::optional<ZNVURL> createUploadFileForChunkWriter(
        const ZNVStorageChunkWriter& writer, const std::string& remoteFileID,
        ZNVErrorRef* error = nullptr,
        ZNVStorageChunkWriter::CopyMode mode = ZNVStorageChunkWriter::CopyMode::Automatic,
        ZNVStorageChunkWriter::CopyStatistics* statistics = nullptr) const;

    // Stages a JSON document, compact ("json"); the URL, or none.
    std::optional<ZNVURL> createUploadFileForChunkDescriptions(const nlohmann::json& document,
                                                               const std::string& remoteFileID,
                                                               ZNVErrorRef* error = nullptr) const;

    // Removes what the task staged: the "json" file of an assemble request,
    // the "chunk" file of a chunk batch, nothing for any other task. True
    // unless the staged name could not be formed.
    bool removeUploadFileForTask(const std::shared_ptr<ZNVURLSessionTask>& task,
                                 ZNVErrorRef* error = nullptr) const;

    // Removes every body staged for one remote file (all batches and the
    // assemble body), for an upload that has ended for good.
    void removeUploadFilesForRemoteFile(const std::string& remoteFileID) const;
    // Removes the staged files of this configuration that belong to none of
    // `liveRemoteFileIDs` and were last written before `before`. Only names
    // formed as above are touched. Returns how many were removed.
    size_t removeOrphanUploadFiles(const std::vector<std::string>& liveRemoteFileIDs,
                                   std::chrono::system_clock::time_point before) const;
    // When this process started using the library (files older than this
    // cannot be in use by it).
    static std::chrono::system_clock::time_point processStartTime();

  private:
    ZNVAccountConfigurationRef configuration_;
};

}  // namespace znv
