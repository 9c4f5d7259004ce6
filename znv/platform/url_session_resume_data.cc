#include "znv/platform/url_session_resume_data.h"

#include <nlohmann/json.hpp>

#include <algorithm>
#include <cctype>
#include <string_view>

#include <dirent.h>
#include <sys/stat.h>
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

namespace {

constexpr std::string_view kPartialPrefix = "ZNVDownload-";

// The tag of a partial file's name ("" for an untagged one), or nullopt for
// a name the session does not give.
std::optional<std::string_view> partialFileTag(std::string_view name) {
    if (!name.starts_with(kPartialPrefix) || name.size() < kPartialPrefix.size() + 6) {
        return std::nullopt;
    }
    const std::string_view unique = name.substr(name.size() - 6);
    if (!std::all_of(unique.begin(), unique.end(),
                     [](char c) { return std::isalnum(static_cast<unsigned char>(c)); })) {
        return std::nullopt;
    }
    std::string_view tag =
        name.substr(kPartialPrefix.size(), name.size() - 6 - kPartialPrefix.size());
    if (tag.empty()) return tag;
    if (tag.back() != '-') return std::nullopt;
    tag.remove_suffix(1);
    if (!ZNVURLSessionResumeData::isPlainTag(tag)) return std::nullopt;
    return tag;
}

}  // namespace

bool ZNVURLSessionResumeData::isPlainTag(std::string_view tag) {
    return !tag.empty() && tag.size() <= 64 && std::all_of(tag.begin(), tag.end(), [](char c) {
        return std::isalnum(static_cast<unsigned char>(c)) || c == '.' || c == '_' || c == '-';
    });
}

bool ZNVURLSessionResumeData::isPartialFilePath(const std::string& path) {
    const std::string directory = ZNVPrivateTemporaryDirectory();
    if (directory.empty() || path.size() <= directory.size() + 1) return false;
    if (path.compare(0, directory.size(), directory) != 0 || path[directory.size()] != '/') {
        return false;
    }
    return partialFileTag(std::string_view(path).substr(directory.size() + 1)).has_value();
}

std::vector<std::string> ZNVURLSessionResumeData::removeUnnamedPartialFiles(
    const std::string& tag, const std::set<std::string>& named,
    std::chrono::system_clock::time_point before) {
    std::vector<std::string> removed;
    const std::string directory = ZNVPrivateTemporaryDirectory();
    if (!isPlainTag(tag) || directory.empty()) return removed;
    DIR* dir = ::opendir(directory.c_str());
    if (!dir) return removed;
    std::vector<std::string> names;
    while (dirent* entry = ::readdir(dir)) {
        if (partialFileTag(entry->d_name) == std::optional<std::string_view>(tag)) {
            names.emplace_back(entry->d_name);
        }
    }
    ::closedir(dir);
    const auto limit =
        std::chrono::duration_cast<std::chrono::nanoseconds>(before.time_since_epoch()).count();
    for (const auto& name : names) {
        const std::string path = directory + "/" + name;
        struct stat info {};
        if (named.count(path) || ::lstat(path.c_str(), &info) != 0 || !S_ISREG(info.st_mode)) {
            continue;
        }
        const int64_t written =
            static_cast<int64_t>(info.st_mtim.tv_sec) * 1000000000 + info.st_mtim.tv_nsec;
        if (written < limit && ::unlink(path.c_str()) == 0) removed.push_back(name);
    }
    return removed;
}

void ZNVURLSessionResumeData::removePartialFile(const ZNVBytes& data) {
    if (data.empty()) return;
    std::optional<Info> info = decode(data);
    if (info && isPartialFilePath(info->partialFile)) ::unlink(info->partialFile.c_str());
}

}  // namespace znv
