#include "tests/cli/znv_process.h"

#include <poll.h>
#include <pty.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <fcntl.h>

#include <cstdlib>
#include <filesystem>
#include <sstream>
#include <thread>

#include "tests/support/test_support.h"

extern char** environ;

namespace znv::test {

void ZnvTest::SetUp() {
    ASSERT_TRUE(std::filesystem::exists(znvPath())) << znvPath();
    files_ = makeTempDir("files");
    std::string error;
    ASSERT_TRUE(emulator_.start(&error)) << error;
    server_ = emulator_.baseURL();
}

std::string ZnvTest::file(const std::string& name, uint64_t size) {
    std::string path = files_ + "/" + name;
    writePatternFile(path, size, static_cast<uint32_t>(std::hash<std::string>{}(name)));
    return path;
}

std::string znvPath() {
    return std::string(ZNV_BUILD_DIR) + "/znv";
}

bool matchesShape(const std::string& text, const std::string& pattern) {
    // Iterative wildcard matching with backtracking to the last "*".
    size_t t = 0, p = 0, starP = std::string::npos, starT = 0;
    while (t < text.size()) {
        bool digit = p < pattern.size() && pattern[p] == '9' && text[t] >= '0' && text[t] <= '9';
        if (p < pattern.size() &&
            (digit || (pattern[p] != '*' && pattern[p] != '9' && pattern[p] == text[t]))) {
            ++t;
            ++p;
        } else if (p < pattern.size() && pattern[p] == '*') {
            starP = p++;
            starT = t;
        } else if (starP != std::string::npos) {
            p = starP + 1;
            t = ++starT;
        } else {
            return false;
        }
    }
    while (p < pattern.size() && pattern[p] == '*')
        ++p;
    return p == pattern.size();
}

std::vector<nlohmann::json> ZnvRun::events() const {
    std::vector<nlohmann::json> list;
    std::istringstream in(out);
    for (std::string line; std::getline(in, line);) {
        auto j = nlohmann::json::parse(line, nullptr, false);
        if (j.is_object()) list.push_back(std::move(j));
    }
    return list;
}

std::vector<nlohmann::json> ZnvRun::events(const std::string& name) const {
    std::vector<nlohmann::json> list;
    for (auto& e : events()) {
        if (e.value("event", "") == name) list.push_back(e);
    }
    return list;
}

std::vector<std::string> splitLines(const std::string& text) {
    std::vector<std::string> lines;
    std::istringstream in(text);
    for (std::string line; std::getline(in, line);)
        lines.push_back(line);
    return lines;
}

std::vector<std::string> ZnvRun::errLines() const {
    return splitLines(err);
}

ZnvUser::ZnvUser() {
    home_ = makeTempDir("user");
    outPath_ = home_ + "/.znv-test-stdout";
    errPath_ = home_ + "/.znv-test-stderr";
    env_["HOME"] = home_;
    env_["XDG_DATA_HOME"] = "";
    env_["XDG_STATE_HOME"] = "";
    env_["ZNV_SERVER"] = "";
    env_["ZNV_TOKEN"] = "";
}

std::vector<std::string> ZnvUser::environment() const {
    std::vector<std::string> environment;
    for (char** e = environ; *e != nullptr; ++e) {
        std::string entry = *e;
        std::string name = entry.substr(0, entry.find('='));
        if (env_.count(name) == 0) environment.push_back(entry);
    }
    for (const auto& [name, value] : env_) {
        if (!value.empty()) environment.push_back(name + "=" + value);
    }
    return environment;
}

namespace {

[[noreturn]] void execZnv(const std::vector<std::string>& args,
                          std::vector<std::string> environment) {
    // The test runner may block signals; the child starts clean.
    sigset_t none;
    sigemptyset(&none);
    sigprocmask(SIG_SETMASK, &none, nullptr);
    std::vector<std::string> argv = {znvPath()};
    argv.insert(argv.end(), args.begin(), args.end());
    std::vector<char*> cargv, cenv;
    for (auto& a : argv)
        cargv.push_back(a.data());
    cargv.push_back(nullptr);
    for (auto& e : environment)
        cenv.push_back(e.data());
    cenv.push_back(nullptr);
    execve(cargv[0], cargv.data(), cenv.data());
    _exit(127);
}

}  // namespace

ZnvRun ZnvUser::runOnTerminal(const std::vector<std::string>& args, int columns,
                              const std::function<bool(const std::string&)>& interruptWhen,
                              std::chrono::seconds timeout) {
    winsize size{};
    size.ws_col = static_cast<unsigned short>(columns);
    size.ws_row = 40;
    int master = -1;
    auto environment = this->environment();
    pid_t pid = forkpty(&master, nullptr, nullptr, &size);
    if (pid == 0) execZnv(args, environment);
    ZnvRun run;
    if (pid < 0) return run;
    auto deadline = std::chrono::steady_clock::now() + timeout;
    bool interrupted = false;
    for (;;) {
        pollfd p{master, POLLIN, 0};
        int ready = ::poll(&p, 1, 100);
        if (ready > 0) {
            char buffer[4096];
            ssize_t n = ::read(master, buffer, sizeof buffer);
            if (n <= 0) break;  // EIO once the child and its terminal are gone
            run.out.append(buffer, static_cast<size_t>(n));
        }
        if (!interrupted && interruptWhen && interruptWhen(run.out)) {
            kill(pid, SIGINT);
            interrupted = true;
        }
        if (std::chrono::steady_clock::now() > deadline) {
            kill(pid, SIGKILL);
            break;
        }
    }
    ::close(master);
    int status = 0;
    waitpid(pid, &status, 0);
    run.status = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    return run;
}

pid_t ZnvUser::start(const std::vector<std::string>& args) {
    auto environment = this->environment();
    pid_t pid = fork();
    if (pid == 0) {
        int out = outTarget_.empty() ? ::open(outPath_.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600)
                                     : ::open(outTarget_.c_str(), O_WRONLY);
        int err = ::open(errPath_.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
        dup2(out, 1);
        dup2(err, 2);
        int devnull = ::open("/dev/null", O_RDONLY);
        dup2(devnull, 0);
        execZnv(args, std::move(environment));
    }
    return pid;
}

std::string ZnvUser::outSoFar() const {
    return readFile(outPath_);
}

std::string ZnvUser::errSoFar() const {
    return readFile(errPath_);
}

ZnvRun ZnvUser::finish(pid_t pid, std::chrono::seconds timeout) {
    ZnvRun run;
    int status = 0;
    auto deadline = std::chrono::steady_clock::now() + timeout;
    for (;;) {
        pid_t done = waitpid(pid, &status, WNOHANG);
        if (done == pid) break;
        if (std::chrono::steady_clock::now() > deadline) {
            kill(pid, SIGKILL);
            waitpid(pid, &status, 0);
            status = -1;
            break;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
    if (status != -1) {
        run.status = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
    }
    run.out = readFile(outPath_);
    run.err = readFile(errPath_);
    return run;
}

ZnvRun ZnvUser::run(const std::vector<std::string>& args, std::chrono::seconds timeout) {
    return finish(start(args), timeout);
}

}  // namespace znv::test
