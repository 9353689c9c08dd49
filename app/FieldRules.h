#pragma once

#include <cstdint>
#include <optional>
#include <string_view>

// What the settings fields accept. A field is written only when it holds exactly a number the
// device stores as typed: nothing is cut to 16 bits, rounded or read as 0 behind the operator.

namespace dravinel::fields {

inline constexpr std::uint32_t kMaxValue = 65535;
inline constexpr std::uint32_t kMaxHours = kMaxValue / 60; // 1092
inline constexpr std::uint32_t kMaxMinutes = 59;

// A whole number from 0 to max: decimal digits only, spaces around them allowed.
std::optional<std::uint32_t> parseWhole(std::string_view text, std::uint32_t max);

// The cycle time-out in minutes, when both fields are valid and their total fits 16 bits.
std::optional<std::uint16_t> cycleTimeout(std::string_view hours, std::string_view minutes);

} // namespace dravinel::fields
