#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

// Number reading as the device's answers and the operator's fields need it.

namespace dravinel {

// Reads a signed decimal integer at the start of text: leading white space skipped, an optional
// sign, then digits; anything after the digits is ignored. Values beyond 32 bits saturate.
// Empty when no digit follows.
std::optional<std::int32_t> scanLeadingInt(std::string_view text);

// The low 16 bits of an integer, as every number read back from the device is reduced.
constexpr std::uint16_t low16(std::int64_t value)
{
    return static_cast<std::uint16_t>(static_cast<std::uint64_t>(value) & 0xFFFFu);
}

// Removes every occurrence of needle from text.
std::string removeAll(std::string text, std::string_view needle);

} // namespace dravinel
