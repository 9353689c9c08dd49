#include "support/Converter.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <limits>

using namespace dravinel;

namespace {

const Converter& converter()
{
    return Converter::getInstance();
}

} // namespace

TEST(Converter, SharedInstanceIsOneObject)
{
    Converter::initialize();
    const Converter* first = &Converter::getInstance();
    Converter::initialize();
    EXPECT_EQ(first, &Converter::getInstance());
}

TEST(Converter, HexTextIsTwoLowercaseDigitsPerByteAndRoundTrips)
{
    EXPECT_EQ(converter().bytesToByteString({}), "");
    EXPECT_EQ(converter().bytesToByteString({0x05}), "05");
    EXPECT_EQ(converter().bytesToByteString({0x43, 0x0A, 0x0D}), "430a0d");

    Bytes all;
    for (int b = 0; b < 256; ++b)
        all.push_back(static_cast<std::uint8_t>(b));
    const std::string hex = converter().bytesToByteString(all);
    ASSERT_EQ(hex.size(), 512u);
    EXPECT_EQ(hex.substr(0, 6), "000102");
    EXPECT_EQ(hex.substr(506), "fdfeff");
    EXPECT_EQ(converter().byteStringToBytes(hex), all);
}

TEST(Converter, HexTextToBytesTakesPairsWithStrtolLeniency)
{
    EXPECT_TRUE(converter().byteStringToBytes("abc").empty());
    EXPECT_TRUE(converter().byteStringToBytes("").empty());
    EXPECT_EQ(converter().byteStringToBytes("0a0D"), (Bytes{0x0A, 0x0D}));
    EXPECT_EQ(converter().byteStringToBytes("FF"), (Bytes{0xFF}));

    // A pair that is not hex gives the value of its valid leading part, 0 when there is none.
    EXPECT_EQ(converter().byteStringToBytes("zz"), (Bytes{0x00}));
    EXPECT_EQ(converter().byteStringToBytes("1z"), (Bytes{0x01}));
    EXPECT_EQ(converter().byteStringToBytes("z1"), (Bytes{0x00}));
    EXPECT_EQ(converter().byteStringToBytes("zz41"), (Bytes{0x00, 0x41}));
    // A sign is read as strtol reads it and the low 8 bits of the result are kept.
    EXPECT_EQ(converter().byteStringToBytes("-1"), (Bytes{0xFF}));
}

TEST(Converter, PrintableFormMarksOnlyLeadingStxAndTrailingEtx)
{
    EXPECT_EQ(converter().bytesToPrintableString({0x02, 0x41, 0x03}), "[STX]41[ETX]");
    EXPECT_EQ(converter().bytesToPrintableString({0x03}), "[ETX]");
    EXPECT_EQ(converter().bytesToPrintableString({0x02}), "[STX]");
    EXPECT_EQ(converter().bytesToPrintableString({0x03, 0x02}), "0302");
    EXPECT_EQ(converter().bytesToPrintableString({0x41, 0x02, 0x03, 0x41}), "41020341");
    EXPECT_EQ(converter().bytesToPrintableString({0xAB, 0x0c}), "ab0c");
    EXPECT_EQ(converter().bytesToPrintableString({}), "");

    // The hex-text variant never yields a text, whatever it is given.
    EXPECT_FALSE(converter().byteStringToPrintableString("024103").has_value());
    EXPECT_FALSE(converter().byteStringToPrintableString("").has_value());
    EXPECT_FALSE(converter().byteStringToPrintableString("02a").has_value());
}

TEST(Converter, Base64DecodesQuadsAndPadding)
{
    EXPECT_EQ(Converter::base64DataFromString("QUJD"), toBytes("ABC"));
    EXPECT_EQ(Converter::base64DataFromString("QUI="), toBytes("AB"));
    EXPECT_EQ(Converter::base64DataFromString("QQ=="), toBytes("A"));
    EXPECT_EQ(Converter::base64DataFromString("SGVsbG8sIHdvcmxkIQ=="), toBytes("Hello, world!"));
    EXPECT_EQ(Converter::base64DataFromString("+/+/"), (Bytes{0xFB, 0xFF, 0xBF}));

    EXPECT_TRUE(Converter::base64DataFromString("=").empty());
    EXPECT_TRUE(Converter::base64DataFromString("").empty());
    EXPECT_TRUE(Converter::base64DataFromString(std::nullopt).empty());
    // An unfinished quad without padding gives nothing.
    EXPECT_TRUE(Converter::base64DataFromString("QQ").empty());
    EXPECT_EQ(Converter::base64DataFromString("QUJDQU"), toBytes("ABC"));
}

TEST(Converter, Base64SkipsForeignBytesAndStopsAtPadding)
{
    EXPECT_EQ(Converter::base64DataFromString("QU\r\nJ D"), toBytes("ABC"));
    EXPECT_EQ(Converter::base64DataFromString("Q!U*J\tD-"), toBytes("ABC"));
    // '=' on an empty quad ends decoding; so does the first '=' after a partial quad.
    EXPECT_EQ(Converter::base64DataFromString("QUJD=QUJD"), toBytes("ABC"));
    EXPECT_EQ(Converter::base64DataFromString("QUI=QUJD"), toBytes("AB"));
}

TEST(Converter, Base64PaddingKeepsPreviousQuadInUnfilledSlots)
{
    // Alone, "Q=" decodes with a zero second slot: 'Q' (16) << 2 gives '@'.
    EXPECT_EQ(Converter::base64DataFromString("Q="), toBytes("@"));
    // After "QUJD" the second slot still holds 'U' (20), whose top bits complete the byte.
    EXPECT_EQ(Converter::base64DataFromString("QUJDQ="), toBytes("ABCA"));
}

TEST(Converter, Base64ReadsOnlyAsManyBytesAsTheTextHasUtf16Units)
{
    // "é" is two UTF-8 bytes but one unit, so the last byte of the text is never looked at.
    EXPECT_TRUE(Converter::base64DataFromString("\xC3\xA9QUJD").empty());
    // Each emoji is four bytes and two units: 12 units reach exactly through the first quad.
    EXPECT_EQ(Converter::base64DataFromString("\xF0\x9F\x98\x80\xF0\x9F\x98\x80QUJDQUJD"),
              toBytes("ABC"));
}

TEST(Converter, GetStringStopsAtZeroAndGivesNothingPastTheEnd)
{
    const Bytes bytes{'A', 'B', 0, 'C', 'D'};
    EXPECT_EQ(Converter::getString(bytes, 0, 4), "AB");
    EXPECT_EQ(Converter::getString(bytes, 0, 1), "AB");
    EXPECT_EQ(Converter::getString(bytes, 1, 1), "B");
    EXPECT_EQ(Converter::getString(bytes, 3, 4), "CD");
    EXPECT_EQ(Converter::getString(bytes, 4, 3), "");

    // A zero byte met before the end ends the text; running off the end first spoils it.
    EXPECT_EQ(Converter::getString(bytes, 0, 100), "AB");
    EXPECT_EQ(Converter::getString(bytes, 3, 5), "");
    EXPECT_EQ(Converter::getString(bytes, -1, 1), "");
    EXPECT_EQ(Converter::getString({}, 0, 0), "");
    EXPECT_EQ(Converter::getString(bytes, std::numeric_limits<std::int32_t>::max() - 1,
                                   std::numeric_limits<std::int32_t>::max()),
              "");

    EXPECT_EQ(Converter::getString({'c', 'a', 'f', 0xE9}, 0, 3), "caf\xC3\xA9");
}

TEST(Converter, GetLatin1StringReadsTheRangeUpToTheFirstZero)
{
    const Bytes bytes{'c', 'a', 'f', 0xE9, 0, 'x'};
    EXPECT_EQ(Converter::getLatin1String(bytes, 0, 5), "caf\xC3\xA9");
    EXPECT_EQ(Converter::getLatin1String(bytes, 1, 2), "af");
    EXPECT_EQ(Converter::getLatin1String(bytes, 5, 5), "x");
    EXPECT_EQ(Converter::getLatin1String(bytes, 5, 6), "");
    EXPECT_EQ(Converter::getLatin1String(bytes, -1, 2), "");
    EXPECT_EQ(Converter::getLatin1String(bytes, 3, 2), "");
}

TEST(Converter, NumberReadersAreLittleEndianAndBoundsChecked)
{
    const Bytes bytes{0x78, 0x56, 0x34, 0x12, 0xAB};
    EXPECT_EQ(Converter::getUInt32(bytes, 0), 0x12345678u);
    EXPECT_EQ(Converter::getUInt32(bytes, 1), 0xAB123456u);
    EXPECT_EQ(Converter::getUInt32(Bytes{0xFF, 0xFF, 0xFF, 0xFF}, 0), 0xFFFFFFFFu);
    EXPECT_FALSE(Converter::getUInt32(bytes, 2).has_value());
    EXPECT_FALSE(Converter::getUInt32(bytes, -1).has_value());
    EXPECT_FALSE(Converter::getUInt32(bytes, std::numeric_limits<std::int32_t>::max()).has_value());
    EXPECT_FALSE(Converter::getUInt32({}, 0).has_value());

    EXPECT_EQ(Converter::getUInt8(bytes, 4), 0xAB);
    EXPECT_FALSE(Converter::getUInt8(bytes, 5).has_value());
    EXPECT_FALSE(Converter::getUInt8(bytes, -1).has_value());
}

TEST(Converter, UrlEncodingEscapesReservedAndNonAsciiButNotTheAsciiApostrophe)
{
    EXPECT_EQ(converter().urlEncodeValue(":/?#"), "%3A%2F%3F%23");
    EXPECT_EQ(converter().urlEncodeValue("[]@!$&()*+,;="),
              "%5B%5D%40%21%24%26%28%29%2A%2B%2C%3B%3D");
    EXPECT_EQ(converter().urlEncodeValue("\xE2\x80\x99"), "%E2%80%99");
    EXPECT_EQ(converter().urlEncodeValue("it's"), "it's");
    EXPECT_EQ(converter().urlEncodeValue("caf\xC3\xA9"), "caf%C3%A9");
    EXPECT_EQ(converter().urlEncodeValue("a b%"), "a%20b%25");
    EXPECT_EQ(converter().urlEncodeValue("AZaz09-._~"), "AZaz09-._~");
    EXPECT_EQ(converter().urlEncodeValue(""), "");
}
