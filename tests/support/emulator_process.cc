#include "tests/support/emulator_process.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <fstream>
#include <iterator>
#include <sstream>
#include <string>

#include <gtest/gtest.h>

#include "tests/support/test_support.h"

namespace znv::test {

EmulatorProcess::EmulatorProcess(const std::vector<std::string>& extra) {
    std::vector<std::string> arguments{std::string(ZNV_BUILD_DIR) + "/znv-emulator", "--port", "0"};
    arguments.insert(arguments.end(), extra.begin(), extra.end());
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
    firstLine_ = line;
    size_t colon = line.rfind(':');
    if (colon != std::string::npos) port_ = std::atoi(line.c_str() + colon + 1);
    if (port_ == 0 && pid_ > 0) {  // it said nothing: it has failed or died
        kill(pid_, SIGTERM);
        waitpid(pid_, nullptr, 0);
        pid_ = -1;
    }
}

EmulatorProcess::~EmulatorProcess() {
    // An emulator that does not stop within a while is killed, so a hang at
    // shutdown fails its test instead of holding it until the test timeout.
    if (pid_ > 0 && stop(SIGTERM, std::chrono::seconds(20)) < 0 && pid_ > 0) {
        ADD_FAILURE() << "znv-emulator did not stop on SIGTERM within 20 s; killed";
        kill(pid_, SIGKILL);
        waitpid(pid_, nullptr, 0);
    }
}

int EmulatorProcess::stop(int signal, std::chrono::milliseconds timeout) {
    if (pid_ <= 0) return -1;
    kill(pid_, signal);
    int status = 0;
    bool reaped = false;  // by someone else: its status is gone with it
    auto gone = [&] {
        const pid_t waited = waitpid(pid_, &status, WNOHANG);
        reaped = waited < 0 && errno == ECHILD;
        return waited == pid_ || reaped;
    };
    if (!waitFor(gone, timeout)) return -1;
    pid_ = -1;
    if (reaped) return 0;
    return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

uint64_t EmulatorProcess::peakRSS() const {
    std::ifstream status("/proc/" + std::to_string(pid_) + "/status");
    std::string line;
    while (std::getline(status, line)) {
        if (line.rfind("VmHWM:", 0) == 0) return std::stoull(line.substr(6)) * 1024;
    }
    return 0;
}

double EmulatorProcess::cpuSeconds() const {
    std::ifstream file("/proc/" + std::to_string(pid_) + "/stat");
    const std::string text((std::istreambuf_iterator<char>(file)),
                           std::istreambuf_iterator<char>());
    // The command name is in parentheses and may hold spaces: fields are
    // counted from after its closing one, which ends field 2.
    const size_t close = text.rfind(')');
    if (close == std::string::npos) return 0;
    std::istringstream fields(text.substr(close + 1));
    std::string field;
    double ticks = 0;
    for (int number = 3; number <= 15 && fields >> field; ++number) {
        if (number >= 14) ticks += std::strtod(field.c_str(), nullptr);  // utime, stime
    }
    return ticks / static_cast<double>(sysconf(_SC_CLK_TCK));
}

std::string EmulatorProcess::baseURL() const {
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
