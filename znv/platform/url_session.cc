#include "znv/platform/url_session.h"

#include <curl/curl.h>
#include <fcntl.h>
#include <pthread.h>
#include <strings.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <map>
#include <thread>

#include <fmt/format.h>
#include "znv/platform/filesystem.h"
#include "znv/platform/url_session_resume_data.h"

namespace znv {

namespace {

using Clock = std::chrono::steady_clock;

// Progress callbacks are sent after this many new bytes, but not sooner than
// kProgressMinimumInterval after the previous one, or this long after it
// whatever the count; the final figure is always sent. A fast transfer thus
// posts a callback every few milliseconds, not one per 64 KiB.
constexpr int64_t kProgressBytes = 64 * 1024;
constexpr auto kProgressMinimumInterval = std::chrono::milliseconds(10);
constexpr auto kProgressInterval = std::chrono::milliseconds(100);
// A download's body is gathered into blocks of this size before it is
// written: libcurl hands it over 16 KiB at a time.
constexpr size_t kDownloadWriteBlock = 1024 * 1024;
// Large socket buffers: loopback and fast links are limited by per-call
// overhead with libcurl's 16 KiB / 64 KiB defaults. The upload buffer stays
// well inside a core's cache: each block is read from the file and copied
// to the socket while still there (2 MiB sent a GiB a fifth slower).
constexpr long kUploadBufferSize = 512 * 1024;
constexpr long kReceiveBufferSize = 512 * 1024;
constexpr long kMaximumRedirects = 16;

bool progressIsDue(int64_t newBytes, Clock::duration sincePrevious) {
    return sincePrevious >= kProgressInterval ||
           (newBytes >= kProgressBytes && sincePrevious >= kProgressMinimumInterval);
}
constexpr int64_t kURLErrorHTTPTooManyRedirects = -1007;
const char* const kUserAgent = "ZNVStorage/0.1";

void initializeCurlOnce() {
    static std::once_flag once;
    std::call_once(once, [] { curl_global_init(CURL_GLOBAL_DEFAULT); });
}

std::string trim(const std::string& text) {
    size_t begin = 0;
    size_t end = text.size();
    while (begin < end && (text[begin] == ' ' || text[begin] == '\t'))
        ++begin;
    while (end > begin && (text[end - 1] == ' ' || text[end - 1] == '\t' || text[end - 1] == '\r' ||
                           text[end - 1] == '\n')) {
        --end;
    }
    return text.substr(begin, end - begin);
}

ZNVErrorRef makeURLError(int64_t code, const std::string& description, const std::string& url,
                         ZNVUserInfo extra = {}) {
    ZNVUserInfo info = std::move(extra);
    info[NSLocalizedDescriptionKey] = description;
    info[NSURLErrorFailingURLStringErrorKey] = url;
    if (auto parsed = ZNVURL::fromString(url)) info[NSURLErrorFailingURLErrorKey] = *parsed;
    return ZNVError::make(NSURLErrorDomain, code, std::move(info));
}

ZNVErrorRef cancelledError(const std::string& url, const ZNVBytes& resumeData = {}) {
    ZNVUserInfo extra;
    if (!resumeData.empty()) extra[NSURLSessionDownloadTaskResumeData] = resumeData;
    return makeURLError(NSURLErrorCancelled, "cancelled", url, std::move(extra));
}

// Opens a fresh download file (mode 0600); -1 on failure.
int createDownloadFile(std::string* path, const std::string& tag = {}) {
    std::string dir = ZNVPrivateTemporaryDirectory();
    if (dir.empty()) return -1;
    const bool tagged = ZNVURLSessionResumeData::isPlainTag(tag);
    std::string pattern = dir + "/ZNVDownload-" + (tagged ? tag + "-" : "") + "XXXXXX";
    std::vector<char> buffer(pattern.begin(), pattern.end());
    buffer.push_back('\0');
    int fd = mkostemp(buffer.data(), O_CLOEXEC);
    if (fd < 0) return -1;
    // The transfer writing a file holds a lock on it, so that resume data read
    // back while it still runs never starts a second writer on the same file.
    flock(fd, LOCK_EX | LOCK_NB);
    *path = buffer.data();
    return fd;
}

const char* kindName(ZNVURLSessionTask::Kind kind) {
    switch (kind) {
        case ZNVURLSessionTask::Kind::Data:
            return "ZNVURLSessionDataTask";
        case ZNVURLSessionTask::Kind::Upload:
            return "ZNVURLSessionUploadTask";
        case ZNVURLSessionTask::Kind::Download:
            return "ZNVURLSessionDownloadTask";
    }
    return "ZNVURLSessionTask";
}

const char* stateName(int64_t state) {
    switch (state) {
        case ZNVURLSessionTaskStateRunning:
            return "running";
        case ZNVURLSessionTaskStateSuspended:
            return "suspended";
        case ZNVURLSessionTaskStateCanceling:
            return "canceling";
        case ZNVURLSessionTaskStateCompleted:
            return "completed";
        default:
            return "unknown";
    }
}

bool isStrongValidator(const std::string& etag) {
    return !etag.empty() && etag.rfind("W/", 0) != 0;
}

}  // namespace

// ---------------------------------------------------------------------------
// Delegate defaults

void ZNVURLSessionDelegate::didBecomeInvalidWithError(const std::shared_ptr<ZNVURLSession>&,
                                                      const ZNVErrorRef&) {}
void ZNVURLSessionDelegate::didCompleteWithError(const std::shared_ptr<ZNVURLSession>&,
                                                 const std::shared_ptr<ZNVURLSessionTask>&,
                                                 const ZNVErrorRef&) {}
void ZNVURLSessionDelegate::didSendBodyData(const std::shared_ptr<ZNVURLSession>&,
                                            const std::shared_ptr<ZNVURLSessionTask>&, int64_t,
                                            int64_t, int64_t) {}
void ZNVURLSessionDelegate::didReceiveData(const std::shared_ptr<ZNVURLSession>&,
                                           const std::shared_ptr<ZNVURLSessionDataTask>&,
                                           const ZNVBytes&) {}
void ZNVURLSessionDelegate::didResumeAtOffset(const std::shared_ptr<ZNVURLSession>&,
                                              const std::shared_ptr<ZNVURLSessionDownloadTask>&,
                                              int64_t, int64_t) {}
void ZNVURLSessionDelegate::didWriteData(const std::shared_ptr<ZNVURLSession>&,
                                         const std::shared_ptr<ZNVURLSessionDownloadTask>&, int64_t,
                                         int64_t, int64_t) {}
void ZNVURLSessionDelegate::didFinishDownloadingToURL(
    const std::shared_ptr<ZNVURLSession>&, const std::shared_ptr<ZNVURLSessionDownloadTask>&,
    const ZNVURL&) {}
void ZNVURLSessionDelegate::didFinishDownloadingData(
    const std::shared_ptr<ZNVURLSession>& session,
    const std::shared_ptr<ZNVURLSessionDownloadTask>& downloadTask, const ZNVBytes& data, int64_t) {
    std::string path;
    const int fd = createDownloadFile(&path);
    if (fd < 0) return;
    const bool written = ZNVWriteAll(fd, data.data(), data.size());
    close(fd);
    if (written) didFinishDownloadingToURL(session, downloadTask, ZNVURL::fileURL(path));
    unlink(path.c_str());
}
void ZNVURLSessionDelegate::didFinishEventsForBackgroundURLSession(
    const std::shared_ptr<ZNVURLSession>&) {}

// ---------------------------------------------------------------------------
// Configuration

ZNVURLSessionConfiguration ZNVURLSessionConfiguration::defaultSessionConfiguration() {
    return ZNVURLSessionConfiguration{};
}

// ---------------------------------------------------------------------------
// Tasks

ZNVURLSessionTask::ZNVURLSessionTask(Kind kind, uint64_t identifier, ZNVURLRequest request,
                                     std::weak_ptr<ZNVURLSession> session)
    : kind_(kind),
      taskIdentifier_(identifier),
      originalRequest_(std::move(request)),
      session_(std::move(session)) {
    if (!originalRequest_.HTTPBody().empty()) {
        bytesExpectedToSend_ = static_cast<int64_t>(originalRequest_.HTTPBody().size());
    }
}

ZNVURLSessionTask::~ZNVURLSessionTask() = default;

std::string ZNVURLSessionTask::taskDescription() const {
    std::lock_guard guard(mutex_);
    return description_;
}

void ZNVURLSessionTask::setTaskDescription(std::string description) {
    std::lock_guard guard(mutex_);
    description_ = std::move(description);
}

std::shared_ptr<const ZNVHTTPURLResponse> ZNVURLSessionTask::response() const {
    std::lock_guard guard(mutex_);
    return response_;
}

ZNVErrorRef ZNVURLSessionTask::error() const {
    std::lock_guard guard(mutex_);
    return error_;
}

void ZNVURLSessionTask::setState(int64_t state) {
    if (state_.load() == state) return;
    willChangeValueForKey("state");
    state_.store(state);
    didChangeValueForKey("state");
}

void ZNVURLSessionTask::resume() {
    {
        std::lock_guard guard(transitionMutex_);
        if (started_ || cancelRequested_) return;
        started_ = true;
        setState(ZNVURLSessionTaskStateRunning);
    }
    if (auto session = session_.lock()) session->taskResumed(shared_from_this());
}

bool ZNVURLSessionTask::requestCancel() {
    std::lock_guard guard(transitionMutex_);
    if (cancelRequested_ || state_.load() == ZNVURLSessionTaskStateCompleted) return false;
    cancelRequested_ = true;
    setState(ZNVURLSessionTaskStateCanceling);
    return true;
}

void ZNVURLSessionTask::cancel() {
    if (!requestCancel()) return;
    if (auto session = session_.lock()) session->taskCancelled(shared_from_this(), nullptr);
}

std::string ZNVURLSessionTask::description() const {
    return fmt::format("<{}: {}> {{ taskIdentifier: {}, state: {} }}", kindName(kind_),
                       static_cast<const void*>(this), taskIdentifier_, stateName(state_.load()));
}

ZNVURLSessionUploadTask::ZNVURLSessionUploadTask(uint64_t identifier, ZNVURLRequest request,
                                                 ZNVURL fileURL,
                                                 std::weak_ptr<ZNVURLSession> session)
    : ZNVURLSessionDataTask(Kind::Upload, identifier, std::move(request), std::move(session)),
      fileURL_(std::move(fileURL)) {
    struct stat info {};
    if (stat(fileURL_.path().c_str(), &info) == 0) bytesExpectedToSend_ = info.st_size;
}

ZNVURLSessionDownloadTask::ZNVURLSessionDownloadTask(uint64_t identifier, ZNVURLRequest request,
                                                     ZNVBytes resumeData,
                                                     std::weak_ptr<ZNVURLSession> session)
    : ZNVURLSessionTask(Kind::Download, identifier, std::move(request), std::move(session)),
      resumeData_(std::move(resumeData)) {}

ZNVBytes ZNVURLSessionDownloadTask::runningResumeData() {
    std::lock_guard guard(runningMutex_);
    return runningResumeData_;
}

void ZNVURLSessionDownloadTask::cancelByProducingResumeData(ResumeDataHandler completionHandler) {
    bool cancelling = requestCancel();
    auto session = owningSession();
    if (!session) return;
    if (!cancelling) {
        if (completionHandler) {
            session->delegateQueue()->addOperation(
                [handler = std::move(completionHandler)] { handler(ZNVBytes{}); });
        }
        return;
    }
    session->taskCancelled(shared_from_this(), std::move(completionHandler));
}

// ---------------------------------------------------------------------------
// The engine

namespace {

struct Command {
    enum class Type { Register, Start, Cancel, InvalidateAndCancel, FinishAndInvalidate };
    Type type;
    std::shared_ptr<ZNVURLSessionTask> task;
    ZNVURLSessionDownloadTask::ResumeDataHandler resumeDataHandler;
};

}  // namespace

struct ZNVURLSession::Core {
    // One transfer on the wire; lives on the I/O thread only.
    struct Transfer {
        Core* core = nullptr;
        std::shared_ptr<ZNVURLSessionTask> task;
        CURL* easy = nullptr;
        curl_slist* headerList = nullptr;
        char errorBuffer[CURL_ERROR_SIZE] = {};
        std::string url;

        // The newest response head (a redirect or a 1xx head is replaced by the next).
        int64_t status = 0;
        ZNVHTTPHeaderFields headers;
        bool bodyBegun = false;

        // Upload body, read from a file.
        int inFd = -1;
        int64_t inSize = 0;
        int64_t inOffset = 0;
        bool readFailed = false;

        // Response body of data and upload tasks.
        ZNVBytes body;
        bool bodyTooLarge = false;

        // Download body kept in memory (in `body`, up to this limit; 0: a
        // file); `fileSize` counts every byte that arrived.
        uint64_t inMemoryLimit = 0;

        // Download file.
        int outFd = -1;
        std::string outPath;
        int64_t requestedOffset = 0;  // what "Range" asked for (0: no range)
        int64_t fileSize = 0;         // bytes in the file now
        std::vector<char> pending;    // received bytes not yet written after them
        int64_t expectedTotal = ZNVURLSessionTransferSizeUnknown;
        bool writeFailed = false;
        bool badRange = false;
        // The resume data a ranged request was made from; handed back when
        // the transfer ends before the server sent any of the rest, or with
        // an answer that is not the body (the partial file is left alone).
        ZNVBytes resumedFrom;
        bool keepPartial = false;
        // The whole body the resume data promised, when it knew it.
        int64_t resumedTotal = ZNVURLSessionTransferSizeUnknown;
        // A 416 said the partial file already holds the whole body: it is the
        // download, and the 416's own body is dropped.
        bool partialIsWhole = false;
        std::string etag;
        std::string lastModified;
        bool acceptsRanges = false;
        // Where the range of a 206 ends in the file (-1: no 206), and where
        // the whole body does when its "Content-Range" names the length. A
        // body that stops before the whole body's end is a transfer cut short.
        int64_t rangeEnd = -1;
        int64_t rangeTotal = -1;
        bool cutShort = false;

        // Redirects followed when the request last went out (-1: not yet),
        // and whether libcurl was stopped from sending it again by itself.
        long requestedAtRedirect = -1;
        bool resendRefused = false;

        // Progress and inactivity.
        Clock::time_point lastActivity = Clock::now();
        Clock::duration idleTimeout = Clock::duration::max();
        int64_t ulNow = 0;
        int64_t dlNow = 0;
        int64_t postedSent = 0;
        Clock::time_point sentPostedAt = Clock::now();
        int64_t postedWritten = 0;
        Clock::time_point writtenPostedAt = Clock::now();

        ~Transfer() {
            if (easy != nullptr) curl_easy_cleanup(easy);
            if (headerList != nullptr) curl_slist_free_all(headerList);
            if (inFd >= 0) close(inFd);
            if (outFd >= 0) close(outFd);
            if (!outPath.empty()) unlink(outPath.c_str());
        }
    };

    struct Entry {
        std::shared_ptr<ZNVURLSessionTask> task;
        std::unique_ptr<Transfer> transfer;
    };

    enum class Ending { None, WhenIdle, Now };

    explicit Core(ZNVURLSession* owner, std::shared_ptr<ZNVURLSessionDelegate> delegate)
        : owner(owner), delegate(std::move(delegate)) {}

    ZNVURLSession* const owner;

    std::mutex mutex;                                 // guards the members down to `ioRunning`
    std::shared_ptr<ZNVURLSessionDelegate> delegate;  // released after didBecomeInvalid
    std::string sessionDescription;
    // Tasks created and whose completion has not been delivered yet.
    std::map<uint64_t, std::shared_ptr<ZNVURLSessionTask>> liveTasks;
    std::deque<Command> commands;
    // A wake-up of the I/O thread is on its way: commands added meanwhile are
    // taken by the same turn, so they send no wake-up of their own.
    bool wakeUpPending = false;
    uint64_t nextTaskIdentifier = 1;
    bool invalidated = false;  // no new tasks
    bool ioRunning = false;    // the I/O thread accepts commands
    CURLM* multi = nullptr;    // cleaned up by the I/O thread under `mutex`

    std::thread thread;

    using Callback = std::function<void(const std::shared_ptr<ZNVURLSession>& session,
                                        ZNVURLSessionDelegate* delegate)>;

    // I/O thread only.
    std::shared_ptr<ZNVURLSession> self;  // keeps the session alive until invalid
    std::map<uint64_t, Entry> entries;    // tasks the I/O thread has not finished
    std::vector<Callback> outbox;         // callbacks of this turn of the loop, in order
    Ending ending = Ending::None;

    // --- called from any thread
    void push(Command command) {
        std::lock_guard guard(mutex);
        if (!ioRunning) return;
        queueCommand(std::move(command));
    }

    // Adds a command and wakes the I/O thread unless a wake-up is pending or
    // the command can wait for the thread's next turn (`wake` false: nothing
    // is asked of the network until a later command that wakes it). Under
    // `mutex`.
    void queueCommand(Command command, bool wake = true) {
        commands.push_back(std::move(command));
        if (!wake || wakeUpPending) return;
        wakeUpPending = true;
        curl_multi_wakeup(multi);
    }

    // --- I/O thread
    // Callbacks are kept until the end of the loop's turn and handed to the
    // delegate queue as one operation: a finished request gives three or four
    // of them, and one hand-over wakes the queue's thread once, not each time.
    void post(Callback callback) { outbox.push_back(std::move(callback)); }

    void flushOutbox() {
        if (outbox.empty()) return;
        std::vector<Callback> callbacks;
        callbacks.swap(outbox);
        auto session = self;
        owner->delegateQueue_->addOperation([session, callbacks = std::move(callbacks)] {
            for (const Callback& callback : callbacks) {
                // Read for each callback: the last one of a session lets go of
                // the delegate.
                std::shared_ptr<ZNVURLSessionDelegate> delegate;
                {
                    std::lock_guard guard(session->core_->mutex);
                    delegate = session->core_->delegate;
                }
                callback(session, delegate.get());
            }
        });
    }

    void run();
    void processCommands();
    void startTransfer(Entry& entry);
    ZNVErrorRef setUp(Transfer& transfer);
    void transferDone(uint64_t identifier, CURLcode code);
    void cancelEntry(uint64_t identifier, ZNVURLSessionDownloadTask::ResumeDataHandler handler);
    void failEntry(uint64_t identifier, ZNVErrorRef error);
    void tick();
    void deliverCompletion(const std::shared_ptr<ZNVURLSessionTask>& task, ZNVErrorRef error);

    static size_t onHeader(char* buffer, size_t size, size_t count, void* userdata);
    static size_t onWrite(char* data, size_t size, size_t count, void* userdata);
    static size_t onRead(char* buffer, size_t size, size_t count, void* userdata);
    static int onSeek(void* userdata, curl_off_t offset, int origin);
    static int onProgress(void* userdata, curl_off_t dltotal, curl_off_t dlnow, curl_off_t ultotal,
                          curl_off_t ulnow);
    static int onRequest(void* userdata, char* primaryIP, char* localIP, int primaryPort,
                         int localPort);

    bool beginBody(Transfer& transfer);
    void postSentProgress(Transfer& transfer, bool final);
    void postWrittenProgress(Transfer& transfer, bool final);
    std::string failingURL(const Transfer& transfer) const;
    ZNVErrorRef errorFor(Transfer& transfer, CURLcode code) const;
    ZNVBytes resumeDataFor(Transfer& transfer);
    ZNVBytes describeFile(const Transfer& transfer, bool growing);
    static bool writePending(Transfer& transfer);
};

// ---------------------------------------------------------------------------
// Session: creation, tasks, invalidation (any thread)

ZNVURLSession::ZNVURLSession(const ZNVURLSessionConfiguration& configuration,
                             std::shared_ptr<ZNVURLSessionDelegate> delegate,
                             std::shared_ptr<ZNVOperationQueue> delegateQueue)
    : configuration_(configuration),
      delegateQueue_(delegateQueue ? std::move(delegateQueue)
                                   : std::make_shared<ZNVOperationQueue>("ZNVURLSession")),
      core_(std::make_unique<Core>(this, std::move(delegate))) {}

std::shared_ptr<ZNVURLSession> ZNVURLSession::create(
    const ZNVURLSessionConfiguration& configuration,
    std::shared_ptr<ZNVURLSessionDelegate> delegate,
    std::shared_ptr<ZNVOperationQueue> delegateQueue) {
    initializeCurlOnce();
    std::shared_ptr<ZNVURLSession> session(
        new ZNVURLSession(configuration, std::move(delegate), std::move(delegateQueue)));
    CURLM* multi = curl_multi_init();
    if (multi == nullptr) return nullptr;
    curl_multi_setopt(
        multi, CURLMOPT_MAX_HOST_CONNECTIONS,
        static_cast<long>(std::max<int64_t>(configuration.HTTPMaximumConnectionsPerHost, 1)));
    curl_multi_setopt(
        multi, CURLMOPT_PIPELINING,
        configuration.HTTPShouldUsePipelining ? CURLPIPE_MULTIPLEX : CURLPIPE_NOTHING);
    session->core_->multi = multi;
    session->start();
    return session;
}

void ZNVURLSession::start() {
    Core* core = core_.get();
    core->self = shared_from_this();
    core->ioRunning = true;
    core->thread = std::thread([core] {
        pthread_setname_np(pthread_self(), "ZNVURLSessionIO");
        core->run();
    });
}

ZNVURLSession::~ZNVURLSession() {
    if (core_->thread.joinable()) {
        if (core_->thread.get_id() == std::this_thread::get_id()) {
            core_->thread.detach();
        } else {
            core_->thread.join();
        }
    }
}

std::shared_ptr<ZNVURLSessionDelegate> ZNVURLSession::delegate() const {
    std::lock_guard guard(core_->mutex);
    return core_->delegate;
}

std::string ZNVURLSession::sessionDescription() const {
    std::lock_guard guard(core_->mutex);
    return core_->sessionDescription;
}

void ZNVURLSession::setSessionDescription(std::string description) {
    std::lock_guard guard(core_->mutex);
    core_->sessionDescription = std::move(description);
}

std::string ZNVURLSession::description() const {
    std::string text = sessionDescription();
    return fmt::format("<ZNVURLSession: {}>{}", static_cast<const void*>(this),
                       text.empty() ? std::string() : " " + text);
}

bool ZNVURLSession::isInvalidated() const {
    std::lock_guard guard(core_->mutex);
    return core_->invalidated;
}

template <class T>
std::shared_ptr<T> ZNVURLSession::registerTask(std::shared_ptr<T> task) {
    // The caller made the task under `core_->mutex` with the identifier it took.
    // A new task is suspended: the I/O thread learns of it with the command
    // that resumes or cancels it, so creating and resuming a task costs one
    // wake-up of that thread, not two.
    core_->liveTasks.emplace(task->taskIdentifier(), task);
    core_->queueCommand(Command{Command::Type::Register, task, nullptr}, false);
    return task;
}

std::shared_ptr<ZNVURLSessionDataTask> ZNVURLSession::dataTaskWithRequest(
    const ZNVURLRequest& request) {
    std::lock_guard guard(core_->mutex);
    if (core_->invalidated || !core_->ioRunning) return nullptr;
    std::shared_ptr<ZNVURLSessionDataTask> task(new ZNVURLSessionDataTask(
        ZNVURLSessionTask::Kind::Data, core_->nextTaskIdentifier++, request, weak_from_this()));
    return registerTask(std::move(task));
}

std::shared_ptr<ZNVURLSessionUploadTask> ZNVURLSession::uploadTaskWithRequest(
    const ZNVURLRequest& request, const ZNVURL& fromFile) {
    std::lock_guard guard(core_->mutex);
    if (core_->invalidated || !core_->ioRunning) return nullptr;
    std::shared_ptr<ZNVURLSessionUploadTask> task(new ZNVURLSessionUploadTask(
        core_->nextTaskIdentifier++, request, fromFile, weak_from_this()));
    return registerTask(std::move(task));
}

std::shared_ptr<ZNVURLSessionDownloadTask> ZNVURLSession::downloadTaskWithRequest(
    const ZNVURLRequest& request) {
    std::lock_guard guard(core_->mutex);
    if (core_->invalidated || !core_->ioRunning) return nullptr;
    std::shared_ptr<ZNVURLSessionDownloadTask> task(
        new ZNVURLSessionDownloadTask(core_->nextTaskIdentifier++, request, {}, weak_from_this()));
    return registerTask(std::move(task));
}

std::shared_ptr<ZNVURLSessionDownloadTask> ZNVURLSession::downloadTaskWithURL(const ZNVURL& url) {
    return downloadTaskWithRequest(ZNVURLRequest(url));
}

std::shared_ptr<ZNVURLSessionDownloadTask> ZNVURLSession::downloadTaskWithResumeData(
    const ZNVBytes& resumeData, ZNVErrorRef* error) {
    auto info = ZNVURLSessionResumeData::decode(resumeData);
    if (!info) {
        if (error != nullptr) {
            *error = ZNVError::make(
                NSURLErrorDomain, NSURLErrorUnknown,
                {{NSLocalizedDescriptionKey, std::string("the resume data cannot be read")}});
        }
        return nullptr;
    }
    ZNVURLRequest request(ZNVURL::fromString(info->url).value_or(ZNVURL()));
    request.setHTTPMethod(info->method);
    for (const auto& [name, value] : info->headers)
        request.setValue(value, name);
    std::lock_guard guard(core_->mutex);
    if (core_->invalidated || !core_->ioRunning) return nullptr;
    std::shared_ptr<ZNVURLSessionDownloadTask> task(new ZNVURLSessionDownloadTask(
        core_->nextTaskIdentifier++, std::move(request), resumeData, weak_from_this()));
    return registerTask(std::move(task));
}

void ZNVURLSession::getTasksWithCompletionHandler(TasksHandler completionHandler) {
    if (!completionHandler) return;
    Core* core = core_.get();
    auto self = shared_from_this();
    delegateQueue_->addOperation([self, core, handler = std::move(completionHandler)] {
        std::vector<std::shared_ptr<ZNVURLSessionTask>> live;
        {
            std::lock_guard guard(core->mutex);
            for (const auto& [identifier, task] : core->liveTasks)
                live.push_back(task);
        }
        std::vector<std::shared_ptr<ZNVURLSessionDataTask>> dataTasks;
        std::vector<std::shared_ptr<ZNVURLSessionUploadTask>> uploadTasks;
        std::vector<std::shared_ptr<ZNVURLSessionDownloadTask>> downloadTasks;
        for (const auto& task : live) {
            switch (task->kind()) {
                case ZNVURLSessionTask::Kind::Data:
                    dataTasks.push_back(std::static_pointer_cast<ZNVURLSessionDataTask>(task));
                    break;
                case ZNVURLSessionTask::Kind::Upload:
                    uploadTasks.push_back(std::static_pointer_cast<ZNVURLSessionUploadTask>(task));
                    break;
                case ZNVURLSessionTask::Kind::Download:
                    downloadTasks.push_back(
                        std::static_pointer_cast<ZNVURLSessionDownloadTask>(task));
                    break;
            }
        }
        handler(dataTasks, uploadTasks, downloadTasks);
    });
}

void ZNVURLSession::invalidateAndCancel() {
    {
        std::lock_guard guard(core_->mutex);
        core_->invalidated = true;
    }
    core_->push(Command{Command::Type::InvalidateAndCancel, nullptr, nullptr});
}

void ZNVURLSession::finishTasksAndInvalidate() {
    {
        std::lock_guard guard(core_->mutex);
        core_->invalidated = true;
    }
    core_->push(Command{Command::Type::FinishAndInvalidate, nullptr, nullptr});
}

void ZNVURLSession::taskResumed(const std::shared_ptr<ZNVURLSessionTask>& task) {
    core_->push(Command{Command::Type::Start, task, nullptr});
}

void ZNVURLSession::taskCancelled(const std::shared_ptr<ZNVURLSessionTask>& task,
                                  ZNVURLSessionDownloadTask::ResumeDataHandler resumeDataHandler) {
    bool accepted = false;
    {
        std::lock_guard guard(core_->mutex);
        if (core_->ioRunning) {
            core_->queueCommand(Command{Command::Type::Cancel, task, std::move(resumeDataHandler)});
            accepted = true;
        }
    }
    // After invalidation every task has completed already; the handler still
    // gets its (empty) answer.
    if (!accepted && resumeDataHandler) {
        delegateQueue_->addOperation(
            [handler = std::move(resumeDataHandler)] { handler(ZNVBytes{}); });
    }
}

// ---------------------------------------------------------------------------
// The I/O thread

void ZNVURLSession::Core::run() {
    while (true) {
        processCommands();
        if (ending == Ending::Now) {
            std::vector<uint64_t> identifiers;
            for (const auto& [identifier, entry] : entries)
                identifiers.push_back(identifier);
            for (uint64_t identifier : identifiers)
                cancelEntry(identifier, nullptr);
            break;
        }
        if (ending == Ending::WhenIdle && entries.empty()) break;

        int running = 0;
        curl_multi_perform(multi, &running);
        int queued = 0;
        while (CURLMsg* message = curl_multi_info_read(multi, &queued)) {
            if (message->msg != CURLMSG_DONE) continue;
            Transfer* transfer = nullptr;
            curl_easy_getinfo(message->easy_handle, CURLINFO_PRIVATE, &transfer);
            CURLcode code = message->data.result;
            if (transfer != nullptr) transferDone(transfer->task->taskIdentifier(), code);
        }
        tick();
        if (ending == Ending::WhenIdle && entries.empty()) break;

        bool active = std::any_of(entries.begin(), entries.end(),
                                  [](const auto& item) { return item.second.transfer != nullptr; });
        long curlTimeout = -1;
        curl_multi_timeout(multi, &curlTimeout);
        int timeoutMs = active ? 100 : 60000;
        if (curlTimeout >= 0) timeoutMs = static_cast<int>(std::min<long>(timeoutMs, curlTimeout));
        flushOutbox();
        curl_multi_poll(multi, nullptr, 0, timeoutMs, nullptr);
    }

    // Every task has completed. Refuse further commands, tell the delegate,
    // then let go of the session.
    entries.clear();
    std::deque<Command> late;
    {
        std::lock_guard guard(mutex);
        ioRunning = false;
        invalidated = true;
        late.swap(commands);
        curl_multi_cleanup(multi);
        multi = nullptr;
    }
    // A cancel that raced with the end still hears that there is nothing to
    // resume from.
    for (auto& command : late) {
        if (command.type == Command::Type::Cancel && command.resumeDataHandler) {
            post([handler = std::move(command.resumeDataHandler)](
                     const std::shared_ptr<ZNVURLSession>&, ZNVURLSessionDelegate*) {
                handler(ZNVBytes{});
            });
        }
    }
    post([](const std::shared_ptr<ZNVURLSession>& session, ZNVURLSessionDelegate* delegate) {
        if (delegate != nullptr) delegate->didBecomeInvalidWithError(session, nullptr);
        std::shared_ptr<ZNVURLSessionDelegate> released;
        {
            std::lock_guard guard(session->core_->mutex);
            released.swap(session->core_->delegate);
        }
    });
    flushOutbox();
    // May destroy the session, whose destructor then detaches this thread.
    std::shared_ptr<ZNVURLSession> last = std::move(self);
    last.reset();
}

void ZNVURLSession::Core::processCommands() {
    std::deque<Command> batch;
    {
        std::lock_guard guard(mutex);
        batch.swap(commands);
        // Commands from now on need a wake-up of their own: this turn may
        // already be past them.
        wakeUpPending = false;
    }
    for (auto& command : batch) {
        switch (command.type) {
            case Command::Type::Register:
                entries[command.task->taskIdentifier()].task = command.task;
                break;
            case Command::Type::Start: {
                if (ending == Ending::Now) break;
                auto it = entries.find(command.task->taskIdentifier());
                if (it != entries.end() && it->second.transfer == nullptr)
                    startTransfer(it->second);
                break;
            }
            case Command::Type::Cancel:
                cancelEntry(command.task->taskIdentifier(), std::move(command.resumeDataHandler));
                break;
            case Command::Type::InvalidateAndCancel:
                ending = Ending::Now;
                break;
            case Command::Type::FinishAndInvalidate:
                if (ending == Ending::None) ending = Ending::WhenIdle;
                break;
        }
    }
}

void ZNVURLSession::Core::startTransfer(Entry& entry) {
    auto transfer = std::make_unique<Transfer>();
    transfer->core = this;
    transfer->task = entry.task;
    uint64_t identifier = entry.task->taskIdentifier();
    if (ZNVErrorRef error = setUp(*transfer)) {
        entry.transfer = std::move(transfer);
        failEntry(identifier, std::move(error));
        return;
    }
    if (curl_multi_add_handle(multi, transfer->easy) != CURLM_OK) {
        entry.transfer = std::move(transfer);
        failEntry(identifier, makeURLError(NSURLErrorUnknown, "the transfer could not be started",
                                           entry.transfer->url));
        return;
    }
    entry.transfer = std::move(transfer);
}

ZNVErrorRef ZNVURLSession::Core::setUp(Transfer& t) {
    const ZNVURLSessionTask& task = *t.task;
    const ZNVURLRequest& request = task.originalRequest();
    const ZNVURLSessionConfiguration& configuration = owner->configuration_;
    t.url = request.URL().absoluteString();

    if (t.url.empty()) return makeURLError(NSURLErrorBadURL, "bad URL", t.url);
    const std::string scheme(request.URL().scheme());
    if (scheme != "http" && scheme != "https") {
        return makeURLError(NSURLErrorUnsupportedURL, "unsupported URL", t.url);
    }

    double idle = configuration.timeoutIntervalForRequest;
    if (request.timeoutInterval() > 0 && (idle <= 0 || request.timeoutInterval() < idle)) {
        idle = request.timeoutInterval();
    }
    if (idle > 0) {
        t.idleTimeout =
            std::chrono::duration_cast<Clock::duration>(std::chrono::duration<double>(idle));
    }

    // Merge the configuration's extra headers under the request's own.
    ZNVHTTPHeaderFields headers = configuration.HTTPAdditionalHeaders;
    for (const auto& [name, value] : request.allHTTPHeaderFields())
        headers[name] = value;
    // libcurl adds "Expect: 100-continue" to large uploads and "Accept: */*"
    // to every request: only what the request asks for goes on the wire.
    std::vector<std::string> withoutDefault;
    for (const char* name : {"Expect", "Accept"}) {
        if (headers.find(name) == headers.end()) withoutDefault.emplace_back(name);
    }

    // The body source.
    const std::string& method = request.HTTPMethod();
    if (task.kind() == ZNVURLSessionTask::Kind::Upload) {
        const auto& upload = static_cast<const ZNVURLSessionUploadTask&>(task);
        std::string path = upload.fileURL().path();
        // Only a regular file: a FIFO would hold this thread in open().
        ZNVRegularFile body;
        if (upload.fileURL().isFileURL()) body = ZNVOpenRegularFile(path, O_RDONLY);
        t.inFd = body.fd;
        if (t.inFd < 0) {
            return makeURLError(NSURLErrorCannotOpenFile,
                                fmt::format("the file to upload cannot be read: {}",
                                            body.notRegular() ? "not a file" : body.reason()),
                                t.url);
        }
        t.inSize = static_cast<int64_t>(body.size);
        posix_fadvise(t.inFd, 0, 0, POSIX_FADV_SEQUENTIAL);
        t.task->bytesExpectedToSend_.store(t.inSize);
    }

    // The download file: a fresh one, or the partial file of the resume data.
    if (task.kind() == ZNVURLSessionTask::Kind::Download) {
        const auto& download = static_cast<const ZNVURLSessionDownloadTask&>(task);
        if (!download.resumeDataUsed().empty()) {
            auto info = ZNVURLSessionResumeData::decode(download.resumeDataUsed());
            if (info && ZNVURLSessionResumeData::isPartialFilePath(info->partialFile)) {
                // Only a regular file of this user's: a FIFO planted at the
                // name would hold this thread in open().
                const ZNVRegularFile partial =
                    ZNVOpenRegularFile(info->partialFile, O_WRONLY | O_NOFOLLOW);
                const int fd = partial.fd;
                if (fd >= 0 && partial.owner == getuid() && flock(fd, LOCK_EX | LOCK_NB) == 0) {
                    t.outFd = fd;
                    t.outPath = info->partialFile;
                    // Data taken while the file was filling names where that
                    // transfer began; the file holds all it wrote since.
                    const auto held = static_cast<int64_t>(partial.size);
                    int64_t offset = ZNVURLSessionResumeData::continuationOffset(*info, held);
                    if (offset < held && ftruncate(fd, offset) != 0) offset = 0;
                    std::string validator =
                        isStrongValidator(info->etag) ? info->etag : info->lastModified;
                    if (offset > 0 && !validator.empty()) {
                        t.requestedOffset = offset;
                        t.fileSize = offset;
                        t.etag = info->etag;
                        t.lastModified = info->lastModified;
                        headers["Range"] = fmt::format("bytes={}-", offset);
                        headers["If-Range"] = validator;
                        t.resumedFrom = download.resumeDataUsed();
                        t.resumedTotal = info->expectedTotalBytes;
                    }
                } else if (fd >= 0) {
                    close(fd);
                }
            }
        }
        if (download.resumeDataUsed().empty()) t.inMemoryLimit = download.inMemoryBodyLimit();
        if (t.outFd < 0 && t.inMemoryLimit == 0) {
            t.outFd = createDownloadFile(&t.outPath, owner->configuration_.downloadFileTag);
            if (t.outFd < 0) {
                return makeURLError(
                    NSURLErrorCannotWriteToFile,
                    fmt::format("the download file cannot be created: {}", std::strerror(errno)),
                    t.url);
            }
        }
    }

    t.easy = curl_easy_init();
    if (t.easy == nullptr) {
        return makeURLError(NSURLErrorUnknown, "the transfer could not be set up", t.url);
    }
    CURL* e = t.easy;
    curl_easy_setopt(e, CURLOPT_PRIVATE, &t);
    curl_easy_setopt(e, CURLOPT_URL, t.url.c_str());
    curl_easy_setopt(e, CURLOPT_ERRORBUFFER, t.errorBuffer);
    curl_easy_setopt(e, CURLOPT_NOSIGNAL, 1L);
    curl_easy_setopt(e, CURLOPT_PROTOCOLS_STR, "http,https");
    curl_easy_setopt(e, CURLOPT_REDIR_PROTOCOLS_STR, "http,https");
    curl_easy_setopt(e, CURLOPT_FOLLOWLOCATION, 1L);
    curl_easy_setopt(e, CURLOPT_MAXREDIRS, kMaximumRedirects);
    curl_easy_setopt(e, CURLOPT_HTTP_VERSION, static_cast<long>(CURL_HTTP_VERSION_2TLS));
    // Waiting for a connection in progress pays off only where HTTP/2 may be
    // negotiated (TLS); over plain HTTP it would queue a request behind a slow one.
    if (configuration.HTTPShouldUsePipelining && scheme == "https") {
        curl_easy_setopt(e, CURLOPT_PIPEWAIT, 1L);
    }
    curl_easy_setopt(e, CURLOPT_SSL_VERIFYPEER, 1L);
    curl_easy_setopt(e, CURLOPT_SSL_VERIFYHOST, 2L);
    curl_easy_setopt(e, CURLOPT_TCP_KEEPALIVE, 1L);
    curl_easy_setopt(e, CURLOPT_USERAGENT, kUserAgent);
    curl_easy_setopt(e, CURLOPT_BUFFERSIZE, kReceiveBufferSize);
    if (configuration.timeoutIntervalForResource > 0) {
        double ms = configuration.timeoutIntervalForResource * 1000.0;
        curl_easy_setopt(e, CURLOPT_TIMEOUT_MS,
                         static_cast<long>(std::min(ms, static_cast<double>(LONG_MAX))));
    }
    if (idle > 0) {
        curl_easy_setopt(e, CURLOPT_CONNECTTIMEOUT_MS,
                         static_cast<long>(std::max(1.0, idle * 1000.0)));
    }
    curl_easy_setopt(e, CURLOPT_HEADERFUNCTION, &Core::onHeader);
    curl_easy_setopt(e, CURLOPT_HEADERDATA, &t);
    curl_easy_setopt(e, CURLOPT_WRITEFUNCTION, &Core::onWrite);
    curl_easy_setopt(e, CURLOPT_WRITEDATA, &t);
    curl_easy_setopt(e, CURLOPT_XFERINFOFUNCTION, &Core::onProgress);
    curl_easy_setopt(e, CURLOPT_XFERINFODATA, &t);
    curl_easy_setopt(e, CURLOPT_PREREQFUNCTION, &Core::onRequest);
    curl_easy_setopt(e, CURLOPT_PREREQDATA, &t);
    curl_easy_setopt(e, CURLOPT_NOPROGRESS, 0L);

    if (t.inFd >= 0) {
        curl_easy_setopt(e, CURLOPT_UPLOAD, 1L);
        curl_easy_setopt(e, CURLOPT_INFILESIZE_LARGE, static_cast<curl_off_t>(t.inSize));
        curl_easy_setopt(e, CURLOPT_READFUNCTION, &Core::onRead);
        curl_easy_setopt(e, CURLOPT_READDATA, &t);
        curl_easy_setopt(e, CURLOPT_SEEKFUNCTION, &Core::onSeek);
        curl_easy_setopt(e, CURLOPT_SEEKDATA, &t);
        curl_easy_setopt(e, CURLOPT_UPLOAD_BUFFERSIZE, kUploadBufferSize);
        if (method != "PUT") curl_easy_setopt(e, CURLOPT_CUSTOMREQUEST, method.c_str());
    } else if (!request.HTTPBody().empty() || method == "POST" || method == "PUT" ||
               method == "PATCH") {
        // The body lives in the task's request, which outlives the transfer.
        const ZNVBytes& body = request.HTTPBody();
        curl_easy_setopt(e, CURLOPT_POSTFIELDSIZE_LARGE, static_cast<curl_off_t>(body.size()));
        curl_easy_setopt(e, CURLOPT_POSTFIELDS,
                         body.empty() ? "" : reinterpret_cast<const char*>(body.data()));
        if (method != "POST") curl_easy_setopt(e, CURLOPT_CUSTOMREQUEST, method.c_str());
    } else if (method == "HEAD") {
        curl_easy_setopt(e, CURLOPT_NOBODY, 1L);
    } else if (method == "GET") {
        curl_easy_setopt(e, CURLOPT_HTTPGET, 1L);
    } else {
        curl_easy_setopt(e, CURLOPT_CUSTOMREQUEST, method.c_str());
    }

    std::vector<std::string> lines;
    // "Name;" sends a header with an empty value; "Name:" removes one of
    // libcurl's own.
    for (const auto& [name, value] : headers) {
        // A line break would end the header and start another: refused.
        if ((name + value).find_first_of(std::string("\r\n\0", 3)) != std::string::npos) {
            return makeURLError(NSURLErrorBadURL, "a header of the request has a line break",
                                t.url);
        }
        lines.push_back(value.empty() ? name + ";" : name + ": " + value);
    }
    for (const auto& name : withoutDefault)
        lines.push_back(name + ":");
    for (const auto& line : lines) {
        curl_slist* list = curl_slist_append(t.headerList, line.c_str());
        if (list == nullptr) {
            return makeURLError(NSURLErrorUnknown, "the transfer could not be set up", t.url);
        }
        t.headerList = list;
    }
    curl_easy_setopt(e, CURLOPT_HTTPHEADER, t.headerList);

    t.lastActivity = Clock::now();
    t.sentPostedAt = t.lastActivity;
    t.writtenPostedAt = t.lastActivity;
    return nullptr;
}

size_t ZNVURLSession::Core::onHeader(char* buffer, size_t size, size_t count, void* userdata) {
    auto& t = *static_cast<Transfer*>(userdata);
    size_t length = size * count;
    t.lastActivity = Clock::now();
    std::string line = trim(std::string(buffer, length));
    if (line.rfind("HTTP/", 0) == 0) {
        t.headers.clear();
        size_t space = line.find(' ');
        t.status =
            space == std::string::npos ? 0 : std::strtoll(line.c_str() + space + 1, nullptr, 10);
    } else if (!line.empty()) {
        size_t colon = line.find(':');
        if (colon != std::string::npos && colon > 0) {
            std::string name = trim(line.substr(0, colon));
            std::string value = trim(line.substr(colon + 1));
            auto it = t.headers.find(name);
            if (it == t.headers.end()) {
                t.headers.emplace(std::move(name), std::move(value));
            } else {
                it->second += ", " + value;
            }
        }
    }
    return length;
}

std::string ZNVURLSession::Core::failingURL(const Transfer& t) const {
    if (t.easy != nullptr) {
        char* effective = nullptr;
        if (curl_easy_getinfo(t.easy, CURLINFO_EFFECTIVE_URL, &effective) == CURLE_OK &&
            effective != nullptr && *effective != '\0') {
            return effective;
        }
    }
    return t.url;
}

// The final response head has arrived: publish the response and, for
// downloads, settle where in the file the body goes.
bool ZNVURLSession::Core::beginBody(Transfer& t) {
    if (t.bodyBegun) return !t.badRange;
    t.bodyBegun = true;
    long code = 0;
    curl_easy_getinfo(t.easy, CURLINFO_RESPONSE_CODE, &code);
    if (code > 0) t.status = code;
    auto url = ZNVURL::fromString(failingURL(t)).value_or(t.task->originalRequest().URL());
    auto response = std::make_shared<const ZNVHTTPURLResponse>(url, t.status, t.headers);
    {
        std::lock_guard guard(t.task->mutex_);
        t.task->response_ = response;
    }
    int64_t contentLength = response->expectedContentLength();
    t.task->bytesExpectedToReceive_.store(contentLength);
    if (t.task->kind() != ZNVURLSessionTask::Kind::Download) return true;

    auto download = std::static_pointer_cast<ZNVURLSessionDownloadTask>(t.task);
    // The validators the partial file was received with, before the answer's
    // replace them.
    const std::string partialETag = t.etag;
    const std::string partialLastModified = t.lastModified;
    auto etag = response->valueForHTTPHeaderField("ETag");
    auto modified = response->valueForHTTPHeaderField("Last-Modified");
    if (etag) t.etag = *etag;
    if (modified) t.lastModified = *modified;
    auto ranges = response->valueForHTTPHeaderField("Accept-Ranges");
    t.acceptsRanges = t.status == 206 || (ranges && ranges->find("bytes") != std::string::npos);

    long long first = -1;
    long long last = -1;
    long long complete = -1;
    if (t.status == 206) {
        // "bytes <first>-<last>/<total>": only the range asked for (from 0
        // when none was) is the body's continuation. A last byte at the end of
        // the number range names no end a file can have (and its end, one
        // past it, would overflow).
        auto range = response->valueForHTTPHeaderField("Content-Range").value_or("");
        if (std::sscanf(range.c_str(), "bytes %lld-%lld/%lld", &first, &last, &complete) < 2 ||
            first != t.requestedOffset || last < first || last == LLONG_MAX ||
            (complete > 0 && last >= complete)) {
            t.badRange = true;
            return false;
        }
        t.rangeEnd = last + 1;
        // Without the length, the one the resumed transfer's first answer
        // announced.
        t.rangeTotal = complete > 0            ? complete
                       : t.requestedOffset > 0 ? std::max(t.resumedTotal, t.rangeEnd)
                                               : t.rangeEnd;
    }

    if (t.requestedOffset > 0) {
        int64_t offset = 0;
        int64_t total = contentLength;
        if (t.status == 206) {
            // A server that ignored "If-Range" may answer with a range of
            // another version of the file: its bytes do not continue the
            // partial file, which goes (the next attempt starts over).
            const bool otherVersion =
                (isStrongValidator(partialETag) && etag && *etag != partialETag) ||
                (!isStrongValidator(partialETag) && !partialLastModified.empty() && modified &&
                 *modified != partialLastModified) ||
                (complete > 0 && t.resumedTotal >= 0 && complete != t.resumedTotal);
            if (otherVersion) {
                t.resumedFrom.clear();
                t.badRange = true;
                return false;
            }
            offset = t.requestedOffset;
            total = t.rangeTotal;
        } else if (t.status == 416) {
            // Nothing lies beyond the partial file. "If-Range" made the server
            // compare the representation with the one the partial file came
            // from, so the file is the whole body, as long as the length the
            // server names ("bytes */<length>") or, without it, the length
            // the first answer announced, is the file's.
            auto range = response->valueForHTTPHeaderField("Content-Range").value_or("");
            if (std::sscanf(range.c_str(), "bytes */%lld", &complete) != 1) {
                complete = t.resumedTotal >= 0 ? t.resumedTotal : t.requestedOffset;
            }
            if (complete == t.requestedOffset) {
                t.partialIsWhole = true;
                download->partialFileWasWhole_.store(true);
                offset = t.requestedOffset;
                total = offset;
            } else if (complete < t.requestedOffset) {
                // The file is longer than the remote body: nothing in it can
                // be continued. Without resume data the next attempt starts
                // over, and the file goes with the transfer.
                t.resumedFrom.clear();
                t.badRange = true;
                return false;
            } else {
                // The server refuses a range it holds: keep the partial file
                // for an attempt that may go better.
                t.keepPartial = true;
                t.fileSize = t.requestedOffset;
                t.postedWritten = t.fileSize;
                return true;
            }
        } else if (t.status < 200 || t.status >= 300) {
            // An error (a passing 503, say) is not the body: the partial
            // file keeps what it holds for the next attempt. No resume is
            // announced: nothing of the body comes with this answer.
            t.keepPartial = true;
            t.fileSize = t.requestedOffset;
            t.postedWritten = t.fileSize;
            return true;
        } else if (ftruncate(t.outFd, 0) != 0) {
            t.writeFailed = true;
            return false;
        }
        t.fileSize = offset;
        t.expectedTotal = total;
        post([download, offset, total](const std::shared_ptr<ZNVURLSession>& session,
                                       ZNVURLSessionDelegate* delegate) {
            if (delegate != nullptr) delegate->didResumeAtOffset(session, download, offset, total);
        });
    } else {
        t.fileSize = 0;
        t.expectedTotal = t.rangeTotal >= 0 ? t.rangeTotal : contentLength;
    }
    t.postedWritten = t.fileSize;
    if (ZNVBytes running = describeFile(t, true); !running.empty()) {
        std::lock_guard guard(download->runningMutex_);
        download->runningResumeData_ = std::move(running);
    }
    return true;
}

// Writes the gathered bytes after those in the download file; false (and the
// transfer marked as failed to write) when the file takes them not.
bool ZNVURLSession::Core::writePending(Transfer& t) {
    size_t done = 0;
    while (done < t.pending.size() && !t.writeFailed) {
        ssize_t n = pwrite(t.outFd, t.pending.data() + done, t.pending.size() - done,
                           static_cast<off_t>(t.fileSize + static_cast<int64_t>(done)));
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) t.writeFailed = true;
        if (n > 0) done += static_cast<size_t>(n);
    }
    t.fileSize += static_cast<int64_t>(done);
    t.pending.clear();
    return !t.writeFailed;
}

size_t ZNVURLSession::Core::onWrite(char* data, size_t size, size_t count, void* userdata) {
    auto& t = *static_cast<Transfer*>(userdata);
    size_t length = size * count;
    t.lastActivity = Clock::now();
    if (!t.core->beginBody(t)) return 0;
    if (t.keepPartial || t.partialIsWhole) return length;
    if (t.inMemoryLimit > 0) {
        const uint64_t room = t.inMemoryLimit - std::min<uint64_t>(t.body.size(), t.inMemoryLimit);
        t.body.insert(t.body.end(), data, data + std::min<uint64_t>(room, length));
        t.fileSize += static_cast<int64_t>(length);
        t.core->postWrittenProgress(t, false);
        return length;
    }
    if (t.task->kind() == ZNVURLSessionTask::Kind::Download) {
        if (t.pending.capacity() < kDownloadWriteBlock) t.pending.reserve(kDownloadWriteBlock);
        t.pending.insert(t.pending.end(), data, data + length);
        if (t.pending.size() >= kDownloadWriteBlock && !writePending(t)) return 0;
        t.core->postWrittenProgress(t, false);
        return length;
    }
    if (t.body.size() + length > t.core->owner->configuration_.maximumInMemoryBodyBytes) {
        t.bodyTooLarge = true;
        return 0;
    }
    t.body.insert(t.body.end(), data, data + length);
    return length;
}

size_t ZNVURLSession::Core::onRead(char* buffer, size_t size, size_t count, void* userdata) {
    auto& t = *static_cast<Transfer*>(userdata);
    size_t wanted = size * count;
    int64_t left = t.inSize - t.inOffset;
    if (left <= 0) return 0;
    if (static_cast<int64_t>(wanted) > left) wanted = static_cast<size_t>(left);
    while (true) {
        ssize_t n = pread(t.inFd, buffer, wanted, static_cast<off_t>(t.inOffset));
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) {
            // Unreadable, or the file shrank under us: the body would not
            // match the length announced.
            t.readFailed = true;
            return CURL_READFUNC_ABORT;
        }
        t.inOffset += n;
        return static_cast<size_t>(n);
    }
}

int ZNVURLSession::Core::onSeek(void* userdata, curl_off_t offset, int origin) {
    auto& t = *static_cast<Transfer*>(userdata);
    if (origin != SEEK_SET || offset < 0 || offset > t.inSize) return CURL_SEEKFUNC_FAIL;
    t.inOffset = offset;
    return CURL_SEEKFUNC_OK;
}

// Called each time the request goes out. libcurl sends a request again by
// itself, at once and on a new connection, when a reused connection died
// before any answer; the server may have acted on the first one (a create),
// and the retry would skip the caller's recovery pacing and fallbacks. So a
// second sending of the same request (not a redirect's) ends the transfer as
// a lost connection, and the caller decides.
int ZNVURLSession::Core::onRequest(void* userdata, char*, char*, int, int) {
    auto& t = *static_cast<Transfer*>(userdata);
    long redirects = 0;
    curl_easy_getinfo(t.easy, CURLINFO_REDIRECT_COUNT, &redirects);
    if (redirects == t.requestedAtRedirect) {
        t.resendRefused = true;
        return CURL_PREREQFUNC_ABORT;
    }
    t.requestedAtRedirect = redirects;
    return CURL_PREREQFUNC_OK;
}

int ZNVURLSession::Core::onProgress(void* userdata, curl_off_t, curl_off_t dlnow, curl_off_t,
                                    curl_off_t ulnow) {
    auto& t = *static_cast<Transfer*>(userdata);
    if (ulnow != t.ulNow || dlnow != t.dlNow) t.lastActivity = Clock::now();
    t.ulNow = ulnow;
    t.dlNow = dlnow;
    t.task->bytesSent_.store(ulnow);
    t.task->bytesReceived_.store(dlnow);
    t.core->postSentProgress(t, false);
    return 0;
}

void ZNVURLSession::Core::postSentProgress(Transfer& t, bool final) {
    int64_t sent = t.ulNow;
    if (sent <= t.postedSent) return;
    auto now = Clock::now();
    if (!final && !progressIsDue(sent - t.postedSent, now - t.sentPostedAt)) return;
    int64_t delta = sent - t.postedSent;
    int64_t expected = t.task->bytesExpectedToSend_.load();
    t.postedSent = sent;
    t.sentPostedAt = now;
    auto task = t.task;
    post([task, delta, sent, expected](const std::shared_ptr<ZNVURLSession>& session,
                                       ZNVURLSessionDelegate* delegate) {
        if (delegate != nullptr) delegate->didSendBodyData(session, task, delta, sent, expected);
    });
}

void ZNVURLSession::Core::postWrittenProgress(Transfer& t, bool final) {
    int64_t written = t.fileSize + static_cast<int64_t>(t.pending.size());
    if (written <= t.postedWritten) return;
    auto now = Clock::now();
    if (!final && !progressIsDue(written - t.postedWritten, now - t.writtenPostedAt)) return;
    int64_t delta = written - t.postedWritten;
    int64_t expected = t.expectedTotal;
    t.postedWritten = written;
    t.writtenPostedAt = now;
    auto task = std::static_pointer_cast<ZNVURLSessionDownloadTask>(t.task);
    post([task, delta, written, expected](const std::shared_ptr<ZNVURLSession>& session,
                                          ZNVURLSessionDelegate* delegate) {
        if (delegate != nullptr) delegate->didWriteData(session, task, delta, written, expected);
    });
}

ZNVErrorRef ZNVURLSession::Core::errorFor(Transfer& t, CURLcode code) const {
    std::string url = failingURL(t);
    if (t.bodyTooLarge) {
        return makeURLError(
            NSURLErrorDataLengthExceedsMaximum,
            fmt::format("the response body is larger than the {} bytes a data task may hold",
                        owner->configuration_.maximumInMemoryBodyBytes),
            url);
    }
    if (t.readFailed) {
        return makeURLError(NSURLErrorCannotOpenFile,
                            "the body of the upload could not be read from its file", url);
    }
    if (t.writeFailed) {
        return makeURLError(NSURLErrorCannotWriteToFile,
                            "the downloaded data could not be written to its file", url);
    }
    if (t.resendRefused) {
        return makeURLError(NSURLErrorNetworkConnectionLost, "The network connection was lost.",
                            url);
    }
    if (t.badRange) {
        return makeURLError(NSURLErrorBadServerResponse,
                            "the server answered a resumed download with another range", url);
    }
    if (t.cutShort) {
        return makeURLError(NSURLErrorNetworkConnectionLost, "The network connection was lost.",
                            url);
    }
    switch (code) {
        case CURLE_OPERATION_TIMEDOUT:
            return makeURLError(NSURLErrorTimedOut, "The request timed out.", url);
        case CURLE_COULDNT_RESOLVE_HOST:
        case CURLE_COULDNT_RESOLVE_PROXY:
            return makeURLError(NSURLErrorCannotFindHost,
                                "A server with the specified hostname could not be found.", url);
        case CURLE_COULDNT_CONNECT: {
            long osError = 0;
            curl_easy_getinfo(t.easy, CURLINFO_OS_ERRNO, &osError);
            if (osError == ENETUNREACH) {
                return makeURLError(NSURLErrorNotConnectedToInternet,
                                    "The Internet connection appears to be offline.", url);
            }
            return makeURLError(NSURLErrorCannotConnectToHost, "Could not connect to the server.",
                                url);
        }
        case CURLE_GOT_NOTHING:
        case CURLE_SEND_ERROR:
        case CURLE_RECV_ERROR:
        case CURLE_PARTIAL_FILE:
        case CURLE_HTTP2:
        case CURLE_HTTP2_STREAM:
            return makeURLError(NSURLErrorNetworkConnectionLost, "The network connection was lost.",
                                url);
        case CURLE_SSL_CONNECT_ERROR:
        case CURLE_PEER_FAILED_VERIFICATION:
        case CURLE_SSL_CERTPROBLEM:
        case CURLE_SSL_CIPHER:
        case CURLE_SSL_CACERT_BADFILE:
        case CURLE_SSL_ISSUER_ERROR:
        case CURLE_SSL_PINNEDPUBKEYNOTMATCH:
        case CURLE_SSL_INVALIDCERTSTATUS:
        case CURLE_SSL_CRL_BADFILE:
        case CURLE_SSL_ENGINE_NOTFOUND:
        case CURLE_SSL_ENGINE_SETFAILED:
        case CURLE_SSL_ENGINE_INITFAILED:
        case CURLE_USE_SSL_FAILED:
            return makeURLError(
                NSURLErrorSecureConnectionFailed,
                "An SSL error has occurred and a secure connection to the server cannot be made.",
                url);
        case CURLE_URL_MALFORMAT:
            return makeURLError(NSURLErrorBadURL, "bad URL", url);
        case CURLE_UNSUPPORTED_PROTOCOL:
            return makeURLError(NSURLErrorUnsupportedURL, "unsupported URL", url);
        case CURLE_TOO_MANY_REDIRECTS:
            return makeURLError(kURLErrorHTTPTooManyRedirects, "too many HTTP redirects", url);
        case CURLE_WEIRD_SERVER_REPLY:
        case CURLE_BAD_CONTENT_ENCODING:
            return makeURLError(NSURLErrorBadServerResponse, "bad server response", url);
        case CURLE_READ_ERROR:
            return makeURLError(NSURLErrorCannotOpenFile,
                                "the body of the upload could not be read from its file", url);
        case CURLE_WRITE_ERROR:
            return makeURLError(NSURLErrorCannotWriteToFile,
                                "the downloaded data could not be written to its file", url);
        default:
            return makeURLError(
                NSURLErrorUnknown,
                fmt::format("unknown error ({})", t.errorBuffer[0] != '\0'
                                                      ? std::string(t.errorBuffer)
                                                      : std::string(curl_easy_strerror(code))),
                url);
    }
}

// Resume data for a download that stops now, or empty when the server gave
// no way to ask for the rest. On success the partial file is kept for it.
ZNVBytes ZNVURLSession::Core::resumeDataFor(Transfer& t) {
    if (t.task->kind() != ZNVURLSessionTask::Kind::Download) return {};
    writePending(t);
    if (!t.resumedFrom.empty() && (!t.bodyBegun || t.keepPartial)) {
        // Nothing of the rest arrived: the partial file is as the resume
        // data describes it, so that data serves the next attempt.
        if (t.outFd >= 0) {
            close(t.outFd);
            t.outFd = -1;
        }
        t.outPath.clear();
        return t.resumedFrom;
    }
    if (t.fileSize <= 0) return {};
    ZNVBytes data = describeFile(t, false);
    if (!data.empty()) t.outPath.clear();  // the resume data owns the file now
    return data;
}

// Resume data naming the download's file as it stands, or empty when the
// answer gives no way to ask for the rest later.
ZNVBytes ZNVURLSession::Core::describeFile(const Transfer& t, bool growing) {
    const ZNVURLRequest& request = t.task->originalRequest();
    bool validator = isStrongValidator(t.etag) || !t.lastModified.empty();
    if (!t.bodyBegun || t.badRange || t.writeFailed || t.outFd < 0 ||
        !(t.status == 200 || t.status == 206) || !t.acceptsRanges || !validator ||
        request.HTTPMethod() != "GET") {
        return {};
    }
    ZNVURLSessionResumeData::Info info;
    info.url = request.URL().absoluteString();
    info.method = request.HTTPMethod();
    for (const auto& [name, value] : request.allHTTPHeaderFields()) {
        if (strcasecmp(name.c_str(), "Range") != 0 && strcasecmp(name.c_str(), "If-Range") != 0) {
            info.headers[name] = value;
        }
    }
    info.partialFile = t.outPath;
    info.bytesReceived = t.fileSize;
    info.etag = t.etag;
    info.lastModified = t.lastModified;
    info.expectedTotalBytes = t.expectedTotal;
    info.growing = growing;
    return ZNVURLSessionResumeData::encode(info);
}

void ZNVURLSession::Core::deliverCompletion(const std::shared_ptr<ZNVURLSessionTask>& task,
                                            ZNVErrorRef error) {
    post([task, error](const std::shared_ptr<ZNVURLSession>& session,
                       ZNVURLSessionDelegate* delegate) {
        {
            std::lock_guard transition(task->transitionMutex_);
            {
                std::lock_guard guard(task->mutex_);
                task->error_ = error;
            }
            task->setState(ZNVURLSessionTaskStateCompleted);
        }
        {
            std::lock_guard guard(session->core_->mutex);
            session->core_->liveTasks.erase(task->taskIdentifier());
        }
        if (delegate != nullptr) delegate->didCompleteWithError(session, task, error);
    });
}

void ZNVURLSession::Core::failEntry(uint64_t identifier, ZNVErrorRef error) {
    auto it = entries.find(identifier);
    if (it == entries.end()) return;
    Entry entry = std::move(it->second);
    entries.erase(it);
    if (entry.transfer && entry.transfer->easy != nullptr) {
        curl_multi_remove_handle(multi, entry.transfer->easy);
    }
    deliverCompletion(entry.task, std::move(error));
}

void ZNVURLSession::Core::cancelEntry(uint64_t identifier,
                                      ZNVURLSessionDownloadTask::ResumeDataHandler handler) {
    auto it = entries.find(identifier);
    if (it == entries.end()) {
        // Completed meanwhile: nothing to resume from.
        if (handler) {
            post([handler = std::move(handler)](const std::shared_ptr<ZNVURLSession>&,
                                                ZNVURLSessionDelegate*) { handler(ZNVBytes{}); });
        }
        return;
    }
    Entry entry = std::move(it->second);
    entries.erase(it);
    std::string url = entry.task->originalRequest().URL().absoluteString();
    ZNVBytes resumeData;
    if (entry.transfer) {
        Transfer& t = *entry.transfer;
        if (t.easy != nullptr) curl_multi_remove_handle(multi, t.easy);
        url = failingURL(t);
        if (handler) resumeData = resumeDataFor(t);
    }
    if (handler) {
        post([handler = std::move(handler), resumeData](const std::shared_ptr<ZNVURLSession>&,
                                                        ZNVURLSessionDelegate*) {
            handler(resumeData);
        });
    }
    deliverCompletion(entry.task, cancelledError(url, resumeData));
}

void ZNVURLSession::Core::transferDone(uint64_t identifier, CURLcode code) {
    auto it = entries.find(identifier);
    if (it == entries.end() || !it->second.transfer) return;
    Entry entry = std::move(it->second);
    entries.erase(it);
    Transfer& t = *entry.transfer;
    curl_multi_remove_handle(multi, t.easy);
    writePending(t);

    bool ok = code == CURLE_OK && !t.bodyTooLarge && !t.readFailed && !t.writeFailed;
    if (ok && !beginBody(t)) ok = false;
    if (ok && t.rangeEnd >= 0 && t.outFd >= 0) {
        // Bytes past the end of the range belong to no range: they go. A
        // body that ends before the whole body does (a range shorter than
        // asked for, a close before the last byte) is a transfer cut short:
        // its resume data asks for the rest.
        if (t.fileSize > t.rangeEnd) {
            if (ftruncate(t.outFd, t.rangeEnd) == 0) {
                t.fileSize = t.rangeEnd;
            } else {
                t.writeFailed = true;
                ok = false;
            }
        }
        if (ok && t.fileSize < t.rangeTotal) {
            t.cutShort = true;
            ok = false;
        }
    }
    postSentProgress(t, true);
    if (t.task->kind() == ZNVURLSessionTask::Kind::Download && t.bodyBegun) {
        postWrittenProgress(t, true);
    }
    if (ok && t.keepPartial) {
        // The answer to a resumed request was an error status: the session
        // manager reports the status; the resume data keeps the partial file.
        ZNVErrorRef error =
            makeURLError(NSURLErrorBadServerResponse,
                         fmt::format("the server answered {}", t.status), failingURL(t));
        deliverCompletion(
            entry.task,
            error->byAddingUserInfo({{NSURLSessionDownloadTaskResumeData, resumeDataFor(t)}}));
        return;
    }
    if (!ok) {
        ZNVErrorRef error = errorFor(t, code);
        if (ZNVBytes resumeData = resumeDataFor(t); !resumeData.empty()) {
            error = error->byAddingUserInfo({{NSURLSessionDownloadTaskResumeData, resumeData}});
        }
        deliverCompletion(entry.task, std::move(error));
        return;
    }

    if (t.inMemoryLimit > 0) {
        auto download = std::static_pointer_cast<ZNVURLSessionDownloadTask>(t.task);
        auto body = std::make_shared<ZNVBytes>(std::move(t.body));
        const int64_t total = t.fileSize;
        post([download, body, total](const std::shared_ptr<ZNVURLSession>& session,
                                     ZNVURLSessionDelegate* delegate) {
            if (delegate != nullptr)
                delegate->didFinishDownloadingData(session, download, *body, total);
        });
    } else if (t.task->kind() == ZNVURLSessionTask::Kind::Download) {
        close(t.outFd);
        t.outFd = -1;
        std::string path;
        path.swap(t.outPath);  // unlinked on the delegate queue after the callback
        auto download = std::static_pointer_cast<ZNVURLSessionDownloadTask>(t.task);
        post([download, path](const std::shared_ptr<ZNVURLSession>& session,
                              ZNVURLSessionDelegate* delegate) {
            if (delegate != nullptr) {
                delegate->didFinishDownloadingToURL(session, download, ZNVURL::fileURL(path));
            }
            unlink(path.c_str());
        });
    } else if (!t.body.empty()) {
        auto dataTask = std::static_pointer_cast<ZNVURLSessionDataTask>(t.task);
        auto body = std::make_shared<ZNVBytes>(std::move(t.body));
        post([dataTask, body](const std::shared_ptr<ZNVURLSession>& session,
                              ZNVURLSessionDelegate* delegate) {
            if (delegate != nullptr) delegate->didReceiveData(session, dataTask, *body);
        });
    }
    deliverCompletion(entry.task, nullptr);
}

void ZNVURLSession::Core::tick() {
    auto now = Clock::now();
    std::vector<uint64_t> stalled;
    for (auto& [identifier, entry] : entries) {
        if (!entry.transfer) continue;
        Transfer& t = *entry.transfer;
        postSentProgress(t, false);
        if (t.task->kind() == ZNVURLSessionTask::Kind::Download && t.bodyBegun) {
            postWrittenProgress(t, false);
        }
        if (t.idleTimeout != Clock::duration::max() && now - t.lastActivity > t.idleTimeout) {
            stalled.push_back(identifier);
        }
    }
    for (uint64_t identifier : stalled) {
        auto it = entries.find(identifier);
        Entry entry = std::move(it->second);
        entries.erase(it);
        Transfer& t = *entry.transfer;
        curl_multi_remove_handle(multi, t.easy);
        ZNVErrorRef error =
            makeURLError(NSURLErrorTimedOut, "The request timed out.", failingURL(t));
        if (ZNVBytes resumeData = resumeDataFor(t); !resumeData.empty()) {
            error = error->byAddingUserInfo({{NSURLSessionDownloadTaskResumeData, resumeData}});
        }
        deliverCompletion(entry.task, std::move(error));
    }
}

}  // namespace znv
