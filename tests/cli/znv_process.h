// Runs the `znv` binary as a user would: a child process with its own HOME
// and XDG directories, standard output and error captured in files.
#pragma once

#include <gtest/gtest.h>
#include <sys/types.h>

#include <chrono>
#include <functional>
#include <map>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

#include "apps/emulator/emulator.h"

namespace znv::test {

struct ZnvRun {
    int status = -1;  // exit status; -1 when it had to be killed
    std::string out;
    std::string err;

    // Standard output parsed as JSON lines (lines that do not parse are skipped).
    std::vector<nlohmann::json> events() const;
    // The events named `name`.
    std::vector<nlohmann::json> events(const std::string& name) const;
    std::vector<std::string> errLines() const;
};

// The lines of `text`, without their line ends.
std::vector<std::string> splitLines(const std::string& text);

class ZnvUser {
  public:
    // A user with a fresh home directory (and XDG directories below it).
    ZnvUser();

    const std::string& home() const { return home_; }
    // Environment entries for the child beyond the defaults (empty value: unset).
    void setEnv(const std::string& name, const std::string& value) { env_[name] = value; }
    // Standard output of later runs goes to `path` (a device such as
    // /dev/full, say) instead of being kept; empty: kept again.
    void sendOutputTo(const std::string& path) { outTarget_ = path; }

    ZnvRun run(const std::vector<std::string>& args,
               std::chrono::seconds timeout = std::chrono::seconds(180));

    // Starts znv and returns at once; `finish` waits for it.
    pid_t start(const std::vector<std::string>& args);

    // Runs znv on a pseudo-terminal `columns` wide (standard input, output and
    // error all on it) and returns everything it wrote there in `out`. When
    // `interruptWhen` returns true for the output so far, znv gets SIGINT.
    ZnvRun runOnTerminal(const std::vector<std::string>& args, int columns,
                         const std::function<bool(const std::string&)>& interruptWhen = {},
                         std::chrono::seconds timeout = std::chrono::seconds(120));
    std::string outSoFar() const;
    std::string errSoFar() const;
    ZnvRun finish(pid_t pid, std::chrono::seconds timeout = std::chrono::seconds(180));

  private:
    std::vector<std::string> environment() const;
    std::string home_;
    std::string outPath_;
    std::string outTarget_;
    std::string errPath_;
    std::map<std::string, std::string> env_;
};

std::string znvPath();

// Whether `text` has the shape `pattern`: "9" stands for one digit, "*" for
// any run of characters, everything else for itself. (std::regex trips the
// compiler's warnings in sanitizer builds.)
bool matchesShape(const std::string& text, const std::string& pattern);

// The fixture of the command-line tests: an emulator in this process on a
// port the kernel chose, and a directory for the files znv sends.
class ZnvTest : public ::testing::Test {
  protected:
    void SetUp() override;
    // Writes `size` bytes of patterned content to `name` in the files directory.
    std::string file(const std::string& name, uint64_t size);

    emulator::Emulator emulator_;
    std::string server_;  // the emulator's API URL
    std::string files_;
};

}  // namespace znv::test
