#pragma once

#include <optional>
#include <string>

// Why a serial port could not be used, as a value (the call that failed and its errno), and the
// one place where such a value becomes words a technician can act on.

namespace dravinel {

// Another program that has the port open.
struct PortHolder
{
    int pid = 0;
    std::string name; // the program's name, as /proc/<pid>/comm gives it

    bool operator==(const PortHolder&) const = default;
};

struct PortError
{
    std::string call; // "open", "ioctl(TIOCEXCL)", "flock", "tcgetattr", "tcsetattr"
    int error = 0;    // the errno of that call
    std::optional<PortHolder> holder; // for a busy port, when the holder could be found

    bool operator==(const PortError&) const = default;
};

// Where the words look; tests point these at a fake tree.
struct SystemFiles
{
    std::string proc = "/proc";
    std::string groupFile = "/etc/group";
};

// The first other process found with path (or the device node behind it) open. Processes whose
// descriptors this user may not read are skipped.
std::optional<PortHolder> find_port_holder(const std::string& path, const SystemFiles& files = {});

// One line for a technician: what is wrong with the port and what to do about it. It does not
// start with the path; the caller shows the path beside it.
std::string describePortError(const std::string& path, const PortError& error,
                              const SystemFiles& files = {});

} // namespace dravinel
