#include "cli/Output.h"

#include "cli/Echo.h"

#include <array>
#include <charconv>

namespace dravinel::cli {

void ErrorStream::line(const std::string& text)
{
    std::lock_guard lock(m_mutex);
    m_err << kProgram << ": " << text << '\n' << std::flush;
}

void ErrorStream::entry(std::string_view text)
{
    while (!text.empty() && (text.back() == '\n' || text.back() == '\r'))
        text.remove_suffix(1);
    std::lock_guard lock(m_mutex);
    m_err << text << '\n' << std::flush;
}

void ErrorStream::raw(const std::string& text)
{
    std::lock_guard lock(m_mutex);
    m_err << text << std::flush;
}

std::string padded(std::string_view text, std::size_t width)
{
    std::string out(text);
    if (out.size() < width)
        out.append(width - out.size(), ' ');
    return out;
}

std::string rightAligned(const std::string& text, std::size_t width)
{
    return text.size() < width ? std::string(width - text.size(), ' ') + text : text;
}

std::string formatFixed(double value, int decimals)
{
    std::array<char, 64> buffer{};
    const auto [end, ec] = std::to_chars(buffer.data(), buffer.data() + buffer.size(), value,
                                         std::chars_format::fixed, decimals);
    return ec == std::errc() ? std::string(buffer.data(), end) : std::string("?");
}

std::string dump(const Json& json)
{
    return json.dump(-1, ' ', false, Json::error_handler_t::replace);
}

std::string cameBack(const std::optional<std::string>& answer)
{
    return answer ? "the device answered wrongly: " + echo(*answer) : "the device did not answer";
}

std::string readFailure(const std::string& read, const std::vector<std::string>& answers)
{
    if (answers.empty())
        return "the device did not answer the " + read;
    std::string shown;
    for (const auto& answer : answers)
        shown += (shown.empty() ? "" : " ") + echo(answer);
    return "the device answered the " + read + " wrongly: " + shown;
}

std::string writtenSoFar(std::size_t done, std::size_t total)
{
    if (done == total)
        return "all " + std::to_string(total) + " settings were written";
    return std::to_string(done) + " of " + std::to_string(total) +
           " settings written; the others were not";
}

} // namespace dravinel::cli
