#include "tests/url_session/session_harness.h"

#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include "tests/support/test_support.h"

namespace znv::test {

void RecordingDelegate::add(SessionEvent::Kind kind, uint64_t task, int64_t a, int64_t b, int64_t c,
                            ZNVErrorRef error, std::string text) {
    const bool onQueue = queue_ && queue_->isCurrent();
    SessionEvent event{kind, task, a, b, c, onQueue, std::move(error), std::move(text)};
    std::lock_guard guard(mutex_);
    events_.push_back(std::move(event));
}

void RecordingDelegate::didFinishDownloadingToURL(
    const std::shared_ptr<ZNVURLSession>&,
    const std::shared_ptr<ZNVURLSessionDownloadTask>& downloadTask, const ZNVURL& location) {
    std::string from = location.path();
    struct stat info {};
    bool isPrivate = stat(from.c_str(), &info) == 0 && (info.st_mode & 0777) == 0600;
    std::string to = downloadDirectory_ + "/task-" + std::to_string(downloadTask->taskIdentifier());
    bool moved = movesDownloads_ && std::rename(from.c_str(), to.c_str()) == 0;
    {
        std::lock_guard guard(mutex_);
        lastLocation_ = from;
        lastLocationPrivate_ = isPrivate;
    }
    add(SessionEvent::Kind::Finished, downloadTask->taskIdentifier(), moved ? 1 : 0, 0, 0, nullptr,
        moved ? to : std::string());
}

std::vector<SessionEvent> RecordingDelegate::events() const {
    std::lock_guard guard(mutex_);
    return events_;
}

std::vector<SessionEvent> RecordingDelegate::eventsFor(uint64_t task) const {
    std::vector<SessionEvent> result;
    for (const auto& event : events()) {
        if (event.task == task) result.push_back(event);
    }
    return result;
}

std::optional<SessionEvent> RecordingDelegate::waitForCompletion(uint64_t task, int seconds) const {
    std::optional<SessionEvent> found;
    waitFor(
        [&] {
            for (const auto& event : eventsFor(task)) {
                if (event.kind == SessionEvent::Kind::Completed) {
                    found = event;
                    return true;
                }
            }
            return false;
        },
        std::chrono::seconds(seconds));
    return found;
}

bool RecordingDelegate::waitForInvalid(int seconds) const {
    return waitFor(
        [&] {
            for (const auto& event : events()) {
                if (event.kind == SessionEvent::Kind::Invalid) return true;
            }
            return false;
        },
        std::chrono::seconds(seconds));
}

size_t RecordingDelegate::completedCount() const {
    size_t count = 0;
    for (const auto& event : events())
        count += event.kind == SessionEvent::Kind::Completed;
    return count;
}

int64_t RecordingDelegate::lastTotal(uint64_t task, SessionEvent::Kind kind) const {
    int64_t total = 0;
    for (const auto& event : eventsFor(task)) {
        if (event.kind == kind) total = event.b;
    }
    return total;
}

LocalServer::LocalServer(std::string payloadBytes) : payload(std::move(payloadBytes)) {
    // Ranges are answered by httplib itself (it slices the provider's output).
    server_.Get("/payload", [this](const httplib::Request&, httplib::Response& response) {
        response.set_header("ETag", "\"v1\"");
        response.set_header("Accept-Ranges", "bytes");
        response.set_content_provider(
            payload.size(), "application/octet-stream",
            [this](size_t offset, size_t length, httplib::DataSink& sink) {
                sink.write(payload.data() + offset, std::min<size_t>(length, 64 * 1024));
                return true;
            });
    });
    server_.Get("/to-file", [](const httplib::Request&, httplib::Response& response) {
        response.set_redirect("file:///etc/passwd");
    });
    server_.Get("/to-payload", [](const httplib::Request&, httplib::Response& response) {
        response.set_redirect("/payload");
    });
    // One request per connection, so that stopping never waits for idle keep-alives.
    server_.set_keep_alive_max_count(1);
    port_ = server_.bind_to_any_port("127.0.0.1");
    thread_ = std::thread([this] { server_.listen_after_bind(); });
}

LocalServer::~LocalServer() {
    server_.stop();
    if (thread_.joinable()) thread_.join();
}

std::string LocalServer::url(const std::string& path) const {
    return "http://127.0.0.1:" + std::to_string(port_) + path;
}

std::string createRemoteFile(emulator::Emulator& emulator, const std::string& name) {
    return createRemoteFile(emulator.port(), name);
}

std::string createRemoteFile(int port, const std::string& name) {
    httplib::Client client("127.0.0.1", port);
    httplib::Headers headers{{"Authorization", "Bearer dev-token"}};
    auto created = client.Post("/api/files", headers, nlohmann::json{{"fileName", name}}.dump(),
                               "application/json");
    if (!created || created->status != 201) {
        ADD_FAILURE() << "creating a remote file failed";
        return {};
    }
    return nlohmann::json::parse(created->body).at("fileId").get<std::string>();
}

std::string putFileOnEmulator(emulator::Emulator& emulator, const std::string& content,
                              std::string* fileId) {
    std::string id = createRemoteFile(emulator, "content.bin");
    httplib::Client client("127.0.0.1", emulator.port());
    httplib::Headers headers{{"Authorization", "Bearer dev-token"}};
    auto put = client.Put(("/api/files/" + id + "/fullfile").c_str(), headers, content,
                          "application/octet-stream");
    if (!put || put->status != 200) {
        ADD_FAILURE() << "uploading the fixture failed";
        return {};
    }
    if (fileId != nullptr) *fileId = id;
    return emulator.rootURL() + "content/" + id;
}

}  // namespace znv::test
