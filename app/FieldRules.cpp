#include "FieldRules.h"

namespace dravinel::fields {

std::optional<std::uint32_t> parseWhole(std::string_view text, std::uint32_t max)
{
    const auto first = text.find_first_not_of(' ');
    if (first == std::string_view::npos)
        return std::nullopt;
    text = text.substr(first, text.find_last_not_of(' ') - first + 1);
    std::uint32_t value = 0;
    for (const char c : text) {
        if (c < '0' || c > '9')
            return std::nullopt;
        value = value * 10 + static_cast<std::uint32_t>(c - '0');
        // Checked digit by digit, so that a long run of digits cannot wrap round into range.
        if (value > max)
            return std::nullopt;
    }
    return value;
}

bool isBlank(std::string_view text)
{
    return text.find_first_not_of(' ') == std::string_view::npos;
}

std::optional<std::uint16_t> cycleTimeout(std::string_view hours, std::string_view minutes)
{
    if (isBlank(hours) && isBlank(minutes))
        return std::nullopt;
    const auto h = isBlank(hours) ? std::optional<std::uint32_t>(0) : parseWhole(hours, kMaxValue);
    const auto m =
        isBlank(minutes) ? std::optional<std::uint32_t>(0) : parseWhole(minutes, kMaxValue);
    if (!h || !m || *h * 60 + *m > kMaxValue)
        return std::nullopt;
    return static_cast<std::uint16_t>(*h * 60 + *m);
}

} // namespace dravinel::fields
