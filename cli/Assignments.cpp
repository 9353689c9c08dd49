#include "cli/Assignments.h"

#include "cli/Echo.h"

#include <charconv>

namespace dravinel::cli {

namespace {

std::string knownNames()
{
    std::string names;
    for (const auto& info : kSettings) {
        if (!names.empty())
            names += ", ";
        names += info.cliName;
    }
    return names;
}

} // namespace

std::optional<std::vector<Assignment>> parseAssignments(const std::vector<std::string>& pairs,
                                                        std::string& error)
{
    std::vector<Assignment> result;
    for (const auto& pair : pairs) {
        const auto equals = pair.find('=');
        if (equals == std::string::npos) {
            error = echo(pair) + " is not NAME=VALUE";
            return std::nullopt;
        }
        const std::string_view name = std::string_view(pair).substr(0, equals);
        const std::string_view text = std::string_view(pair).substr(equals + 1);
        const SettingInfo* setting = findSettingByCliName(name);
        if (setting == nullptr) {
            error = "unknown setting " + echo(name) + " (known: " + knownNames() + ")";
            return std::nullopt;
        }
        // Values the device cannot hold are refused, never cut to 16 bits.
        const auto value = parseSettingValue(text, *setting);
        if (!value) {
            error = std::string(setting->cliName) + ": " + echo(text) + " is not " +
                    settingRangeText(*setting);
            return std::nullopt;
        }
        for (const auto& earlier : result) {
            if (earlier.setting == setting) {
                error = std::string(setting->cliName) + " is given twice";
                return std::nullopt;
            }
        }
        result.push_back({setting, *value});
    }
    return result;
}

} // namespace dravinel::cli
