#include "support/Logger.h"

#include <cstdio>
#include <ctime>

namespace dravinel {

namespace {

// Set by the first Logger ever constructed; every later one stays silent.
std::atomic<bool> gInitialized{false};

std::string vformat(const char* format, va_list args) __attribute__((format(printf, 1, 0)));

std::string vformat(const char* format, va_list args)
{
    va_list copy;
    va_copy(copy, args);
    const int length = std::vsnprintf(nullptr, 0, format, copy);
    va_end(copy);
    if (length <= 0)
        return {};
    std::string text(static_cast<std::size_t>(length) + 1, '\0');
    std::vsnprintf(text.data(), text.size(), format, args);
    text.resize(static_cast<std::size_t>(length));
    return text;
}

std::string localTimeText()
{
    const std::time_t now = std::time(nullptr);
    std::tm local{};
    localtime_r(&now, &local);
    char buffer[32];
    const std::size_t n = std::strftime(buffer, sizeof buffer, "%Y-%m-%d %H:%M:%S", &local);
    return std::string(buffer, n);
}

} // namespace

void Logger::initialize()
{
    getInstance();
}

Logger& Logger::getInstance()
{
    // Never destroyed: an owner destroyed at exit, after it would be, may still join a thread
    // that logs on its way out.
    static auto* shared = new Logger;
    return *shared;
}

Logger::Logger()
{
    bool expected = false;
    if (gInitialized.compare_exchange_strong(expected, true))
        m_level = 4;
}

void Logger::setLevel(std::int32_t level)
{
    m_level = level;
}

std::int32_t Logger::getLevel() const
{
    return m_level;
}

void Logger::setSink(Sink sink)
{
    std::lock_guard lock(m_sinkMutex);
    m_sink = std::move(sink);
}

void Logger::log(const std::string& text)
{
    std::lock_guard lock(m_sinkMutex);
    if (m_sink) {
        m_sink(text);
        return;
    }
    // The system log ends every entry with a newline of its own, after the line's "\n".
    std::fprintf(stderr, "%s\n", text.c_str());
}

void Logger::write(const char* prefix, const char* format, va_list args)
{
    log(prefix + localTimeText() + " : " + vformat(format, args) + "\n");
}

#define DRAVINEL_LOG_LEVEL(name, threshold, prefix)                                                \
    void Logger::name(const char* format, ...)                                                     \
    {                                                                                              \
        if (m_level < (threshold))                                                                 \
            return;                                                                                \
        va_list args;                                                                              \
        va_start(args, format);                                                                    \
        write(prefix, format, args);                                                               \
        va_end(args);                                                                              \
    }

DRAVINEL_LOG_LEVEL(logError, 1, "ERROR: ")
DRAVINEL_LOG_LEVEL(logWarning, 2, "WARNING: ")
DRAVINEL_LOG_LEVEL(logInfo, 3, "INFO: ")
DRAVINEL_LOG_LEVEL(logDebug, 4, "DEBUG: ")

#undef DRAVINEL_LOG_LEVEL

} // namespace dravinel
