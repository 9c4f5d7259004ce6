#include "znv/foundation/log.h"

#include <gtest/gtest.h>

#include <atomic>
#include <thread>
#include <vector>

#include "tests/foundation/log_capture.h"
#include "tests/support/test_support.h"

namespace znv {
namespace {

using test::LogCapture;

TEST(Log, OneQuietLoggerWhoseLevelsMapAndWhoseThresholdFilters) {
    EXPECT_EQ(&ZNVLog(), &ZNVLog());
    EXPECT_EQ(ZNVLog().name(), "com.znv.storage:cloud");
    // Quiet by default: warnings and errors only.
    EXPECT_EQ(ZNVLogLevel(), spdlog::level::warn);
    LogCapture capture(spdlog::level::warn);
    ZNVLogInfo("{} did change state", "<task 1>");
    ZNVLogDefault("File name \"{}\" does not have an extension.", "README");
    ZNVLogError("{} could not be restarted", 7);
    EXPECT_EQ(capture.lines(),
              (std::vector<std::string>{"warning|File name \"README\" does not have an extension.",
                                        "error|7 could not be restarted"}));

    ZNVLogSetLevel(spdlog::level::info);
    ZNVLogInfo("retrying {}", "<task 2>");
    ASSERT_EQ(capture.lines().size(), 3u);
}

TEST(Log, SinksCanBeSwappedWhileOtherThreadsLog) {
    LogCapture capture(spdlog::level::info);
    std::atomic<bool> stop{false};
    std::vector<std::thread> writers;
    for (int t = 0; t < 3; ++t) {
        writers.emplace_back([&stop, t] {
            for (int i = 0; !stop.load(); ++i)
                ZNVLogInfo("writer {} line {}", t, i);
        });
    }
    // No ASSERT before the writers are joined: leaving early would destroy
    // joinable threads.
    EXPECT_TRUE(test::waitFor([&] { return !capture.lines().empty(); }));
    auto other = std::make_shared<spdlog::sinks::ringbuffer_sink_mt>(16);
    for (int i = 0; i < 200; ++i) {
        ZNVLogAddSink(other);
        ZNVLogRemoveSink(other);
    }
    ZNVLogAddSink(other);
    EXPECT_TRUE(test::waitFor([&] { return !other->last_formatted().empty(); }));
    stop = true;
    for (auto& w : writers)
        w.join();
}

}  // namespace
}  // namespace znv
