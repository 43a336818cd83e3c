#pragma once

#include <cstdarg>
#include <cstdio>
#include <string>

#include <Poco/Logger.h>

#include "VelmoraCommon.h"

namespace vlm::pclog {

/// The host logger every line of the plug-in goes to.
inline Poco::Logger& logger()
{
    return Poco::Logger::get(logName());
}

/// Formats printf-style. Only called after the level test, so a line that is
/// filtered out costs no formatting.
std::string format(const char* fmt, ...) __attribute__((format(printf, 1, 2)));

inline std::string format(const char* fmt, ...)
{
    char stackBuffer[512];
    va_list args;
    va_start(args, fmt);
    va_list copy;
    va_copy(copy, args);
    const int needed = std::vsnprintf(stackBuffer, sizeof stackBuffer, fmt, args);
    va_end(args);
    std::string text;
    if (needed < 0) {
        text = fmt;
    } else if (static_cast<size_t>(needed) < sizeof stackBuffer) {
        text.assign(stackBuffer, static_cast<size_t>(needed));
    } else {
        text.resize(static_cast<size_t>(needed) + 1);
        std::vsnprintf(text.data(), text.size(), fmt, copy);
        text.resize(static_cast<size_t>(needed));
    }
    va_end(copy);
    return text;
}

} // namespace vlm::pclog

// Source names the log lines carry, so a reader can tell the unit at a glance.
#define VLM_SOURCE_PLUGIN "src/plugin/PilotControlP"
#define VLM_SOURCE_COMMON "src/uav/PilotControlCommon/PilotControlCommon"

#define VLM_LOG_AT(level, source, ...)                                                           \
    do {                                                                                          \
        Poco::Logger& vlmLogger_ = ::vlm::pclog::logger();                                        \
        if (vlmLogger_.level())                                                                   \
            vlmLogger_.level(::vlm::pclog::format(__VA_ARGS__), source, __LINE__);                \
    } while (0)

#define PCP_LOG_ERROR(...) VLM_LOG_AT(error, VLM_SOURCE_PLUGIN, __VA_ARGS__)
#define PCP_LOG_INFO(...) VLM_LOG_AT(information, VLM_SOURCE_PLUGIN, __VA_ARGS__)
#define PCC_LOG_ERROR(...) VLM_LOG_AT(error, VLM_SOURCE_COMMON, __VA_ARGS__)
#define PCC_LOG_INFO(...) VLM_LOG_AT(information, VLM_SOURCE_COMMON, __VA_ARGS__)
