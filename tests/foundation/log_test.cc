#include "znv/foundation/log.h"

#include <gtest/gtest.h>
#include <spdlog/sinks/ringbuffer_sink.h>

#include <atomic>
#include <thread>
#include <vector>

#include "tests/support/test_support.h"

namespace znv {
namespace {

// Routes the channel into a ring buffer for the duration of a test.
class LogCapture {
  public:
    explicit LogCapture(spdlog::level::level_enum level)
        : sink_(std::make_shared<spdlog::sinks::ringbuffer_sink_mt>(256)),
          previousLevel_(ZNVLogLevel()) {
        sink_->set_pattern("%l|%v");
        ZNVLogSetSinks({sink_});
        ZNVLogSetLevel(level);
    }
    ~LogCapture() {
        ZNVLogSetSinks(ZNVLogDefaultSinks());
        ZNVLogSetLevel(previousLevel_);
    }
    std::vector<std::string> lines() const { return sink_->last_formatted(); }

    std::shared_ptr<spdlog::sinks::ringbuffer_sink_mt> sink_;
    spdlog::level::level_enum previousLevel_;
};

TEST(Log, OneLoggerNamedAfterSubsystemAndCategory) {
    EXPECT_EQ(&ZNVLog(), &ZNVLog());
    EXPECT_EQ(ZNVLog().name(), "com.znv.storage:cloud");
    // Quiet by default: warnings and errors only.
    EXPECT_EQ(ZNVLogLevel(), spdlog::level::warn);
}

TEST(Log, LevelsMapAndTheThresholdFilters) {
    LogCapture capture(spdlog::level::warn);
    ZNVLogInfo("{} did change state", "<task 1>");
    ZNVLogDefault("File name \"{}\" does not have an extension.", "README");
    ZNVLogError("{} could not be restarted", 7);
    auto lines = capture.lines();
    ASSERT_EQ(lines.size(), 2u);
    EXPECT_EQ(lines[0].substr(0, lines[0].find_last_not_of("\r\n") + 1),
              "warning|File name \"README\" does not have an extension.");
    EXPECT_EQ(lines[1].substr(0, lines[1].find_last_not_of("\r\n") + 1),
              "error|7 could not be restarted");

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
    ASSERT_TRUE(test::waitFor([&] { return !capture.lines().empty(); }));
    auto other = std::make_shared<spdlog::sinks::ringbuffer_sink_mt>(16);
    for (int i = 0; i < 200; ++i) {
        ZNVLogAddSink(other);
        ZNVLogRemoveSink(other);
    }
    stop = true;
    for (auto& w : writers)
        w.join();
    EXPECT_FALSE(capture.lines().empty());
}

}  // namespace
}  // namespace znv
