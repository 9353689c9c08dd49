#pragma once

#include <cstdint>
#include <optional>
#include <string_view>

// The cycle time-out's two fields. Each holds a value as the settings' one parser reads it;
// nothing is cut to 16 bits, rounded or read as 0 behind the operator.

namespace dravinel::fields {

// Empty, or blanks only.
bool isBlank(std::string_view text);

// hours × 60 + minutes, minutes over 59 included, an empty field beside a filled one counting as
// 0; nothing when both are empty, either is not a value, or the total is out of range.
std::optional<std::uint16_t> cycleTimeout(std::string_view hours, std::string_view minutes);

} // namespace dravinel::fields
