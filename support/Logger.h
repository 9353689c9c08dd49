#pragma once

#include <atomic>
#include <cstdarg>
#include <cstdint>
#include <functional>
#include <mutex>
#include <string>

// The program's one levelled log. Lines read "<LEVEL>: yyyy-MM-dd HH:mm:ss : message\n" and go
// to the sink, standard error by default, which ends each entry with its own newline too.

namespace dravinel {

class Logger
{
public:
    using Sink = std::function<void(const std::string& entry)>;

    static void initialize();
    static Logger& getInstance();

    // Only the first Logger ever made works (level 4); any later one has level 0 and is silent.
    Logger();

    void setLevel(std::int32_t level);
    std::int32_t getLevel() const;
    void closeLogger() {}

    // Replaces the sink; an empty function restores standard error.
    void setSink(Sink sink);

    void log(const std::string& text);

    void logError(const char* format, ...) __attribute__((format(printf, 2, 3)));
    void logWarning(const char* format, ...) __attribute__((format(printf, 2, 3)));
    void logInfo(const char* format, ...) __attribute__((format(printf, 2, 3)));
    void logDebug(const char* format, ...) __attribute__((format(printf, 2, 3)));

private:
    void write(const char* prefix, const char* format, va_list args)
        __attribute__((format(printf, 3, 0)));

    std::atomic<std::int32_t> m_level{0};
    std::string m_logPath;
    std::mutex m_sinkMutex;
    Sink m_sink;
};

} // namespace dravinel
