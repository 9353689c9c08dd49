#pragma once

#include "device/SettingsData.h"

#include <optional>
#include <string>
#include <string_view>

// The backup file of a device's settings: one JSON object holding the firmware revision and the
// six settings under their JSON keys. Written by the command line's backup, read strictly by its
// restore, so that a file that is not exactly a backup never reaches the device.

namespace dravinel {

struct Backup
{
    std::optional<std::string> revision; // absent from a hand-written file
    SettingsData settings;
};

// The file's text: the revision, then the settings in the device's order, one member a line.
std::string formatBackup(const std::string& revision, const SettingsData& settings);

// Reads a backup's text: a JSON object with exactly the six setting keys, each a whole number
// from 0 to 65535, and optionally "revision" as a string; no other key, no key twice. On failure
// returns nothing and sets error to one line, which starts with the line and column at fault
// wherever the fault has a place in the text.
std::optional<Backup> parseBackup(std::string_view text, std::string& error);

} // namespace dravinel
