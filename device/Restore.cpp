#include "device/Restore.h"

namespace dravinel {

namespace {

// How long a write that got no answer waits for the scan to report a lost line.
constexpr std::chrono::milliseconds kLossReport{200};

bool lost(DeviceSession& session, const std::optional<std::string>& answer)
{
    return !answer && session.waitForLoss(kLossReport);
}

// Puts back each row written so far, the failing one included: the device may hold a value it
// did not confirm. A value that had not changed needs nothing.
void putBack(DeviceSession& session, std::vector<RestoreRow>& rows, std::size_t last)
{
    for (std::size_t i = 0; i <= last && i < rows.size(); ++i) {
        RestoreRow& row = rows[i];
        if (row.write == RestoreRow::Write::NotSent || row.before == row.wanted)
            continue;
        const bool restored = session.write(row.setting, row.before).confirmed;
        row.putBack = restored ? RestoreRow::PutBack::PutBack : RestoreRow::PutBack::NotPutBack;
    }
}

} // namespace

RestoreReport restoreSettings(DeviceSession& session, const RestoreValues& values,
                              const std::function<bool()>& stop)
{
    RestoreReport report;
    // Read first: the values to put back if a write fails.
    const auto before = session.readSettings(&report.readAnswers);
    if (!before) {
        report.end = report.readAnswers.empty() && session.waitForLoss(kLossReport)
                         ? RestoreReport::End::DeviceLost
                         : RestoreReport::End::ReadFailed;
        return report;
    }
    report.readAnswers.clear();
    for (const auto& info : kSettings)
        if (const auto& value = values[settingIndex(info.id)])
            report.rows.push_back({info.id, before->get(info.id), *value, {}, {}, {}});

    for (std::size_t i = 0; i < report.rows.size(); ++i) {
        if (stop && stop()) {
            report.end = RestoreReport::End::Interrupted;
            return report;
        }
        RestoreRow& row = report.rows[i];
        const WriteResult written = session.write(row.setting, row.wanted);
        row.write =
            written.confirmed ? RestoreRow::Write::Confirmed : RestoreRow::Write::NotConfirmed;
        if (written.confirmed)
            continue;
        row.answer = written.answer;
        report.failedAt = i;
        if (lost(session, row.answer)) {
            // Nothing can be put back through a line that is gone: each changed value written
            // stays, and says so; an unchanged one needs nothing.
            for (std::size_t j = 0; j <= i; ++j)
                if (report.rows[j].before != report.rows[j].wanted)
                    report.rows[j].putBack = RestoreRow::PutBack::NotPutBack;
            report.end = RestoreReport::End::DeviceLost;
            return report;
        }
        report.end = RestoreReport::End::WriteFailed;
        putBack(session, report.rows, i);
        return report;
    }
    return report;
}

} // namespace dravinel
