#include "FieldRules.h"

#include "device/Settings.h"

namespace dravinel::fields {

bool isBlank(std::string_view text)
{
    return text.find_first_not_of(" \t") == std::string_view::npos;
}

std::optional<std::uint16_t> cycleTimeout(std::string_view hours, std::string_view minutes)
{
    if (isBlank(hours) && isBlank(minutes))
        return std::nullopt;
    const auto part = [](std::string_view text) {
        return isBlank(text) ? std::optional<std::uint16_t>(0) : parseSettingValue(text);
    };
    const auto h = part(hours);
    const auto m = part(minutes);
    const std::uint32_t total = h && m ? std::uint32_t{*h} * 60 + *m : 0;
    if (!h || !m || total > settingInfo(Setting::CycleTimeout).max)
        return std::nullopt;
    return static_cast<std::uint16_t>(total);
}

} // namespace dravinel::fields
