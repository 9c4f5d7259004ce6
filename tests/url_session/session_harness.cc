#include "tests/url_session/session_harness.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include "tests/support/test_support.h"

namespace znv::test {

RecordingDelegate::RecordingDelegate(std::string downloadDirectory)
    : downloadDirectory_(std::move(downloadDirectory)) {}

bool RecordingDelegate::onQueue() const {
    return queue_ && queue_->isCurrent();
}

void RecordingDelegate::record(SessionEvent event) {
    std::lock_guard guard(mutex_);
    events_.push_back(std::move(event));
}

void RecordingDelegate::didBecomeInvalidWithError(const std::shared_ptr<ZNVURLSession>&,
                                                  const ZNVErrorRef& error) {
    record({SessionEvent::Kind::Invalid, 0, 0, 0, 0, onQueue(), error, {}});
}

void RecordingDelegate::didCompleteWithError(const std::shared_ptr<ZNVURLSession>&,
                                             const std::shared_ptr<ZNVURLSessionTask>& task,
                                             const ZNVErrorRef& error) {
    // The task reads as completed by the time its completion arrives.
    record({SessionEvent::Kind::Completed,
            task->taskIdentifier(),
            task->state(),
            0,
            0,
            onQueue(),
            error,
            {}});
}

void RecordingDelegate::didSendBodyData(const std::shared_ptr<ZNVURLSession>&,
                                        const std::shared_ptr<ZNVURLSessionTask>& task,
                                        int64_t bytesSent, int64_t totalBytesSent,
                                        int64_t totalBytesExpectedToSend) {
    record({SessionEvent::Kind::Sent,
            task->taskIdentifier(),
            bytesSent,
            totalBytesSent,
            totalBytesExpectedToSend,
            onQueue(),
            nullptr,
            {}});
}

void RecordingDelegate::didReceiveData(const std::shared_ptr<ZNVURLSession>&,
                                       const std::shared_ptr<ZNVURLSessionDataTask>& dataTask,
                                       const ZNVBytes& data) {
    record({SessionEvent::Kind::Data, dataTask->taskIdentifier(), static_cast<int64_t>(data.size()),
            0, 0, onQueue(), nullptr, std::string(data.begin(), data.end())});
}

void RecordingDelegate::didResumeAtOffset(
    const std::shared_ptr<ZNVURLSession>&,
    const std::shared_ptr<ZNVURLSessionDownloadTask>& downloadTask, int64_t fileOffset,
    int64_t expectedTotalBytes) {
    record({SessionEvent::Kind::Resumed,
            downloadTask->taskIdentifier(),
            fileOffset,
            0,
            expectedTotalBytes,
            onQueue(),
            nullptr,
            {}});
}

void RecordingDelegate::didWriteData(const std::shared_ptr<ZNVURLSession>&,
                                     const std::shared_ptr<ZNVURLSessionDownloadTask>& downloadTask,
                                     int64_t bytesWritten, int64_t totalBytesWritten,
                                     int64_t totalBytesExpectedToWrite) {
    record({SessionEvent::Kind::Written,
            downloadTask->taskIdentifier(),
            bytesWritten,
            totalBytesWritten,
            totalBytesExpectedToWrite,
            onQueue(),
            nullptr,
            {}});
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
    record({SessionEvent::Kind::Finished, downloadTask->taskIdentifier(), moved ? 1 : 0, 0, 0,
            onQueue(), nullptr, moved ? to : std::string()});
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

int64_t RecordingDelegate::totalWritten(uint64_t task) const {
    int64_t total = 0;
    for (const auto& event : eventsFor(task)) {
        if (event.kind == SessionEvent::Kind::Written) total = event.b;
    }
    return total;
}

int64_t RecordingDelegate::totalSent(uint64_t task) const {
    int64_t total = 0;
    for (const auto& event : eventsFor(task)) {
        if (event.kind == SessionEvent::Kind::Sent) total = event.b;
    }
    return total;
}

std::string RecordingDelegate::lastLocation() const {
    std::lock_guard guard(mutex_);
    return lastLocation_;
}

bool RecordingDelegate::lastLocationWasPrivate() const {
    std::lock_guard guard(mutex_);
    return lastLocationPrivate_;
}

LocalServer::LocalServer(std::string payloadBytes) : payload(std::move(payloadBytes)) {
    // Ranges are answered by httplib itself (it slices the provider's output).
    server_.Get("/payload", [this](const httplib::Request& request, httplib::Response& response) {
        response.set_header("ETag", "\"v1\"");
        response.set_header("Accept-Ranges", "bytes");
        size_t drop = request.has_header("Range") ? 0 : dropAfter.load();
        response.set_content_provider(
            payload.size(), "application/octet-stream",
            [this, drop](size_t offset, size_t length, httplib::DataSink& sink) {
                if (drop > 0 && offset >= drop) return false;  // close short of the length
                size_t n = std::min<size_t>(length, 64 * 1024);
                if (drop > 0) n = std::min(n, drop - offset);
                sink.write(payload.data() + offset, n);
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

ExternalEmulator::ExternalEmulator(const std::vector<std::string>& faults) {
    std::vector<std::string> arguments{std::string(ZNV_BUILD_DIR) + "/znv-emulator", "--port", "0"};
    for (const auto& fault : faults) {
        arguments.push_back("--fault");
        arguments.push_back(fault);
    }
    // Everything the child needs is made before fork: it may only exec.
    std::vector<char*> argv;
    for (auto& argument : arguments)
        argv.push_back(argument.data());
    argv.push_back(nullptr);
    // A sanitizer build of the emulator reports its own findings without
    // stopping in the middle of a test of this process.
    std::vector<std::string> environment;
    for (char** entry = environ; *entry != nullptr; ++entry) {
        if (std::string(*entry).rfind("TSAN_OPTIONS=", 0) != 0) environment.push_back(*entry);
    }
    environment.push_back("TSAN_OPTIONS=halt_on_error=0");
    std::vector<char*> envp;
    for (auto& entry : environment)
        envp.push_back(entry.data());
    envp.push_back(nullptr);
    int pipeFds[2];
    if (pipe(pipeFds) != 0) return;
    pid_ = fork();
    if (pid_ == 0) {
        dup2(pipeFds[1], STDOUT_FILENO);
        close(pipeFds[0]);
        close(pipeFds[1]);
        execve(argv[0], argv.data(), envp.data());
        _exit(127);
    }
    close(pipeFds[1]);
    // The first line is the base URL: "http://127.0.0.1:<port>/api/".
    std::string line;
    char c = 0;
    while (read(pipeFds[0], &c, 1) == 1 && c != '\n')
        line.push_back(c);
    close(pipeFds[0]);
    size_t colon = line.rfind(':');
    if (colon != std::string::npos) port_ = std::atoi(line.c_str() + colon + 1);
}

ExternalEmulator::~ExternalEmulator() {
    if (pid_ > 0) {
        kill(pid_, SIGTERM);
        int status = 0;
        waitpid(pid_, &status, 0);
    }
}

std::string ExternalEmulator::baseURL() const {
    return "http://127.0.0.1:" + std::to_string(port_) + "/api/";
}

int closedPort() {
    int fd = socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    address.sin_port = 0;
    bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof(address));
    socklen_t length = sizeof(address);
    getsockname(fd, reinterpret_cast<sockaddr*>(&address), &length);
    int port = ntohs(address.sin_port);
    close(fd);
    return port;
}

}  // namespace znv::test
