// ZNVStorageResponse: one answer of the storage service, parsed into a typed,
// immutable value.
//
// Contract
// - Which operation a session task was is decided from the method and URL of
//   the request the task was created with, never from the body. The body
//   (a JSON object) fills the remaining fields; members of an unexpected JSON
//   type are ignored.
// - Values are immutable after construction and shared as
//   `std::shared_ptr<const ZNVStorageResponse>`; any thread may read them.
// - `responseForTask` yields null for a session task that carries no bearer
//   authorisation (a plain download, not a storage request).
// - `error` is the task's transport or HTTP error when there was one, else
//   the body's parse error, else null. A body that is not a JSON object never
//   fails construction.
// - Parsing never throws: JSON errors, excessive nesting and invalid UTF-8 in
//   a body become a parse error.
#pragma once

#include <cstdint>
#include <memory>
#include <nlohmann/json_fwd.hpp>
#include <optional>
#include <string>

#include "znv/platform/error.h"
#include "znv/platform/index_set.h"
#include "znv/platform/url.h"

namespace znv {

class ZNVURLSessionTask;

using ZNVStorageResponseType = uint64_t;
enum : ZNVStorageResponseType {
    ZNVStorageResponseTypeUnknown = 0,
    ZNVStorageResponseTypeNewRemoteFile = 1,
    ZNVStorageResponseTypeUploadedFullFile = 2,
    ZNVStorageResponseTypeUploadedChunk = 3,
    ZNVStorageResponseTypeAssembledRemoteFile = 4,
    ZNVStorageResponseTypePostProcessedRemoteVideoFile = 5,
    ZNVStorageResponseTypeRemoteFileInformation = 6,
    ZNVStorageResponseTypeDeletedRemoteFile = 7,
};

// The description text of a type ("unkown" for 0 and anything above 7).
const char* ZNVStorageResponseTypeDescription(ZNVStorageResponseType type);

// Bodies nested deeper than this are refused as unparsable.
inline constexpr size_t ZNVStorageResponseMaximumNestingDepth = 64;

class ZNVStorageResponse;
using ZNVStorageResponseRef = std::shared_ptr<const ZNVStorageResponse>;

class ZNVStorageResponse {
  public:
    // The main constructor: classifies the task by its original request,
    // parses `data` (none: no body) and combines the task's `error` with the
    // parse error. Null when the task is null or has no bearer authorisation.
    static ZNVStorageResponseRef responseForTask(const std::shared_ptr<ZNVURLSessionTask>& task,
                                                 const std::optional<ZNVBytes>& data,
                                                 ZNVErrorRef error);

    // The same for a request given by its parts (method, URL, the chunk
    // indices its task carries), without the authorisation check.
    static ZNVStorageResponseRef responseForRequest(const std::string& method, const ZNVURL& url,
                                                    const std::optional<ZNVIndexSet>& chunkIndices,
                                                    const std::optional<ZNVBytes>& data,
                                                    ZNVErrorRef error);

    // A response of type 0 filled from a body object (a non-object or null
    // body leaves the body fields empty).
    ZNVStorageResponse();
    ZNVStorageResponse(const nlohmann::json& bodyParameters, ZNVErrorRef error);

    // The remote file ID that a request URL names, or none. A URL names one
    // when "files" is its third path component (the root "/" counting as the
    // first) and a fourth component follows.
    static std::optional<std::string> remoteFileForRequestedURL(const ZNVURL& url);
    // Whether the URL is a storage path; `fileID` receives the fourth path
    // component when there is one.
    static bool parseStorageURL(const ZNVURL& url, std::optional<std::string>* fileID);
    // Reads [{"index": n}, ...] into a set; none for anything but a non-empty
    // array (an object without "index" counts as 0; elements of another type
    // and indices that are not non-negative numbers are skipped).
    static std::optional<ZNVIndexSet> parseChunkIndicesFromArray(const nlohmann::json& value);
    // Parses any JSON document (nesting capped); none with a Cocoa 3840 error
    // for malformed or too deeply nested text.
    static std::optional<nlohmann::json> parseJSON(const ZNVBytes& data, ZNVErrorRef* error);
    // Parses body bytes; none with `error` set when they are not a JSON
    // object (URL -1 "unknown format for response body" for another value).
    static std::optional<nlohmann::json> parseBody(const ZNVBytes& data, ZNVErrorRef* error);

    ZNVStorageResponseType type() const { return type_; }
    const ZNVErrorRef& error() const { return error_; }
    const std::string& remoteFileID() const { return remoteFileID_; }
    const std::string& remoteFilename() const { return remoteFilename_; }
    bool remoteFileIsComplete() const { return remoteFileIsComplete_; }
    const std::optional<ZNVURL>& remoteContentURL() const { return remoteContentURL_; }
    uint64_t maximumFullFileUploadSize() const { return maximumFullFileUploadSize_; }
    const std::optional<ZNVIndexSet>& localChunkIndicesToUpload() const {
        return localChunkIndicesToUpload_;
    }
    const std::optional<ZNVIndexSet>& remoteChunkIndices() const { return remoteChunkIndices_; }
    const std::optional<ZNVIndexSet>& missingRemoteChunkIndices() const {
        return missingRemoteChunkIndices_;
    }
    const std::string& message() const { return message_; }

    // "<ZNVStorageResponse: 0x..., type: ...\n   <line>...\n>"
    std::string description() const;

  private:
    ZNVStorageResponseType type_ = ZNVStorageResponseTypeUnknown;
    ZNVErrorRef error_;
    std::string remoteFileID_;
    std::string remoteFilename_;
    bool remoteFileIsComplete_ = false;
    std::optional<ZNVURL> remoteContentURL_;
    uint64_t maximumFullFileUploadSize_ = 0;
    std::optional<ZNVIndexSet> localChunkIndicesToUpload_;
    std::optional<ZNVIndexSet> remoteChunkIndices_;
    std::optional<ZNVIndexSet> missingRemoteChunkIndices_;
    std::string message_;
};

}  // namespace znv
