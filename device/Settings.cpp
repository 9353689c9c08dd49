#include "device/Settings.h"

#include <algorithm>
#include <charconv>

namespace dravinel {

namespace {

constexpr std::string_view kBlanks = " \t";

std::string_view trimmed(std::string_view text)
{
    const auto first = text.find_first_not_of(kBlanks);
    if (first == std::string_view::npos)
        return {};
    return text.substr(first, text.find_last_not_of(kBlanks) - first + 1);
}

} // namespace

const SettingInfo* findSettingByCliName(std::string_view name)
{
    for (const auto& info : kSettings) {
        const bool same = std::ranges::equal(
            name, info.cliName, [](char a, char b) { return (a == '_' ? '-' : a) == b; });
        if (same)
            return &info;
    }
    return nullptr;
}

std::optional<std::uint16_t> parseSettingValue(std::string_view text, const SettingInfo& info)
{
    text = trimmed(text);
    std::uint32_t value = 0;
    const auto [end, ec] = std::from_chars(text.data(), text.data() + text.size(), value);
    if (text.empty() || ec != std::errc() || end != text.data() + text.size() || value < info.min ||
        value > info.max)
        return std::nullopt;
    return static_cast<std::uint16_t>(value);
}

std::string settingRangeText(const SettingInfo& info)
{
    return "a whole number from " + std::to_string(info.min) + " to " + std::to_string(info.max);
}

} // namespace dravinel
