// ZNVNetworkDownload: the network task that fetches one remote file into the
// library's private file area ("Library/Network/" under the home directory).
//
// Contract
// - Made by the network manager, which resumes it and feeds it the session
//   manager's download callbacks: `handleProgress` (fraction of the transfer),
//   `handleDownloadedFile` (the finished temporary file, moved away inside the
//   call because the URL session deletes it afterwards) and
//   `handleCompletionWithError`.
// - The first failure wins: a completion error does not replace a failed move.
// - The progress counts per mille (total 1000); a decoded download starts at 0.
// - An interrupted download keeps the URL session's resume data (from its error
//   or from `cancel`) and continues from it after a recovery or a retry; a
//   resumed transfer that fails before the rest arrives hands the same resume
//   data back. Resume data that arrives after a retry, is replaced, or belongs
//   to a finished task has its partial file deleted. Non-finite progress
//   fractions are ignored.
// - While a transfer runs whose answer allows continuing it later, the
//   archive carries that transfer's resume data (marked as growing), so that a
//   process killed or stopped mid-transfer continues from the partial file
//   instead of losing what arrived.
// - Bytes beyond the farthest point an earlier transfer reached restore the
//   recovery attempts, so only failures in a row with nothing new received in
//   between use them up.
// - `response()` is the response head of the last transfer that got one; it
//   stays after the transfer ends (not archived), so a client can read the
//   headers of a finished download (its Content-Disposition, say).
// - The finished file (`localFileURL`) lives until the manager finishes the
//   task (`taskDidFinish` removes it); a client that wants to keep it moves or
//   copies it when the task completes.
// - Threads and archive: as the base task (keys "localFileURL", "resumeData"
//   follow the base keys).
#pragma once

#include <memory>
#include <optional>
#include <string>

#include "znv/platform/url_request.h"
#include "znv/tasks/network_task.h"

namespace znv {

class ZNVNetworkDownload : public ZNVNetworkTask {
  public:
    static std::shared_ptr<ZNVNetworkDownload> create(
        std::optional<ZNVURL> source = std::nullopt,
        std::shared_ptr<ZNVNetworkSessionManager> session = nullptr);
    static std::shared_ptr<ZNVNetworkDownload> decode(ZNVCoder& coder);

    std::optional<ZNVURL> localFileURL() const;
    void setLocalFileURL(std::optional<ZNVURL> url);
    std::optional<ZNVBytes> resumeData() const;
    void setResumeData(std::optional<ZNVBytes> data);
    std::shared_ptr<const ZNVHTTPURLResponse> response() const;

    bool resume() override;
    // True when the transfer under way has just handed over resume data that
    // the archive now carries: the caller saves, so that a process killed
    // from here on continues the download from its partial file.
    bool handleProgress(float fraction);
    void handleDownloadedFile(const ZNVURL& temporaryURL);
    void handleCompletionWithError(const ZNVErrorRef& error);

    void taskDidFinish() override;
    std::function<void()> takeFilesToRemoveOnFinish() override;
    std::vector<std::string> takePathsToFlushBeforeSave() override;
    bool validateParameters() override;
    void resetForResume() override;
    ZNVErrorRef cancellationKeepingReceivedData(const ZNVErrorRef& cancelled) const override;
    std::string description() const override;

    void startDownload();
    void resumeDownload();
    void finishDownloadInit();

    std::string className() const override { return "ZNVNetworkDownload"; }
    void encodeWithCoder(ZNVCoder& coder) const override;

  protected:
    ZNVNetworkDownload() = default;

  private:
    void keepResponse();

    // Guarded by the base task's lock.
    std::optional<ZNVURL> localFileURL_;
    std::optional<ZNVBytes> resumeData_;
    // Resume data of the running transfer, archived as "resumeData" while
    // `runningResumeDataOf_` is still the task's URL session task.
    std::optional<ZNVBytes> runningResumeData_;
    std::weak_ptr<ZNVURLSessionTask> runningResumeDataOf_;
    // The moved file and its directory until a save has flushed them.
    std::vector<std::string> pathsToFlush_;
    std::shared_ptr<const ZNVHTTPURLResponse> response_;
    // Where the progress of the current transfer started (a resumed one hears
    // its offset first); unset until known.
    std::optional<float> transferStart_;
    // The farthest any transfer got (a fraction, or bytes when the length is
    // unknown); bytes short of it restore no recovery attempts.
    float farthest_ = 0.0f;
};

}  // namespace znv
