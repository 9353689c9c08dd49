#pragma once

#include "support/Bytes.h"

#include <cstdint>
#include <optional>
#include <string>

// Byte, hex-text, printable-text, number and base64 conversions. Text is UTF-8; the readers check
// bounds and give an empty result for a range that leaves the buffer.

namespace dravinel {

class Converter
{
public:
    static void initialize();
    static const Converter& getInstance();

    // Bytes minIndex..maxIndex (inclusive) as characters, ending early at a zero byte. A range that
    // reaches past the buffer before a zero byte is met gives the empty text.
    static std::string getString(const Bytes& bytes, std::int32_t minIndex, std::int32_t maxIndex);

    // Bytes minIndex..maxIndex (inclusive) read as NUL-terminated ISO Latin-1, returned as UTF-8.
    static std::string getLatin1String(const Bytes& bytes, std::int32_t minIndex,
                                       std::int32_t maxIndex);

    // The four bytes at index..index+3, least significant first.
    static std::optional<std::uint32_t> getUInt32(const Bytes& bytes, std::int32_t index);
    static std::optional<std::uint8_t> getUInt8(const Bytes& bytes, std::int32_t index);

    // Lenient base64 decoding: bytes outside the alphabet are skipped, the first '=' ends it.
    static Bytes base64DataFromString(const std::optional<std::string>& text);

    // Percent-encodes every UTF-8 byte except ASCII letters, digits and "-._~'".
    std::string urlEncodeValue(const std::string& text) const;

    // Lowercase hex, two digits a byte, no separators: {0x43, 0x0A, 0x0D} gives "430a0d".
    std::string bytesToByteString(const Bytes& bytes) const;

    // Hex text back to bytes; empty for an odd length.
    Bytes byteStringToBytes(const std::string& hexText) const;

    // Always gives nothing: this operation never produced its printable text, and that is kept
    // as its behaviour. bytesToPrintableString is the working form.
    std::optional<std::string> byteStringToPrintableString(const std::string& hexText) const;

    // Hex per byte, with a leading 0x02 shown as "[STX]" and a final 0x03 as "[ETX]".
    std::string bytesToPrintableString(const Bytes& bytes) const;

private:
    Converter() = default;
};

} // namespace dravinel
