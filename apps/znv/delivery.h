// Where a finished download goes, and under which name.
//
// The name comes from the server's Content-Disposition, else from the
// service's information request (for a content URL of the server znv talks
// to), else from the URL's last segment, else from the file ID, else
// "download"; whatever it is, it passes `safeFileName` (names.h) and becomes
// exactly one component inside the target directory. The file is created
// there with openat(O_CREAT | O_EXCL | O_NOFOLLOW), so nothing is followed or
// overwritten: an existing file is kept and the new one is named
// "name (1).ext", "name (2).ext" ... unless `force` is given, in which case the
// new file replaces the old one by a rename. Files get mode 0666 less the
// umask, read once at start-up by `rememberUmask`.
// Main thread only (the information request waits for its answer).
#pragma once

#include <chrono>
#include <functional>
#include <string>

#include "znv/platform/url.h"

namespace znv::cli {

// Reads the process's umask; call once before any thread starts.
void rememberUmask();

// The name a download of `url` gets; `contentDisposition` and `serverName`
// may be empty.
std::string chooseDownloadName(const std::string& contentDisposition, const std::string& serverName,
                               const ZNVURL& url);

// The "fileName" the service's information request gives for the file that
// `url` serves, when `url` lies on the same origin as `baseURL`; "" when it is
// not a service URL or the answer does not come within `timeout`.
std::string fetchServiceFileName(const ZNVURL& baseURL, const std::string& token, const ZNVURL& url,
                                 std::chrono::milliseconds timeout);

struct Delivered {
    std::string path;   // the file written
    std::string error;  // empty on success
};

// Moves (or copies across file systems) the file `from` into `directory`
// under `name` (a safe component) and removes `from`. Once the path it will
// write is chosen (and taken by an empty placeholder) and before any byte
// moves, `chosen` is called with it: a caller that records it can deliver to
// the same path again after a crash instead of to a new numbered name. A
// `chosen` that answers a problem (not "") stops the delivery with it, and
// the placeholder goes.
Delivered deliverDownload(const std::string& from, const std::string& directory,
                          const std::string& name, bool force,
                          const std::function<std::string(const std::string& path)>& chosen = {});

}  // namespace znv::cli
