#include "znv/managers/remote_file_journal.h"

#include <errno.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <limits>

#include <nlohmann/json.hpp>

#include "znv/foundation/log.h"
#include "znv/platform/filesystem.h"

namespace znv {
namespace {

constexpr uint64_t kMaximumJournalSize = uint64_t{16} << 20;
// A line longer than this is not one of ours (a file ID and a path at most).
constexpr size_t kMaximumLineLength = 64 * 1024;
// A journal that still has records no save holds is rewritten without the
// others only from this size on.
constexpr uint64_t kRewriteSize = 256 * 1024;

}  // namespace

ZNVRemoteFileJournal::ZNVRemoteFileJournal(std::string path) : path_(std::move(path)) {}

ZNVRemoteFileJournal::~ZNVRemoteFileJournal() {
    if (fd_ >= 0) ::close(fd_);
}

bool ZNVRemoteFileJournal::isDownloadedFileName(std::string_view name) {
    if (!name.starts_with("download-") || name.size() > 128) return false;
    return std::all_of(name.begin(), name.end(), [](char c) {
        return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') ||
               c == '-' || c == '.';
    });
}

std::string ZNVRemoteFileJournal::line(const Entry& entry) {
    if (!entry.downloadedFile.empty()) {
        nlohmann::json line = {{"downloaded", entry.downloadedFile}};
        if (!entry.downloadedFrom.empty()) line["from"] = entry.downloadedFrom;
        return line.dump(-1, ' ', false, nlohmann::json::error_handler_t::replace) + "\n";
    }
    nlohmann::json line = {{"source", entry.sourceURL},
                           {"start", entry.startMicroseconds},
                           {"fileId", entry.remoteFileID},
                           {"maxFullFile", entry.maximumFullFileUploadSize}};
    if (!entry.acknowledgedChunks.empty()) line["acked"] = entry.acknowledgedChunks;
    if (entry.chunks) line["chunks"] = true;
    if (!entry.missingChunks.empty()) line["missing"] = entry.missingChunks;
    // A path that is not UTF-8 gets U+FFFD in its line: it then matches no
    // upload, which costs a second creation, never a wrong file ID.
    return line.dump(-1, ' ', false, nlohmann::json::error_handler_t::replace) + "\n";
}

uint64_t ZNVRemoteFileJournal::record(const Entry& entry) {
    const std::string text = line(entry);
    std::lock_guard<std::mutex> lock(mutex_);
    std::string problem;
    if (fd_ < 0) {
        const ZNVRegularFile file =
            ZNVOpenRegularFile(path_, O_WRONLY | O_APPEND | O_CREAT | O_NOFOLLOW, 0600);
        fd_ = file.fd;
        if (fd_ >= 0) ::fchmod(fd_, 0600);  // also when an older file was there
        if (fd_ < 0) problem = file.reason();
    }
    // One write per line: a kill leaves whole lines, at most a torn last one.
    if (fd_ >= 0 && !ZNVWriteAll(fd_, text.data(), text.size())) problem = std::strerror(errno);
    if (!problem.empty()) {
        ZNVLogError("failed to record remote file {} in {}: {}",
                    entry.downloadedFile.empty() ? entry.remoteFileID : entry.downloadedFile, path_,
                    problem);
        return 0;
    }
    dirty_ = true;
    ++records_;
    size_ += text.size();
    uncovered_.emplace_back(records_, text);
    return records_;
}

void ZNVRemoteFileJournal::forgetUpTo(uint64_t count) {
    std::lock_guard<std::mutex> lock(mutex_);
    if (!dirty_) return;
    while (!uncovered_.empty() && uncovered_.front().first <= count)
        uncovered_.pop_front();
    // Covered lines are harmless in the file (see the header): it is only
    // rewritten once it has grown, so a stream of records costs no more than
    // their appends.
    if (!uncovered_.empty() && size_ < kRewriteSize) return;
    if (uncovered_.empty()) {
        if (fd_ < 0) {  // only read so far: what an earlier process recorded
            fd_ = ZNVOpenRegularFile(path_, O_WRONLY | O_APPEND | O_NOFOLLOW).fd;
            if (fd_ < 0) return;
        }
        if (::ftruncate(fd_, 0) != 0) {
            ZNVLogError("failed to empty {}: {}", path_, std::strerror(errno));
            return;
        }
        dirty_ = false;
        size_ = 0;
        return;
    }
    // Records made since are not in a save yet: they move to a new file that
    // replaces this one whole, so a kill leaves one or the other.
    std::string text;
    for (const auto& record : uncovered_)
        text += record.second;
    const std::string temporary = path_ + ".tmp";
    int fd = -1;
    do {
        fd = ::open(temporary.c_str(),
                    O_WRONLY | O_CREAT | O_TRUNC | O_APPEND | O_CLOEXEC | O_NOFOLLOW, 0600);
    } while (fd < 0 && errno == EINTR);
    if (fd >= 0) ::fchmod(fd, 0600);
    if (fd < 0 || !ZNVWriteAll(fd, text.data(), text.size()) ||
        ::rename(temporary.c_str(), path_.c_str()) != 0) {
        ZNVLogError("failed to shorten {}: {}", path_, std::strerror(errno));
        if (fd >= 0) ::close(fd);
        ::unlink(temporary.c_str());
        return;
    }
    if (fd_ >= 0) ::close(fd_);
    fd_ = fd;  // appends go on in the new file
    size_ = text.size();
}

std::vector<ZNVRemoteFileJournal::Entry> ZNVRemoteFileJournal::read() {
    std::lock_guard<std::mutex> lock(mutex_);
    // Never waits on a FIFO at the name; a link there is not followed.
    const ZNVRegularFile file = ZNVOpenRegularFile(path_, O_RDONLY | O_NOFOLLOW);
    if (file.fd < 0 && !file.notRegular() && file.error != ELOOP) return {};
    const int fd = file.fd;
    std::string text;
    if (fd >= 0 && file.size <= kMaximumJournalSize) {
        text.resize(static_cast<size_t>(file.size));
        size_t done = 0;
        while (done < text.size()) {
            const ssize_t n = ::read(fd, text.data() + done, text.size() - done);
            if (n < 0 && errno == EINTR) continue;
            if (n <= 0) break;
            done += static_cast<size_t>(n);
        }
        text.resize(done);
    } else {
        ZNVLogError("ignoring {}: not a regular file of at most 16 MiB", path_);
    }
    if (fd >= 0) ::close(fd);
    // What was there before this process counts as recorded: the next save
    // may empty it.
    if (!text.empty()) dirty_ = true;
    return parse(text);
}

std::vector<ZNVRemoteFileJournal::Entry> ZNVRemoteFileJournal::parse(std::string_view text) {
    std::vector<Entry> entries;
    while (!text.empty()) {
        const size_t end = text.find('\n');
        // A last line without its newline was cut short by a kill.
        if (end == std::string_view::npos) break;
        const std::string_view line = text.substr(0, end);
        text.remove_prefix(end + 1);
        if (line.size() > kMaximumLineLength) continue;
        const auto json = nlohmann::json::parse(line, nullptr, false);
        if (!json.is_object()) continue;
        if (const auto downloaded = json.find("downloaded"); downloaded != json.end()) {
            if (downloaded->is_string() && isDownloadedFileName(downloaded->get<std::string>())) {
                Entry entry;
                entry.downloadedFile = downloaded->get<std::string>();
                if (const auto from = json.find("from"); from != json.end() && from->is_string()) {
                    entry.downloadedFrom = from->get<std::string>();
                }
                entries.push_back(std::move(entry));
            }
            continue;
        }
        const auto source = json.find("source");
        const auto start = json.find("start");
        const auto fileID = json.find("fileId");
        const auto maximum = json.find("maxFullFile");
        if (source == json.end() || !source->is_string() || start == json.end() ||
            !start->is_number_integer() || fileID == json.end() || !fileID->is_string() ||
            maximum == json.end() || !maximum->is_number_unsigned()) {
            continue;
        }
        Entry entry{source->get<std::string>(),
                    start->get<int64_t>(),
                    fileID->get<std::string>(),
                    maximum->get<uint64_t>(),
                    {},
                    false,
                    {},
                    {}};
        if (entry.remoteFileID.empty()) continue;
        // A list of chunk indices, when present, is a non-empty array of them.
        const auto indices = [&](const char* key, std::vector<uint64_t>* out) {
            const auto list = json.find(key);
            if (list == json.end()) return true;
            if (!list->is_array() || list->empty()) return false;
            for (const auto& index : *list) {
                if (!index.is_number_unsigned()) return false;
                out->push_back(index.get<uint64_t>());
            }
            return true;
        };
        if (!indices("acked", &entry.acknowledgedChunks) ||
            !indices("missing", &entry.missingChunks)) {
            continue;
        }
        if (const auto chunks = json.find("chunks"); chunks != json.end()) {
            if (!chunks->is_boolean() || !chunks->get<bool>()) continue;
            entry.chunks = true;
        }
        entries.push_back(std::move(entry));
    }
    return entries;
}

}  // namespace znv
