#pragma once

#include <iosfwd>
#include <string>
#include <string_view>

// setup-access: the udev rule that gives a Dravinel port to the logged-in user and keeps
// ModemManager off it, printed, or installed for a build that was not installed as a package.

namespace dravinel::cli {

// Where an administrator adds a rule by hand; a package's rule lives in /usr/lib/udev/rules.d.
inline constexpr const char* kSystemRulesDir = "/etc/udev/rules.d";
inline constexpr const char* kRuleFileName = "60-dravinel.rules";

struct SetupAccessOptions
{
    bool install = false;
    // Where --install writes. udev is reloaded only when the rule goes to its own folder.
    std::string rulesDir = kSystemRulesDir;
};

// The rule, exactly as the package installs it.
std::string_view udevRule();

// Prints the rule to out, or installs it and reloads udev, saying so on out. Returns 0, or 1 with
// one line on err when the rule could not be written or udev did not take it.
int runSetupAccess(const SetupAccessOptions& options, std::ostream& out, std::ostream& err);

} // namespace dravinel::cli
