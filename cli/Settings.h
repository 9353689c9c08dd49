#pragma once

#include "device/SettingsData.h"

#include <array>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

// The six settings as the command line names them, the checks of typed values, and the backup
// file that holds them.

namespace dravinel {
class DeviceManager;
struct WriteResult;
}

namespace dravinel::cli {

struct Setting
{
    std::string_view name; // on the command line: "current-limit"
    std::string_view key;  // in JSON: "current_limit"
    std::uint16_t (SettingsData::*get)() const;
    WriteResult (DeviceManager::*save)(std::uint16_t);
    char request; // the request code, as the device receives it
};

// In the device's order, which is also the order of output and of a restore.
const std::array<Setting, 6>& settings();
const Setting* findSettingByName(std::string_view name);

// A whole decimal number from 0 to 65535: digits only, no sign, no blank, no fraction. Values the
// device cannot hold are refused, never cut to 16 bits.
std::optional<std::uint16_t> parseSettingValue(std::string_view text);

struct Assignment
{
    const Setting* setting = nullptr;
    std::uint16_t value = 0;
};

// NAME=VALUE pairs, all checked before any is used. On failure returns nothing and sets error to
// one line naming the pair at fault.
std::optional<std::vector<Assignment>> parseAssignments(const std::vector<std::string>& pairs,
                                                        std::string& error);

struct Backup
{
    std::optional<std::string> revision;
    std::array<std::uint16_t, 6> values{}; // in the order of settings()
};

// The text of a backup file: one indented JSON object with the revision and the six settings.
std::string formatBackup(const std::string& revision, const SettingsData& data);
// Reads a backup file's text strictly: a JSON object holding exactly the six setting keys, each a
// whole number 0 to 65535, and optionally "revision" as a string; nothing else.
std::optional<Backup> parseBackup(std::string_view text, std::string& error);

} // namespace dravinel::cli
