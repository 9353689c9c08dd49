#pragma once

#include <cstdint>
#include <optional>
#include <string_view>

// What the settings fields accept. A field is written only when it holds exactly a number the
// device stores as typed: nothing is cut to 16 bits, rounded or read as 0 behind the operator.

namespace dravinel::fields {

inline constexpr std::uint32_t kMaxValue = 65535;

// Empty or spaces only.
bool isBlank(std::string_view text);

// A whole number from 0 to max: decimal digits only, spaces around them allowed.
std::optional<std::uint32_t> parseWhole(std::string_view text, std::uint32_t max);

// The cycle time-out in minutes: hours × 60 + minutes, minutes over 59 included, an empty field
// beside a filled one counting as 0; nothing when both are empty, either is not a whole number
// up to 65535, or the total does not fit 16 bits.
std::optional<std::uint16_t> cycleTimeout(std::string_view hours, std::string_view minutes);

} // namespace dravinel::fields
