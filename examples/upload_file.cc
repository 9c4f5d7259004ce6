// upload_file: uploads one file to the storage service and waits until it is
// stored or has failed.
//
//   upload_file SERVER_URL TOKEN FILE
//
// SERVER_URL is the service's API base (for znv-emulator:
// http://127.0.0.1:PORT/api/). The progress goes to standard error on one
// line; once the file is stored, its remote file ID and then its content URL
// are printed on standard output. Exit status: 0 stored, 1 failed, 2 bad
// arguments.
//
// The library keeps its queue under $HOME/Library/Network: a relaunch
// continues uploads an earlier run left unfinished.
//
// Build it against an installed library with CMake (examples/CMakeLists.txt:
// find_package(ZNVStorage), target ZNVStorage::znvstorage) or with
//   c++ -std=c++20 upload_file.cc $(pkg-config --cflags --libs znvstorage)
#include <znv/znv.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <filesystem>
#include <memory>
#include <mutex>
#include <optional>
#include <string>

namespace {

// A flag raised once on a library thread and waited for on the main thread.
class Signal {
  public:
    void raise() {
        std::lock_guard lock(mutex_);
        raised_ = true;
        condition_.notify_all();
    }
    bool waitFor(std::chrono::seconds timeout) {
        std::unique_lock lock(mutex_);
        return condition_.wait_for(lock, timeout, [this] { return raised_; });
    }
    void wait() {
        std::unique_lock lock(mutex_);
        condition_.wait(lock, [this] { return raised_; });
    }

  private:
    std::mutex mutex_;
    std::condition_variable condition_;
    bool raised_ = false;  // guarded by mutex_
};

}  // namespace

int main(int argc, char** argv) {
    if (argc != 4) {
        std::fprintf(stderr, "usage: upload_file SERVER_URL TOKEN FILE\n");
        return 2;
    }
    const std::optional<znv::ZNVURL> server = znv::ZNVURL::fromString(argv[1]);
    if (!server || (server->scheme() != "http" && server->scheme() != "https")) {
        std::fprintf(stderr, "upload_file: not an http(s) URL: %s\n", argv[1]);
        return 2;
    }
    const std::string token = argv[2];
    std::error_code ec;
    const std::filesystem::path path = std::filesystem::absolute(argv[3], ec);
    if (ec || !std::filesystem::is_regular_file(path, ec)) {
        std::fprintf(stderr, "upload_file: not a regular file: %s\n", argv[3]);
        return 2;
    }

    Signal completed;
    std::atomic<int> shownPercent{-1};
    // [readme-example]
    auto config = std::make_shared<znv::ZNVAccountConfiguration>(*server);
    auto account = znv::ZNVTokenAccount::createWithToken(config, token);
    auto storage = znv::ZNVStorage::storageForAccount(account);  // restores the saved queue
    auto upload = storage->uploadFromFile(znv::ZNVURL::fileURL(path), false);
    auto progress = upload->progress();
    auto progressToken = progress->addObserver("fractionCompleted", [&, p = progress.get()](auto&) {
        int percent = static_cast<int>(p->fractionCompleted() * 100);
        if (shownPercent.exchange(percent) != percent) std::fprintf(stderr, "\r%3d%%", percent);
    });
    auto whenCompleted = [&, task = upload.get()](auto&) {
        if (task->state() == znv::ZNVNetworkTaskStateCompleted) completed.raise();
    };
    auto stateToken =
        upload->addObserver("state", whenCompleted, znv::ZNVKeyValueObservingOptionInitial);
    completed.wait();  // the upload is stored, or failed for good
    // [readme-example]
    progress->removeObserver(progressToken);
    upload->removeObserver(stateToken);
    std::fputc('\n', stderr);

    // A stored file has a remote file ID; a task that ended without one failed
    // even when its public error is empty.
    const std::string fileID = upload->remoteFileID();
    if (znv::ZNVErrorRef error = upload->error(); error || fileID.empty()) {
        if (!error) error = upload->rawError();
        std::fprintf(stderr, "upload_file: the upload failed: %s\n",
                     error ? error->localizedDescription().c_str() : "no remote file was made");
        return 1;
    }
    std::printf("%s\n", fileID.c_str());

    // Where the stored file can be fetched from (the completion runs on the
    // library's main queue).
    auto found = std::make_shared<Signal>();
    auto contentURL = std::make_shared<std::optional<std::string>>();
    storage->URLForRemoteFile(fileID, [found, contentURL](const std::optional<znv::ZNVURL>& url) {
        if (url) *contentURL = url->absoluteString();
        found->raise();
    });
    if (!found->waitFor(std::chrono::seconds(30)) || !*contentURL) {
        std::fprintf(stderr, "upload_file: stored as %s, but the service gave no URL for it\n",
                     fileID.c_str());
        return 1;
    }
    std::printf("%s\n", (*contentURL)->c_str());
    return 0;
}
