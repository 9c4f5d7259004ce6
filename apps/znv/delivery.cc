#include "apps/znv/delivery.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstring>
#include <future>
#include <memory>
#include <mutex>
#include <random>

#include <fmt/format.h>
#include <nlohmann/json.hpp>

#include "apps/znv/names.h"
#include "znv/platform/url_request.h"
#include "znv/platform/url_session.h"

namespace znv::cli {
namespace {

std::atomic<mode_t> processUmask{022};

// Collects one data task's answer.
class AnswerDelegate : public ZNVURLSessionDelegate {
  public:
    void didReceiveData(const std::shared_ptr<ZNVURLSession>&,
                        const std::shared_ptr<ZNVURLSessionDataTask>&,
                        const ZNVBytes& data) override {
        std::lock_guard lock(mutex_);
        body_.assign(data.begin(), data.end());
    }
    void didCompleteWithError(const std::shared_ptr<ZNVURLSession>&,
                              const std::shared_ptr<ZNVURLSessionTask>& task,
                              const ZNVErrorRef& error) override {
        auto response = task->response();
        std::lock_guard lock(mutex_);
        if (!done_) {
            done_ = true;
            ok_ = !error && response && response->statusCode() == 200;
            promise_.set_value();
        }
    }
    std::future<void> future() { return promise_.get_future(); }
    std::string body() {
        std::lock_guard lock(mutex_);
        return ok_ ? body_ : std::string();
    }

  private:
    std::mutex mutex_;
    std::string body_;   // guarded by mutex_
    bool ok_ = false;    // guarded by mutex_
    bool done_ = false;  // guarded by mutex_
    std::promise<void> promise_;
};

std::string origin(const ZNVURL& url) {
    return std::string(url.scheme()) + "://" + std::string(url.host()) + ":" +
           std::string(url.port());
}

std::string errnoText(const std::string& what, const std::string& path) {
    return what + " " + path + ": " + std::strerror(errno);
}

bool copyContents(int from, int to) {
    if (::lseek(from, 0, SEEK_SET) != 0) return false;
    for (;;) {
        ssize_t n = ::copy_file_range(from, nullptr, to, nullptr, 1 << 30, 0);
        if (n == 0) return true;
        if (n > 0) continue;
        if (errno == EINTR) continue;
        if (errno != EXDEV && errno != EINVAL && errno != ENOSYS) return false;
        break;  // not supported here: plain reads and writes
    }
    char buffer[1 << 16];
    for (;;) {
        ssize_t n = ::read(from, buffer, sizeof buffer);
        if (n == 0) return true;
        if (n < 0) {
            if (errno == EINTR) continue;
            return false;
        }
        for (ssize_t written = 0; written < n;) {
            ssize_t w = ::write(to, buffer + written, static_cast<size_t>(n - written));
            if (w < 0) {
                if (errno == EINTR) continue;
                return false;
            }
            written += w;
        }
    }
}

// Puts the content of `from` (open as `source`) at `target` inside `dirfd`,
// where `placeholder` is the empty file just created there: a rename on the
// same file system, a copy across file systems.
bool moveInto(const std::string& from, int source, int dirfd, const std::string& target,
              int placeholder, mode_t mode) {
    if (::renameat(AT_FDCWD, from.c_str(), dirfd, target.c_str()) == 0) {
        ::fchmod(source, mode);
        // The library completes a download before its bytes reach the disk;
        // what znv reports as delivered is on it.
        return ::fsync(source) == 0;
    }
    if (errno != EXDEV) return false;
    if (!copyContents(source, placeholder) || ::fsync(placeholder) != 0) return false;
    ::unlink(from.c_str());
    return true;
}

}  // namespace

void rememberUmask() {
    mode_t mask = ::umask(0);
    ::umask(mask);
    processUmask = mask;
}

std::string chooseDownloadName(const std::string& contentDisposition, const std::string& serverName,
                               const ZNVURL& url) {
    std::string last = url.lastPathComponent();  // percent-decoded
    if (last == "/") last.clear();
    for (const std::string& candidate :
         {contentDispositionFilename(contentDisposition), serverName, last}) {
        std::string name = safeFileName(candidate);
        if (!name.empty()) return name;
    }
    return "download";
}

std::string fetchServiceFileName(const ZNVURL& baseURL, const std::string& token, const ZNVURL& url,
                                 std::chrono::milliseconds timeout) {
    if (origin(url) != origin(baseURL)) return {};
    std::string fileID = url.lastPathComponent();
    if (fileID.empty() || fileID == "/" || fileID.find_first_of("/?#% ") != std::string::npos) {
        return {};
    }
    std::string base = baseURL.absoluteString();
    if (base.empty() || base.back() != '/') base += '/';
    auto infoURL = ZNVURL::fromString(base + "files/" + fileID);
    if (!infoURL) return {};
    ZNVURLRequest request(*infoURL, std::chrono::duration<double>(timeout).count());
    request.setValue("Bearer " + token, "Authorization");
    request.setValue("application/json", "Accept");
    auto delegate = std::make_shared<AnswerDelegate>();
    auto future = delegate->future();
    auto session =
        ZNVURLSession::create(ZNVURLSessionConfiguration::defaultSessionConfiguration(), delegate);
    auto task = session->dataTaskWithRequest(request);
    if (!task) return {};
    task->resume();
    bool answered = future.wait_for(timeout) == std::future_status::ready;
    session->invalidateAndCancel();
    if (!answered) return {};
    auto answer = nlohmann::json::parse(delegate->body(), nullptr, false);
    if (!answer.is_object() || !answer.contains("fileName") || !answer["fileName"].is_string()) {
        return {};
    }
    return answer["fileName"].get<std::string>();
}

Delivered deliverDownload(const std::string& from, const std::string& directory,
                          const std::string& name, bool force,
                          const std::function<std::string(const std::string& path)>& chosen) {
    Delivered result;
    const mode_t mode = 0666 & ~processUmask.load();
    int dirfd = ::open(directory.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (dirfd < 0) {
        result.error = errnoText("cannot open the directory", directory);
        return result;
    }
    int source = ::open(from.c_str(), O_RDONLY | O_NOFOLLOW | O_CLOEXEC);
    if (source < 0) {
        result.error = errnoText("cannot read the downloaded file", from);
        ::close(dirfd);
        return result;
    }
    auto create = [&](const std::string& candidate) {
        return ::openat(dirfd, candidate.c_str(),
                        O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, mode);
    };
    std::string target;
    int placeholder = -1;
    struct stat existing {};
    if (force && ::fstatat(dirfd, name.c_str(), &existing, AT_SYMLINK_NOFOLLOW) == 0 &&
        !S_ISREG(existing.st_mode) && !S_ISLNK(existing.st_mode)) {
        // What took the name since the command was given is no file to replace.
        result.error = "not a regular file, so no download replaces it: " + directory +
                       (directory.ends_with('/') ? "" : "/") + name;
        ::close(source);
        ::close(dirfd);
        return result;
    }
    if (force) {
        // A fresh name beside the target, renamed over it at the end: an
        // existing symbolic link is replaced, never followed.
        std::random_device random;
        for (int attempt = 0; attempt < 100 && placeholder < 0; ++attempt) {
            target = fmt::format(".znv-download-{:08x}", random());
            placeholder = create(target);
            if (placeholder < 0 && errno != EEXIST) break;
        }
    } else {
        for (int n = 0; n < 10000 && placeholder < 0; ++n) {
            target = n == 0 ? name : numberedFileName(name, n);
            placeholder = create(target);
            if (placeholder < 0 && errno != EEXIST) break;
        }
    }
    std::string shown = directory + (directory.ends_with('/') ? "" : "/") + (force ? name : target);
    if (placeholder < 0) {
        result.error = errnoText("cannot create", shown);
    } else if (std::string refused = chosen ? chosen(shown) : std::string(); !refused.empty()) {
        result.error = refused;
        ::unlinkat(dirfd, target.c_str(), 0);
    } else if (!moveInto(from, source, dirfd, target, placeholder, mode)) {
        result.error = errnoText("cannot write", shown);
        ::unlinkat(dirfd, target.c_str(), 0);
    } else if (force && ::renameat(dirfd, target.c_str(), dirfd, name.c_str()) != 0) {
        result.error = errnoText("cannot replace", shown);
        ::unlinkat(dirfd, target.c_str(), 0);
    } else if (::fsync(dirfd) != 0) {
        result.error = errnoText("cannot write", shown);
    } else {
        result.path = shown;
    }
    if (placeholder >= 0) ::close(placeholder);
    ::close(source);
    ::close(dirfd);
    return result;
}

}  // namespace znv::cli
