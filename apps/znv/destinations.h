// Where the downloads of a profile are delivered (task hash -> destination),
// kept beside the log because the library's download task has no such field.
// A delivered download keeps its entry, naming the file written, until its
// task is finished.
//
// On disk: "<profile>.downloads.json", a whole record written atomically
// (temporary file, then rename), and "<profile>.downloads.journal", one JSON
// line per change since that record, appended with one write each. A change
// therefore costs one line, whatever the number of entries; the record is
// rewritten once the journal holds more lines than the record has entries
// (plus a margin), so rewriting costs at most a constant per change. Reading
// applies the journal's lines to the record in order; a cut-off last line (a
// crash mid-write) is ignored, and replaying lines that the record already
// holds changes nothing.
//
// Paths are kept byte for byte: a path that is not UTF-8 is written as hex.
// A record or journal that cannot be read is moved aside
// ("<file>.damaged-<UTC stamp>"), with a message on standard error, and never
// read or written over again.
//
// One object per process and profile, used from one thread. Two processes do
// not write at once: changes are made only while the profile's queue is held.
// A write that fails leaves the entry in memory; nothing is thrown.
#pragma once

#include <cstddef>
#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <vector>

namespace znv::cli {

// Where a pending download is delivered: into a directory under the name
// the server or the URL suggests, or to the path the user gave.
struct Destination {
    std::string path;        // absolute
    bool directory = false;  // `path` is the directory to write into
    bool force = false;      // replace an existing file instead of numbering the new one
    // Once the file was delivered: `path` is the file written, `size` its size.
    bool delivered = false;
    int64_t size = -1;
};

class DownloadDestinations {
  public:
    // The destinations of `profile`, in znv's state directory.
    explicit DownloadDestinations(const std::string& profile);
    // Those kept in "<base>.json" and "<base>.journal".
    static DownloadDestinations atPath(const std::string& base);

    std::optional<Destination> get(const std::string& hash) const;
    // Each change is kept in memory, and written: "" once it is on disk, else
    // why it is not ("cannot record download destinations in <path>: ...").
    std::string set(const std::string& hash, const Destination& destination);
    std::string erase(const std::string& hash);
    // Forgets several at once, with one write.
    std::string erase(const std::vector<std::string>& hashes);

    // Lines in the journal (for tests and for deciding when to rewrite).
    size_t journalLines() const { return journalLines_; }

  private:
    struct AtPath {};
    DownloadDestinations(AtPath, const std::string& base);
    void load();
    // Appends `lines` (each ending in a newline) to the journal, or rewrites
    // the record when the journal has grown past it.
    std::string record(const std::string& lines, size_t count);
    bool rewrite();

    std::string recordPath_;
    std::string journalPath_;
    std::map<std::string, Destination> entries_;
    size_t journalLines_ = 0;
};

}  // namespace znv::cli
