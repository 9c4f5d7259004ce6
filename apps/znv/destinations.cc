#include "apps/znv/destinations.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <sstream>

#include <nlohmann/json.hpp>

#include "apps/znv/binding.h"
#include "apps/znv/names.h"
#include "apps/znv/paths.h"
#include "znv/platform/filesystem.h"

namespace znv::cli {
namespace {

// The journal may run this many lines past the record's entry count before
// the record is rewritten.
constexpr size_t kJournalMargin = 64;

std::string hexOf(std::string_view bytes) {
    static constexpr char kDigits[] = "0123456789abcdef";
    std::string hex;
    hex.reserve(bytes.size() * 2);
    for (unsigned char c : bytes) {
        hex.push_back(kDigits[c >> 4]);
        hex.push_back(kDigits[c & 0xF]);
    }
    return hex;
}

std::optional<std::string> bytesOfHex(const std::string& hex) {
    if (hex.size() % 2 != 0) return std::nullopt;
    auto digit = [](char c) -> int {
        if (c >= '0' && c <= '9') return c - '0';
        if (c >= 'a' && c <= 'f') return c - 'a' + 10;
        return -1;
    };
    std::string bytes;
    bytes.reserve(hex.size() / 2);
    for (size_t i = 0; i < hex.size(); i += 2) {
        int high = digit(hex[i]), low = digit(hex[i + 1]);
        if (high < 0 || low < 0) return std::nullopt;
        bytes.push_back(static_cast<char>(high << 4 | low));
    }
    return bytes;
}

nlohmann::json toJson(const Destination& destination) {
    nlohmann::json j = nlohmann::json::object();
    if (isUTF8(destination.path)) {
        j["path"] = destination.path;
    } else {
        j["pathBytes"] = hexOf(destination.path);
    }
    j["directory"] = destination.directory;
    j["force"] = destination.force;
    if (destination.delivered) {
        j["delivered"] = true;
        j["size"] = destination.size;
    }
    return j;
}

std::optional<Destination> fromJson(const nlohmann::json& value) {
    // Written by earlier releases: a file path, replaced when it exists.
    if (value.is_string()) return Destination{value.get<std::string>(), false, true};
    if (!value.is_object()) return std::nullopt;
    Destination destination;
    auto path = value.find("path");
    auto bytes = value.find("pathBytes");
    if (path != value.end() && path->is_string()) {
        destination.path = path->get<std::string>();
    } else if (bytes != value.end() && bytes->is_string()) {
        auto decoded = bytesOfHex(bytes->get<std::string>());
        if (!decoded) return std::nullopt;
        destination.path = std::move(*decoded);
    } else {
        return std::nullopt;
    }
    auto flag = [&value](const char* key) {
        auto it = value.find(key);
        return it != value.end() && it->is_boolean() && it->get<bool>();
    };
    destination.directory = flag("directory");
    destination.force = flag("force");
    if (flag("delivered")) {
        auto size = value.find("size");
        destination.delivered = true;
        destination.size =
            size != value.end() && size->is_number_unsigned() ? size->get<int64_t>() : -1;
    }
    return destination;
}

// Moves a file that cannot be read out of the way, for the user to look at.
void keepAside(const std::string& path, const char* what) {
    std::time_t now = std::time(nullptr);
    std::tm utc{};
    gmtime_r(&now, &utc);
    char stamp[32];
    std::strftime(stamp, sizeof stamp, "%Y%m%dT%H%M%SZ", &utc);
    std::error_code ec;
    std::string kept = path + ".damaged-" + stamp;
    for (int n = 2; std::filesystem::exists(std::filesystem::symlink_status(kept, ec)); ++n)
        kept = path + ".damaged-" + stamp + "-" + std::to_string(n);
    std::filesystem::rename(path, kept, ec);
    std::fprintf(
        stderr,
        "znv: the %s of pending download destinations (%s) was damaged; %s; the "
        "downloads it named cannot be delivered\n",
        what, escapeControls(path).c_str(),
        ec ? "it could not be set aside" : ("it is kept as " + escapeControls(kept)).c_str());
}

// The file's text; nullopt when it does not exist, and "damaged" when
// something else (a directory, an unreadable file) is in its place.
std::optional<std::string> readRegular(const std::string& path, bool* damaged) {
    std::string problem;
    std::optional<std::string> text = readRegularFile(path, &problem);
    if (!problem.empty()) *damaged = true;
    return text;
}

std::string journalLine(const std::string& hash, const Destination* destination) {
    nlohmann::json line = {{"hash", hash}};
    if (destination) {
        line["set"] = toJson(*destination);
    } else {
        line["erase"] = true;
    }
    // Hashes are hex and paths were made UTF-8 above, so this cannot throw.
    return line.dump() + "\n";
}

}  // namespace

DownloadDestinations::DownloadDestinations(const std::string& profile)
    : DownloadDestinations(AtPath{},
                           stateDirectory() + "/" + profileIdentifier(profile) + ".downloads") {}

DownloadDestinations DownloadDestinations::atPath(const std::string& base) {
    return DownloadDestinations(AtPath{}, base);
}

DownloadDestinations::DownloadDestinations(AtPath, const std::string& base)
    : recordPath_(base + ".json"), journalPath_(base + ".journal") {
    load();
}

void DownloadDestinations::load() {
    bool damaged = false;
    if (auto text = readRegular(recordPath_, &damaged)) {
        auto j = nlohmann::json::parse(*text, nullptr, false);
        if (j.is_object()) {
            for (auto& [hash, value] : j.items()) {
                if (auto destination = fromJson(value)) entries_[hash] = std::move(*destination);
            }
        } else {
            damaged = true;
        }
    }
    const bool recordDamaged = damaged;
    if (recordDamaged) keepAside(recordPath_, "file");

    damaged = false;
    if (auto journal = readRegular(journalPath_, &damaged)) {
        // Each complete line is one change; a last line without its newline
        // was cut off by a crash and never took effect. The changes before a
        // line that cannot be read are kept.
        size_t at = 0;
        while (at < journal->size() && !damaged) {
            size_t end = journal->find('\n', at);
            if (end == std::string::npos) break;
            auto line = nlohmann::json::parse(journal->begin() + static_cast<ptrdiff_t>(at),
                                              journal->begin() + static_cast<ptrdiff_t>(end),
                                              nullptr, false);
            at = end + 1;
            auto hash = line.is_object() ? line.find("hash") : line.end();
            if (hash == line.end() || !hash->is_string()) {
                damaged = true;
            } else if (auto set = line.find("set"); set != line.end()) {
                auto destination = fromJson(*set);
                if (destination) {
                    entries_[hash->get<std::string>()] = std::move(*destination);
                } else {
                    damaged = true;
                }
            } else if (auto erase = line.find("erase");
                       erase != line.end() && erase->is_boolean() && erase->get<bool>()) {
                entries_.erase(hash->get<std::string>());
            } else {
                damaged = true;
            }
            if (!damaged) ++journalLines_;
        }
        // The next line must not be appended to the cut-off one.
        if (!damaged && at < journal->size())
            (void)::truncate(journalPath_.c_str(), static_cast<off_t>(at));
    }
    if (damaged) {
        keepAside(journalPath_, "journal");
        journalLines_ = 0;
    }
    // What was read from a damaged pair is written out whole, so that the
    // files hold what this process works with.
    if (damaged || (recordDamaged && !entries_.empty())) rewrite();
}

std::optional<Destination> DownloadDestinations::get(const std::string& hash) const {
    auto it = entries_.find(hash);
    if (it == entries_.end()) return std::nullopt;
    return it->second;
}

std::string DownloadDestinations::set(const std::string& hash, const Destination& destination) {
    entries_[hash] = destination;
    return record(journalLine(hash, &destination), 1);
}

std::string DownloadDestinations::erase(const std::string& hash) {
    if (entries_.erase(hash) == 0) return {};
    return record(journalLine(hash, nullptr), 1);
}

std::string DownloadDestinations::erase(const std::vector<std::string>& hashes) {
    std::string lines;
    size_t count = 0;
    for (const auto& hash : hashes) {
        if (entries_.erase(hash) == 0) continue;
        lines += journalLine(hash, nullptr);
        ++count;
    }
    return count == 0 ? std::string() : record(lines, count);
}

std::string DownloadDestinations::record(const std::string& lines, size_t count) {
    if (journalLines_ + count > entries_.size() + kJournalMargin) {
        if (rewrite()) return {};
    }
    const auto failed = [&](const std::string& reason) {
        return "cannot record download destinations in " + journalPath_ + ": " + reason;
    };
    const std::string directory = std::filesystem::path(journalPath_).parent_path().string();
    if (std::string problem = ensureDirectory(directory); !problem.empty()) return failed(problem);
    int fd =
        ::open(journalPath_.c_str(), O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC | O_NOFOLLOW, 0600);
    if (fd < 0) return failed(std::strerror(errno));
    // A line cut short by a failed write would hide every later line: cut
    // the journal back to where it was.
    const off_t before = ::lseek(fd, 0, SEEK_END);
    const bool written = ZNVWriteAll(fd, lines.data(), lines.size());
    const int writeErrno = errno;
    if (!written && before >= 0) (void)::ftruncate(fd, before);
    ::close(fd);
    if (!written) return failed(std::strerror(writeErrno));
    journalLines_ += count;
    return {};
}

bool DownloadDestinations::rewrite() {
    if (!ensureDirectory(std::filesystem::path(recordPath_).parent_path().string()).empty())
        return false;
    nlohmann::json j = nlohmann::json::object();
    for (const auto& [hash, destination] : entries_)
        j[hash] = toJson(destination);
    const std::string temporary = recordPath_ + ".tmp";
    int fd = ::open(temporary.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC | O_NOFOLLOW, 0600);
    if (fd < 0) return false;
    const std::string text = j.dump(2) + "\n";
    const bool written = ZNVWriteAll(fd, text.data(), text.size());
    ::close(fd);
    if (!written || ::rename(temporary.c_str(), recordPath_.c_str()) != 0) {
        ::unlink(temporary.c_str());
        return false;
    }
    // The record now holds every change: the journal starts again. Should
    // this fail, the old lines are replayed over a record that holds them.
    if (::truncate(journalPath_.c_str(), 0) == 0 || errno == ENOENT) journalLines_ = 0;
    return true;
}

}  // namespace znv::cli
