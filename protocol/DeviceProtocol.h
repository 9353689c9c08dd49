#pragma once

#include "support/Bytes.h"

#include <cstdint>
#include <optional>

// The frame rules of the device protocol, each written once: how the byte stream is cut into
// frames, how a request frame is built, and when a received frame counts as a response.

namespace dravinel {

class DeviceProtocol
{
public:
    // True for the thirteen bytes that may open a response. 'I' is among them because the IR
    // reading reply is the text "IR: <n>".
    static bool isResponseStart(char c);

    // The frame without its code, separator and two terminators; empty for 4 bytes or fewer.
    static std::optional<Bytes> extractContent(const Bytes& frame);
};

// Turns a piece read up to (not including) LF into a whole frame ending LF CR: the CR left over
// from the previous frame's terminator is dropped from its start. Pieces of 2 bytes or fewer
// are noise and give nothing.
std::optional<Bytes> frameFromPiece(Bytes piece);

// Request frame: code, content, LF, CR. Content counts only when both pointer and length are
// non-zero.
Bytes buildRequestFrame(char code, const std::uint8_t* content, std::uint64_t contentLength);

// Validity of a frame collected for an awaited response: a response start, ',' at 1 or ':' at 1
// or 2, and LF CR at the end. Frames too short for these look-ups are invalid.
bool isValidResponseFrame(const Bytes& frame);

// The stricter rule for a frame that arrived while nothing was awaited: ',' only, at index 1.
bool isWellFormedUnsolicitedFrame(const Bytes& frame);

// Whether a frame belongs to the motor test's monitor stream ("IMEAS…" or "MX…").
bool isMonitorFrame(const Bytes& frame);

} // namespace dravinel
