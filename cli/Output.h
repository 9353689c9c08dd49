#pragma once

#include <nlohmann/json.hpp>

#include <cstddef>
#include <mutex>
#include <optional>
#include <ostream>
#include <string>
#include <string_view>
#include <vector>

// What every command prints with: the error stream, the columns of a table, JSON on one line, and
// the words for a read or a write the device did not answer as asked.

namespace dravinel::cli {

using Json = nlohmann::ordered_json;

inline constexpr const char* kProgram = "dravinel-cli";
// The column of a setting's name in a table.
inline constexpr std::size_t kNameWidth = 19;

// Error lines and, with -v, the log share the error stream; the log comes from the engine's
// threads, so every write takes the lock.
class ErrorStream
{
public:
    explicit ErrorStream(std::ostream& err) : m_err(err) {}

    // One line after the program's name.
    void line(const std::string& text);
    // A log entry as one line: the frame trace carries the frame's own LF CR.
    void entry(std::string_view text);
    void raw(const std::string& text);
    // The stream itself, for a command that runs no engine thread.
    std::ostream& stream() { return m_err; }

private:
    std::mutex m_mutex;
    std::ostream& m_err;
};

std::string padded(std::string_view text, std::size_t width);
std::string rightAligned(const std::string& text, std::size_t width);
std::string formatFixed(double value, int decimals);
// One line of JSON; the device's texts may hold bytes that are not UTF-8, which are replaced.
std::string dump(const Json& json);

// Why a write was not confirmed: the device said something else, or nothing.
std::string cameBack(const std::optional<std::string>& answer);
// Why a read gave no value, with every answer that came.
std::string readFailure(const std::string& read, const std::vector<std::string>& answers);
std::string writtenSoFar(std::size_t done, std::size_t total);

} // namespace dravinel::cli
