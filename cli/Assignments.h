#pragma once

#include "device/Settings.h"

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

// The NAME=VALUE pairs of set, all checked before any is written.

namespace dravinel::cli {

struct Assignment
{
    const SettingInfo* setting = nullptr;
    std::uint16_t value = 0;
};

// On failure returns nothing and sets error to one line naming the pair at fault.
std::optional<std::vector<Assignment>> parseAssignments(const std::vector<std::string>& pairs,
                                                        std::string& error);

} // namespace dravinel::cli
