#include "protocol/DeviceProtocol.h"
#include "protocol/Globals.h"

#include <cstdint>
#include <cstdlib>

// The validity rules a received frame meets, awaited and unsolicited, and the monitor test:
// any bytes as one frame.

using namespace dravinel;

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    const Bytes frame(data, data + size);
    const bool valid = isValidResponseFrame(frame);
    const bool unsolicited = isWellFormedUnsolicitedFrame(frame);
    const bool monitor = isMonitorFrame(frame);
    (void)monitor;

    // The unsolicited rule is the stricter one.
    if (unsolicited && !valid)
        std::abort();
    // Both demand a response start and the two terminators.
    if (valid) {
        if (size < 4 || !DeviceProtocol::isResponseStart(static_cast<char>(frame[0])) ||
            frame[size - 2] != END_1 || frame[size - 1] != END_2)
            std::abort();
    }

    const auto content = DeviceProtocol::extractContent(frame);
    if (size <= 4 ? content.has_value() : (!content || content->size() != size - 4))
        std::abort();
    if (content && !std::equal(content->begin(), content->end(), frame.begin() + 2))
        std::abort();
    return 0;
}
