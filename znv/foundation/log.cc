#include "znv/foundation/log.h"

#include <spdlog/sinks/dist_sink.h>
#include <spdlog/sinks/stdout_sinks.h>

#include <memory>
#include <string>

namespace znv {
namespace {

struct Channel {
    // The logger's only sink. The dist sink guards its own list with a mutex,
    // which makes replacing the host's sinks safe while other threads log
    // (the logger's own sink vector is not synchronised).
    std::shared_ptr<spdlog::sinks::dist_sink_mt> fanOut;
    spdlog::sink_ptr standardError;
    std::shared_ptr<spdlog::logger> logger;
};

Channel& channel() {
    // Never destroyed: logging stays possible during static destruction.
    static Channel* const instance = [] {
        auto* c = new Channel;
        c->standardError = std::make_shared<spdlog::sinks::stderr_sink_mt>();
        c->fanOut = std::make_shared<spdlog::sinks::dist_sink_mt>();
        c->fanOut->add_sink(c->standardError);
        c->logger = std::make_shared<spdlog::logger>(
            std::string(ZNVLogSubsystem) + ":" + ZNVLogCategory, c->fanOut);
        c->logger->set_pattern("%Y-%m-%d %H:%M:%S.%e [%n] [%l] [%t] %v");
        c->logger->set_level(spdlog::level::warn);
        c->logger->flush_on(spdlog::level::warn);
        return c;
    }();
    return *instance;
}

}  // namespace

spdlog::logger& ZNVLog() {
    return *channel().logger;
}

void ZNVLogSetLevel(spdlog::level::level_enum level) {
    channel().logger->set_level(level);
}

spdlog::level::level_enum ZNVLogLevel() {
    return channel().logger->level();
}

void ZNVLogSetSinks(std::vector<spdlog::sink_ptr> sinks) {
    channel().fanOut->set_sinks(std::move(sinks));
}

void ZNVLogAddSink(spdlog::sink_ptr sink) {
    if (sink) channel().fanOut->add_sink(std::move(sink));
}

void ZNVLogRemoveSink(const spdlog::sink_ptr& sink) {
    if (sink) channel().fanOut->remove_sink(sink);
}

std::vector<spdlog::sink_ptr> ZNVLogDefaultSinks() {
    return {channel().standardError};
}

}  // namespace znv
