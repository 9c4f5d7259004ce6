// Routes the library's log channel into memory for the lifetime of the object
// and restores the default sinks and level afterwards.
#pragma once

#include <spdlog/sinks/ringbuffer_sink.h>

#include <memory>
#include <string>
#include <vector>

#include "znv/foundation/log.h"

namespace znv::test {

class LogCapture {
  public:
    explicit LogCapture(spdlog::level::level_enum level = spdlog::level::info)
        : sink_(std::make_shared<spdlog::sinks::ringbuffer_sink_mt>(1024)),
          previousLevel_(ZNVLogLevel()) {
        sink_->set_pattern("%l|%v");
        ZNVLogSetSinks({sink_});
        ZNVLogSetLevel(level);
    }
    ~LogCapture() {
        ZNVLogSetSinks(ZNVLogDefaultSinks());
        ZNVLogSetLevel(previousLevel_);
    }
    LogCapture(const LogCapture&) = delete;
    LogCapture& operator=(const LogCapture&) = delete;

    // "level|message" per line, without the line end.
    std::vector<std::string> lines() const {
        std::vector<std::string> out = sink_->last_formatted();
        for (auto& line : out) {
            while (!line.empty() && (line.back() == '\n' || line.back() == '\r'))
                line.pop_back();
        }
        return out;
    }
    // The first message that contains `needle`, or "".
    std::string find(const std::string& needle) const {
        for (const std::string& line : lines()) {
            if (line.find(needle) != std::string::npos) return line;
        }
        return {};
    }

  private:
    std::shared_ptr<spdlog::sinks::ringbuffer_sink_mt> sink_;
    spdlog::level::level_enum previousLevel_;
};

}  // namespace znv::test
