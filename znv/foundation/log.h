// The library's log channel: one spdlog logger per process.
//
// Contract
// - `ZNVLog()` creates the logger on first use (thread-safe one-time
//   initialisation) and returns the same logger to every caller, from any
//   thread. The logger lives until the process exits, so code that runs during
//   static destruction may still log.
// - The logger's name is the subsystem and the category joined by ":"
//   ("com.znv.storage:cloud").
// - Three levels are used: `ZNVLogDefault` (spdlog's warn: problems an operator
//   should see), `ZNVLogInfo` (state changes, errors as they are met, retries)
//   and `ZNVLogError`. Messages are fmt format strings; the library adds nothing
//   to their text.
// - By default messages at warn level and above go to stderr. The host
//   application lowers or raises the threshold with `ZNVLogSetLevel` and adds,
//   removes or replaces the sinks with `ZNVLogAddSink`, `ZNVLogRemoveSink` and
//   `ZNVLogSetSinks`; these may be called from any thread at any time, also
//   while other threads log. `ZNVLogSetSinks(ZNVLogDefaultSinks())` restores
//   the stderr sink.
// - To capture messages (for example in a test), add a
//   `spdlog::sinks::ringbuffer_sink_mt` with the pattern "%v" and lower the
//   level to info.
#pragma once

#include <spdlog/logger.h>

#include <utility>
#include <vector>

namespace znv {

// The subsystem (the library's identifier) and category of the log channel.
inline constexpr const char* ZNVLogSubsystem = "com.znv.storage";
inline constexpr const char* ZNVLogCategory = "cloud";

spdlog::logger& ZNVLog();

// The threshold below which messages are dropped (default: warn).
void ZNVLogSetLevel(spdlog::level::level_enum level);
spdlog::level::level_enum ZNVLogLevel();

void ZNVLogSetSinks(std::vector<spdlog::sink_ptr> sinks);
void ZNVLogAddSink(spdlog::sink_ptr sink);
void ZNVLogRemoveSink(const spdlog::sink_ptr& sink);
// The sinks the channel starts with (one stderr sink, shared by every call).
std::vector<spdlog::sink_ptr> ZNVLogDefaultSinks();

template <typename... Args>
void ZNVLogDefault(fmt::format_string<Args...> format, Args&&... args) {
    ZNVLog().warn(format, std::forward<Args>(args)...);
}

template <typename... Args>
void ZNVLogInfo(fmt::format_string<Args...> format, Args&&... args) {
    ZNVLog().info(format, std::forward<Args>(args)...);
}

template <typename... Args>
void ZNVLogError(fmt::format_string<Args...> format, Args&&... args) {
    ZNVLog().error(format, std::forward<Args>(args)...);
}

}  // namespace znv
