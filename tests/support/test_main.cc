// Test entry point: gives the process a private HOME and TMPDIR before any
// test (or any library code) runs.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <stdlib.h>
#include <sys/stat.h>

#include <filesystem>

#include "tests/support/test_support.h"
#include "znv/managers/state_writer.h"
#include "znv/tasks/network_task.h"

int main(int argc, char** argv) {
    const std::string& root = znv::test::scratchRoot();
    std::string home = root + "/home";
    std::string tmp = root + "/tmp";
    mkdir(home.c_str(), 0700);
    mkdir(tmp.c_str(), 0700);
    setenv("HOME", home.c_str(), 1);
    setenv("TMPDIR", tmp.c_str(), 1);
    setenv("XDG_DATA_HOME", (home + "/.local/share").c_str(), 1);
    setenv("XDG_STATE_HOME", (home + "/.local/state").c_str(), 1);
    // Recoveries restart at once unless a test asks for real pacing.
    znv::ZNVNetworkTask::setRecoveryDelayScale(0.0);
    // Every save of every test checks that the archived texts it reuses are
    // still what their tasks would encode to.
    znv::ZNVStateWriter::setVerifiesReusedText(true);
    ::testing::InitGoogleMock(&argc, argv);
    int result = RUN_ALL_TESTS();
    if (getenv("ZNV_KEEP_SCRATCH") == nullptr) {
        std::error_code ec;
        std::filesystem::remove_all(root, ec);
    }
    return result;
}
