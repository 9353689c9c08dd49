#include "protocol/DeviceProtocol.h"
#include "protocol/Globals.h"

#include <gtest/gtest.h>

#include <string>
#include <string_view>
#include <vector>

using namespace dravinel;

namespace {

// Cuts a byte stream the way the channel's reader does: a piece up to each LF (LF not kept),
// turned into a frame. Bytes after the last LF are still waiting for their line end.
std::vector<Bytes> cutStream(std::string_view stream)
{
    std::vector<Bytes> frames;
    Bytes piece;
    for (const char c : stream) {
        if (static_cast<std::uint8_t>(c) != END_1) {
            piece.push_back(static_cast<std::uint8_t>(c));
            continue;
        }
        if (auto frame = frameFromPiece(piece))
            frames.push_back(*frame);
        piece.clear();
    }
    return frames;
}

// A buffer of exactly the given bytes, so that a read past its end leaves the allocation.
Bytes exact(std::string_view text)
{
    Bytes bytes = toBytes(text);
    bytes.shrink_to_fit();
    return bytes;
}

} // namespace

TEST(DeviceProtocol, ResponseStartIsExactlyTheThirteenResponseBytes)
{
    for (const char c : std::string_view("bciIrlstovnmz"))
        EXPECT_TRUE(DeviceProtocol::isResponseStart(c)) << c;

    int accepted = 0;
    for (int c = -128; c < 128; ++c)
        accepted += DeviceProtocol::isResponseStart(static_cast<char>(c)) ? 1 : 0;
    EXPECT_EQ(accepted, 13);

    for (const char c : {'g', 'B', 'M', 'X', '\0', 'G', 'C', 'Z', ','})
        EXPECT_FALSE(DeviceProtocol::isResponseStart(c)) << static_cast<int>(c);
}

TEST(DeviceProtocol, ContentIsTheFrameWithoutCodeSeparatorAndTerminators)
{
    EXPECT_EQ(DeviceProtocol::extractContent(exact("b,1\n\r")), toBytes("1"));
    EXPECT_EQ(DeviceProtocol::extractContent(exact("b,2.1\n\r")), toBytes("2.1"));
    EXPECT_EQ(DeviceProtocol::extractContent(exact("IR: 5\n\r")), toBytes(": 5"));
    EXPECT_FALSE(DeviceProtocol::extractContent(exact("b,\n\r")).has_value());
    EXPECT_FALSE(DeviceProtocol::extractContent(exact("b,")).has_value());
    EXPECT_FALSE(DeviceProtocol::extractContent({}).has_value());
}

TEST(DeviceProtocol, StreamIsCutIntoFramesEndingLfCr)
{
    EXPECT_EQ(cutStream("b,1\n\rc,5\n\r"),
              (std::vector<Bytes>{toBytes("b,1\n\r"), toBytes("c,5\n\r")}));
    EXPECT_EQ(cutStream("b,2.1\n\rv,37\n\r"),
              (std::vector<Bytes>{toBytes("b,2.1\n\r"), toBytes("v,37\n\r")}));
    // A line of two bytes, or of CR and one byte, is noise between the two real frames.
    EXPECT_EQ(cutStream("b,1\n\rx\nab\nc,5\n\r"),
              (std::vector<Bytes>{toBytes("b,1\n\r"), toBytes("c,5\n\r")}));
}

TEST(DeviceProtocol, PieceRulesCountLengthBeforeDroppingTheCr)
{
    EXPECT_FALSE(frameFromPiece({}).has_value());
    EXPECT_FALSE(frameFromPiece(toBytes("ab")).has_value());
    EXPECT_FALSE(frameFromPiece(toBytes("\rb")).has_value());
    EXPECT_EQ(frameFromPiece(toBytes("\rb,")), toBytes("b,\n\r"));
    EXPECT_EQ(frameFromPiece(toBytes("b,1")), toBytes("b,1\n\r"));
    // Only one leading CR is the previous terminator; a second one belongs to the frame.
    EXPECT_EQ(frameFromPiece(toBytes("\r\rb,1")), toBytes("\rb,1\n\r"));
}

TEST(DeviceProtocol, RequestFrameIsCodeContentLfCr)
{
    const std::string value = "120";
    const auto* content = reinterpret_cast<const std::uint8_t*>(value.data());
    EXPECT_EQ(buildRequestFrame(SAVE_CURR_LIMIT_REQ, content, 3),
              (Bytes{'C', '1', '2', '0', 0x0A, 0x0D}));
    EXPECT_EQ(buildRequestFrame(SAVE_CURR_LIMIT_REQ, nullptr, 5), (Bytes{'C', 0x0A, 0x0D}));
    EXPECT_EQ(buildRequestFrame(SAVE_CURR_LIMIT_REQ, content, 0), (Bytes{'C', 0x0A, 0x0D}));
    EXPECT_EQ(buildRequestFrame(READ_REV_REQ, nullptr, 0), (Bytes{'B', 0x0A, 0x0D}));
}

TEST(DeviceProtocol, ResponseValidityChecksStartSeparatorAndTerminators)
{
    EXPECT_TRUE(isValidResponseFrame(exact("b,1\n\r")));
    EXPECT_TRUE(isValidResponseFrame(exact("b,\n\r")));
    EXPECT_TRUE(isValidResponseFrame(exact("n:5\n\r")));
    EXPECT_TRUE(isValidResponseFrame(exact("IR: 5\n\r")));
    EXPECT_TRUE(isValidResponseFrame(Bytes{'v', ',', 0xFF, 0x0A, 0x0D}));

    EXPECT_FALSE(isValidResponseFrame(exact("b;1\n\r")));
    EXPECT_FALSE(isValidResponseFrame(exact("b1,\n\r")));
    EXPECT_FALSE(isValidResponseFrame(exact("b,1\r\n")));
    EXPECT_FALSE(isValidResponseFrame(exact("b,1\n\n")));
    EXPECT_FALSE(isValidResponseFrame(exact("b,1\n")));
    EXPECT_FALSE(isValidResponseFrame(exact("B,1\n\r")));
    EXPECT_FALSE(isValidResponseFrame(exact("g,1\n\r")));

    for (const std::string_view shortFrame : {"", "b", "b,", "b,\n", ":\n\r"})
        EXPECT_FALSE(isValidResponseFrame(exact(shortFrame))) << shortFrame.size();
}

TEST(DeviceProtocol, UnsolicitedRuleAcceptsOnlyCommaAtIndexOneAndAsciiText)
{
    EXPECT_TRUE(isWellFormedUnsolicitedFrame(exact("b,1\n\r")));
    EXPECT_TRUE(isWellFormedUnsolicitedFrame(exact("z,\n\r")));

    // The IR reply passes as an awaited response but not when nothing awaited it.
    EXPECT_TRUE(isValidResponseFrame(exact("IR: 5\n\r")));
    EXPECT_FALSE(isWellFormedUnsolicitedFrame(exact("IR: 5\n\r")));
    EXPECT_FALSE(isWellFormedUnsolicitedFrame(exact("n:5\n\r")));

    const Bytes nonAscii{'b', ',', 0xC3, 0xA9, 0x0A, 0x0D};
    EXPECT_TRUE(isValidResponseFrame(nonAscii));
    EXPECT_FALSE(isWellFormedUnsolicitedFrame(nonAscii));

    EXPECT_FALSE(isWellFormedUnsolicitedFrame(exact("B,1\n\r")));
    EXPECT_FALSE(isWellFormedUnsolicitedFrame(exact("b,1\r\n")));
    for (const std::string_view shortFrame : {"", "b", "b,", "b,\n"})
        EXPECT_FALSE(isWellFormedUnsolicitedFrame(exact(shortFrame))) << shortFrame.size();
}

TEST(DeviceProtocol, MonitorFramesAreKnownByTheirTextPrefix)
{
    EXPECT_TRUE(isMonitorFrame(exact("IMEAS: 4\n\r")));
    EXPECT_TRUE(isMonitorFrame(exact("MX:3\n\r")));
    EXPECT_FALSE(isMonitorFrame(exact("b,1\n\r")));
    EXPECT_FALSE(isMonitorFrame(exact("IR: 5\n\r")));
    EXPECT_FALSE(isMonitorFrame(exact("IMEA\n\r")));
    EXPECT_FALSE(isMonitorFrame(exact("M")));
    EXPECT_FALSE(isMonitorFrame({}));
    // Text that is not ASCII reads as empty, so even an "MX" start is not a monitor frame.
    EXPECT_FALSE(isMonitorFrame(Bytes{'M', 'X', ':', 0xB0, 0x0A, 0x0D}));
}
