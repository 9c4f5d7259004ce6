#include "apps/emulator/file_store.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>
#include <uuid/uuid.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <sstream>
#include <vector>

namespace fs = std::filesystem;

namespace znv::emulator {

namespace {

// Names of whole files being received, beside the file's content.
constexpr const char kIncomingPrefix[] = "incoming-";

std::string newUUID() {
    uuid_t uuid;
    uuid_generate_random(uuid);
    char text[37];
    uuid_unparse_lower(uuid, text);
    return text;
}

std::string errnoText(const std::string& what) {
    return what + ": " + std::strerror(errno);
}

// Copies `length` bytes of `in` to the end of `out`, in the kernel when it can.
bool appendFile(int in, int out, uint64_t length) {
    uint64_t left = length;
    while (left > 0) {
        ssize_t n = copy_file_range(in, nullptr, out, nullptr, left, 0);
        if (n < 0 &&
            (errno == EXDEV || errno == ENOSYS || errno == EOPNOTSUPP || errno == EINVAL)) {
            break;  // fall back to read and write below
        }
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) return n == 0 && left == 0;
        left -= static_cast<uint64_t>(n);
    }
    std::vector<char> buffer(1 << 20);
    while (left > 0) {
        ssize_t n = read(in, buffer.data(), std::min<uint64_t>(left, buffer.size()));
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) return false;
        for (ssize_t done = 0; done < n;) {
            ssize_t w = write(out, buffer.data() + done, static_cast<size_t>(n - done));
            if (w < 0 && errno == EINTR) continue;
            if (w <= 0) return false;
            done += w;
        }
        left -= static_cast<uint64_t>(n);
    }
    return true;
}

std::string makeEtag(const FileInfo& info) {
    std::ostringstream out;
    out << '"' << info.id.substr(0, 8) << '-' << std::hex << info.size << '-'
        << std::chrono::duration_cast<std::chrono::nanoseconds>(
               std::chrono::system_clock::now().time_since_epoch())
               .count()
        << '"';
    return out.str();
}

int64_t nowSeconds() {
    return std::chrono::duration_cast<std::chrono::seconds>(
               std::chrono::system_clock::now().time_since_epoch())
        .count();
}

}  // namespace

bool isValidFileId(const std::string& id) {
    if (id.empty() || id.size() > 128) return false;
    for (char c : id) {
        bool ok = (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') ||
                  c == '-' || c == '_';
        if (!ok) return false;
    }
    return true;
}

std::string httpDate(int64_t secondsSinceEpoch) {
    time_t t = static_cast<time_t>(secondsSinceEpoch);
    struct tm tm {};
    gmtime_r(&t, &tm);
    static const char* const kDays[] = {"Sun", "Mon", "Tue", "Wed", "Thu", "Fri", "Sat"};
    static const char* const kMonths[] = {"Jan", "Feb", "Mar", "Apr", "May", "Jun",
                                          "Jul", "Aug", "Sep", "Oct", "Nov", "Dec"};
    char text[64];
    std::snprintf(text, sizeof text, "%s, %02d %s %04d %02d:%02d:%02d GMT", kDays[tm.tm_wday],
                  tm.tm_mday, kMonths[tm.tm_mon], tm.tm_year + 1900, tm.tm_hour, tm.tm_min,
                  tm.tm_sec);
    return text;
}

bool FileStore::open(const std::string& dataDir, std::string* error) {
    auto fail = [&](const std::string& message) {
        if (error) *error = message;
        return false;
    };
    std::error_code ec;
    fs::path root = fs::absolute(dataDir, ec).lexically_normal();
    if (ec) return fail("cannot use data directory " + dataDir + ": " + ec.message());
    if (fs::exists(root, ec) && !fs::is_directory(root, ec)) {
        return fail("data directory " + root.string() + " is not a directory");
    }
    // Content and file IDs are for the emulator's user only: a directory it
    // creates is 0700, and so are files/ and tmp/ in one that already existed.
    auto makePrivate = [&](const fs::path& dir) {
        if (::mkdir(dir.c_str(), 0700) != 0 && errno != EEXIST) {
            return fail("cannot create " + dir.string() + ": " + std::strerror(errno));
        }
        ::chmod(dir.c_str(), 0700);  // one made by an earlier release may be 0755
        return true;
    };
    fs::create_directories(root.parent_path(), ec);
    if (ec) return fail("cannot create data directory " + root.string() + ": " + ec.message());
    if (!fs::exists(root, ec) && ::mkdir(root.c_str(), 0700) != 0 && errno != EEXIST) {
        return fail("cannot create data directory " + root.string() + ": " + std::strerror(errno));
    }
    if (!makePrivate(root / "files")) return false;
    fs::remove_all(root / "tmp", ec);
    if (!makePrivate(root / "tmp")) return false;
    // Probe that the directory is writable now rather than on the first upload.
    std::string probe = (root / "tmp" / "probe").string();
    int fd = ::open(probe.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
    if (fd < 0)
        return fail("data directory " + root.string() +
                    " is not writable: " + std::strerror(errno));
    ::close(fd);
    ::unlink(probe.c_str());

    dataDir_ = root.string();
    if (!cleaner_.joinable()) cleaner_ = std::thread([this] { cleanLoop(); });
    std::lock_guard lock(mutex_);
    files_.clear();
    for (const auto& dirent : fs::directory_iterator(root / "files", ec)) {
        std::string id = dirent.path().filename().string();
        if (!isValidFileId(id) || !dirent.is_directory()) continue;
        loadFile(id);
    }
    return true;
}

bool FileStore::loadFile(const std::string& id) {
    // Whole files whose receipt was cut off.
    std::error_code ec;
    for (const auto& dirent : fs::directory_iterator(fileDir(id), ec)) {
        if (dirent.path().filename().string().rfind(kIncomingPrefix, 0) == 0) {
            fs::remove(dirent.path(), ec);
        }
    }
    std::ifstream in(fileDir(id) + "/meta.json");
    if (!in) return false;
    nlohmann::json meta = nlohmann::json::parse(in, nullptr, false);
    if (!meta.is_object()) return false;
    auto entry = std::make_shared<Entry>();
    FileInfo& info = entry->info;
    info.id = id;
    info.name = meta.value("fileName", "");
    info.sharedStorageId = meta.value("sharedStorageId", "");
    info.complete = meta.value("isComplete", false);
    info.size = meta.value("sizeInBytes", uint64_t{0});
    info.completedAt = meta.value("completedAt", int64_t{0});
    info.etag = meta.value("etag", "");
    if (meta.contains("processing")) info.processing = meta["processing"];
    // The metadata is the record of the chunks that arrived (and, for a
    // complete file, of the chunks it was assembled from).
    if (auto it = meta.find("chunks"); it != meta.end() && it->is_array()) {
        for (const auto& chunk : *it) {
            if (chunk.is_object()) {
                info.chunks[chunk.value("index", uint64_t{0})] =
                    chunk.value("sizeInBytes", uint64_t{0});
            }
        }
    }
    if (info.complete) {
        std::error_code ec;
        if (!fs::is_regular_file(contentPath(id), ec)) info.complete = false;
    }
    files_[id] = entry;
    return true;
}

void FileStore::openSink() {
    sink_ = true;
    dataDir_.clear();
    std::lock_guard lock(mutex_);
    files_.clear();
}

FileStore::~FileStore() {
    {
        std::lock_guard lock(cleanMutex_);
        cleanStop_ = true;
    }
    cleanWake_.notify_all();
    if (cleaner_.joinable()) cleaner_.join();
}

void FileStore::discard(const std::string& path) {
    // A rename that finds nothing would still lock tmp/ against every other
    // request (only a file sent in chunks has chunks to discard).
    struct stat st {};
    if (::lstat(path.c_str(), &st) != 0 && errno == ENOENT) return;
    std::string aside = tempPath();
    std::error_code ec;
    if (::rename(path.c_str(), aside.c_str()) != 0) {
        if (errno != ENOENT) fs::remove_all(path, ec);  // not movable: remove it here
        return;
    }
    if (!cleaner_.joinable()) {
        fs::remove_all(aside, ec);
        return;
    }
    {
        std::lock_guard lock(cleanMutex_);
        toClean_.push_back(std::move(aside));
    }
    cleanWake_.notify_one();
}

void FileStore::cleanLoop() {
    std::unique_lock lock(cleanMutex_);
    for (;;) {
        cleanWake_.wait(lock, [&] { return cleanStop_ || !toClean_.empty(); });
        if (toClean_.empty()) return;  // stopping, and nothing is left
        std::string path = std::move(toClean_.front());
        toClean_.pop_front();
        lock.unlock();
        std::error_code ec;
        fs::remove_all(path, ec);
        lock.lock();
    }
}

std::string FileStore::tempPath() const {
    return dataDir_ + "/tmp/" + newUUID();
}

std::string FileStore::incomingPath(const std::string& id) const {
    return fileDir(id) + "/" + kIncomingPrefix + newUUID();
}

std::string FileStore::fileDir(const std::string& id) const {
    return dataDir_ + "/files/" + id;
}

std::string FileStore::contentPath(const std::string& id) const {
    return fileDir(id) + "/content";
}

std::string FileStore::chunkDataPath(const std::string& id) const {
    return fileDir(id) + "/chunks/data";
}

std::string FileStore::chunkFilePath(const std::string& id, uint64_t index) const {
    return fileDir(id) + "/chunks/" + std::to_string(index) + ".chunk";
}

bool FileStore::saveMeta(const FileInfo& info, std::string* error) const {
    if (sink_) return true;  // a sink keeps its records in memory only
    nlohmann::json meta = {
        {"fileId", info.id}, {"fileName", info.name}, {"isComplete", info.complete}};
    if (!info.sharedStorageId.empty()) meta["sharedStorageId"] = info.sharedStorageId;
    if (info.complete) {
        meta["sizeInBytes"] = info.size;
        meta["completedAt"] = info.completedAt;
        meta["etag"] = info.etag;
    }
    nlohmann::json chunks = nlohmann::json::array();
    for (const auto& [index, size] : info.chunks) {
        chunks.push_back({{"index", index}, {"sizeInBytes", size}});
    }
    meta["chunks"] = chunks;
    if (!info.processing.is_null()) meta["processing"] = info.processing;
    std::string path = fileDir(info.id) + "/meta.json";
    std::string aside = path + ".new";
    {
        std::ofstream out(aside, std::ios::trunc);
        out << meta.dump(2) << '\n';
        if (!out.flush()) {
            if (error) *error = "cannot write " + aside;
            return false;
        }
    }
    if (::rename(aside.c_str(), path.c_str()) != 0) {
        if (error) *error = errnoText("cannot rename " + aside);
        return false;
    }
    return true;
}

std::shared_ptr<FileStore::Entry> FileStore::find(const std::string& id) const {
    std::lock_guard lock(mutex_);
    auto it = files_.find(id);
    return it == files_.end() ? nullptr : it->second;
}

StoreResult FileStore::create(const std::string& name, const std::string& sharedStorageId) {
    auto entry = std::make_shared<Entry>();
    entry->info.id = newUUID();
    entry->info.name = name;
    entry->info.sharedStorageId = sharedStorageId;
    StoreResult result;
    // Only the file's directory: chunks/ comes with the first chunk, as most
    // files never have one, and every directory or file made costs the file
    // system an inode.
    if (!sink_ && ::mkdir(fileDir(entry->info.id).c_str(), 0700) != 0) {
        result.status = StoreStatus::IOError;
        result.message = errnoText("cannot create file directory");
        return result;
    }
    if (!saveMeta(entry->info, &result.message)) {
        result.status = StoreStatus::IOError;
        return result;
    }
    result.info = entry->info;
    std::lock_guard lock(mutex_);
    files_[entry->info.id] = entry;
    return result;
}

std::optional<FileInfo> FileStore::info(const std::string& id) const {
    auto entry = find(id);
    if (!entry) return std::nullopt;
    std::lock_guard lock(entry->mutex);
    if (entry->removed) return std::nullopt;
    return entry->info;
}

bool FileStore::beginChunkWrites(const std::string& id, ChunkWrites& writes) {
    auto entry = find(id);
    if (!entry) return false;
    std::lock_guard lock(entry->mutex);
    if (entry->removed || entry->info.complete) return false;
    writes.stored = entry->info.chunks;
    if (sink_) return true;  // nothing to write into; dataFd stays -1
    std::error_code ec;
    fs::create_directories(fileDir(id) + "/chunks", ec);
    writes.dataFd = ::open(chunkDataPath(id).c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0600);
    if (writes.dataFd < 0) return false;
    ++entry->inPlaceWriters;
    return true;
}

void FileStore::endChunkWrites(const std::string& id, ChunkWrites& writes) {
    if (writes.dataFd < 0) return;
    ::close(writes.dataFd);
    writes.dataFd = -1;
    if (auto entry = find(id)) {
        std::lock_guard lock(entry->mutex);
        --entry->inPlaceWriters;
    }
}

StoreResult FileStore::commitChunks(const std::string& id,
                                    const std::vector<ReceivedChunk>& chunks) {
    StoreResult result;
    auto removeTemporaries = [&](size_t from) {
        for (size_t i = from; i < chunks.size(); ++i) {
            if (!chunks[i].tempPath.empty()) ::unlink(chunks[i].tempPath.c_str());
        }
    };
    auto entry = find(id);
    if (!entry) {
        removeTemporaries(0);
        result.status = StoreStatus::NotFound;
        return result;
    }
    std::lock_guard lock(entry->mutex);
    if (entry->removed || entry->info.complete) {
        removeTemporaries(0);
        result.status = entry->removed ? StoreStatus::NotFound : StoreStatus::AlreadyCompleted;
        result.info = entry->info;
        return result;
    }
    int data = -1;
    bool haveChunkDirectory = false;
    auto makeChunkDirectory = [&] {
        if (!haveChunkDirectory) {
            std::error_code ec;
            fs::create_directories(fileDir(id) + "/chunks", ec);
            haveChunkDirectory = true;
        }
    };
    for (size_t i = 0; i < chunks.size(); ++i) {
        const ReceivedChunk& chunk = chunks[i];
        bool stored = chunk.tempPath.empty();  // written in place by the request
        if (!stored && chunk.index > kMaxStrideIndex) {
            makeChunkDirectory();
            stored = ::rename(chunk.tempPath.c_str(), chunkFilePath(id, chunk.index).c_str()) == 0;
        } else if (!stored) {
            // A chunk sent again over a stored one: copied into its slot.
            if (data < 0) {
                makeChunkDirectory();
                data = ::open(chunkDataPath(id).c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0600);
            }
            int in = ::open(chunk.tempPath.c_str(), O_RDONLY | O_CLOEXEC);
            stored = data >= 0 && in >= 0 &&
                     ::lseek(data, static_cast<off_t>(chunk.index * kChunkStride), SEEK_SET) >= 0 &&
                     appendFile(in, data, chunk.size);
            if (in >= 0) ::close(in);
            ::unlink(chunk.tempPath.c_str());
        }
        if (!stored) {
            result.status = StoreStatus::IOError;
            result.message = errnoText("cannot store chunk " + std::to_string(chunk.index));
            removeTemporaries(i + 1);
            break;
        }
        entry->info.chunks[chunk.index] = chunk.size;
    }
    if (data >= 0) ::close(data);
    // The chunks count as stored once the metadata lists them.
    if (!saveMeta(entry->info, &result.message)) result.status = StoreStatus::IOError;
    result.info = entry->info;
    return result;
}

// Moves a finished content file into place and marks the file complete;
// the caller holds the entry's lock. On failure `result` says why and the
// file stays as it was (the temporary file is removed).
void FileStore::installContent(Entry& entry, const std::string& id, const std::string& tempPath,
                               uint64_t size, const char* failure, StoreResult& result) {
    if (!sink_ && ::rename(tempPath.c_str(), contentPath(id).c_str()) != 0) {
        ::unlink(tempPath.c_str());
        result.status = StoreStatus::IOError;
        result.message = errnoText(failure);
        return;
    }
    FileInfo updated = entry.info;
    updated.complete = true;
    updated.size = size;
    updated.completedAt = nowSeconds();
    updated.etag = makeEtag(updated);
    if (!saveMeta(updated, &result.message)) {
        result.status = StoreStatus::IOError;
        return;
    }
    entry.info = updated;
    if (!sink_) discard(fileDir(id) + "/chunks");
    result.info = updated;
}

StoreResult FileStore::commitFullFile(const std::string& id, const std::string& tempPath,
                                      uint64_t size) {
    StoreResult result;
    auto entry = find(id);
    if (!entry) {
        ::unlink(tempPath.c_str());
        result.status = StoreStatus::NotFound;
        return result;
    }
    std::lock_guard lock(entry->mutex);
    if (entry->removed || entry->info.complete) {
        ::unlink(tempPath.c_str());
        result.status = entry->removed ? StoreStatus::NotFound : StoreStatus::AlreadyCompleted;
        result.info = entry->info;
        return result;
    }
    installContent(*entry, id, tempPath, size, "cannot store the file", result);
    return result;
}

StoreResult FileStore::complete(const std::string& id,
                                const std::vector<std::pair<uint64_t, uint64_t>>& expected,
                                const std::vector<uint64_t>& reportMissing) {
    StoreResult result;
    auto entry = find(id);
    if (!entry) {
        result.status = StoreStatus::NotFound;
        return result;
    }
    std::lock_guard lock(entry->mutex);
    if (entry->removed) {
        result.status = StoreStatus::NotFound;
        return result;
    }
    result.info = entry->info;
    if (entry->info.complete) {
        result.status = StoreStatus::AlreadyCompleted;
        return result;
    }
    std::map<uint64_t, uint64_t> wanted(expected.begin(), expected.end());
    std::vector<uint64_t> missing;
    for (const auto& [index, size] : wanted) {
        auto it = entry->info.chunks.find(index);
        bool forced =
            std::find(reportMissing.begin(), reportMissing.end(), index) != reportMissing.end();
        if (forced || it == entry->info.chunks.end() || it->second != size) {
            missing.push_back(index);
        }
    }
    for (uint64_t index : reportMissing) {
        if (!wanted.count(index)) missing.push_back(index);
    }
    if (!missing.empty()) {
        std::sort(missing.begin(), missing.end());
        result.status = StoreStatus::Missing;
        result.missing = std::move(missing);
        return result;
    }

    uint64_t total = 0;
    for (const auto& [index, size] : wanted)
        total += size;
    if (sink_) {
        installContent(*entry, id, std::string(), total, "", result);
        return result;
    }
    // Chunks 0 .. n-1, all of a full stride but the last, already lie in the
    // data file as the content: cut it to size and move it into place. Not
    // while a request may still write into it.
    const bool inOrder =
        wanted.begin()->first == 0 && wanted.rbegin()->first + 1 == wanted.size() &&
        wanted.size() - 1 <= kMaxStrideIndex && entry->inPlaceWriters == 0 &&
        std::all_of(wanted.begin(), std::prev(wanted.end()),
                    [](const auto& chunk) { return chunk.second == kChunkStride; });
    if (inOrder && ::truncate(chunkDataPath(id).c_str(), static_cast<off_t>(total)) == 0) {
        installContent(*entry, id, chunkDataPath(id), total, "cannot store the assembled file",
                       result);
        return result;
    }

    std::string aside = tempPath();
    int out = ::open(aside.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0600);
    if (out < 0) {
        result.status = StoreStatus::IOError;
        result.message = errnoText("cannot create the assembled file");
        return result;
    }
    int data = ::open(chunkDataPath(id).c_str(), O_RDONLY | O_CLOEXEC);
    for (const auto& [index, size] : wanted) {
        bool ok = false;
        if (index <= kMaxStrideIndex) {
            ok = data >= 0 &&
                 ::lseek(data, static_cast<off_t>(index * kChunkStride), SEEK_SET) >= 0 &&
                 appendFile(data, out, size);
        } else {
            int in = ::open(chunkFilePath(id, index).c_str(), O_RDONLY | O_CLOEXEC);
            ok = in >= 0 && appendFile(in, out, size);
            if (in >= 0) ::close(in);
        }
        if (!ok) {
            if (data >= 0) ::close(data);
            ::close(out);
            ::unlink(aside.c_str());
            result.status = StoreStatus::IOError;
            result.message = "cannot assemble chunk " + std::to_string(index);
            return result;
        }
    }
    if (data >= 0) ::close(data);
    ::close(out);
    installContent(*entry, id, aside, total, "cannot store the assembled file", result);
    return result;
}

StoreResult FileStore::requestProcessing(const std::string& id, const nlohmann::json& request) {
    StoreResult result;
    auto entry = find(id);
    if (!entry) {
        result.status = StoreStatus::NotFound;
        return result;
    }
    std::lock_guard lock(entry->mutex);
    if (entry->removed) {
        result.status = StoreStatus::NotFound;
        return result;
    }
    result.info = entry->info;
    if (!entry->info.complete) {
        result.status = StoreStatus::NotComplete;
        return result;
    }
    FileInfo updated = entry->info;
    updated.processing = request;
    if (!saveMeta(updated, &result.message)) {
        result.status = StoreStatus::IOError;
        return result;
    }
    entry->info = updated;
    result.info = updated;
    return result;
}

StoreResult FileStore::remove(const std::string& id) {
    StoreResult result;
    auto entry = find(id);
    if (!entry) {
        result.status = StoreStatus::NotFound;
        return result;
    }
    {
        std::lock_guard lock(entry->mutex);
        if (entry->removed) {
            result.status = StoreStatus::NotFound;
            return result;
        }
        entry->removed = true;
        result.info = entry->info;
        // Downloads in progress keep their open descriptor; the bytes go when
        // they finish.
        if (!sink_) discard(fileDir(id));
    }
    std::lock_guard lock(mutex_);
    files_.erase(id);
    return result;
}

}  // namespace znv::emulator
