#include "support/TextScan.h"

#include <cctype>
#include <limits>

namespace dravinel {

std::optional<std::int32_t> scanLeadingInt(std::string_view text)
{
    std::size_t i = 0;
    while (i < text.size() && std::isspace(static_cast<unsigned char>(text[i])))
        ++i;
    bool negative = false;
    if (i < text.size() && (text[i] == '+' || text[i] == '-')) {
        negative = text[i] == '-';
        ++i;
    }
    if (i >= text.size() || !std::isdigit(static_cast<unsigned char>(text[i])))
        return std::nullopt;
    constexpr std::int64_t kMax = std::numeric_limits<std::int32_t>::max();
    constexpr std::int64_t kMin = std::numeric_limits<std::int32_t>::min();
    std::int64_t value = 0;
    for (; i < text.size() && std::isdigit(static_cast<unsigned char>(text[i])); ++i) {
        if (value <= kMax + 1)
            value = value * 10 + (text[i] - '0');
    }
    if (negative)
        value = -value;
    if (value > kMax)
        return static_cast<std::int32_t>(kMax);
    if (value < kMin)
        return static_cast<std::int32_t>(kMin);
    return static_cast<std::int32_t>(value);
}

std::string removeAll(std::string text, std::string_view needle)
{
    if (needle.empty())
        return text;
    std::string out;
    out.reserve(text.size());
    std::size_t pos = 0;
    for (;;) {
        const std::size_t hit = text.find(needle, pos);
        if (hit == std::string::npos)
            break;
        out.append(text, pos, hit - pos);
        pos = hit + needle.size();
    }
    out.append(text, pos, std::string::npos);
    return out;
}

} // namespace dravinel
