#pragma once

#include "protocol/SettingsTable.h"

#include <optional>
#include <string>
#include <string_view>

// The device's six settings as front ends see them: the one table (its rows, names and ranges)
// and the one parser of a value a person typed.

namespace dravinel {

// A setting by its command-line name, with '-' or '_' alike ("motor-speed", "motor_speed").
const SettingInfo* findSettingByCliName(std::string_view name);

// A value as a person writes it: a whole decimal number within the row's range, digits only (no
// sign, no fraction). Blanks around the digits are ignored, as a field or a shell quote may
// carry them; a blank inside the number is not.
std::optional<std::uint16_t> parseSettingValue(std::string_view text,
                                               const SettingInfo& info = kSettings[0]);

// "a whole number from 0 to 65535", from the row's range.
std::string settingRangeText(const SettingInfo& info = kSettings[0]);

} // namespace dravinel
