#pragma once

#include "device/DeviceSession.h"
#include "device/Settings.h"

#include <array>
#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <vector>

// The all-or-nothing write of any choice of the six settings: every chosen value is written and
// confirmed, or each value already written (the failing one included) is put back, so that the
// device never holds half a set. The report keeps apart what was never sent, what was confirmed,
// what was not, and, only where a value had changed, what was put back and what could not be.

namespace dravinel {

struct RestoreRow
{
    enum class Write { NotSent, Confirmed, NotConfirmed };
    enum class PutBack { NotNeeded, PutBack, NotPutBack };

    Setting setting = Setting::CurrentLimit;
    std::uint16_t before = 0; // what the device held before the restore
    std::uint16_t wanted = 0; // what the restore was to write
    Write write = Write::NotSent;
    std::optional<std::string> answer; // NotConfirmed: what came back, if anything
    PutBack putBack = PutBack::NotNeeded;
};

struct RestoreReport
{
    enum class End {
        Done,        // every chosen value written and confirmed
        ReadFailed,  // the values before could not be read; nothing was written
        WriteFailed, // a write was not confirmed; the ones written were put back where they could
        Interrupted, // asked to stop between two writes; what was written stays
        DeviceLost,  // the connection ended during the restore
    };
    End end = End::Done;
    std::vector<std::string> readAnswers; // ReadFailed: what came in answer to the read
    std::vector<RestoreRow> rows;         // the chosen settings, in the table's order
    std::optional<std::size_t> failedAt;  // WriteFailed: the row that was not confirmed
};

// The values to write, one optional per row of the table: a row left empty is not touched.
using RestoreValues = std::array<std::optional<std::uint16_t>, kSettings.size()>;

// Writes values through session, which must be connected. stop is asked between two writes; a
// put-back, once begun, runs to its end (a stop would leave exactly the mix it repairs).
RestoreReport restoreSettings(DeviceSession& session, const RestoreValues& values,
                              const std::function<bool()>& stop = {});

} // namespace dravinel
