#pragma once

#include <cstdarg>
#include <cstdio>
#include <string>
#include <vector>

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

/// While one lives on a thread, the error lines the common routines write on
/// that thread are also kept here, whatever the logger's level, so that a
/// caller can answer with the reason a routine that returns nothing failed.
/// Not copyable; one per thread at a time (an inner one takes over until it ends).
class ErrorCapture {
public:
    ErrorCapture() : outer(current()) { current() = &captured; }
    ~ErrorCapture() { current() = outer; }
    ErrorCapture(const ErrorCapture&) = delete;
    ErrorCapture& operator=(const ErrorCapture&) = delete;

    const std::vector<std::string>& lines() const { return captured; }

    /// Keeps `text` in the thread's capture, if any.
    static void note(const std::string& text)
    {
        if (current())
            current()->push_back(text);
    }

    static bool active() { return current() != nullptr; }

private:
    static std::vector<std::string>*& current()
    {
        static thread_local std::vector<std::string>* sink = nullptr;
        return sink;
    }

    std::vector<std::string> captured;
    std::vector<std::string>* outer;
};

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
#define PCC_LOG_ERROR(...)                                                                       \
    do {                                                                                          \
        VLM_LOG_AT(error, VLM_SOURCE_COMMON, __VA_ARGS__);                                        \
        if (::vlm::pclog::ErrorCapture::active())                                                 \
            ::vlm::pclog::ErrorCapture::note(::vlm::pclog::format(__VA_ARGS__));                  \
    } while (0)
#define PCC_LOG_INFO(...) VLM_LOG_AT(information, VLM_SOURCE_COMMON, __VA_ARGS__)
