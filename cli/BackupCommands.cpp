#include "cli/BackupCommands.h"

#include "cli/Context.h"
#include "cli/Echo.h"
#include "cli/Interrupt.h"
#include "device/Backup.h"
#include "device/Restore.h"
#include "support/Files.h"

#include <CLI/CLI.hpp>

#include <algorithm>
#include <array>
#include <iostream>

namespace dravinel::cli {

namespace {

// The file name of backup and restore that means standard output and input.
constexpr std::string_view kStandardStream = "-";

int backup(Context& c, DeviceSession& device, const std::string& target)
{
    std::vector<std::string> answers;
    const auto data = device.readSettings(&answers);
    if (!data) {
        c.err.line(readFailure("settings read", answers) + "; nothing was saved");
        return kExitFailed;
    }
    if (interruptRequested())
        return c.interrupted("nothing was saved");
    const std::string revision = device.revision().value_or("???");
    if (c.options.file == kStandardStream) {
        // The backup itself is the output: nothing else may go with it.
        c.out << formatBackup(revision, *data);
        return kExitOk;
    }
    if (const auto failure = replaceFile(target, formatBackup(revision, *data))) {
        c.err.line("cannot save the backup: " + describeFileError(*failure));
        return kExitFailed;
    }
    if (c.options.json) {
        Json json = {{"file", c.options.file}, {"revision", revision}};
        for (const auto& info : kSettings)
            json[std::string(info.jsonKey)] = data->get(info.id);
        c.out << dump(json) << '\n';
    } else {
        c.out << "revision " << revision << " and 6 settings saved to " << c.options.file << '\n';
    }
    return kExitOk;
}

// Where the backup goes is checked before the connection: bad input sends nothing at all.
int runBackup(Context& c)
{
    std::string target;
    if (c.options.file != kStandardStream) {
        if (const auto failure = resolveReplaceTarget(c.options.file, target)) {
            c.err.line("cannot save a backup there: " + describeFileError(*failure));
            return kExitBadInput;
        }
    }
    return withDevice(c, [&](DeviceSession& device) { return backup(c, device, target); });
}

// Standard input, whole, unless it holds more than a backup file may; false then.
bool readStandardInput(std::string& text)
{
    text.clear();
    std::array<char, 4096> buffer{};
    while (std::cin.read(buffer.data(), buffer.size()) || std::cin.gcount() > 0) {
        text.append(buffer.data(), static_cast<std::size_t>(std::cin.gcount()));
        if (text.size() > kLargestBackupFile)
            return false;
    }
    return true;
}

// The backup to restore, read and checked before the connection; nothing, the reason said, if
// it cannot be.
std::optional<Backup> readBackup(Context& c)
{
    const std::string& file = c.options.file;
    std::string text;
    if (file == kStandardStream) {
        if (!readStandardInput(text)) {
            c.err.line("cannot restore: standard input is larger than " +
                       std::to_string(kLargestBackupFile) + " bytes");
            return std::nullopt;
        }
    } else if (const auto failure = readSmallFile(file, kLargestBackupFile, text)) {
        c.err.line("cannot restore: " + describeFileError(*failure));
        return std::nullopt;
    }
    std::string error;
    auto parsed = parseBackup(text, error);
    if (!parsed)
        c.err.line(file + ": " + error);
    return parsed;
}

std::string restoreVerdict(const RestoreRow& row)
{
    std::string verdict = row.write == RestoreRow::Write::Confirmed ? "yes"
                          : row.write == RestoreRow::Write::NotConfirmed
                              ? "NO (" + cameBack(row.answer) + ")"
                              : "not sent";
    if (row.putBack == RestoreRow::PutBack::PutBack)
        verdict += ", put back";
    else if (row.putBack == RestoreRow::PutBack::NotPutBack)
        verdict += ", NOT put back";
    return verdict;
}

void printRestore(Context& c, const RestoreReport& report)
{
    if (c.options.json) {
        Json json = {{"file", c.options.file}};
        for (const auto& row : report.rows) {
            const bool sent = row.write != RestoreRow::Write::NotSent;
            const bool changed = row.putBack != RestoreRow::PutBack::NotNeeded;
            json[std::string(settingInfo(row.setting).jsonKey)] = {
                {"before", row.before},
                {"written", sent ? Json(row.wanted) : Json(nullptr)},
                {"attempted", sent},
                {"confirmed", row.write == RestoreRow::Write::Confirmed},
                {"put_back",
                 changed ? Json(row.putBack == RestoreRow::PutBack::PutBack) : Json(nullptr)}};
        }
        c.out << dump(json) << '\n';
        return;
    }
    c.out << padded("setting", kNameWidth) << "before  written  confirmed\n";
    for (const auto& row : report.rows) {
        // A value never sent was not written: its column stays empty.
        const bool sent = row.write != RestoreRow::Write::NotSent;
        c.out << padded(settingInfo(row.setting).cliName, kNameWidth)
              << rightAligned(std::to_string(row.before), 6)
              << rightAligned(sent ? std::to_string(row.wanted) : "-", 9) << "  "
              << restoreVerdict(row) << '\n';
    }
}

// Why a restore failed at a write, and what became of the ones written before it.
std::string restoreFailure(const RestoreReport& report)
{
    const std::size_t earlier = *report.failedAt;
    const RestoreRow& failedRow = report.rows[earlier];
    const std::string failed(settingInfo(failedRow.setting).cliName);
    std::string message = "restore failed at " + failed + "; ";
    std::string notPutBack;
    for (std::size_t i = 0; i < earlier; ++i)
        if (report.rows[i].putBack == RestoreRow::PutBack::NotPutBack)
            notPutBack += (notPutBack.empty() ? "" : ", ") +
                          std::string(settingInfo(report.rows[i].setting).cliName);
    if (earlier == 0)
        message += "nothing was written before it";
    else if (notPutBack.empty())
        message += "the " + std::to_string(earlier) + " setting" + (earlier == 1 ? "" : "s") +
                   " written before it " + (earlier == 1 ? "was" : "were") + " put back";
    else
        message += "of the " + std::to_string(earlier) + " settings written before it, " +
                   notPutBack + " could not be put back";
    if (failedRow.putBack == RestoreRow::PutBack::NotPutBack)
        message += "; " + failed + " itself could not be put back";
    return message;
}

// The exit code of a restore that ran to its end, printed.
int restoreEnd(Context& c, const RestoreReport& report)
{
    if (report.end == RestoreReport::End::DeviceLost) {
        c.err.line("device lost");
        return kExitFailed;
    }
    if (report.end != RestoreReport::End::WriteFailed) {
        if (!interruptRequested())
            return kExitOk;
        const auto sent = static_cast<std::size_t>(std::ranges::count_if(
            report.rows, [](const auto& row) { return row.write != RestoreRow::Write::NotSent; }));
        return c.interrupted(writtenSoFar(sent, kSettings.size()));
    }
    const RestoreRow& failedRow = report.rows[*report.failedAt];
    c.err.line(std::string(settingInfo(failedRow.setting).cliName) + "=" +
               std::to_string(failedRow.wanted) +
               " was not confirmed: " + cameBack(failedRow.answer));
    c.err.line(restoreFailure(report));
    return kExitFailed;
}

// A restore writes all six settings or, if one is not confirmed, puts back every value it wrote,
// so the device is never left holding half a backup. Only an interruption leaves it half written,
// as asked: nothing more is sent after Ctrl-C.
int restore(Context& c, DeviceSession& device, const Backup& backup)
{
    const std::string revision = device.revision().value_or("???");
    if (!c.options.force && backup.revision != revision) {
        c.err.line(c.options.file +
                   (backup.revision ? " is a backup of firmware revision " + echo(*backup.revision)
                                    : " does not say which firmware revision it is from") +
                   ", the device has revision " + echo(revision) +
                   "; nothing was written (--force restores it anyway)");
        return kExitBadInput;
    }
    device.enableKeepalive(false);
    RestoreValues values;
    for (const auto& info : kSettings)
        values[settingIndex(info.id)] = backup.settings.get(info.id);
    const RestoreReport report =
        restoreSettings(device, values, [] { return interruptRequested(); });
    if (report.end == RestoreReport::End::ReadFailed) {
        c.err.line(readFailure("settings read", report.readAnswers) + "; nothing was written");
        return kExitFailed;
    }
    if (!report.rows.empty())
        printRestore(c, report);
    return restoreEnd(c, report);
}

int runRestore(Context& c)
{
    const auto backup = readBackup(c);
    if (!backup)
        return kExitBadInput;
    return withDevice(c, [&](DeviceSession& device) { return restore(c, device, *backup); });
}

} // namespace

void addBackupCommands(CLI::App& app, Options& options)
{
    addCommand(app, options, "backup", "save the revision and the six settings to a JSON file",
               runBackup)
        ->add_option("FILE", options.file,
                     "the backup file, replaced as a whole or not at all; - for standard output")
        ->required();
    auto* restore =
        addCommand(app, options, "restore",
                   "write a backup's six settings: all, or none if one fails", runRestore);
    restore->add_option("FILE", options.file, "a file written by backup; - for standard input")
        ->required();
    restore->add_flag("--force", options.force,
                      "restore a backup of another firmware revision, or of none");
}

} // namespace dravinel::cli
