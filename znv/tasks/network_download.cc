#include "znv/tasks/network_download.h"

#include <algorithm>
#include <cmath>
#include <vector>

#include "znv/platform/url_session_resume_data.h"

#include <fmt/format.h>

#include <algorithm>
#include <filesystem>
#include <utility>

#include "znv/foundation/error_handler.h"
#include "znv/foundation/log.h"
#include "znv/foundation/network_utilities.h"
#include "znv/platform/filesystem.h"
#include "znv/platform/progress.h"
#include "znv/platform/url_session.h"
#include "znv/platform/uuid.h"
#include "znv/session/network_session_manager.h"

namespace znv {

namespace {

constexpr int64_t kDownloadProgressTotal = 1000;

const bool registeredNetworkDownload = [] {
    ZNVArchiveClassRegistry::shared().registerClass(
        "ZNVNetworkDownload", "ZNVNetworkTask",
        [](ZNVKeyedUnarchiver& coder) -> std::shared_ptr<ZNVCoding> {
            return ZNVNetworkDownload::decode(coder);
        });
    return true;
}();

// Moves the finished file into the library's file area (creating the area
// when it is missing; copying when the two lie on different file systems).
// The move does not wait for the disk: the state writer flushes the file
// before a save records the download as completed.
ZNVErrorRef moveFile(const std::string& from, const std::string& to) {
    ZNVErrorRef error;
    const std::string directory = std::filesystem::path(to).parent_path().string();
    if (!ZNVCreateDirectories(directory, 0700, &error)) return error;
    if (!ZNVMoveFile(from, to, &error)) return error;
    return nullptr;
}

}  // namespace

std::shared_ptr<ZNVNetworkDownload> ZNVNetworkDownload::create(
    std::optional<ZNVURL> source, std::shared_ptr<ZNVNetworkSessionManager> session) {
    std::shared_ptr<ZNVNetworkDownload> download(new ZNVNetworkDownload());
    download->initWithSource(std::move(source), std::move(session));
    download->finishDownloadInit();
    return download;
}

std::shared_ptr<ZNVNetworkDownload> ZNVNetworkDownload::decode(ZNVCoder& coder) {
    (void)registeredNetworkDownload;
    std::shared_ptr<ZNVNetworkDownload> download(new ZNVNetworkDownload());
    download->initWithCoder(coder);
    if (ZNVKeyedUnarchiver* unarchiver = coder.asKeyedUnarchiver();
        unarchiver && coder.allowsKeyedCoding()) {
        Lock lock(*download);
        download->localFileURL_ = unarchiver->decodeURLForKey("localFileURL");
        download->resumeData_ = unarchiver->decodeDataForKey("resumeData");
    }
    // After the base decoding, so the archived progress never reaches the new
    // progress object: a decoded download starts at 0.
    download->finishDownloadInit();
    return download;
}

void ZNVNetworkDownload::encodeWithCoder(ZNVCoder& coder) const {
    ZNVNetworkTask::encodeWithCoder(coder);
    ZNVKeyedArchiver* archiver = coder.asKeyedArchiver();
    Lock lock(*this);
    if (localFileURL_) archiver->encodeURL(*localFileURL_, "localFileURL");
    if (resumeData_) {
        archiver->encodeData(*resumeData_, "resumeData");
    } else if (runningResumeData_) {
        // Only while the transfer it describes is still the task's.
        std::shared_ptr<ZNVURLSessionTask> current = task();
        std::shared_ptr<ZNVURLSessionTask> of = runningResumeDataOf_.lock();
        if (current && current == of) archiver->encodeData(*runningResumeData_, "resumeData");
    }
}

void ZNVNetworkDownload::finishDownloadInit() {
    setProgress(ZNVProgress::make(kDownloadProgressTotal, 0));
}

std::optional<ZNVURL> ZNVNetworkDownload::localFileURL() const {
    Lock lock(*this);
    return localFileURL_;
}

void ZNVNetworkDownload::setLocalFileURL(std::optional<ZNVURL> url) {
    Lock lock(*this);
    localFileURL_ = std::move(url);
}

std::optional<ZNVBytes> ZNVNetworkDownload::resumeData() const {
    Lock lock(*this);
    return resumeData_;
}

void ZNVNetworkDownload::setResumeData(std::optional<ZNVBytes> data) {
    Lock lock(*this);
    resumeData_ = std::move(data);
}

std::shared_ptr<const ZNVHTTPURLResponse> ZNVNetworkDownload::response() const {
    Lock lock(*this);
    return response_;
}

void ZNVNetworkDownload::keepResponse() {
    Lock lock(*this);
    if (std::shared_ptr<ZNVURLSessionTask> current = task()) {
        if (auto response = current->response()) response_ = std::move(response);
    }
}

bool ZNVNetworkDownload::resume() {
    Lock lock(*this);
    if (!ZNVNetworkTask::resume()) return false;
    if (state() != ZNVNetworkTaskStateSuspended) return false;
    if (rawError()) return false;
    if (resumeData_) {
        resumeDownload();
    } else {
        startDownload();
    }
    return true;
}

void ZNVNetworkDownload::startDownload() {
    Lock lock(*this);
    if (resumeData_) ZNVURLSessionResumeData::removePartialFile(*resumeData_);
    resumeData_.reset();
    if (!validateParameters()) return;
    ZNVErrorRef error;
    std::shared_ptr<ZNVURLSessionTask> task = session()->downloadRemoteFile(*sourceURL(), &error);
    transferStart_ = 0.0f;
    startNewSessionTask(task, error);
}

void ZNVNetworkDownload::resumeDownload() {
    Lock lock(*this);
    if (!validateParameters()) return;
    ZNVErrorRef error;
    std::shared_ptr<ZNVURLSessionTask> task =
        session()->resumeRemoteFileDownloadFromData(resumeData_.value_or(ZNVBytes{}), &error);
    // The first report of a resumed transfer is the offset it continues from.
    transferStart_.reset();
    startNewSessionTask(task, error);
    // The resume data is used up once a task was made from it; otherwise it
    // stays for the next attempt.
    if (task) resumeData_.reset();
}

bool ZNVNetworkDownload::validateParameters() {
    Lock lock(*this);
    if (!ZNVNetworkTask::validateParameters()) return false;
    if (!rawError()) {
        const std::optional<ZNVURL> source = sourceURL();
        if (!source || source->isEmpty()) {
            setRawError(ZNVNetworkErrorHandler_createURLError(NSURLErrorBadURL,
                                                              "a remote URL is required"));
        } else if (source->isFileURL()) {
            setRawError(ZNVNetworkErrorHandler_createURLError(
                NSURLErrorBadURL, "the remote URL may not be a local file"));
        }
    }
    return !rawError();
}

bool ZNVNetworkDownload::handleProgress(float fraction) {
    // 0 of 0 bytes gives NaN, which no integer can hold.
    if (!std::isfinite(fraction)) return false;
    std::shared_ptr<ZNVProgress> current;
    bool gainedResumeData = false;
    {
        Lock lock(*this);
        current = progress();
        // The first report of a transfer whose answer can be continued later
        // brings its resume data into the archive.
        std::shared_ptr<ZNVURLSessionTask> running = task();
        if (running && running->kind() == ZNVURLSessionTask::Kind::Download &&
            running != runningResumeDataOf_.lock()) {
            ZNVBytes data =
                std::static_pointer_cast<ZNVURLSessionDownloadTask>(running)->runningResumeData();
            if (!data.empty()) {
                runningResumeData_ = std::move(data);
                runningResumeDataOf_ = running;
                gainedResumeData = true;
            }
        }
        // Without a Content-Length the fraction is bytes over -1: it moves
        // down, not up.
        const float reach = fraction < 0 ? -fraction : fraction;
        if (!transferStart_) {
            transferStart_ = fraction;
        } else if (fraction != *transferStart_ && reach > farthest_ && !rawError() &&
                   remainingAttemptsForAutomaticErrorRecovery() <
                       ZNVNetworkTaskAutomaticRecoveryAttempts) {
            // Bytes beyond anything an earlier attempt received: the failure
            // is behind us. A transfer that starts over and breaks off at the
            // same place again keeps counting its failures.
            restoreRecoveryAttempts();
        }
        farthest_ = std::max(farthest_, reach);
    }
    // The progress announces its change to observers: not under the task's lock.
    if (current) {
        fraction = std::clamp(fraction, 0.0f, 1.0f);
        const float total = static_cast<float>(current->totalUnitCount());
        current->setCompletedUnitCount(static_cast<int64_t>(total * fraction));
    }
    return gainedResumeData;
}

void ZNVNetworkDownload::handleDownloadedFile(const ZNVURL& temporaryURL) {
    Lock lock(*this);
    if (!validateParameters()) return;
    if (!temporaryURL.isFileURL()) {
        setRawError(ZNVNetworkErrorHandler_createURLError(
            NSURLErrorFileDoesNotExist,
            "internal error: temporary download URL should be a file URL"));
        return;
    }
    const std::optional<ZNVURL> source = sourceURL();
    std::string extension = source ? source->pathExtension() : std::string();
    // The extension comes from the URL (percent-decoded): it may hold "/",
    // NUL or control characters. Only a short run of ASCII letters and digits
    // is kept, so that the name stays one plain component of the file area.
    const bool plainExtension =
        extension.size() <= 16 && std::all_of(extension.begin(), extension.end(), [](char c) {
            return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9');
        });
    if (extension.empty() || !plainExtension) extension = "download";
    const std::string name = fmt::format("download-{}.{}", ZNVUUIDString(), extension);
    const std::optional<ZNVURL> destination = ZNVNetworkUtilities_libraryURLWithFileName(name);
    if (!destination) return;
    if (ZNVErrorRef moveError = moveFile(temporaryURL.path(), destination->path())) {
        setRawError(moveError);
        return;
    }
    localFileURL_ = destination;
    pathsToFlush_ = {destination->path(),
                     std::filesystem::path(destination->path()).parent_path().string()};
}

void ZNVNetworkDownload::handleCompletionWithError(const ZNVErrorRef& error) {
    Lock lock(*this);
    keepResponse();
    if (rawError()) return;
    if (error) {
        setRawError(error);
    } else {
        setTask(nullptr);
    }
}

void ZNVNetworkDownload::resetForResume() {
    Lock lock(*this);
    std::optional<ZNVBytes> previous = std::move(resumeData_);
    resumeData_.reset();
    if (ZNVErrorRef raw = rawError()) {
        if (const ZNVUserInfoValue* value = raw->value(NSURLSessionDownloadTaskResumeData)) {
            if (const ZNVBytes* bytes = std::get_if<ZNVBytes>(value)) resumeData_ = *bytes;
        }
    }
    // Resume data that is replaced leaves no partial file behind.
    if (previous && previous != resumeData_) ZNVURLSessionResumeData::removePartialFile(*previous);
    ZNVNetworkTask::resetForResume();
}

// A download paused between transfers (after a relaunch, or waiting for its
// turn) keeps its partial file through a cancel: a retry continues from it.
ZNVErrorRef ZNVNetworkDownload::cancellationKeepingReceivedData(
    const ZNVErrorRef& cancelled) const {
    Lock lock(*this);
    return resumeData_ ? ZNVNetworkErrorHandler_addResumeDataToError(*resumeData_, cancelled)
                       : cancelled;
}

void ZNVNetworkDownload::taskDidFinish() {
    ZNVNetworkTask::taskDidFinish();
    if (auto remove = takeFilesToRemoveOnFinish()) remove();
}

std::vector<std::string> ZNVNetworkDownload::takePathsToFlushBeforeSave() {
    Lock lock(*this);
    return std::exchange(pathsToFlush_, {});
}

std::function<void()> ZNVNetworkDownload::takeFilesToRemoveOnFinish() {
    std::optional<ZNVURL> file;
    std::vector<ZNVBytes> resumeData;
    {
        Lock lock(*this);
        file = std::move(localFileURL_);
        localFileURL_.reset();
        if (resumeData_) resumeData.push_back(*resumeData_);
        resumeData_.reset();
        if (ZNVErrorRef raw = rawError()) {
            if (const ZNVUserInfoValue* value = raw->value(NSURLSessionDownloadTaskResumeData)) {
                if (const ZNVBytes* bytes = std::get_if<ZNVBytes>(value))
                    resumeData.push_back(*bytes);
            }
        }
    }
    if (!file && resumeData.empty()) return nullptr;
    return [file = std::move(file), resumeData = std::move(resumeData)] {
        if (file) ZNVNetworkUtilities_removeFileAtURL(*file);
        // A finished task never continues: its partial files go too.
        for (const auto& data : resumeData)
            ZNVURLSessionResumeData::removePartialFile(data);
    };
}

std::string ZNVNetworkDownload::description() const {
    Lock lock(*this);
    const std::optional<ZNVURL> source = sourceURL();
    return ZNVNetworkTask::description() +
           fmt::format(" from {}", source ? source->absoluteString() : std::string("(null)"));
}

}  // namespace znv
