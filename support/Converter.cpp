#include "support/Converter.h"

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdlib>

namespace dravinel {

namespace {

// A byte taken as the character of the same code (ISO Latin-1), written in UTF-8.
void appendLatin1(std::string& text, std::uint8_t byte)
{
    if (byte < 0x80) {
        text.push_back(static_cast<char>(byte));
        return;
    }
    text.push_back(static_cast<char>(0xC0 | (byte >> 6)));
    text.push_back(static_cast<char>(0x80 | (byte & 0x3F)));
}

bool inRange(const Bytes& bytes, std::int64_t index)
{
    return index >= 0 && index < static_cast<std::int64_t>(bytes.size());
}

// The length of the text in UTF-16 code units: one per UTF-8 sequence, two for the sequences of
// four bytes that stand outside the Basic Multilingual Plane.
std::size_t utf16Length(const std::string& text)
{
    std::size_t units = 0;
    for (const char c : text) {
        const auto byte = static_cast<std::uint8_t>(c);
        if ((byte & 0xC0) == 0x80)
            continue;
        units += byte >= 0xF0 ? 2 : 1;
    }
    return units;
}

char hexDigit(unsigned value)
{
    return "0123456789abcdef"[value & 0xF];
}

} // namespace

void Converter::initialize()
{
    getInstance();
}

const Converter& Converter::getInstance()
{
    // Never destroyed: an owner destroyed at exit, after it would be, may still join a thread
    // that logs frames on its way out.
    static auto* shared = new Converter;
    return *shared;
}

std::string Converter::getString(const Bytes& bytes, std::int32_t minIndex, std::int32_t maxIndex)
{
    std::string text;
    for (std::int64_t i = minIndex; i <= maxIndex; ++i) {
        // Reading past the buffer used to fail the whole conversion; that failure is kept as the
        // empty text.
        if (!inRange(bytes, i))
            return {};
        const std::uint8_t byte = bytes[static_cast<std::size_t>(i)];
        if (byte == 0)
            break;
        appendLatin1(text, byte);
    }
    return text;
}

std::string Converter::getLatin1String(const Bytes& bytes, std::int32_t minIndex,
                                       std::int32_t maxIndex)
{
    if (minIndex > maxIndex || !inRange(bytes, minIndex) || !inRange(bytes, maxIndex))
        return {};
    std::string text;
    for (std::int64_t i = minIndex; i <= maxIndex; ++i) {
        const std::uint8_t byte = bytes[static_cast<std::size_t>(i)];
        if (byte == 0)
            break;
        appendLatin1(text, byte);
    }
    return text;
}

std::optional<std::uint32_t> Converter::getUInt32(const Bytes& bytes, std::int32_t index)
{
    if (!inRange(bytes, index) || !inRange(bytes, static_cast<std::int64_t>(index) + 3))
        return std::nullopt;
    const auto at = static_cast<std::size_t>(index);
    return static_cast<std::uint32_t>(bytes[at]) | static_cast<std::uint32_t>(bytes[at + 1]) << 8 |
           static_cast<std::uint32_t>(bytes[at + 2]) << 16 |
           static_cast<std::uint32_t>(bytes[at + 3]) << 24;
}

std::optional<std::uint8_t> Converter::getUInt8(const Bytes& bytes, std::int32_t index)
{
    if (!inRange(bytes, index))
        return std::nullopt;
    return bytes[static_cast<std::size_t>(index)];
}

Bytes Converter::base64DataFromString(const std::optional<std::string>& text)
{
    if (!text)
        return {};

    // Only as many bytes are decoded as the text has UTF-16 units, so a text holding non-ASCII
    // characters loses its tail: the decoder has always counted characters, not bytes.
    const std::size_t length = std::min(utf16Length(*text), text->size());
    Bytes data;
    data.reserve(length);

    // The quad is not cleared between groups: a group cut short by '=' keeps the values of the
    // previous group in its unfilled slots.
    std::array<std::uint8_t, 4> quad{};
    std::size_t filled = 0;
    for (std::size_t i = 0; i < length; ++i) {
        auto value = static_cast<std::uint8_t>((*text)[i]);
        bool padding = false;
        if (value >= 'A' && value <= 'Z')
            value = static_cast<std::uint8_t>(value - 'A');
        else if (value >= 'a' && value <= 'z')
            value = static_cast<std::uint8_t>(value - 'a' + 26);
        else if (value >= '0' && value <= '9')
            value = static_cast<std::uint8_t>(value - '0' + 52);
        else if (value == '+')
            value = 62;
        else if (value == '/')
            value = 63;
        else if (value == '=')
            padding = true;
        else
            continue;

        std::size_t outputCount = 3;
        if (padding) {
            if (filled == 0)
                break;
            outputCount = filled <= 2 ? 1 : 2;
            filled = 3;
        }
        quad[filled++] = value;
        if (filled == 4) {
            filled = 0;
            const std::array<std::uint8_t, 3> out{
                static_cast<std::uint8_t>(quad[0] << 2 | (quad[1] & 0x30) >> 4),
                static_cast<std::uint8_t>((quad[1] & 0x0F) << 4 | (quad[2] & 0x3C) >> 2),
                static_cast<std::uint8_t>((quad[2] & 0x03) << 6 | (quad[3] & 0x3F)),
            };
            data.insert(data.end(), out.begin(),
                        out.begin() + static_cast<std::ptrdiff_t>(outputCount));
        }
        if (padding)
            break;
    }
    return data;
}

std::string Converter::urlEncodeValue(const std::string& text) const
{
    // U+0027 stays as it is: the escape set this encoding follows names U+2019 in its place, and
    // U+2019 is escaped anyway as a non-ASCII character.
    std::string encoded;
    encoded.reserve(text.size());
    for (const char c : text) {
        const auto byte = static_cast<std::uint8_t>(c);
        const bool plain = (byte >= 'A' && byte <= 'Z') || (byte >= 'a' && byte <= 'z') ||
                           (byte >= '0' && byte <= '9') || byte == '-' || byte == '.' ||
                           byte == '_' || byte == '~' || byte == '\'';
        if (plain) {
            encoded.push_back(c);
            continue;
        }
        encoded.push_back('%');
        encoded.push_back("0123456789ABCDEF"[byte >> 4]);
        encoded.push_back("0123456789ABCDEF"[byte & 0xF]);
    }
    return encoded;
}

std::string Converter::bytesToByteString(const Bytes& bytes) const
{
    std::string text;
    text.reserve(bytes.size() * 2);
    for (const auto byte : bytes) {
        text.push_back(hexDigit(byte >> 4));
        text.push_back(hexDigit(byte));
    }
    return text;
}

Bytes Converter::byteStringToBytes(const std::string& hexText) const
{
    if (hexText.size() % 2 != 0)
        return {};
    Bytes bytes;
    bytes.reserve(hexText.size() / 2);
    for (std::size_t i = 0; i < hexText.size(); i += 2) {
        // strtol on each pair, so a pair that is not hex gives its valid leading part (or 0), and
        // strtol's own leniency (leading blank, sign) is kept with it.
        const std::array<char, 3> pair{hexText[i], hexText[i + 1], '\0'};
        const long value = std::strtol(pair.data(), nullptr, 16);
        bytes.push_back(static_cast<std::uint8_t>(value & 0xFF));
    }
    return bytes;
}

std::optional<std::string> Converter::byteStringToPrintableString(const std::string&) const
{
    return std::nullopt;
}

std::string Converter::bytesToPrintableString(const Bytes& bytes) const
{
    std::string text;
    for (std::size_t i = 0; i < bytes.size(); ++i) {
        if (i == 0 && bytes[i] == 0x02) {
            text += "[STX]";
        } else if (i + 1 == bytes.size() && bytes[i] == 0x03) {
            text += "[ETX]";
        } else {
            text.push_back(hexDigit(bytes[i] >> 4));
            text.push_back(hexDigit(bytes[i]));
        }
    }
    return text;
}

} // namespace dravinel
