#include "tests/cli/znv_process.h"

#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <fcntl.h>

#include <cstdlib>
#include <sstream>
#include <thread>

#include "tests/support/test_support.h"

extern char** environ;

namespace znv::test {

std::string znvPath() {
    return std::string(ZNV_BUILD_DIR) + "/znv";
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

std::vector<std::string> ZnvRun::errLines() const {
    std::vector<std::string> lines;
    std::istringstream in(err);
    for (std::string line; std::getline(in, line);)
        lines.push_back(line);
    return lines;
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

pid_t ZnvUser::start(const std::vector<std::string>& args) {
    std::vector<std::string> environment;
    for (char** e = environ; *e != nullptr; ++e) {
        std::string entry = *e;
        std::string name = entry.substr(0, entry.find('='));
        if (env_.count(name) == 0) environment.push_back(entry);
    }
    for (const auto& [name, value] : env_) {
        if (!value.empty()) environment.push_back(name + "=" + value);
    }
    std::vector<std::string> argv = {znvPath()};
    argv.insert(argv.end(), args.begin(), args.end());

    pid_t pid = fork();
    if (pid == 0) {
        int out = ::open(outPath_.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
        int err = ::open(errPath_.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
        dup2(out, 1);
        dup2(err, 2);
        int devnull = ::open("/dev/null", O_RDONLY);
        dup2(devnull, 0);
        // The test runner may block signals; the child starts clean.
        sigset_t none;
        sigemptyset(&none);
        sigprocmask(SIG_SETMASK, &none, nullptr);
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
