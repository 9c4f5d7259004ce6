#include "znv/platform/url_session_resume_data.h"

#include <nlohmann/json.hpp>

#include <algorithm>
#include <cctype>
#include <string_view>

#include <unistd.h>

#include "znv/platform/filesystem.h"

namespace znv {

namespace {
constexpr int kVersion = 1;
}

ZNVBytes ZNVURLSessionResumeData::encode(const Info& info) {
    nlohmann::json headers = nlohmann::json::object();
    for (const auto& [name, value] : info.headers)
        headers[name] = value;
    nlohmann::json document = {
        {"ZNVResumeDataVersion", kVersion},
        {"URL", info.url},
        {"method", info.method},
        {"headers", headers},
        {"partialFile", info.partialFile},
        {"bytesReceived", info.bytesReceived},
        {"ETag", info.etag},
        {"Last-Modified", info.lastModified},
        {"expectedTotalBytes", info.expectedTotalBytes},
    };
    if (info.growing) document["growing"] = true;
    std::string text = document.dump(-1, ' ', false, nlohmann::json::error_handler_t::replace);
    return ZNVBytes(text.begin(), text.end());
}

std::optional<ZNVURLSessionResumeData::Info> ZNVURLSessionResumeData::decode(const ZNVBytes& data) {
    if (data.empty()) return std::nullopt;
    nlohmann::json document = nlohmann::json::parse(data.begin(), data.end(), nullptr, false);
    if (document.is_discarded() || !document.is_object()) return std::nullopt;
    try {
        // Numbers are read only as integers: converting a fraction or a number
        // beyond the type's range to an integer type is undefined.
        const auto& version = document.at("ZNVResumeDataVersion");
        if (!version.is_number_integer() || version.get<int64_t>() != kVersion) return std::nullopt;
        Info info;
        info.url = document.at("URL").get<std::string>();
        info.method = document.at("method").get<std::string>();
        for (const auto& [name, value] : document.at("headers").items()) {
            info.headers[name] = value.get<std::string>();
        }
        info.partialFile = document.at("partialFile").get<std::string>();
        const auto& received = document.at("bytesReceived");
        if (!received.is_number_integer()) return std::nullopt;
        info.bytesReceived = received.get<int64_t>();
        info.etag = document.value("ETag", std::string());
        info.lastModified = document.value("Last-Modified", std::string());
        if (auto total = document.find("expectedTotalBytes"); total != document.end()) {
            if (!total->is_number_integer()) return std::nullopt;
            info.expectedTotalBytes = total->get<int64_t>();
        }
        if (auto growing = document.find("growing"); growing != document.end()) {
            if (!growing->is_boolean()) return std::nullopt;
            info.growing = growing->get<bool>();
        }
        if (info.url.empty() || info.method.empty() || info.bytesReceived < 0) return std::nullopt;
        return info;
    } catch (const nlohmann::json::exception&) {
        return std::nullopt;
    }
}

int64_t ZNVURLSessionResumeData::continuationOffset(const Info& info, int64_t fileSize) {
    return info.growing ? fileSize : std::min(fileSize, info.bytesReceived);
}

bool ZNVURLSessionResumeData::isPartialFilePath(const std::string& path) {
    static constexpr std::string_view kPrefix = "/ZNVDownload-";
    const std::string directory = ZNVPrivateTemporaryDirectory();
    if (directory.empty() || path.size() != directory.size() + kPrefix.size() + 6) return false;
    if (path.compare(0, directory.size(), directory) != 0) return false;
    if (path.compare(directory.size(), kPrefix.size(), kPrefix) != 0) return false;
    for (size_t i = directory.size() + kPrefix.size(); i < path.size(); ++i) {
        const char c = path[i];
        if (!std::isalnum(static_cast<unsigned char>(c))) return false;
    }
    return true;
}

void ZNVURLSessionResumeData::removePartialFile(const ZNVBytes& data) {
    if (data.empty()) return;
    std::optional<Info> info = decode(data);
    if (info && isPartialFilePath(info->partialFile)) ::unlink(info->partialFile.c_str());
}

}  // namespace znv
