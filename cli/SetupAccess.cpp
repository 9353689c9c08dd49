#include "cli/SetupAccess.h"

#include "cli/Cli.h"
#include "cli/UdevRule.h"
#include "support/ErrorText.h"
#include "support/Files.h"

#include <cerrno>
#include <filesystem>
#include <ostream>
#include <vector>

#include <spawn.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

extern char** environ;

namespace dravinel::cli {

namespace {

namespace fs = std::filesystem;

// udevd listens here while it runs; without it there is nothing to reload, and the rule is read
// when udev starts.
constexpr const char* kUdevControl = "/run/udev/control";

// Runs a program found on PATH and waits for it; returns its exit status, or -1 when it could
// not be started or did not exit normally.
int runProgram(std::vector<std::string> args)
{
    std::vector<char*> argv;
    for (auto& arg : args)
        argv.push_back(arg.data());
    argv.push_back(nullptr);
    pid_t pid = 0;
    if (posix_spawnp(&pid, argv[0], nullptr, nullptr, argv.data(), environ) != 0)
        return -1;
    int status = 0;
    while (waitpid(pid, &status, 0) == -1) {
        if (errno != EINTR)
            return -1;
    }
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

bool needsRoot(const FileError& failure)
{
    return failure.kind == FileError::Kind::System &&
           (failure.error == EACCES || failure.error == EPERM);
}

} // namespace

std::string_view udevRule()
{
    return kUdevRuleText;
}

int runSetupAccess(const SetupAccessOptions& options, std::ostream& out, std::ostream& err)
{
    if (!options.install) {
        out << udevRule();
        return kExitOk;
    }

    const std::string path = (fs::path(options.rulesDir) / kRuleFileName).string();
    std::string target;
    auto failure = resolveReplaceTarget(path, target);
    if (!failure)
        failure = replaceFile(target, udevRule());
    if (failure) {
        err << "dravinel-cli: the rule was not installed: " << describeFileError(*failure)
            << (needsRoot(*failure) ? " (run it with sudo)" : "") << '\n';
        return kExitFailed;
    }
    // udev reads rules as root, but every rule file is readable by all, as the package's is.
    if (chmod(target.c_str(), 0644) != 0) {
        const int error = errno;
        err << "dravinel-cli: " << target
            << " was written but its mode not set: " << errorText(error) << '\n';
        return kExitFailed;
    }
    out << "installed " << target << '\n';

    if (options.rulesDir != kSystemRulesDir) {
        out << "udev not reloaded: " << options.rulesDir << " is not its folder\n";
        return kExitOk;
    }
    if (access(kUdevControl, F_OK) != 0) {
        out << "udev is not running; it reads the rule when it starts\n";
        return kExitOk;
    }
    // A device plugged in now gets the rule from the reload; one already plugged in from the
    // trigger, without unplugging it.
    if (runProgram({"udevadm", "control", "--reload"}) != 0 ||
        runProgram({"udevadm", "trigger", "--subsystem-match=tty", "--action=change"}) != 0) {
        err << "dravinel-cli: the rule is installed, but udevadm could not reload udev; it "
               "applies after a restart\n";
        return kExitFailed;
    }
    out << "udev reloaded: the logged-in user can now open the device's port\n";
    return kExitOk;
}

} // namespace dravinel::cli
