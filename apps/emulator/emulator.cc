#include "apps/emulator/emulator.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <poll.h>
#include <signal.h>
#include <stdlib.h>
#include <sys/socket.h>
#include <unistd.h>

#include <httplib.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <cstring>
#include <deque>
#include <functional>
#include <memory>
#include <mutex>
#include <set>
#include <thread>
#include <vector>

#include "apps/emulator/faults.h"
#include "apps/emulator/file_store.h"
#include "apps/emulator/multipart.h"

#if defined(__SANITIZE_THREAD__)
// httplib comes as a shared library built without ThreadSanitizer. Its
// function-local statics (the set of method names its request parser
// compares against) are read on the guard's fast path, which the sanitizer
// cannot see, so two workers parsing their first requests at once look like a
// race inside the library. Accesses that the library itself makes through
// intercepted calls are ignored; the emulator's own code is still checked.
extern "C" const char* __tsan_default_suppressions() {
    return "called_from_lib:libcpp-httplib.so\n";
}
#endif

namespace znv::emulator {
namespace {

using json = nlohmann::json;
using Clock = std::chrono::steady_clock;

constexpr size_t kMaxJSONBody = 1 << 20;
// A batch of chunks: the library sends at most 8 chunks per request.
constexpr uint64_t kMaxBatchBytes = 64ull << 20;
// Bodies of requests answered without them are read and dropped up to this
// size, so that the connection can carry the next request.
constexpr uint64_t kMaxDrainBytes = 64ull << 20;
constexpr size_t kWorkerThreads = 48;
constexpr size_t kMaxLogEntries = 100000;
constexpr auto kStallLimit = std::chrono::minutes(10);
// httplib parses multipart bodies itself when it sees their content type; the
// emulator streams them with its own parser, so the pre-routing hook moves the
// header aside under this name.
constexpr const char* kStashedContentType = "X-Znv-Emulator-Content-Type";

const char* const kLoggedHeaders[] = {"Authorization", "Content-Type",      "Content-Length",
                                      "Range",         "If-Range",          "Accept",
                                      "Expect",        "Transfer-Encoding", "znvmultiplexinghint"};

std::vector<std::string> splitPath(const std::string& path) {
    std::vector<std::string> out;
    size_t start = 0;
    while (start <= path.size()) {
        size_t slash = path.find('/', start);
        if (slash == std::string::npos) slash = path.size();
        if (slash > start) out.push_back(path.substr(start, slash - start));
        start = slash + 1;
    }
    return out;
}

bool startsWithNoCase(const std::string& text, const char* prefix) {
    size_t n = std::strlen(prefix);
    return text.size() >= n && strncasecmp(text.c_str(), prefix, n) == 0;
}

std::string contentTypeOf(const httplib::Request& req) {
    if (req.has_header(kStashedContentType)) return req.get_header_value(kStashedContentType);
    return req.get_header_value("Content-Type");
}

// A connection's byte stream for httplib, read through a large buffer.
// httplib's own stream polls before every receive and asks for 16 KiB at a
// time, so a gigabyte of body costs well over a hundred thousand system calls
// that compete with the client for the CPU. This one tries the socket first
// and waits (up to the timeout) only when nothing is there, and receives up to
// kBufferSize at once. Reads and writes keep httplib's contract: -1 on error
// or timeout, 0 at end of stream.
class ConnectionStream final : public httplib::Stream {
  public:
    ConnectionStream(int sock, std::chrono::microseconds readTimeout,
                     std::chrono::microseconds writeTimeout)
        : sock_(sock), readTimeout_(readTimeout), writeTimeout_(writeTimeout) {}

    bool is_readable() const override { return begin_ < end_ || wait(POLLIN, readTimeout_); }
    bool is_writable() const override { return wait(POLLOUT, writeTimeout_); }

    ssize_t read(char* ptr, size_t size) override {
        if (begin_ == end_) {
            // A large request goes straight to the caller's memory.
            if (size >= kBufferSize) return receive(ptr, size);
            ssize_t n = receive(buffer_.get(), kBufferSize);
            if (n <= 0) return n;
            begin_ = 0;
            end_ = static_cast<size_t>(n);
        }
        size_t n = std::min(size, end_ - begin_);
        std::memcpy(ptr, buffer_.get() + begin_, n);
        begin_ += n;
        return static_cast<ssize_t>(n);
    }

    ssize_t write(const char* ptr, size_t size) override {
        while (true) {
            ssize_t n = ::send(sock_, ptr, size, MSG_DONTWAIT | MSG_NOSIGNAL);
            if (n >= 0) return n;
            if (errno == EINTR) continue;
            if ((errno != EAGAIN && errno != EWOULDBLOCK) || !wait(POLLOUT, writeTimeout_)) {
                return -1;
            }
        }
    }

    void get_remote_ip_and_port(std::string& ip, int& port) const override {
        address(::getpeername, ip, port);
    }
    void get_local_ip_and_port(std::string& ip, int& port) const override {
        address(::getsockname, ip, port);
    }
    int socket() const override { return sock_; }
    bool hasBuffered() const { return begin_ < end_; }

  private:
    static constexpr size_t kBufferSize = 64 * 1024;

    ssize_t receive(char* into, size_t size) const {
        while (true) {
            ssize_t n = ::recv(sock_, into, size, MSG_DONTWAIT);
            if (n >= 0) return n;
            if (errno == EINTR) continue;
            if ((errno != EAGAIN && errno != EWOULDBLOCK) || !wait(POLLIN, readTimeout_)) {
                return -1;
            }
        }
    }

    // Whether the socket became ready for `events` within `timeout`.
    bool wait(short events, std::chrono::microseconds timeout) const {
        const auto deadline = Clock::now() + timeout;
        while (true) {
            const auto left =
                std::chrono::ceil<std::chrono::milliseconds>(deadline - Clock::now()).count();
            pollfd p{sock_, events, 0};
            int ready = ::poll(&p, 1, static_cast<int>(std::max<long long>(left, 0)));
            if (ready > 0) return true;
            if (ready == 0 || errno != EINTR) return false;
        }
    }

    void address(int (*get)(int, sockaddr*, socklen_t*), std::string& ip, int& port) const {
        sockaddr_storage storage{};
        socklen_t length = sizeof storage;
        if (get(sock_, reinterpret_cast<sockaddr*>(&storage), &length) != 0) return;
        char text[INET6_ADDRSTRLEN] = {};
        if (storage.ss_family == AF_INET) {
            auto* in = reinterpret_cast<sockaddr_in*>(&storage);
            ::inet_ntop(AF_INET, &in->sin_addr, text, sizeof text);
            port = ntohs(in->sin_port);
        } else if (storage.ss_family == AF_INET6) {
            auto* in = reinterpret_cast<sockaddr_in6*>(&storage);
            ::inet_ntop(AF_INET6, &in->sin6_addr, text, sizeof text);
            port = ntohs(in->sin6_port);
        }
        ip = text;
    }

    int sock_;
    std::chrono::microseconds readTimeout_;
    std::chrono::microseconds writeTimeout_;
    // Received bytes not yet handed out: [begin_, end_) of buffer_. Used only
    // by the worker thread that serves the connection.
    std::unique_ptr<char[]> buffer_ = std::make_unique<char[]>(kBufferSize);
    size_t begin_ = 0;
    size_t end_ = 0;
};

// httplib's server with its per-connection loop taken over, for two reasons:
// the faults that act on a connection itself (reset, stall) need the socket of
// the request they serve, which httplib does not hand to handlers; and stop()
// must end idle keep-alive connections at once, without racing their close.
// The loop is httplib's own: up to keep_alive_max_count_ requests a
// connection, each after the client sent something within the keep-alive
// timeout, and none once the listener is gone.
class ConnectionServer final : public httplib::Server {
  public:
    // The socket of the connection the calling worker thread serves, or -1.
    static int currentSocket() { return tCurrentSocket; }

    // Shuts down both directions of every open connection; their workers then
    // see end of stream and close them.
    void shutdownConnections() {
        std::lock_guard lock(openMutex_);
        for (int fd : open_)
            shutdown(fd, SHUT_RDWR);
    }

  private:
    bool process_and_close_socket(socket_t sock) override {
        {
            std::lock_guard lock(openMutex_);
            open_.insert(sock);
        }
        tCurrentSocket = sock;
        bool ret = false;
        using std::chrono::microseconds;
        using std::chrono::seconds;
        // One stream for the whole connection: bytes of a pipelined next
        // request that arrived with this one stay in its buffer.
        ConnectionStream stream(sock, seconds(read_timeout_sec_) + microseconds(read_timeout_usec_),
                                seconds(write_timeout_sec_) + microseconds(write_timeout_usec_));
        for (size_t left = keep_alive_max_count_;
             left > 0 && (stream.hasBuffered() || awaitRequest(sock)); --left) {
            bool closeConnection = left == 1;
            bool connectionClosed = false;
            ret = process_request(stream, closeConnection, connectionClosed, nullptr);
            if (!ret || connectionClosed) break;
        }
        tCurrentSocket = -1;
        // Closed under the lock so that shutdownConnections() never touches a
        // descriptor number that another thread may already have reused.
        std::lock_guard lock(openMutex_);
        open_.erase(sock);
        shutdown(sock, SHUT_RDWR);
        close(sock);
        return ret;
    }

    // Waits for the next request on a kept-alive connection: true once bytes
    // (or end of stream) arrive, false after the keep-alive timeout or when
    // the server stops.
    bool awaitRequest(int sock) const {
        auto deadline = Clock::now() + std::chrono::seconds(keep_alive_timeout_sec_);
        while (svr_sock_ != INVALID_SOCKET) {
            pollfd p{sock, POLLIN, 0};
            int ready = poll(&p, 1, 10);
            if (ready > 0) return true;
            if (ready < 0 && errno != EINTR) return false;
            if (Clock::now() >= deadline) return false;
        }
        return false;
    }

    static thread_local int tCurrentSocket;
    std::mutex openMutex_;
    std::set<int> open_;  // guarded by openMutex_: sockets of live connections
};

thread_local int ConnectionServer::tCurrentSocket = -1;

// Aborts a TCP connection with a reset while leaving the descriptor open for
// httplib to close: disconnecting an established socket (connect with
// AF_UNSPEC) makes the kernel send RST and fail every later read and write.
void resetConnection(int fd) {
    if (fd < 0) return;
    linger lingerOption{1, 0};
    setsockopt(fd, SOL_SOCKET, SO_LINGER, &lingerOption, sizeof lingerOption);
    sockaddr unspec{};
    unspec.sa_family = AF_UNSPEC;
    connect(fd, &unspec, sizeof unspec);
}

bool peerHasGone(int fd) {
    if (fd < 0) return false;
    pollfd p{fd, POLLRDHUP, 0};
    return poll(&p, 1, 0) > 0 && (p.revents & (POLLRDHUP | POLLHUP | POLLERR));
}

// Writes out and empties `buffer`; false when the disk refuses.
// With `offset`, writes there and advances it instead of at the file position.
bool flushBuffer(int fd, std::vector<char>& buffer, off_t* offset = nullptr) {
    size_t done = 0;
    while (done < buffer.size()) {
        const char* from = buffer.data() + done;
        const size_t left = buffer.size() - done;
        ssize_t n = offset ? ::pwrite(fd, from, left, *offset) : ::write(fd, from, left);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) return false;
        done += static_cast<size_t>(n);
        if (offset) *offset += n;
    }
    buffer.clear();
    return true;
}

// An "Authorization" value as the request log keeps it: the scheme and the
// credential's first four characters, then "..." when there was more, so the
// log shows which token was sent without handing it to whoever reads the log.
std::string shortenedAuthorization(const std::string& value) {
    size_t start = value.find_first_not_of(" \t");
    if (start == std::string::npos) return value;
    size_t space = value.find_first_of(" \t", start);
    size_t credential = space == std::string::npos ? start : value.find_first_not_of(" \t", space);
    if (credential == std::string::npos) return value.substr(0, space);
    // Four characters, not bytes: a UTF-8 sequence is never cut in two.
    size_t end = credential, seen = 0;
    while (end < value.size() && seen < 4) {
        ++end;
        while (end < value.size() && (static_cast<unsigned char>(value[end]) & 0xC0) == 0x80)
            ++end;
        ++seen;
    }
    std::string shown =
        space == std::string::npos ? std::string() : value.substr(start, space - start) + " ";
    shown += value.substr(credential, end - credential);
    if (value.find_first_not_of(" \t", end) != std::string::npos) shown += "...";
    return shown;
}

// Compares a presented secret without an early exit on the first difference.
bool sameSecret(const std::string& presented, const std::string& expected) {
    if (expected.empty()) return false;
    unsigned char differ = presented.size() == expected.size() ? 0 : 1;
    for (size_t i = 0; i < presented.size(); ++i)
        differ |= static_cast<unsigned char>(presented[i] ^ expected[i % expected.size()]);
    return differ == 0;
}

json chunkList(const std::map<uint64_t, uint64_t>& chunks) {
    json out = json::array();
    for (const auto& [index, size] : chunks)
        out.push_back({{"index", index}});
    return out;
}

json indexList(const std::vector<uint64_t>& indices) {
    json out = json::array();
    for (uint64_t index : indices)
        out.push_back({{"index", index}});
    return out;
}

}  // namespace

// One request as it is served: what the handlers need besides httplib's pair.
struct Exchange {
    Exchange(const httplib::Request& request, httplib::Response& response,
             const httplib::ContentReader* contentReader)
        : req(request), res(response), reader(contentReader) {}

    const httplib::Request& req;
    httplib::Response& res;
    const httplib::ContentReader* reader;  // null when the request has no body
    uint64_t logId = 0;
    Clock::time_point started = Clock::now();

    // Abandoned: left unread on purpose (too large to be worth draining).
    enum class Body { Unread, Complete, Failed, Abandoned };
    Body body = Body::Unread;
    uint64_t bodyBytes = 0;
    uint64_t throttle = 0;  // bytes per second in both directions; 0: none
    bool dropped = false;   // the connection was reset or abandoned
    bool aborted = false;   // the client closed the connection before the answer
    std::vector<std::string> parts;
    std::string fault;
    std::string createdFileId;    // the remote file a create made
    std::string createdFileName;  // and the name it was given
};

class Emulator::Impl {
  public:
    explicit Impl(EmulatorOptions options) : options_(std::move(options)) {}

    bool start(std::string* error);
    void stop();

    EmulatorOptions options_;
    std::string dataDir_;
    FileStore store_;
    FaultSet faults_;
    std::atomic<uint16_t> port_{0};

    mutable std::mutex logMutex_;
    std::deque<json> log_;    // guarded by logMutex_
    uint64_t nextLogId_ = 1;  // guarded by logMutex_

    std::unique_ptr<ConnectionServer> server_;
    std::thread listener_;
    std::atomic<bool> stopping_{false};
    std::atomic<bool> listenerDone_{false};  // set when listen_after_bind returned
    std::mutex wakeMutex_;
    std::condition_variable wake_;  // stalls and throttles wait on it

    json requestLog() const;
    void clearRequestLog();
    const std::string& adminToken() const {
        return options_.adminToken.empty() ? options_.token : options_.adminToken;
    }

  private:
    void dispatch(const httplib::Request& req, httplib::Response& res,
                  const httplib::ContentReader* reader);
    void route(Exchange& ex);
    void handleAdmin(Exchange& ex);
    void handleContent(Exchange& ex, const std::string& id);
    void handleCreate(Exchange& ex);
    void handleInfo(Exchange& ex, const std::string& id);
    void handleDelete(Exchange& ex, const std::string& id);
    void handleFullFile(Exchange& ex, const std::string& id);
    void handleChunks(Exchange& ex, const std::string& id);
    void handleComplete(Exchange& ex, const std::string& id);
    void handleProcess(Exchange& ex, const std::string& id);
    int precheck(const httplib::Request& req, httplib::Response& res);
    uint64_t bodyLimit(const httplib::Request& req) const;
    bool bodyTooLarge(Exchange& ex);

    bool readBody(Exchange& ex, const std::function<bool(const char*, size_t)>& sink,
                  std::optional<uint64_t> limit = std::nullopt);
    bool readJSON(Exchange& ex, json& out);
    void pace(Clock::time_point start, uint64_t bytes, uint64_t rate);
    bool stall(Exchange& ex, uint64_t ruleId);
    void drop(Exchange& ex);

    void reply(Exchange& ex, int status, const json& body);
    void replyMessage(Exchange& ex, int status, const std::string& message);
    void replyCompleted(Exchange& ex, const std::string& id, const FileInfo& info);
    void replyStoreFailure(Exchange& ex, const std::string& id, const StoreResult& result);
    bool checkAuthorization(Exchange& ex);
    // Answers 401 unless the request carries "Authorization: Bearer <token>".
    bool checkBearer(Exchange& ex, const std::string& token);
    bool findFile(Exchange& ex, const std::string& id, FileInfo& info);
    bool declaredCompleted(Exchange& ex, const FileInfo& info);
    std::string contentURI(const httplib::Request& req, const std::string& id) const;

    uint64_t beginLog(const httplib::Request& req);
    void finishLog(const Exchange& ex);
    // Moves the end of a logged request to now: for content, whose body is
    // sent after the handler returned; `aborted` when the client went first.
    void extendLog(uint64_t logId, bool aborted);
};

bool Emulator::Impl::start(std::string* error) {
    auto fail = [&](const std::string& message) {
        if (error) *error = message;
        return false;
    };
    dataDir_ = options_.dataDir;
    if (options_.sink) {
        if (!dataDir_.empty())
            return fail("a sink keeps nothing on disk and takes no data directory");
        store_.openSink();
    } else if (dataDir_.empty()) {
        const char* tmp = getenv("TMPDIR");
        std::string pattern = std::string(tmp && *tmp ? tmp : "/tmp") + "/znv-emulator-XXXXXX";
        std::vector<char> buffer(pattern.begin(), pattern.end());
        buffer.push_back('\0');
        if (!mkdtemp(buffer.data())) {
            return fail(std::string("cannot create a temporary data directory: ") +
                        std::strerror(errno));
        }
        dataDir_ = buffer.data();
    }
    if (!options_.sink) {
        if (!store_.open(dataDir_, error)) return false;
        dataDir_ = store_.dataDir();
    }

    // A client that disconnects while the server writes would otherwise end
    // the whole process with SIGPIPE (httplib sends without MSG_NOSIGNAL).
    struct sigaction current {};
    if (sigaction(SIGPIPE, nullptr, &current) == 0 && current.sa_handler == SIG_DFL) {
        signal(SIGPIPE, SIG_IGN);
    }

    stopping_ = false;
    server_ = std::make_unique<ConnectionServer>();
    auto& svr = *server_;
    svr.new_task_queue = [] { return new httplib::ThreadPool(kWorkerThreads); };
    svr.set_socket_options([](int sock) {
        // Only SO_REUSEADDR: two emulators must never share a port.
        int yes = 1;
        setsockopt(sock, SOL_SOCKET, SO_REUSEADDR, &yes, sizeof yes);
    });
    svr.set_keep_alive_max_count(1000);
    svr.set_keep_alive_timeout(5);
    svr.set_read_timeout(10);
    svr.set_write_timeout(10);
    svr.set_tcp_nodelay(true);

    svr.set_pre_routing_handler([](const httplib::Request& req, httplib::Response&) {
        // The request object is httplib's own non-const local; handlers see it
        // as const. Ranges are answered by the content handler itself (with
        // If-Range), so httplib must not slice the body a second time.
        auto& mutableReq = const_cast<httplib::Request&>(req);
        mutableReq.ranges.clear();
        auto it = mutableReq.headers.find("Content-Type");
        if (it != mutableReq.headers.end() && startsWithNoCase(it->second, "multipart/form-data")) {
            std::string value = it->second;
            mutableReq.headers.erase(it);
            mutableReq.headers.emplace(kStashedContentType, value);
        }
        return httplib::Server::HandlerResponse::Unhandled;
    });
    svr.set_expect_100_continue_handler(
        [this](const httplib::Request& req, httplib::Response& res) { return precheck(req, res); });
    svr.set_error_handler(
        httplib::Server::HandlerWithResponse([](const httplib::Request&, httplib::Response& res) {
            if (!res.body.empty() || res.content_provider_) {
                return httplib::Server::HandlerResponse::Unhandled;
            }
            json body = {{"message", "HTTP status " + std::to_string(res.status)}};
            res.set_content(body.dump(), "application/json");
            return httplib::Server::HandlerResponse::Handled;
        }));

    auto plain = [this](const httplib::Request& req, httplib::Response& res) {
        dispatch(req, res, nullptr);
    };
    auto withBody = [this](const httplib::Request& req, httplib::Response& res,
                           const httplib::ContentReader& reader) { dispatch(req, res, &reader); };
    svr.Get(".*", plain);
    svr.Post(".*", withBody);
    svr.Post(".*", plain);
    svr.Put(".*", withBody);
    svr.Put(".*", plain);
    svr.Delete(".*", withBody);
    svr.Delete(".*", plain);
    svr.Patch(".*", withBody);
    svr.Patch(".*", plain);

    int port = 0;
    if (options_.port == 0) {
        port = svr.bind_to_any_port("127.0.0.1");
        if (port <= 0) {
            server_.reset();
            return fail("cannot listen on 127.0.0.1");
        }
    } else {
        if (!svr.bind_to_port("127.0.0.1", options_.port)) {
            server_.reset();
            return fail("cannot listen on 127.0.0.1:" + std::to_string(options_.port) +
                        " (is it in use?)");
        }
        port = options_.port;
    }
    port_ = static_cast<uint16_t>(port);
    listenerDone_ = false;
    listener_ = std::thread([this] {
        server_->listen_after_bind();
        {
            std::lock_guard lock(wakeMutex_);
            listenerDone_ = true;
        }
        wake_.notify_all();
    });
    // httplib's stop() does nothing until the server runs; a stop() right
    // after start() must not leave the listener accepting for ever.
    while (!server_->is_running() && !listenerDone_) {
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    return true;
}

void Emulator::Impl::stop() {
    if (!server_) return;
    {
        std::lock_guard lock(wakeMutex_);
        stopping_ = true;
    }
    wake_.notify_all();
    server_->stop();
    // A worker in the middle of reading a body would wait for its read
    // timeout; shutting the connections down ends those reads now. Repeated
    // until the listener returns, as a connection accepted just before the
    // stop may open after the first pass.
    while (listener_.joinable() && !listenerDone_) {
        server_->shutdownConnections();
        std::unique_lock lock(wakeMutex_);
        wake_.wait_for(lock, std::chrono::milliseconds(20), [&] { return listenerDone_.load(); });
    }
    if (listener_.joinable()) listener_.join();
    server_.reset();
}

// The answer to "Expect: 100-continue": refuse before the body is sent when the
// request cannot succeed anyway, so a client does not push gigabytes in vain.
// Requests that a fault rule may act on always get to the handler.
int Emulator::Impl::precheck(const httplib::Request& req, httplib::Response& res) {
    auto parts = splitPath(req.path);
    if (parts.empty() || parts[0] != "api" ||
        faults_.anyMatch(req.method, req.path,
                         {FaultAction::Status, FaultAction::Reset, FaultAction::Stall,
                          FaultAction::Throttle, FaultAction::AlreadyCompleted})) {
        return 100;
    }
    Exchange ex(req, res, nullptr);
    bool answered = !checkAuthorization(ex) || bodyTooLarge(ex);
    if (!answered && parts.size() >= 3 && parts[1] == "files") {
        auto info = isValidFileId(parts[2]) ? store_.info(parts[2]) : std::nullopt;
        if (!info) {
            replyMessage(ex, 404, "no file with ID " + parts[2]);
            answered = true;
        } else if (info->complete && req.method == "PUT") {
            replyMessage(ex, 403, "file " + info->id + " is already completed");
            answered = true;
        }
    }
    if (!answered) return 100;
    // httplib writes this answer as it stands, without a length, and then
    // reads the connection on: a body the client sends anyway would be parsed
    // as requests. The length ends the answer, and the client closes.
    res.set_header("Content-Length", std::to_string(res.body.size()));
    res.set_header("Connection", "close");
    ex.logId = beginLog(req);
    finishLog(ex);
    return res.status;
}

uint64_t Emulator::Impl::bodyLimit(const httplib::Request& req) const {
    auto parts = splitPath(req.path);
    if (req.method == "PUT" && parts.size() == 4 && parts[3] == "fullfile") {
        return options_.maxFullFileBytes;
    }
    if (req.method == "PUT" && parts.size() == 3) return kMaxBatchBytes;
    return kMaxJSONBody;
}

// Answers 413 for a declared length above what the endpoint takes, without
// reading the body (which may never come).
bool Emulator::Impl::bodyTooLarge(Exchange& ex) {
    if (!ex.req.has_header("Content-Length")) return false;
    uint64_t declared = ex.req.get_header_value<uint64_t>("Content-Length");
    uint64_t limit = bodyLimit(ex.req);
    if (declared <= limit) return false;
    ex.body = Exchange::Body::Abandoned;
    replyMessage(ex, 413,
                 "a body of " + std::to_string(declared) + " bytes exceeds the limit of " +
                     std::to_string(limit) + " bytes for " + ex.req.method + " " + ex.req.path);
    return true;
}

uint64_t Emulator::Impl::beginLog(const httplib::Request& req) {
    json entry = {{"method", req.method}, {"path", req.path}, {"status", 0}, {"bodySize", 0}};
    if (auto q = req.target.find('?'); q != std::string::npos) {
        entry["query"] = req.target.substr(q + 1);
    }
    json headers = json::object();
    for (const char* name : kLoggedHeaders) {
        std::string value = std::strcmp(name, "Content-Type") == 0 ? contentTypeOf(req)
                                                                   : req.get_header_value(name);
        if (std::strcmp(name, "Authorization") == 0) value = shortenedAuthorization(value);
        if (!value.empty() || req.has_header(name)) headers[name] = value;
    }
    entry["headers"] = headers;
    std::lock_guard lock(logMutex_);
    uint64_t id = nextLogId_++;
    entry["id"] = id;
    log_.push_back(std::move(entry));
    if (log_.size() > kMaxLogEntries) log_.pop_front();
    return id;
}

void Emulator::Impl::finishLog(const Exchange& ex) {
    std::lock_guard lock(logMutex_);
    for (auto it = log_.rbegin(); it != log_.rend(); ++it) {
        if ((*it)["id"] != ex.logId) continue;
        (*it)["status"] = ex.dropped ? 0 : ex.res.status;
        (*it)["bodySize"] = ex.bodyBytes;
        const Clock::time_point ended = Clock::now();
        (*it)["durationMs"] =
            std::chrono::duration_cast<std::chrono::milliseconds>(ended - ex.started).count();
        // Monotonic clock readings (comparable between processes of one machine).
        (*it)["startMs"] =
            std::chrono::duration_cast<std::chrono::milliseconds>(ex.started.time_since_epoch())
                .count();
        (*it)["endMs"] =
            std::chrono::duration_cast<std::chrono::milliseconds>(ended.time_since_epoch()).count();
        if (!ex.createdFileId.empty()) (*it)["fileId"] = ex.createdFileId;
        if (!ex.createdFileName.empty()) {
            // Names need not be UTF-8; the log holds text.
            (*it)["fileName"] = json::parse(
                json(ex.createdFileName).dump(-1, ' ', false, json::error_handler_t::replace));
        }
        if (!ex.parts.empty()) (*it)["parts"] = ex.parts;
        if (!ex.fault.empty()) (*it)["fault"] = ex.fault;
        if (ex.aborted) (*it)["aborted"] = true;
        break;
    }
}

void Emulator::Impl::extendLog(uint64_t logId, bool aborted) {
    const Clock::time_point ended = Clock::now();
    std::lock_guard lock(logMutex_);
    for (auto it = log_.rbegin(); it != log_.rend(); ++it) {
        if ((*it)["id"] != logId) continue;
        const int64_t endMs =
            std::chrono::duration_cast<std::chrono::milliseconds>(ended.time_since_epoch()).count();
        if (it->contains("startMs")) {
            (*it)["durationMs"] = endMs - (*it)["startMs"].get<int64_t>();
        }
        (*it)["endMs"] = endMs;
        if (aborted) (*it)["aborted"] = true;
        break;
    }
}

json Emulator::Impl::requestLog() const {
    std::lock_guard lock(logMutex_);
    json out = json::array();
    for (const auto& entry : log_)
        out.push_back(entry);
    return out;
}

void Emulator::Impl::clearRequestLog() {
    std::lock_guard lock(logMutex_);
    log_.clear();
}

void Emulator::Impl::reply(Exchange& ex, int status, const json& body) {
    ex.res.status = status;
    // Paths and names echoed from a request need not be UTF-8.
    ex.res.set_content(body.dump(-1, ' ', false, json::error_handler_t::replace),
                       "application/json");
}

void Emulator::Impl::replyMessage(Exchange& ex, int status, const std::string& message) {
    reply(ex, status, json{{"message", message}});
}

// The answer for a file that a store operation has just completed.
void Emulator::Impl::replyCompleted(Exchange& ex, const std::string& id, const FileInfo& info) {
    reply(ex, 200,
          json{{"fileId", id},
               {"fileName", info.name},
               {"isComplete", true},
               {"contentUri", contentURI(ex.req, id)}});
}

// The answer for a store operation that did not succeed.
void Emulator::Impl::replyStoreFailure(Exchange& ex, const std::string& id,
                                       const StoreResult& result) {
    switch (result.status) {
        case StoreStatus::NotFound:
            return replyMessage(ex, 404, "no file with ID " + id);
        case StoreStatus::AlreadyCompleted:
            return replyMessage(ex, 403, "file " + id + " is already completed");
        case StoreStatus::NotComplete:
            return replyMessage(ex, 409, "file " + id + " is not complete");
        case StoreStatus::Missing:
            return reply(ex, 409,
                         json{{"message", std::to_string(result.missing.size()) +
                                              " chunk(s) are missing or have the wrong size"},
                              {"missingChunks", indexList(result.missing)}});
        case StoreStatus::Ok:
        case StoreStatus::IOError:
            break;
    }
    replyMessage(ex, 500, result.message);
}

void Emulator::Impl::pace(Clock::time_point start, uint64_t bytes, uint64_t rate) {
    auto due = start + std::chrono::microseconds(bytes * 1000000 / rate);
    std::unique_lock lock(wakeMutex_);
    wake_.wait_until(lock, due, [&] { return stopping_.load(); });
}

bool Emulator::Impl::readBody(Exchange& ex, const std::function<bool(const char*, size_t)>& sink,
                              std::optional<uint64_t> limit) {
    if (!ex.reader) {
        ex.body = Exchange::Body::Complete;
        return true;
    }
    if (ex.body != Exchange::Body::Unread) return ex.body == Exchange::Body::Complete;
    bool sinkOpen = static_cast<bool>(sink);
    // httplib answers 400 itself when a body cannot be read; the handler
    // decides what the answer is.
    const int status = ex.res.status;
    auto start = Clock::now();
    bool ok = (*ex.reader)([&](const char* data, size_t size) {
        if (stopping_) return false;
        if (limit) {
            if (ex.bodyBytes >= *limit) return false;
            size = static_cast<size_t>(std::min<uint64_t>(size, *limit - ex.bodyBytes));
        }
        ex.bodyBytes += size;
        // A sink that has had enough still lets the rest of the body be read,
        // so that the connection stays in step for the next request.
        if (sinkOpen && !sink(data, size)) sinkOpen = false;
        if (ex.throttle) pace(start, ex.bodyBytes, ex.throttle);
        return !stopping_ && !(limit && ex.bodyBytes >= *limit);
    });
    ex.res.status = status;
    ex.body = ok ? Exchange::Body::Complete : Exchange::Body::Failed;
    if (!ok && !stopping_ && peerHasGone(ConnectionServer::currentSocket())) ex.aborted = true;
    return ok;
}

bool Emulator::Impl::readJSON(Exchange& ex, json& out) {
    std::string text;
    bool tooLarge = false;
    bool ok = readBody(ex, [&](const char* data, size_t size) {
        if (text.size() + size > kMaxJSONBody) {
            tooLarge = true;
            return false;
        }
        text.append(data, size);
        return true;
    });
    if (!ok) {
        replyMessage(ex, 400, "the request body ended before its declared length");
        return false;
    }
    if (tooLarge) {
        replyMessage(ex, 413,
                     "a JSON body may hold at most " + std::to_string(kMaxJSONBody) + " bytes");
        return false;
    }
    if (text.empty()) {
        out = json();
        return true;
    }
    out = json::parse(text, nullptr, false);
    if (out.is_discarded()) {
        replyMessage(ex, 400, "the request body is not valid JSON");
        return false;
    }
    return true;
}

void Emulator::Impl::drop(Exchange& ex) {
    ex.dropped = true;
    resetConnection(ConnectionServer::currentSocket());
    // Nothing reaches the client; httplib still wants a status to write.
    ex.res.status = 500;
    ex.res.set_header("Connection", "close");
}

// Holds a request unanswered until its rule is cleared (then serves it), the
// client gives up, the emulator stops or the stall limit passes (then drops it).
bool Emulator::Impl::stall(Exchange& ex, uint64_t ruleId) {
    int fd = ConnectionServer::currentSocket();
    auto deadline = Clock::now() + kStallLimit;
    std::unique_lock lock(wakeMutex_);
    while (!stopping_) {
        // A client that gave up is never served, not even when its rule
        // is cleared in the same moment: the log's end is when it closed.
        if (peerHasGone(fd)) {
            ex.aborted = true;
            break;
        }
        if (!faults_.contains(ruleId)) return true;
        if (Clock::now() >= deadline) break;
        wake_.wait_for(lock, std::chrono::milliseconds(20));
    }
    lock.unlock();
    drop(ex);
    return false;
}

void Emulator::Impl::dispatch(const httplib::Request& req, httplib::Response& res,
                              const httplib::ContentReader* reader) {
    Exchange ex{req, res, reader};
    auto parts = splitPath(req.path);
    if (!parts.empty() && parts[0] == "_admin") {
        handleAdmin(ex);
    } else {
        ex.logId = beginLog(req);
        auto rule = faults_.take(
            req.method, req.path,
            {FaultAction::Status, FaultAction::Reset, FaultAction::Stall, FaultAction::Throttle});
        bool serve = true;
        if (rule) {
            ex.fault = faultActionName(rule->action);
            switch (rule->action) {
                case FaultAction::Stall:
                    serve = stall(ex, rule->id);
                    break;
                case FaultAction::Reset:
                    if (rule->afterBytes > 0) readBody(ex, nullptr, rule->afterBytes);
                    drop(ex);
                    serve = false;
                    break;
                case FaultAction::Throttle:
                    ex.throttle = rule->bytesPerSecond;
                    break;
                case FaultAction::Status: {
                    readBody(ex, nullptr);
                    json body = rule->body.is_null()
                                    ? json{{"message", rule->message.empty() ? "injected fault"
                                                                             : rule->message}}
                                    : rule->body;
                    reply(ex, rule->status, body);
                    if (rule->headers.is_object()) {
                        for (const auto& [name, value] : rule->headers.items()) {
                            res.set_header(name, value.get<std::string>());
                        }
                    }
                    serve = false;
                    break;
                }
                case FaultAction::MissingChunks:
                case FaultAction::AlreadyCompleted:
                    break;
            }
        }
        if (serve) route(ex);
    }
    if (!ex.dropped && ex.reader && ex.body == Exchange::Body::Unread) {
        bool declared = req.has_header("Content-Length");
        if (declared && req.get_header_value<uint64_t>("Content-Length") > kMaxDrainBytes) {
            ex.body = Exchange::Body::Abandoned;
        } else {
            readBody(ex, nullptr, declared ? std::nullopt : std::optional(kMaxDrainBytes));
        }
    }
    if (ex.body == Exchange::Body::Failed || ex.body == Exchange::Body::Abandoned) {
        res.set_header("Connection", "close");
    }
    if (res.status == -1) res.status = 500;
    if (ex.logId) finishLog(ex);
}

void Emulator::Impl::route(Exchange& ex) {
    const auto& req = ex.req;
    auto parts = splitPath(req.path);
    const std::string& method = req.method;
    bool get = method == "GET" || method == "HEAD";

    if (parts.size() == 2 && parts[0] == "content") {
        if (!get) return replyMessage(ex, 405, "content is read with GET");
        return handleContent(ex, parts[1]);
    }
    if (parts.empty() || parts[0] != "api") {
        return replyMessage(ex, 404, "no such resource: " + req.path);
    }
    if (!checkAuthorization(ex) || bodyTooLarge(ex)) return;
    if (parts.size() < 2 || parts[1] != "files") {
        return replyMessage(ex, 404, "no such resource: " + req.path);
    }
    if (parts.size() == 2) {
        if (method == "POST") return handleCreate(ex);
        return replyMessage(ex, 405, method + " is not supported on the files collection");
    }
    const std::string& id = parts[2];
    if (parts.size() == 3) {
        if (get) return handleInfo(ex, id);
        if (method == "PUT") return handleChunks(ex, id);
        if (method == "DELETE") return handleDelete(ex, id);
        return replyMessage(ex, 405, method + " is not supported on a file");
    }
    if (parts.size() == 4) {
        if (parts[3] == "fullfile") {
            if (method == "PUT") return handleFullFile(ex, id);
            return replyMessage(ex, 405, "fullfile takes PUT");
        }
        if (parts[3] == "complete") {
            if (method == "POST") return handleComplete(ex, id);
            return replyMessage(ex, 405, "complete takes POST");
        }
        if (parts[3] == "process") {
            if (method == "POST") return handleProcess(ex, id);
            return replyMessage(ex, 405, "process takes POST");
        }
    }
    replyMessage(ex, 404, "no such resource: " + req.path);
}

bool Emulator::Impl::checkAuthorization(Exchange& ex) {
    return checkBearer(ex, options_.token);
}

bool Emulator::Impl::checkBearer(Exchange& ex, const std::string& token) {
    std::string header = ex.req.get_header_value("Authorization");
    if (sameSecret(header, "Bearer " + token)) return true;
    ex.res.set_header("WWW-Authenticate", "Bearer");
    replyMessage(ex, 401, header.empty() ? "missing access token" : "invalid access token");
    return false;
}

bool Emulator::Impl::findFile(Exchange& ex, const std::string& id, FileInfo& info) {
    auto found = isValidFileId(id) ? store_.info(id) : std::nullopt;
    if (!found) {
        replyMessage(ex, 404, "no file with ID " + id);
        return false;
    }
    info = std::move(*found);
    return true;
}

// True (and answered) when the file is complete or a rule declares it so.
bool Emulator::Impl::declaredCompleted(Exchange& ex, const FileInfo& info) {
    bool injected = static_cast<bool>(
        faults_.take(ex.req.method, ex.req.path, {FaultAction::AlreadyCompleted}));
    if (injected) ex.fault = faultActionName(FaultAction::AlreadyCompleted);
    if (!info.complete && !injected) return false;
    replyMessage(ex, 403, "file " + info.id + " is already completed");
    return true;
}

std::string Emulator::Impl::contentURI(const httplib::Request& req, const std::string& id) const {
    std::string host = req.get_header_value("Host");
    if (host.empty()) host = "127.0.0.1:" + std::to_string(port_.load());
    return "http://" + host + "/content/" + id;
}

void Emulator::Impl::handleCreate(Exchange& ex) {
    json body;
    if (!readJSON(ex, body)) return;
    if (!body.is_object()) return replyMessage(ex, 400, "the body must be a JSON object");
    auto name = body.find("fileName");
    if (name == body.end() || !name->is_string() || name->get<std::string>().empty()) {
        return replyMessage(ex, 400, "fileName must be a non-empty string");
    }
    std::string shared;
    if (auto it = body.find("sharedStorageId"); it != body.end() && !it->is_null()) {
        if (!it->is_string()) return replyMessage(ex, 400, "sharedStorageId must be a string");
        shared = it->get<std::string>();
    }
    auto result = store_.create(name->get<std::string>(), shared);
    if (result.status != StoreStatus::Ok) return replyMessage(ex, 500, result.message);
    json answer = {{"fileId", result.info.id},
                   {"fileName", result.info.name},
                   {"uploadMethods",
                    {{{"name", "fullfile"}, {"maxBytesPerRequest", options_.maxFullFileBytes}},
                     {{"name", "chunks"}, {"maxBytesPerRequest", kChunkStride}}}}};
    if (!shared.empty()) answer["sharedStorageId"] = shared;
    ex.createdFileId = result.info.id;
    ex.createdFileName = result.info.name;
    reply(ex, 201, answer);
}

void Emulator::Impl::handleInfo(Exchange& ex, const std::string& id) {
    FileInfo info;
    if (!findFile(ex, id, info)) return;
    json answer = {{"fileId", info.id},
                   {"fileName", info.name},
                   {"isComplete", info.complete},
                   {"uploadedChunks", chunkList(info.chunks)}};
    if (!info.sharedStorageId.empty()) answer["sharedStorageId"] = info.sharedStorageId;
    if (info.complete) {
        answer["contentUri"] = contentURI(ex.req, info.id);
        answer["sizeInBytes"] = info.size;
    }
    if (!info.processing.is_null()) answer["processing"] = info.processing;
    reply(ex, 200, answer);
}

void Emulator::Impl::handleDelete(Exchange& ex, const std::string& id) {
    FileInfo info;
    if (!findFile(ex, id, info)) return;
    auto result = store_.remove(id);
    if (result.status == StoreStatus::NotFound)
        return replyMessage(ex, 404, "no file with ID " + id);
    reply(ex, 200, json{{"fileId", id}});
}

void Emulator::Impl::handleFullFile(Exchange& ex, const std::string& id) {
    FileInfo info;
    if (!findFile(ex, id, info) || declaredCompleted(ex, info)) return;
    const uint64_t limit = options_.maxFullFileBytes;
    auto tooLarge = [&](uint64_t size) {
        replyMessage(ex, 413,
                     "a body of " + std::to_string(size) +
                         " bytes exceeds the full-file limit of " + std::to_string(limit) +
                         " bytes");
    };

    if (options_.sink) {
        uint64_t size = 0;
        bool complete = readBody(ex, [&](const char*, size_t n) {
            size += n;
            return size <= limit;
        });
        if (!complete) return replyMessage(ex, 400, "the request body ended before its end");
        if (size > limit) return tooLarge(size);
        auto result = store_.commitFullFile(id, std::string(), size);
        if (result.status != StoreStatus::Ok) return replyStoreFailure(ex, id, result);
        return replyCompleted(ex, id, result.info);
    }

    std::string aside = store_.incomingPath(id);
    int fd = ::open(aside.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0600);
    if (fd < 0) return replyMessage(ex, 500, std::string("cannot store: ") + std::strerror(errno));
    // Pieces from the socket are small; gather them to write in large blocks.
    std::vector<char> buffer;
    buffer.reserve(1 << 20);
    uint64_t size = 0;
    bool writeFailed = false;
    auto flush = [&] { return flushBuffer(fd, buffer); };
    bool complete = readBody(ex, [&](const char* data, size_t n) {
        size += n;
        if (size > limit || writeFailed) return false;
        buffer.insert(buffer.end(), data, data + n);
        if (buffer.size() >= (1 << 20) && !flush()) writeFailed = true;
        return !writeFailed;
    });
    if (!writeFailed && !flush()) writeFailed = true;
    ::close(fd);
    if (!complete || writeFailed || size > limit) {
        ::unlink(aside.c_str());
        if (!complete) return replyMessage(ex, 400, "the request body ended before its end");
        if (writeFailed) return replyMessage(ex, 500, "cannot store the body on disk");
        return tooLarge(size);
    }
    auto result = store_.commitFullFile(id, aside, size);
    if (result.status != StoreStatus::Ok) return replyStoreFailure(ex, id, result);
    replyCompleted(ex, id, result.info);
}

void Emulator::Impl::handleChunks(Exchange& ex, const std::string& id) {
    FileInfo info;
    if (!findFile(ex, id, info) || declaredCompleted(ex, info)) return;
    auto boundary = MultipartParser::boundaryFromContentType(contentTypeOf(ex.req));
    if (!boundary) {
        return replyMessage(ex, 400,
                            "chunks are sent as a multipart/form-data body with a boundary");
    }

    // A chunk not stored yet is written straight into its slot of the file's
    // data file; one sent again over a stored chunk (or twice in this body)
    // goes to a file aside. Only a body that parses to the end is committed,
    // so a broken body stores nothing: slots it wrote into stay unrecorded.
    ChunkWrites writes;
    if (!store_.beginChunkWrites(id, writes)) return replyMessage(ex, 404, "no file with ID " + id);
    struct EndWrites {
        FileStore& store;
        const std::string& id;
        ChunkWrites& writes;
        ~EndWrites() { store.endChunkWrites(id, writes); }
    } endWrites{store_, id, writes};
    std::set<uint64_t> placed;  // indices this body wrote in place
    std::vector<ReceivedChunk> received;
    std::optional<ReceivedChunk> current;
    int fd = -1;
    off_t slotOffset = 0;  // where an in-place chunk's next bytes go
    std::vector<char> buffer;
    std::string problem;
    auto flush = [&] {
        return current && current->tempPath.empty() ? flushBuffer(fd, buffer, &slotOffset)
                                                    : flushBuffer(fd, buffer);
    };
    auto closeCurrent = [&] {
        if (fd >= 0 && fd != writes.dataFd) ::close(fd);
        fd = -1;
    };
    auto removeTemporary = [](const ReceivedChunk& chunk) {
        if (!chunk.tempPath.empty()) ::unlink(chunk.tempPath.c_str());
    };
    MultipartParser::Callbacks callbacks;
    callbacks.partBegin = [&](const MultipartPartHeaders& headers) {
        ex.parts.push_back(headers.name);
        const std::string prefix = "chunkData.";
        if (headers.name.compare(0, prefix.size(), prefix) != 0) return true;  // not a chunk
        std::string digits = headers.name.substr(prefix.size());
        if (digits.empty() || digits.size() > 18 ||
            digits.find_first_not_of("0123456789") != std::string::npos) {
            problem = "part name " + headers.name + " does not end in a chunk index";
            return false;
        }
        const uint64_t index = std::stoull(digits);
        if (options_.sink) {  // counted, never written (fd stays -1)
            current = ReceivedChunk{index, "", 0};
            return true;
        }
        if (index <= kMaxStrideIndex && !writes.stored.count(index) &&
            placed.insert(index).second) {
            current = ReceivedChunk{index, "", 0};
            fd = writes.dataFd;
            slotOffset = static_cast<off_t>(index * kChunkStride);
            buffer.reserve(kChunkStride / 4);
            return true;
        }
        current = ReceivedChunk{index, store_.tempPath(), 0};
        fd = ::open(current->tempPath.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0600);
        if (fd < 0) {
            problem = std::string("cannot store a chunk: ") + std::strerror(errno);
            current.reset();
            return false;
        }
        buffer.reserve(kChunkStride / 4);
        return true;
    };
    callbacks.partData = [&](const char* data, size_t size) {
        if (!current) return true;
        current->size += size;
        if (current->size > kChunkStride) {
            problem = "chunk " + std::to_string(current->index) + " holds more than " +
                      std::to_string(kChunkStride) + " bytes";
            return false;
        }
        if (fd < 0) return true;  // a sink
        buffer.insert(buffer.end(), data, data + size);
        if (buffer.size() >= kChunkStride / 4 && !flush()) {
            problem = "cannot write a chunk to disk";
            return false;
        }
        return true;
    };
    callbacks.partEnd = [&] {
        if (!current) return true;
        bool ok = flush();
        closeCurrent();
        if (!ok) {
            problem = "cannot write a chunk to disk";
            removeTemporary(*current);
            current.reset();
            return false;
        }
        if (current->size == 0) {
            problem = "chunk " + std::to_string(current->index) + " is empty";
            removeTemporary(*current);
            current.reset();
            return false;
        }
        received.push_back(std::move(*current));
        current.reset();
        return true;
    };
    MultipartParser parser(*boundary, std::move(callbacks));
    bool bodyRead =
        readBody(ex, [&](const char* data, size_t size) { return parser.feed(data, size); });
    bool parsed = bodyRead && parser.finish();
    closeCurrent();
    if (current) removeTemporary(*current);
    if (!parsed) {
        for (const auto& chunk : received)
            removeTemporary(chunk);
        if (!bodyRead) return replyMessage(ex, 400, "the request body ended before its end");
        return replyMessage(
            ex, 400, "malformed multipart body: " + (problem.empty() ? parser.error() : problem));
    }
    if (received.empty()) {
        return replyMessage(ex, 400, "the multipart body holds no chunkData.<index> part");
    }
    // Within one body, a later part of the same index replaces an earlier one.
    auto result = store_.commitChunks(id, received);
    if (result.status != StoreStatus::Ok) return replyStoreFailure(ex, id, result);
    reply(ex, 200, json{{"fileId", id}, {"uploadedChunks", chunkList(result.info.chunks)}});
}

void Emulator::Impl::handleComplete(Exchange& ex, const std::string& id) {
    json body;
    if (!readJSON(ex, body)) return;
    FileInfo info;
    if (!findFile(ex, id, info) || declaredCompleted(ex, info)) return;
    auto list = body.is_object() ? body.find("expectedChunks") : body.end();
    if (!body.is_object() || list == body.end() || !list->is_array() || list->empty()) {
        return replyMessage(ex, 400, "expectedChunks must be a non-empty array");
    }
    std::vector<std::pair<uint64_t, uint64_t>> expected;
    for (const auto& record : *list) {
        if (!record.is_object() || !record.contains("index") || !record.contains("sizeInBytes") ||
            !record["index"].is_number_unsigned() || !record["sizeInBytes"].is_number_unsigned()) {
            return replyMessage(ex, 400,
                                "every expected chunk needs an unsigned index and sizeInBytes");
        }
        expected.emplace_back(record["index"].get<uint64_t>(),
                              record["sizeInBytes"].get<uint64_t>());
    }
    std::vector<uint64_t> reportMissing;
    if (auto rule = faults_.take(ex.req.method, ex.req.path, {FaultAction::MissingChunks})) {
        ex.fault = faultActionName(FaultAction::MissingChunks);
        reportMissing = rule->chunks;
    }
    auto result = store_.complete(id, expected, reportMissing);
    if (result.status != StoreStatus::Ok) return replyStoreFailure(ex, id, result);
    replyCompleted(ex, id, result.info);
}

void Emulator::Impl::handleProcess(Exchange& ex, const std::string& id) {
    json body;
    if (!readJSON(ex, body)) return;
    FileInfo info;
    if (!findFile(ex, id, info)) return;
    if (!body.is_object() || !body.contains("type") || !body["type"].is_string()) {
        return replyMessage(ex, 400, "a processing request needs a \"type\"");
    }
    auto result = store_.requestProcessing(id, body);
    if (result.status != StoreStatus::Ok) return replyStoreFailure(ex, id, result);
    reply(ex, 202, json{{"fileId", id}});
}

void Emulator::Impl::handleContent(Exchange& ex, const std::string& id) {
    auto info = isValidFileId(id) ? store_.info(id) : std::nullopt;
    if (!info || !info->complete) return replyMessage(ex, 404, "no content for " + id);
    // A sink has no bytes to send: it sends zeros (fd -1).
    int fd = options_.sink ? -1 : ::open(store_.contentPath(id).c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0 && !options_.sink) return replyMessage(ex, 404, "no content for " + id);
    auto closeFd = [](int fd) {
        if (fd >= 0) ::close(fd);
    };

    const uint64_t size = info->size;
    const std::string lastModified = httpDate(info->completedAt);
    auto& res = ex.res;
    res.set_header("ETag", info->etag);
    res.set_header("Last-Modified", lastModified);
    res.set_header("Accept-Ranges", "bytes");

    // One range of the form first-last, first- or -suffix; several ranges are
    // answered with the whole file.
    uint64_t first = 0, count = size;
    int status = 200;
    std::string range = ex.req.get_header_value("Range");
    std::string ifRange = ex.req.get_header_value("If-Range");
    bool fresh = ifRange.empty() || ifRange == info->etag || ifRange == lastModified;
    if (!range.empty() && fresh && range.compare(0, 6, "bytes=") == 0 &&
        range.find(',') == std::string::npos) {
        std::string byteRange = range.substr(6);
        auto dash = byteRange.find('-');
        std::string a = byteRange.substr(0, dash),
                    b = dash == std::string::npos ? "" : byteRange.substr(dash + 1);
        bool valid = dash != std::string::npos && (!a.empty() || !b.empty()) &&
                     a.find_first_not_of("0123456789") == std::string::npos &&
                     b.find_first_not_of("0123456789") == std::string::npos && a.size() < 19 &&
                     b.size() < 19;
        if (valid) {
            uint64_t last;
            if (a.empty()) {
                uint64_t suffix = std::stoull(b);
                first = suffix >= size ? 0 : size - suffix;
                last = size == 0 ? 0 : size - 1;
                if (suffix == 0) first = size;  // "-0" selects nothing
            } else {
                first = std::stoull(a);
                last = b.empty() ? size - 1 : std::min<uint64_t>(std::stoull(b), size - 1);
                if (!b.empty() && std::stoull(b) < first) valid = false;
            }
            if (valid && (first >= size)) {
                closeFd(fd);
                res.set_header("Content-Range", "bytes */" + std::to_string(size));
                return replyMessage(
                    ex, 416,
                    "range not satisfiable for a file of " + std::to_string(size) + " bytes");
            }
            if (valid) {
                count = last - first + 1;
                status = 206;
                res.set_header("Content-Range", "bytes " + std::to_string(first) + "-" +
                                                    std::to_string(last) + "/" +
                                                    std::to_string(size));
            }
        }
    }
    res.status = status;
    if (count == 0) {
        closeFd(fd);
        res.set_content("", "application/octet-stream");
        return;
    }
    const uint64_t rate = ex.throttle;
    auto started = std::make_shared<Clock::time_point>(Clock::now());
    auto buffer = std::make_shared<std::vector<char>>(256 * 1024);
    res.set_content_provider(
        static_cast<size_t>(count), "application/octet-stream",
        [this, fd, first, rate, started, buffer](size_t offset, size_t length,
                                                 httplib::DataSink& sink) {
            if (stopping_) return false;
            size_t want = std::min(length, buffer->size());
            if (rate) {
                // Small pieces, each sent when its turn comes, so that the
                // client sees the rate and not one burst and a pause.
                want = std::min<size_t>(want, std::max<uint64_t>(rate / 10, 1024));
                pace(*started, offset, rate);
                if (stopping_) return false;
            }
            if (fd < 0) return sink.write(buffer->data(), want);  // zeros, never written to
            ssize_t n = ::pread(fd, buffer->data(), want, static_cast<off_t>(first + offset));
            if (n <= 0) return false;
            return sink.write(buffer->data(), static_cast<size_t>(n));
        },
        [this, fd, closeFd, logId = ex.logId](bool sent) {
            closeFd(fd);
            // The request lasts until its body is out (or the client left).
            if (logId) {
                extendLog(logId,
                          !sent && !stopping_ && peerHasGone(ConnectionServer::currentSocket()));
            }
        });
}

void Emulator::Impl::handleAdmin(Exchange& ex) {
    // Admin requests never pass through faults, so a rule cannot lock out the
    // request that clears it. The server listens on loopback only; refuse
    // anything else should that ever change.
    if (ex.req.remote_addr != "127.0.0.1" && ex.req.remote_addr != "::1") {
        return replyMessage(ex, 403, "admin endpoints answer only on loopback");
    }
    // Loopback is not enough: any local user can connect. The log holds file
    // IDs (and with them the content URLs), and rules can break uploads.
    if (!checkBearer(ex, adminToken())) return;
    auto parts = splitPath(ex.req.path);
    const std::string& method = ex.req.method;
    if (parts.size() == 2 && parts[1] == "requests") {
        if (method == "GET") return reply(ex, 200, requestLog());
        if (method == "DELETE") {
            clearRequestLog();
            return reply(ex, 200, json::object());
        }
    } else if (parts.size() == 2 && parts[1] == "faults") {
        if (method == "GET") return reply(ex, 200, faults_.toJSON());
        if (method == "DELETE") {
            faults_.clear();
            wake_.notify_all();
            return reply(ex, 200, json::object());
        }
        if (method == "POST") {
            json body;
            if (!readJSON(ex, body)) return;
            std::string error;
            auto ids = faults_.add(body, &error);
            if (!ids) return replyMessage(ex, 400, error);
            return reply(ex, 201, json{{"ids", *ids}});
        }
    } else if (parts.size() == 3 && parts[1] == "faults" && method == "DELETE") {
        bool ok = parts[2].find_first_not_of("0123456789") == std::string::npos &&
                  parts[2].size() < 19 && faults_.remove(std::stoull(parts[2]));
        wake_.notify_all();
        if (!ok) return replyMessage(ex, 404, "no fault rule " + parts[2]);
        return reply(ex, 200, json::object());
    } else {
        return replyMessage(ex, 404, "no such admin resource: " + ex.req.path);
    }
    replyMessage(ex, 405, method + " is not supported on " + ex.req.path);
}

Emulator::Emulator(EmulatorOptions options) : impl_(std::make_unique<Impl>(std::move(options))) {}

Emulator::~Emulator() {
    stop();
}

bool Emulator::start(std::string* error) {
    if (impl_->server_) {
        if (error) *error = "the emulator is already running";
        return false;
    }
    return impl_->start(error);
}

void Emulator::stop() {
    impl_->stop();
}

uint16_t Emulator::port() const {
    return impl_->port_.load();
}

std::string Emulator::baseURL() const {
    return rootURL() + "api/";
}

std::string Emulator::rootURL() const {
    return "http://127.0.0.1:" + std::to_string(port()) + "/";
}

const std::string& Emulator::dataDir() const {
    return impl_->dataDir_;
}

const std::string& Emulator::adminToken() const {
    return impl_->adminToken();
}

bool Emulator::addFault(const nlohmann::json& rule, std::string* error) {
    return impl_->faults_.add(rule, error).has_value();
}

void Emulator::clearFaults() {
    impl_->faults_.clear();
    impl_->wake_.notify_all();
}

nlohmann::json Emulator::requestLog() const {
    return impl_->requestLog();
}

void Emulator::clearRequestLog() {
    impl_->clearRequestLog();
}

}  // namespace znv::emulator
