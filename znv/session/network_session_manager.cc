#include "znv/session/network_session_manager.h"

#include <sys/stat.h>

#include <fmt/format.h>

#include <nlohmann/json.hpp>

#include "znv/account/account_http_session.h"
#include "znv/foundation/error_handler.h"
#include "znv/foundation/log.h"
#include "znv/foundation/network_utilities.h"
#include "znv/platform/filesystem.h"
#include "znv/protocol/storage_response.h"

namespace znv {

namespace {

using json = nlohmann::json;

// Forwards the URL session's callbacks to the manager while it exists. The
// session holds its delegate strongly until it becomes invalid; holding the
// manager weakly here keeps the session from keeping the manager alive.
class SessionDelegate final : public ZNVURLSessionDelegate {
  public:
    explicit SessionDelegate(std::weak_ptr<ZNVNetworkSessionManager> manager)
        : manager_(std::move(manager)) {}

    void didBecomeInvalidWithError(const std::shared_ptr<ZNVURLSession>& session,
                                   const ZNVErrorRef& error) override {
        if (auto m = manager_.lock()) m->didBecomeInvalidWithError(session, error);
    }
    void didCompleteWithError(const std::shared_ptr<ZNVURLSession>& session,
                              const std::shared_ptr<ZNVURLSessionTask>& task,
                              const ZNVErrorRef& error) override {
        if (auto m = manager_.lock()) m->didCompleteWithError(session, task, error);
    }
    void didSendBodyData(const std::shared_ptr<ZNVURLSession>& session,
                         const std::shared_ptr<ZNVURLSessionTask>& task, int64_t bytesSent,
                         int64_t totalBytesSent, int64_t totalBytesExpectedToSend) override {
        if (auto m = manager_.lock()) {
            m->didSendBodyData(session, task, bytesSent, totalBytesSent, totalBytesExpectedToSend);
        }
    }
    void didReceiveData(const std::shared_ptr<ZNVURLSession>& session,
                        const std::shared_ptr<ZNVURLSessionDataTask>& dataTask,
                        const ZNVBytes& data) override {
        if (auto m = manager_.lock()) m->didReceiveData(session, dataTask, data);
    }
    void didResumeAtOffset(const std::shared_ptr<ZNVURLSession>& session,
                           const std::shared_ptr<ZNVURLSessionDownloadTask>& downloadTask,
                           int64_t fileOffset, int64_t expectedTotalBytes) override {
        if (auto m = manager_.lock()) {
            m->didResumeAtOffset(session, downloadTask, fileOffset, expectedTotalBytes);
        }
    }
    void didWriteData(const std::shared_ptr<ZNVURLSession>& session,
                      const std::shared_ptr<ZNVURLSessionDownloadTask>& downloadTask,
                      int64_t bytesWritten, int64_t totalBytesWritten,
                      int64_t totalBytesExpectedToWrite) override {
        if (auto m = manager_.lock()) {
            m->didWriteData(session, downloadTask, bytesWritten, totalBytesWritten,
                            totalBytesExpectedToWrite);
        }
    }
    void didFinishDownloadingToURL(const std::shared_ptr<ZNVURLSession>& session,
                                   const std::shared_ptr<ZNVURLSessionDownloadTask>& downloadTask,
                                   const ZNVURL& location) override {
        if (auto m = manager_.lock()) m->didFinishDownloadingToURL(session, downloadTask, location);
    }
    void didFinishDownloadingData(const std::shared_ptr<ZNVURLSession>& session,
                                  const std::shared_ptr<ZNVURLSessionDownloadTask>& downloadTask,
                                  const ZNVBytes& data, int64_t totalBytes) override {
        if (auto m = manager_.lock()) {
            m->didFinishDownloadingData(session, downloadTask, data, totalBytes);
        }
    }

  private:
    const std::weak_ptr<ZNVNetworkSessionManager> manager_;
};

bool isSpaceOrLineBreak(unsigned char c) {
    return c == ' ' || c == '\t' || c == '\n' || c == '\r' || c == '\v' || c == '\f';
}

// Splits at every white-space or line-break character; consecutive
// separators give empty pieces.
std::vector<std::string> splitAtWhiteSpace(const std::string& text) {
    std::vector<std::string> pieces(1);
    for (char c : text) {
        if (isSpaceOrLineBreak(static_cast<unsigned char>(c))) {
            pieces.emplace_back();
        } else {
            pieces.back() += c;
        }
    }
    return pieces;
}

size_t characterCount(const std::string& text) {
    size_t count = 0;
    for (unsigned char c : text)
        count += (c & 0xC0) != 0x80;
    return count;
}

std::string firstCharacters(const std::string& text, size_t count) {
    size_t seen = 0;
    for (size_t i = 0; i < text.size(); ++i) {
        if ((static_cast<unsigned char>(text[i]) & 0xC0) != 0x80 && seen++ == count) {
            return text.substr(0, i);
        }
    }
    return text;
}

// The "Authorization" value as the request log shows it: a bearer token cut
// to its first four characters.
std::string shownAuthorization(const std::string& value) {
    std::vector<std::string> pieces = splitAtWhiteSpace(value);
    if (pieces.size() >= 2 && characterCount(pieces[1]) >= 5) {
        return fmt::format("{} {}...", pieces[0], firstCharacters(pieces[1], 4));
    }
    return value;
}

std::string orNull(const std::optional<std::string>& value) {
    return value ? *value : std::string("(null)");
}

std::string taskLine(const std::shared_ptr<ZNVURLSessionTask>& task) {
    return fmt::format("\n   session task: {}",
                       task ? std::to_string(task->taskIdentifier()) : std::string("(null)"));
}

bool infoLogEnabled() {
    return ZNVLog().should_log(spdlog::level::info);
}

// Ends an operation: hands out its error and logs a missing task.
template <class Task>
std::shared_ptr<Task> finishOperation(std::shared_ptr<Task> task, const ZNVErrorRef& failure,
                                      const char* operation, ZNVErrorRef* error) {
    if (error) *error = failure;
    if (!task) ZNVLogError("failed to create network task in method: {}", operation);
    return task;
}

bool isUnsignedInteger(const json& value) {
    return value.is_number_unsigned() || (value.is_number_integer() && value.get<int64_t>() >= 0);
}

}  // namespace

// --- Construction and state ---

std::shared_ptr<ZNVNetworkSessionManager> ZNVNetworkSessionManager::create(
    ZNVAccountConfigurationRef configuration,
    std::shared_ptr<ZNVNetworkSessionBackgroundDelegate> backgroundDelegate) {
    if (!configuration || !backgroundDelegate || configuration->storageURL().isEmpty()) {
        return nullptr;
    }
    auto manager = std::make_shared<ZNVNetworkSessionManager>(Passkey{}, std::move(configuration),
                                                              std::move(backgroundDelegate));
    manager->start();
    return manager;
}

ZNVNetworkSessionManager::ZNVNetworkSessionManager(
    Passkey, ZNVAccountConfigurationRef configuration,
    std::shared_ptr<ZNVNetworkSessionBackgroundDelegate> delegate)
    : accountConfiguration_(configuration),
      pathManager_(ZNVStoragePathManager::managerForConfiguration(configuration)),
      baseURL_(ZNVNetworkUtilities_sanitizeBaseURL(configuration->storageURL())),
      backgroundDelegate_(std::move(delegate)) {}

void ZNVNetworkSessionManager::start() {
    // The identifier a background session would have. It is formed (and its
    // absence reported) but not applied: this library always runs a
    // foreground session.
    std::string bundleIdentifier = ZNVApplicationIdentifier();
    if (!bundleIdentifier.empty()) {
        std::string identifier =
            ZNVNetworkUtilities_sanitizedIdentifierForConfiguration(accountConfiguration_.get());
        std::string suffix = identifier == "live" ? std::string() : "." + identifier;
        formedBackgroundSessionIdentifier_ =
            fmt::format("{}.ZNVStorage{}", bundleIdentifier, suffix);
    }
    if (!formedBackgroundSessionIdentifier_ || ZNVMainBundlePath().empty()) {
        ZNVLogDefault("No bundle ID for the application. Forced to use a foreground NSURLSession.");
    }

    ZNVURLSessionConfiguration configuration =
        ZNVURLSessionConfiguration::defaultSessionConfiguration();
    configuration.networkServiceType = 0;
    const std::string& container = accountConfiguration_->sharedContainerIdentifier();
    configuration.sharedContainerIdentifier =
        container.empty() ? std::nullopt : std::optional<std::string>(container);
    // Partial files carry the queue's name: its manager finds those of
    // transfers that ended with the process before a save named them.
    configuration.downloadFileTag =
        ZNVNetworkUtilities_sanitizedIdentifierForConfiguration(accountConfiguration_.get());

    callbackQueue_ =
        std::make_shared<ZNVOperationQueue>("ZNVNetworkSessionManager callbacks", true);
    session_ = ZNVURLSession::create(
        configuration, std::make_shared<SessionDelegate>(weak_from_this()), callbackQueue_);
    if (!session_->delegateQueue() || !session_->delegateQueue()->isSuspended()) {
        ZNVLogDefault("Failed to pause URL session callbacks during construction.");
    }
}

ZNVNetworkSessionManager::~ZNVNetworkSessionManager() {
    // The session outlives its owner only until it has cancelled its tasks;
    // its callbacks then reach nobody. A never launched queue is resumed so
    // that the session can deliver its end.
    if (session_ && !session_->isInvalidated()) session_->invalidateAndCancel();
    if (callbackQueue_) callbackQueue_->setSuspended(false);
}

std::shared_ptr<ZNVNetworkSessionBackgroundDelegate> ZNVNetworkSessionManager::backgroundDelegate()
    const {
    std::lock_guard guard(mutex_);
    return backgroundDelegate_;
}

void ZNVNetworkSessionManager::setBackgroundDelegate(
    std::shared_ptr<ZNVNetworkSessionBackgroundDelegate> delegate) {
    std::shared_ptr<ZNVNetworkSessionBackgroundDelegate> previous;
    {
        std::lock_guard guard(mutex_);
        previous = std::exchange(backgroundDelegate_, std::move(delegate));
    }
    // `previous` is released here, outside the lock: it may own this manager.
}

std::string ZNVNetworkSessionManager::accessToken() const {
    std::lock_guard guard(mutex_);
    return accessToken_;
}

void ZNVNetworkSessionManager::setAccessToken(std::string accessToken) {
    std::lock_guard guard(mutex_);
    accessToken_ = std::move(accessToken);
}

void ZNVNetworkSessionManager::launch() {
    if (callbackQueue_) callbackQueue_->setSuspended(false);
}

void ZNVNetworkSessionManager::invalidate() {
    if (session_) session_->invalidateAndCancel();
}

void ZNVNetworkSessionManager::getTasksWithCompletionHandler(
    ZNVURLSession::TasksHandler completionHandler) {
    if (!completionHandler) return;
    if (!session_) {
        completionHandler({}, {}, {});
        return;
    }
    session_->getTasksWithCompletionHandler(std::move(completionHandler));
}

std::optional<std::string> ZNVNetworkSessionManager::sessionIdentifier() const {
    return session_ ? session_->configuration().identifier : std::nullopt;
}

bool ZNVNetworkSessionManager::currentThreadIsBackgroundSessionThread() const {
    return callbackQueue_ && callbackQueue_->isCurrent();
}

void ZNVNetworkSessionManager::performBackgroundSessionBlock(Work work) {
    if (!work) return;
    if (callbackQueue_ && !callbackQueue_->isSuspended()) {
        callbackQueue_->addOperation(std::move(work));
        return;
    }
    if (callbackQueue_) {
        ZNVLogDefault("Background session queue is suspended.");
    } else {
        ZNVLogDefault("Background session queue is not available.");
    }
    work();
}

void ZNVNetworkSessionManager::setData(const std::optional<ZNVBytes>& data,
                                       const std::shared_ptr<ZNVURLSessionTask>& task) {
    if (!task) return;
    uint64_t key = task->taskIdentifier();
    std::lock_guard guard(mutex_);
    if (data && !data->empty()) {
        dataForTask_[key] = *data;
    } else {
        dataForTask_.erase(key);
    }
}

std::optional<ZNVBytes> ZNVNetworkSessionManager::dataForTask(uint64_t taskIdentifier) const {
    std::lock_guard guard(mutex_);
    auto it = dataForTask_.find(taskIdentifier);
    if (it == dataForTask_.end()) return std::nullopt;
    return it->second;
}

std::string ZNVNetworkSessionManager::description() const {
    std::string configuration = fmt::format(
        "<ZNVAccountConfiguration: storage URL {}, identifier {}>",
        accountConfiguration_->storageURL().absoluteString(),
        ZNVNetworkUtilities_sanitizedIdentifierForConfiguration(accountConfiguration_.get()));
    return fmt::format("<ZNVNetworkSessionManager: {}, {}, session: {}>", fmt::ptr(this),
                       configuration, session_ ? session_->description() : "(null)");
}

// --- URL session callbacks ---

void ZNVNetworkSessionManager::didReceiveData(const std::shared_ptr<ZNVURLSession>&,
                                              const std::shared_ptr<ZNVURLSessionDataTask>& task,
                                              const ZNVBytes& data) {
    // The newest delivery replaces an earlier one: answers are small JSON
    // documents delivered whole.
    setData(data, task);
}

void ZNVNetworkSessionManager::didFinishDownloadingToURL(
    const std::shared_ptr<ZNVURLSession>&, const std::shared_ptr<ZNVURLSessionDownloadTask>& task,
    const ZNVURL& location) {
    if (taskHasAuthentication(task)) {
        // A storage request's JSON answer that reached a file (the session
        // normally keeps these in memory): it reaches the delegate with the
        // completion. One larger than an in-memory body may be is refused
        // unread, and fails the request.
        struct stat info {};
        if (::stat(location.path().c_str(), &info) == 0 &&
            refuseOversizedAnswer(task, static_cast<uint64_t>(info.st_size))) {
            return;
        }
        ZNVErrorRef error;
        std::optional<ZNVBytes> data = ZNVNetworkUtilities_loadDataFromURL(location, &error);
        setData(data, task);
        if (error && error->code() != NSFileReadNoSuchFileError && error->code() != 3840) {
            ZNVLogError("failed to load data from download task: {}",
                        error->localizedDescription());
        }
        return;
    }
    if (auto delegate = backgroundDelegate()) {
        delegate->didFinishDownloadingToURL(shared_from_this(), task, location);
    }
}

void ZNVNetworkSessionManager::didFinishDownloadingData(
    const std::shared_ptr<ZNVURLSession>& session,
    const std::shared_ptr<ZNVURLSessionDownloadTask>& task, const ZNVBytes& data,
    int64_t totalBytes) {
    if (!taskHasAuthentication(task)) {
        // Not a storage request: the application's delegate gets a file.
        ZNVURLSessionDelegate::didFinishDownloadingData(session, task, data, totalBytes);
        return;
    }
    if (refuseOversizedAnswer(task, static_cast<uint64_t>(std::max<int64_t>(totalBytes, 0)))) {
        return;
    }
    setData(data, task);
}

bool ZNVNetworkSessionManager::refuseOversizedAnswer(
    const std::shared_ptr<ZNVURLSessionDownloadTask>& task, uint64_t size) {
    const uint64_t limit = answerLimit();
    if (size <= limit) return false;
    ZNVLogError("refusing an answer of {} bytes for {}", size, task->taskDescription());
    setData(std::nullopt, task);
    std::lock_guard guard(mutex_);
    answerErrorForTask_[task->taskIdentifier()] = ZNVNetworkErrorHandler_createURLError(
        NSURLErrorDataLengthExceedsMaximum,
        fmt::format("The answer of the storage service is larger than the {} bytes it may hold.",
                    limit));
    return true;
}

uint64_t ZNVNetworkSessionManager::answerLimit() const {
    return session_ ? session_->configuration().maximumInMemoryBodyBytes : (uint64_t{16} << 20);
}

void ZNVNetworkSessionManager::forwardProgress(const std::shared_ptr<ZNVURLSessionTask>& task,
                                               float progress) {
    if (auto delegate = backgroundDelegate()) {
        delegate->didUpdateProgress(shared_from_this(), task, progress);
    }
}

void ZNVNetworkSessionManager::didSendBodyData(const std::shared_ptr<ZNVURLSession>&,
                                               const std::shared_ptr<ZNVURLSessionTask>& task,
                                               int64_t, int64_t totalBytesSent,
                                               int64_t totalBytesExpectedToSend) {
    forwardProgress(
        task, static_cast<float>(totalBytesSent) / static_cast<float>(totalBytesExpectedToSend));
}

void ZNVNetworkSessionManager::didWriteData(const std::shared_ptr<ZNVURLSession>&,
                                            const std::shared_ptr<ZNVURLSessionDownloadTask>& task,
                                            int64_t, int64_t totalBytesWritten,
                                            int64_t totalBytesExpectedToWrite) {
    // Storage requests that run as downloads report no progress.
    if (!taskIsForDownload(task)) return;
    forwardProgress(task, static_cast<float>(totalBytesWritten) /
                              static_cast<float>(totalBytesExpectedToWrite));
}

void ZNVNetworkSessionManager::didResumeAtOffset(
    const std::shared_ptr<ZNVURLSession>&, const std::shared_ptr<ZNVURLSessionDownloadTask>& task,
    int64_t fileOffset, int64_t expectedTotalBytes) {
    if (!taskIsForDownload(task)) return;
    forwardProgress(task, static_cast<float>(fileOffset) / static_cast<float>(expectedTotalBytes));
}

void ZNVNetworkSessionManager::didCompleteWithError(const std::shared_ptr<ZNVURLSession>&,
                                                    const std::shared_ptr<ZNVURLSessionTask>& task,
                                                    const ZNVErrorRef& error) {
    // A cancelled task keeps its staged body, so that a task cancelled in
    // order to be restarted can send it again.
    bool cancelled =
        error && error->domain() == NSURLErrorDomain && error->code() == NSURLErrorCancelled;
    if (!cancelled) {
        ZNVErrorRef cleanError;
        if (!pathManager_->removeUploadFileForTask(task, &cleanError)) {
            ZNVLogDefault("failed to clean residue for upload \"{}\": {}",
                          task ? task->taskDescription() : std::string(),
                          cleanError ? cleanError->localizedDescription() : std::string());
        }
    }

    std::optional<ZNVBytes> data = task ? dataForTask(task->taskIdentifier()) : std::nullopt;
    setData(std::nullopt, task);
    ZNVErrorRef answerError;
    if (task) {
        std::lock_guard guard(mutex_);
        if (auto it = answerErrorForTask_.find(task->taskIdentifier());
            it != answerErrorForTask_.end()) {
            answerError = it->second;
            answerErrorForTask_.erase(it);
        }
    }

    std::shared_ptr<const ZNVHTTPURLResponse> response = task ? task->response() : nullptr;
    if (infoLogEnabled()) {
        std::string text =
            fmt::format("\n   response {}\n   MIME type: {}",
                        response ? response->URL().absoluteString() : std::string("(null)"),
                        response ? response->MIMEType() : std::string("(null)"));
        if (error && !response) {
            text = fmt::format("\n   error {}, {}",
                               error->stringValue(NSURLErrorFailingURLStringErrorKey).value_or(""),
                               error->localizedDescription());
            text = ZNVNetworkErrorHandler_addCancelReasonToLog(error, text);
        } else if (response) {
            text = fmt::format(
                "\n   response {}, {} {}", response->URL().absoluteString(), response->statusCode(),
                ZNVHTTPURLResponse::localizedStringForStatusCode(response->statusCode()));
            std::string contentType =
                response->valueForHTTPHeaderField("Content-Type").value_or(std::string());
            if (!contentType.empty())
                text += fmt::format("\n   {}: {}", "Content-Type", contentType);
        }
        if (data && !data->empty()) {
            if (std::optional<json> parsed = ZNVStorageResponse::parseJSON(*data, nullptr)) {
                text += "\n" + parsed->dump(4, ' ', false, json::error_handler_t::replace);
            }
        }
        text += taskLine(task);
        if (std::optional<ZNVIndexSet> indices = chunkIndicesForTask(task)) {
            if (auto list = ZNVNetworkUtilities_stringFromIndices(*indices);
                list && !list->empty()) {
                text += fmt::format("\n   chunk indices: {}", *list);
            }
        }
        ZNVLogInfo("{}", text);
    }

    // A failing HTTP status is reported as the server's error, in place of
    // whatever the transport said; not the 416 that told a resumed download
    // its partial file was already the whole body.
    ZNVErrorRef serverError;
    auto download = std::dynamic_pointer_cast<ZNVURLSessionDownloadTask>(task);
    if (response && !(download && download->partialFileWasWhole())) {
        ZNVAccountHTTPSession::Headers headers(response->allHeaderFields().begin(),
                                               response->allHeaderFields().end());
        serverError = ZNVAccountHTTPSession::parseServerErrorFromResponse(
            response->statusCode(), headers, data ? *data : ZNVBytes(), response->URL());
    }
    // Resume data of a download that the server refused for now stays with
    // the server's error, so the next attempt continues the partial file.
    if (serverError && error) {
        if (const ZNVUserInfoValue* resume = error->value(NSURLSessionDownloadTaskResumeData)) {
            serverError =
                serverError->byAddingUserInfo({{NSURLSessionDownloadTaskResumeData, *resume}});
        }
    }
    ZNVErrorRef handedOn = serverError ? serverError : error ? error : answerError;
    if (auto delegate = backgroundDelegate()) {
        delegate->didCompleteWithData(shared_from_this(), task, data, handedOn);
    }
}

void ZNVNetworkSessionManager::didBecomeInvalidWithError(
    const std::shared_ptr<ZNVURLSession>& session, const ZNVErrorRef& error) {
    std::string identifier =
        orNull(session ? session->configuration().identifier : std::optional<std::string>());
    if (error) {
        ZNVLogError("URL session {} did become invalid: {}", identifier,
                    error->localizedDescription());
    } else {
        ZNVLogInfo("URL session {} was intentionally invalidated.", identifier);
    }
    // Breaks the ownership cycle with the delegate; nothing reaches it after this.
    setBackgroundDelegate(nullptr);
}

// --- Service operations ---

bool ZNVNetworkSessionManager::useAuthentication(const ZNVAuthenticationRef& authentication,
                                                 ZNVErrorRef* error) {
    if (authentication && !authentication->accessToken().empty()) {
        setAccessToken(authentication->accessToken());
        if (error) *error = nullptr;
        return true;
    }
    if (error) {
        *error = ZNVNetworkErrorHandler_createURLError(NSURLErrorUserAuthenticationRequired,
                                                       "missing access token");
    }
    return false;
}

ZNVURL ZNVNetworkSessionManager::apiURLforRemoteFileID(const std::string& remoteFileID) const {
    // A plain ID passes through unchanged; bytes that cannot stand in a URL
    // (beyond ASCII) are escaped here, in upper case, rather than by the
    // URL parser.
    auto url = ZNVURL::resolve("files/" + ZNVURL::percentEncodePathSegment(remoteFileID), baseURL_);
    return url ? *url : ZNVURL();
}

std::optional<ZNVURLRequest> ZNVNetworkSessionManager::generateRequestWithMethod(
    const std::string& method, const ZNVURL& url, const json& parameters,
    ZNVErrorRef* error) const {
    ZNVURLRequest request(url);
    request.setValue("application/json", "Accept");
    request.setHTTPMethod(method);
    request.setValue("Bearer " + accessToken(), "Authorization");
    if (!parameters.is_null()) {
        std::string body;
        try {
            body = parameters.dump();
        } catch (const std::exception& e) {
            if (error) {
                *error = ZNVError::withMessage(
                    NSCocoaErrorDomain, 3851,
                    fmt::format("The data couldn’t be written as JSON: {}", e.what()));
            }
            return std::nullopt;
        }
        request.setValue("application/json", "Content-Type");
        request.setHTTPBody(ZNVBytes(body.begin(), body.end()));
    }
    if (error) *error = nullptr;
    return request;
}

std::string ZNVNetworkSessionManager::requestLogEntry(const ZNVURLRequest& request) {
    std::string entry = fmt::format(
        "\n   {} {}\n   {}: {}\n   {}: {}", request.HTTPMethod(), request.URL().absoluteString(),
        "Authorization",
        shownAuthorization(request.valueForHTTPHeaderField("Authorization").value_or("")), "Accept",
        orNull(request.valueForHTTPHeaderField("Accept")));
    std::string contentType = request.valueForHTTPHeaderField("Content-Type").value_or("");
    if (!contentType.empty()) entry += fmt::format("\n   {}: {}", "Content-Type", contentType);
    const ZNVBytes& body = request.HTTPBody();
    if (!body.empty()) entry += "\n   " + std::string(body.begin(), body.end());
    return entry;
}

template <class Task, class Make>
std::shared_ptr<Task> ZNVNetworkSessionManager::makeLoggedTask(const ZNVURLRequest& request,
                                                               Make make,
                                                               const std::string& extraLog) {
    std::lock_guard guard(*session_);
    std::shared_ptr<Task> task = make();
    if (infoLogEnabled()) {
        std::string entry = requestLogEntry(request) + taskLine(task);
        if (!extraLog.empty()) entry += extraLog;
        ZNVLogInfo("{}", entry);
    }
    return task;
}

std::shared_ptr<ZNVURLSessionDownloadTask> ZNVNetworkSessionManager::createRemoteFileWithName(
    const std::string& fileName, const std::optional<std::string>& sharedStorageID,
    const ZNVAuthenticationRef& authentication, const std::optional<std::string>& multiplexingHint,
    ZNVErrorRef* error) {
    ZNVErrorRef failure;
    std::shared_ptr<ZNVURLSessionDownloadTask> task;
    do {
        if (fileName.empty()) {
            failure =
                ZNVNetworkErrorHandler_createURLError(NSURLErrorCannotCreateFile, "empty filename");
            break;
        }
        if (!useAuthentication(authentication, &failure)) break;
        json parameters = {{"fileName", fileName}};
        if (sharedStorageID && !sharedStorageID->empty()) {
            parameters["sharedStorageId"] = *sharedStorageID;
        }
        std::optional<ZNVURL> url = ZNVURL::resolve("files", baseURL_);
        std::optional<ZNVURLRequest> request =
            generateRequestWithMethod("POST", url ? *url : ZNVURL(), parameters, &failure);
        if (!request) break;
        if (multiplexingHint && !multiplexingHint->empty()) {
            request->setValue(*multiplexingHint, "znvmultiplexinghint");
        }
        task = makeLoggedTask<ZNVURLSessionDownloadTask>(
            *request, [&] { return session_->downloadTaskWithRequest(*request); }, "");
        if (task) {
            task->keepBodyInMemory(answerLimit() + 1);
            task->setTaskDescription(ZNVSessionTaskTagNewRemoteFile);
        }
    } while (false);
    return finishOperation(
        task, failure,
        "createRemoteFileWithName:sharedStorageID:authentication:multiplexingHint:error:", error);
}

std::shared_ptr<ZNVURLSessionUploadTask> ZNVNetworkSessionManager::uploadLocalFile(
    const ZNVURL& localFile, const std::string& remoteFileID,
    const ZNVAuthenticationRef& authentication, ZNVErrorRef* error) {
    ZNVErrorRef failure;
    std::shared_ptr<ZNVURLSessionUploadTask> task;
    do {
        failure = ZNVStoragePathManager::remoteFileIDError(remoteFileID);
        if (failure) break;
        // Without a local file there is nothing to send, and nothing to report.
        if (localFile.isEmpty()) break;
        if (!useAuthentication(authentication, &failure)) break;
        std::optional<ZNVURLRequest> request = generateRequestWithMethod(
            "PUT", apiURLforRemoteFileID(remoteFileID).appendingPathComponent("fullfile"), nullptr,
            &failure);
        if (!request) break;
        request->setValue("application/octet-stream", "Content-Type");
        task = makeLoggedTask<ZNVURLSessionUploadTask>(
            *request, [&] { return session_->uploadTaskWithRequest(*request, localFile); }, "");
        if (task) task->setTaskDescription(ZNVSessionTaskTagUploadEntireFile);
    } while (false);
    return finishOperation(task, failure,
                           "uploadLocalFile:toRemoteFile:authentication:error:", error);
}

std::shared_ptr<ZNVURLSessionUploadTask> ZNVNetworkSessionManager::uploadChunks(
    const std::vector<ZNVStorageChunkRef>& chunks, const ZNVURL& localFile,
    const std::string& remoteFileID, const ZNVAuthenticationRef& authentication,
    ZNVErrorRef* error) {
    ZNVErrorRef failure = ZNVStoragePathManager::remoteFileIDError(remoteFileID);
    if (!failure) {
        ZNVStorageChunkWriterRef writer = ZNVStorageChunkWriter::writerForChunks(chunks, localFile);
        std::optional<ZNVURL> staged =
            pathManager_->createUploadFileForChunkWriter(*writer, remoteFileID, &failure);
        if (staged)
            return uploadStagedChunks(*writer, *staged, remoteFileID, authentication, error);
    }
    return finishOperation(std::shared_ptr<ZNVURLSessionUploadTask>(), failure,
                           "uploadChunks:fromLocalFile:toRemoteFile:authentication:error:", error);
}

std::shared_ptr<ZNVURLSessionUploadTask> ZNVNetworkSessionManager::uploadStagedChunks(
    const ZNVStorageChunkWriter& writer, const ZNVURL& stagedBody, const std::string& remoteFileID,
    const ZNVAuthenticationRef& authentication, ZNVErrorRef* error) {
    ZNVErrorRef failure;
    std::shared_ptr<ZNVURLSessionUploadTask> task;
    do {
        failure = ZNVStoragePathManager::remoteFileIDError(remoteFileID);
        if (failure) break;
        std::optional<ZNVIndexSet> indices = writer.chunkIndices();
        if (!useAuthentication(authentication, &failure)) break;
        std::optional<ZNVURLRequest> request = generateRequestWithMethod(
            "PUT", apiURLforRemoteFileID(remoteFileID), nullptr, &failure);
        if (!request) break;
        if (!writer.configureRequest(&*request, &failure)) break;
        std::string list;
        if (indices) list = ZNVNetworkUtilities_stringFromIndices(*indices).value_or("");
        task = makeLoggedTask<ZNVURLSessionUploadTask>(
            *request, [&] { return session_->uploadTaskWithRequest(*request, stagedBody); },
            list.empty() ? std::string() : fmt::format("\n   chunk indices: {}", list));
        if (task && !list.empty()) {
            task->setTaskDescription(ZNVSessionTaskTagChunkIndexPrefix + list);
        }
    } while (false);
    return finishOperation(task, failure,
                           "uploadChunks:fromLocalFile:toRemoteFile:authentication:error:", error);
}

std::shared_ptr<ZNVURLSessionUploadTask> ZNVNetworkSessionManager::assembleRemoteFile(
    const std::string& remoteFileID, const std::optional<ZNVIndexSet>& expectedChunkIndices,
    const json& expectedChunkSizes, const ZNVAuthenticationRef& authentication,
    ZNVErrorRef* error) {
    ZNVErrorRef failure;
    std::shared_ptr<ZNVURLSessionUploadTask> task;
    do {
        failure = ZNVStoragePathManager::remoteFileIDError(remoteFileID);
        if (failure) break;
        if (!expectedChunkIndices || expectedChunkIndices->empty()) {
            failure = ZNVNetworkErrorHandler_createURLError(NSURLErrorCannotCreateFile,
                                                            "chunk indices must be specified");
            break;
        }
        if (!expectedChunkSizes.is_array() || expectedChunkSizes.empty()) {
            failure = ZNVNetworkErrorHandler_createURLError(NSURLErrorCannotCreateFile,
                                                            "chunk sizes must be specified");
            break;
        }
        if (expectedChunkIndices->count() != expectedChunkSizes.size()) {
            failure = ZNVNetworkErrorHandler_createURLError(
                NSURLErrorCannotCreateFile,
                fmt::format(
                    "The count of chunk indices ({}) doesn't match the count of chunk sizes ({}).",
                    expectedChunkIndices->count(), expectedChunkSizes.size()));
            break;
        }
        bool allUnsigned = true;
        for (const json& size : expectedChunkSizes)
            allUnsigned = allUnsigned && isUnsignedInteger(size);
        if (!allUnsigned) {
            failure = ZNVNetworkErrorHandler_createURLError(
                NSURLErrorCannotCreateFile, "chunk sizes must be unsigned integer values");
            break;
        }
        json records = json::array();
        size_t k = 0;
        expectedChunkIndices->forEach([&](uint64_t index) {
            if (k >= expectedChunkSizes.size()) return false;
            records.push_back(
                {{"index", index}, {"sizeInBytes", expectedChunkSizes[k].get<uint64_t>()}});
            ++k;
            return true;
        });
        json document = {{"expectedChunks", std::move(records)}};
        std::optional<ZNVURL> staged =
            pathManager_->createUploadFileForChunkDescriptions(document, remoteFileID, &failure);
        if (!staged) break;
        if (!useAuthentication(authentication, &failure)) break;
        std::optional<ZNVURLRequest> request = generateRequestWithMethod(
            "POST", apiURLforRemoteFileID(remoteFileID).appendingPathComponent("complete"), nullptr,
            &failure);
        if (!request) break;
        request->setValue("application/json", "Content-Type");
        task = makeLoggedTask<ZNVURLSessionUploadTask>(
            *request, [&] { return session_->uploadTaskWithRequest(*request, *staged); }, "");
        if (task) task->setTaskDescription(ZNVSessionTaskTagAssembleRemoteFile);
    } while (false);
    return finishOperation(
        task, failure,
        "assembleRemoteFile:expectedChunkIndices:expectedChunkSizes:authentication:error:", error);
}

std::shared_ptr<ZNVURLSessionDownloadTask> ZNVNetworkSessionManager::requestOnRemoteFile(
    const char* method, const char* lastPathComponent, const json& parameters, const char* tag,
    const char* operation, const std::string& remoteFileID,
    const ZNVAuthenticationRef& authentication, ZNVErrorRef* error) {
    ZNVErrorRef failure;
    std::shared_ptr<ZNVURLSessionDownloadTask> task;
    do {
        failure = ZNVStoragePathManager::remoteFileIDError(remoteFileID);
        if (failure) break;
        if (!useAuthentication(authentication, &failure)) break;
        ZNVURL url = apiURLforRemoteFileID(remoteFileID);
        if (lastPathComponent) url = url.appendingPathComponent(lastPathComponent);
        std::optional<ZNVURLRequest> request =
            generateRequestWithMethod(method, url, parameters, &failure);
        if (!request) break;
        task = makeLoggedTask<ZNVURLSessionDownloadTask>(
            *request, [&] { return session_->downloadTaskWithRequest(*request); }, "");
        if (task) {
            task->keepBodyInMemory(answerLimit() + 1);
            task->setTaskDescription(tag);
        }
    } while (false);
    return finishOperation(task, failure, operation, error);
}

std::shared_ptr<ZNVURLSessionDownloadTask> ZNVNetworkSessionManager::postProcessRemoteVideoFile(
    const std::string& remoteFileID, const ZNVAuthenticationRef& authentication,
    ZNVErrorRef* error) {
    json parameters = {{"type", "encode"}, {"values", {{"outputType", "video/mp4"}}}};
    return requestOnRemoteFile("POST", "process", parameters, ZNVSessionTaskTagPostProcessing,
                               "postProcessRemoteVideoFile:authentication:error:", remoteFileID,
                               authentication, error);
}

std::shared_ptr<ZNVURLSessionDownloadTask> ZNVNetworkSessionManager::getInformationForRemoteFile(
    const std::string& remoteFileID, const ZNVAuthenticationRef& authentication,
    ZNVErrorRef* error) {
    return requestOnRemoteFile("GET", nullptr, nullptr, ZNVSessionTaskTagInformation,
                               "getInformationForRemoteFile:authentication:error:", remoteFileID,
                               authentication, error);
}

std::shared_ptr<ZNVURLSessionDownloadTask> ZNVNetworkSessionManager::deleteRemoteFile(
    const std::string& remoteFileID, const ZNVAuthenticationRef& authentication,
    ZNVErrorRef* error) {
    return requestOnRemoteFile("DELETE", nullptr, nullptr, ZNVSessionTaskTagDeleteRemoteFile,
                               "deleteRemoteFile:authentication:error:", remoteFileID,
                               authentication, error);
}

std::shared_ptr<ZNVURLSessionDownloadTask> ZNVNetworkSessionManager::downloadRemoteFile(
    const ZNVURL& remoteURL, ZNVErrorRef* error) {
    ZNVErrorRef failure;
    std::shared_ptr<ZNVURLSessionDownloadTask> task;
    if (remoteURL.absoluteString().empty()) {
        failure = ZNVNetworkErrorHandler_createURLError(NSURLErrorBadURL, "empty remote URL");
    } else if (remoteURL.isFileURL()) {
        failure = ZNVNetworkErrorHandler_createURLError(NSURLErrorBadURL,
                                                        "the remote URL may not be a local file");
    } else {
        {
            std::lock_guard guard(*session_);
            task = session_->downloadTaskWithURL(remoteURL);
            if (infoLogEnabled()) {
                ZNVLogInfo(
                    "{}", fmt::format("\n   Downloading file from {}", remoteURL.absoluteString()) +
                              taskLine(task));
            }
        }
        if (task) task->setTaskDescription(ZNVSessionTaskTagDownload);
    }
    return finishOperation(task, failure, "downloadRemoteFile:error:", error);
}

std::shared_ptr<ZNVURLSessionDownloadTask>
ZNVNetworkSessionManager::resumeRemoteFileDownloadFromData(const ZNVBytes& resumeData,
                                                           ZNVErrorRef* error) {
    ZNVErrorRef failure;
    std::shared_ptr<ZNVURLSessionDownloadTask> task;
    if (resumeData.empty()) {
        failure = ZNVNetworkErrorHandler_createURLError(NSURLErrorUnknown, "empty resume data");
    } else {
        {
            std::lock_guard guard(*session_);
            task = session_->downloadTaskWithResumeData(resumeData, &failure);
            if (infoLogEnabled()) {
                ZNVLogInfo("{}", std::string("\n   Resuming file download.") + taskLine(task));
            }
        }
        if (task) task->setTaskDescription(ZNVSessionTaskTagResumeDownload);
    }
    return finishOperation(task, failure, "resumeRemoteFileDownloadFromData:error:", error);
}

}  // namespace znv
