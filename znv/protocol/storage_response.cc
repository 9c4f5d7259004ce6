#include "znv/protocol/storage_response.h"

#include <fmt/format.h>

#include <cmath>
#include <nlohmann/json.hpp>

#include "znv/foundation/error_handler.h"
#include "znv/foundation/network_utilities.h"
#include "znv/platform/json_depth.h"
#include "znv/platform/url_session.h"
#include "znv/protocol/session_task_tags.h"

namespace znv {

namespace {

using json = nlohmann::json;

// The code the platform's JSON reader uses for unparsable content.
constexpr int64_t kJSONReadCorruptError = 3840;

// A JSON number (or boolean) as an unsigned 64-bit value; none for negative
// numbers, non-finite values and every other type.
std::optional<uint64_t> unsignedValue(const json& value) {
    switch (value.type()) {
        case json::value_t::number_unsigned:
            return value.get<uint64_t>();
        case json::value_t::number_integer: {
            int64_t v = value.get<int64_t>();
            if (v < 0) return std::nullopt;
            return static_cast<uint64_t>(v);
        }
        case json::value_t::number_float: {
            double v = value.get<double>();
            if (!std::isfinite(v) || v < 0) return std::nullopt;
            if (v >= 18446744073709551615.0) return UINT64_MAX;
            return static_cast<uint64_t>(v);
        }
        case json::value_t::boolean:
            return value.get<bool>() ? 1 : 0;
        default:
            return std::nullopt;
    }
}

const json* member(const json& object, const char* key) {
    if (!object.is_object()) return nullptr;
    auto it = object.find(key);
    return it == object.end() ? nullptr : &*it;
}

std::string stringMember(const json& object, const char* key) {
    const json* value = member(object, key);
    return value && value->is_string() ? value->get<std::string>() : std::string();
}

std::string indexText(const std::optional<ZNVIndexSet>& indices) {
    if (!indices) return {};
    return ZNVNetworkUtilities_stringFromIndices(*indices).value_or(std::string());
}

}  // namespace

const char* ZNVStorageResponseTypeDescription(ZNVStorageResponseType type) {
    switch (type) {
        case ZNVStorageResponseTypeNewRemoteFile:
            return "new remote file";
        case ZNVStorageResponseTypeUploadedFullFile:
            return "uploaded full file";
        case ZNVStorageResponseTypeUploadedChunk:
            return "uploaded chunk";
        case ZNVStorageResponseTypeAssembledRemoteFile:
            return "assembled remote file";
        case ZNVStorageResponseTypePostProcessedRemoteVideoFile:
            return "post processing remote video file";
        case ZNVStorageResponseTypeRemoteFileInformation:
            return "remote file information";
        case ZNVStorageResponseTypeDeletedRemoteFile:
            return "deleted remote file";
        default:
            return "unkown";
    }
}

ZNVStorageResponse::ZNVStorageResponse() : ZNVStorageResponse(json(), nullptr) {}

ZNVStorageResponse::ZNVStorageResponse(const json& body, ZNVErrorRef error)
    : error_(std::move(error)) {
    if (!body.is_object()) return;
    remoteFileID_ = stringMember(body, "fileId");
    remoteFilename_ = stringMember(body, "fileName");
    message_ = stringMember(body, "message");
    if (const json* complete = member(body, "isComplete")) {
        remoteFileIsComplete_ = unsignedValue(*complete).value_or(0) != 0;
    }
    if (const json* methods = member(body, "uploadMethods"); methods && methods->is_array()) {
        for (const json& method : *methods) {
            if (!method.is_object()) continue;
            const json* name = member(method, "name");
            if (!name || !name->is_string() || name->get_ref<const std::string&>() != "fullfile") {
                continue;
            }
            if (const json* limit = member(method, "maxBytesPerRequest")) {
                maximumFullFileUploadSize_ = unsignedValue(*limit).value_or(0);
            }
            break;
        }
    }
    if (const json* uploaded = member(body, "uploadedChunks")) {
        remoteChunkIndices_ = parseChunkIndicesFromArray(*uploaded);
    }
    if (const json* missing = member(body, "missingChunks")) {
        missingRemoteChunkIndices_ = parseChunkIndicesFromArray(*missing);
    }
    if (const json* content = member(body, "contentUri"); content && content->is_string()) {
        remoteContentURL_ = ZNVURL::fromString(content->get_ref<const std::string&>());
    }
}

std::optional<ZNVIndexSet> ZNVStorageResponse::parseChunkIndicesFromArray(const json& value) {
    if (!value.is_array() || value.empty()) return std::nullopt;
    // Collect, sort and add as runs: answers list chunks in any order, and
    // adding a run at the end of a set is cheap where inserting in the middle
    // is not.
    std::vector<uint64_t> indices;
    indices.reserve(value.size());
    for (const json& element : value) {
        if (!element.is_object()) continue;
        const json* index = member(element, "index");
        if (!index) {
            indices.push_back(0);
            continue;
        }
        std::optional<uint64_t> number = unsignedValue(*index);
        if (number && *number < static_cast<uint64_t>(ZNVNotFound)) indices.push_back(*number);
    }
    if (indices.empty()) return std::nullopt;
    std::sort(indices.begin(), indices.end());
    ZNVIndexSet set;
    size_t runStart = 0;
    for (size_t i = 1; i <= indices.size(); ++i) {
        if (i < indices.size() && indices[i] <= indices[i - 1] + 1) continue;
        set.addRange(indices[runStart], indices[i - 1] - indices[runStart] + 1);
        runStart = i;
    }
    return set;
}

std::optional<json> ZNVStorageResponse::parseJSON(const ZNVBytes& data, ZNVErrorRef* error) {
    if (error) *error = nullptr;
    const std::string_view text(reinterpret_cast<const char*>(data.data()), data.size());
    if (ZNVJSONNestingDepth(text, ZNVStorageResponseMaximumNestingDepth) >
        ZNVStorageResponseMaximumNestingDepth) {
        if (error) {
            *error = ZNVError::withMessage(
                NSCocoaErrorDomain, kJSONReadCorruptError,
                fmt::format("The data couldn’t be read because it is nested deeper than {} levels.",
                            ZNVStorageResponseMaximumNestingDepth));
        }
        return std::nullopt;
    }
    try {
        return json::parse(data.begin(), data.end());
    } catch (const std::exception& e) {
        if (error) {
            *error = ZNVError::withMessage(
                NSCocoaErrorDomain, kJSONReadCorruptError,
                fmt::format(
                    "The data couldn’t be read because it isn’t in the correct format. ({})",
                    e.what()));
        }
        return std::nullopt;
    }
}

std::optional<json> ZNVStorageResponse::parseBody(const ZNVBytes& data, ZNVErrorRef* error) {
    ZNVErrorRef parseError;
    std::optional<json> parsed = parseJSON(data, &parseError);
    if (parsed && !parsed->is_object()) {
        parsed.reset();
        parseError = ZNVNetworkErrorHandler_createURLError(NSURLErrorUnknown,
                                                           "unknown format for response body");
    }
    if (error) *error = parseError;
    return parsed;
}

bool ZNVStorageResponse::parseStorageURL(const ZNVURL& url, std::optional<std::string>* fileID) {
    if (fileID) fileID->reset();
    std::vector<std::string> components = url.pathComponents();
    if (components.size() < 3 || components[2] != "files") return false;
    if (fileID && components.size() >= 4) *fileID = components[3];
    return true;
}

std::optional<std::string> ZNVStorageResponse::remoteFileForRequestedURL(const ZNVURL& url) {
    std::optional<std::string> fileID;
    parseStorageURL(url, &fileID);
    return fileID;
}

ZNVStorageResponseRef ZNVStorageResponse::responseForRequest(
    const std::string& method, const ZNVURL& url, const std::optional<ZNVIndexSet>& chunkIndices,
    const std::optional<ZNVBytes>& data, ZNVErrorRef error) {
    json body;
    ZNVErrorRef parseError;
    if (data) {
        if (auto parsed = parseBody(*data, &parseError)) body = std::move(*parsed);
    }
    auto response = std::make_shared<ZNVStorageResponse>(body, error ? error : parseError);

    std::optional<std::string> fileID;
    bool storagePath = parseStorageURL(url, &fileID);
    bool hasFileID = fileID && !fileID->empty();
    std::string last = url.lastPathComponent();
    ZNVStorageResponseType type = ZNVStorageResponseTypeUnknown;
    if (storagePath) {
        if (method == "POST" && !hasFileID) {
            type = ZNVStorageResponseTypeNewRemoteFile;
        } else if (method == "PUT" && hasFileID) {
            type = last == "fullfile" ? ZNVStorageResponseTypeUploadedFullFile
                                      : ZNVStorageResponseTypeUploadedChunk;
        } else if (method == "POST" && hasFileID && last == "complete") {
            type = ZNVStorageResponseTypeAssembledRemoteFile;
        } else if (method == "POST" && hasFileID && last == "process") {
            type = ZNVStorageResponseTypePostProcessedRemoteVideoFile;
        } else if (method == "GET" && hasFileID) {
            type = ZNVStorageResponseTypeRemoteFileInformation;
        } else if (method == "DELETE" && hasFileID) {
            type = ZNVStorageResponseTypeDeletedRemoteFile;
        }
    }
    response->type_ = type;
    if (hasFileID) response->remoteFileID_ = *fileID;
    response->localChunkIndicesToUpload_ = chunkIndices;
    return response;
}

ZNVStorageResponseRef ZNVStorageResponse::responseForTask(
    const std::shared_ptr<ZNVURLSessionTask>& task, const std::optional<ZNVBytes>& data,
    ZNVErrorRef error) {
    if (!task || !ZNVSessionTaskTags::taskHasAuthentication(task)) return nullptr;
    const ZNVURLRequest& request = task->originalRequest();
    return responseForRequest(request.HTTPMethod(), request.URL(),
                              ZNVSessionTaskTags::chunkIndicesForTask(task), data,
                              std::move(error));
}

std::string ZNVStorageResponse::description() const {
    std::string text = fmt::format("<ZNVStorageResponse: {}, type: {}", fmt::ptr(this),
                                   ZNVStorageResponseTypeDescription(type_));
    bool appended = false;
    auto append = [&](const std::string& line) {
        if (line.empty()) return;
        text += "\n   ";
        text += line;
        appended = true;
    };
    if (error_) append("error: " + error_->localizedDescription());
    if (!remoteFileID_.empty()) append("remote file ID: " + remoteFileID_);
    if (!remoteFilename_.empty()) append("remote filename: " + remoteFilename_);
    if (maximumFullFileUploadSize_ != 0) {
        append(fmt::format("maximum full-file upload size: {}", maximumFullFileUploadSize_));
    }
    if (type_ == ZNVStorageResponseTypeRemoteFileInformation) {
        append(std::string("remote file is complete: ") + (remoteFileIsComplete_ ? "YES" : "NO"));
    }
    if (remoteContentURL_) append("remote file content: " + remoteContentURL_->absoluteString());
    if (std::string local = indexText(localChunkIndicesToUpload_); !local.empty()) {
        append("local chunk indices to upload: " + local);
    }
    if (std::string remote = indexText(remoteChunkIndices_); !remote.empty()) {
        append("remote chunks: " + remote);
    }
    // Always present, even with nothing missing.
    append("missing remote chunks: " + indexText(missingRemoteChunkIndices_));
    if (!message_.empty()) append("message: " + message_);
    text += appended ? "\n>" : ">";
    return text;
}

}  // namespace znv
