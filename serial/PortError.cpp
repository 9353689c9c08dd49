#include "serial/PortError.h"

#include "support/ErrorText.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <vector>

#include <pwd.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <unistd.h>

namespace dravinel {

namespace {

namespace fs = std::filesystem;

struct GroupEntry
{
    std::string name;
    gid_t gid = 0;
    std::vector<std::string> members;
};

std::optional<GroupEntry> findGroup(const std::string& groupFile, gid_t gid)
{
    std::ifstream in(groupFile);
    std::string line;
    while (std::getline(in, line)) {
        std::vector<std::string> fields;
        std::stringstream row(line);
        for (std::string field; std::getline(row, field, ':');)
            fields.push_back(field);
        if (fields.size() < 3)
            continue;
        char* end = nullptr;
        const unsigned long id = std::strtoul(fields[2].c_str(), &end, 10);
        if (end == fields[2].c_str() || *end != '\0' || id != gid)
            continue;
        GroupEntry entry{fields[0], gid, {}};
        if (fields.size() > 3) {
            std::stringstream members(fields[3]);
            for (std::string member; std::getline(members, member, ',');)
                entry.members.push_back(member);
        }
        return entry;
    }
    return std::nullopt;
}

std::string userName()
{
    std::vector<char> buffer(4096);
    passwd entry{};
    passwd* found = nullptr;
    if (getpwuid_r(getuid(), &entry, buffer.data(), buffer.size(), &found) == 0 && found)
        return found->pw_name;
    return {};
}

bool processHasGroup(gid_t gid)
{
    if (getegid() == gid)
        return true;
    const int count = getgroups(0, nullptr);
    if (count <= 0)
        return false;
    std::vector<gid_t> groups(static_cast<std::size_t>(count));
    const int filled = getgroups(count, groups.data());
    for (int i = 0; i < filled; ++i)
        if (groups[static_cast<std::size_t>(i)] == gid)
            return true;
    return false;
}

std::string permissionWords(const std::string& path, const SystemFiles& files)
{
    struct stat info
    {};
    if (stat(path.c_str(), &info) != 0)
        return "permission denied";
    const auto group = findGroup(files.groupFile, info.st_gid);
    const std::string name = group ? group->name : "gid " + std::to_string(info.st_gid);
    if (processHasGroup(info.st_gid))
        return "permission denied, although you are in group " + name +
               ": the port's permissions were changed; unplug it and plug it in again";
    // A port of group root is not meant for users at all: joining root is no advice to give.
    if (info.st_gid == 0)
        return "permission denied: the port belongs to group root; give it to you and group "
               "dialout with the program's udev rule (sudo dravinel-cli setup-access --install) "
               "and plug the device in again";
    const std::string user = userName();
    if (group && !user.empty() &&
        std::find(group->members.begin(), group->members.end(), user) != group->members.end())
        return "permission denied: you were added to group " + name +
               ", but this login session does not have it yet; log out and in again";
    return "permission denied: the port belongs to group " + name +
           " and you are not in it; run: sudo dravinel-cli setup-access --install, then plug "
           "the device in again (or: sudo usermod -aG " +
           name + " $USER, then log out and in again)";
}

std::string busyWords(const std::optional<PortHolder>& holder)
{
    if (!holder)
        return "in use by another program (one this user cannot see); close it first";
    const std::string who = holder->name + " (pid " + std::to_string(holder->pid) + ")";
    if (holder->name == "ModemManager")
        return "in use by " + who +
               ", which probes new serial ports: keep it off this device with a udev rule "
               "setting ENV{ID_MM_DEVICE_IGNORE}=\"1\", then plug the device in again";
    if (holder->name == "brltty")
        return "in use by " + who +
               ", the braille display driver, which claims USB serial adapters: remove it "
               "(sudo apt remove brltty) or disable its udev rule";
    return "in use by " + who + "; close that program first";
}

std::string readComm(const fs::path& processDir)
{
    std::ifstream in(processDir / "comm");
    std::string name;
    std::getline(in, name);
    return name;
}

// The process holding an flock on the node, from /proc/locks ("1: FLOCK ADVISORY WRITE <pid>
// <major>:<minor>:<inode> 0 EOF", the device numbers in hex). Of all the programs that have a
// port open, the one with the lock is the one in the way.
std::optional<int> lockHolder(const SystemFiles& files, const struct stat& target)
{
    std::ifstream in(fs::path(files.proc) / "locks");
    std::string line;
    while (std::getline(in, line)) {
        std::stringstream row(line);
        std::string id, kind, mode, access, pid, where;
        if (!(row >> id >> kind) || kind == "->" || kind != "FLOCK")
            continue;
        if (!(row >> mode >> access >> pid >> where))
            continue;
        unsigned major = 0, minor = 0;
        unsigned long inode = 0;
        if (std::sscanf(where.c_str(), "%x:%x:%lu", &major, &minor, &inode) != 3)
            continue;
        if (makedev(major, minor) == target.st_dev && inode == target.st_ino)
            return std::atoi(pid.c_str());
    }
    return std::nullopt;
}

} // namespace

std::optional<PortHolder> find_port_holder(const std::string& path, const SystemFiles& files)
{
    struct stat target
    {};
    if (stat(path.c_str(), &target) != 0)
        return std::nullopt;
    if (auto pid = lockHolder(files, target); pid && *pid != getpid())
        return PortHolder{*pid, readComm(fs::path(files.proc) / std::to_string(*pid))};
    const auto same = [&](const struct stat& other) {
        if (S_ISCHR(target.st_mode))
            return S_ISCHR(other.st_mode) && other.st_rdev == target.st_rdev;
        return other.st_dev == target.st_dev && other.st_ino == target.st_ino;
    };
    const int self = getpid();
    std::optional<PortHolder> ownProcess;
    std::error_code ec;
    for (fs::directory_iterator it(files.proc, ec), end; !ec && it != end; it.increment(ec)) {
        const std::string pidText = it->path().filename().string();
        if (pidText.empty() || pidText.find_first_not_of("0123456789") != std::string::npos)
            continue;
        std::error_code fdEc;
        for (fs::directory_iterator fd(it->path() / "fd", fdEc), fdEnd; !fdEc && fd != fdEnd;
             fd.increment(fdEc)) {
            struct stat open
            {};
            if (stat(fd->path().c_str(), &open) != 0 || !same(open))
                continue;
            PortHolder holder{std::stoi(pidText), readComm(it->path())};
            // This process holds the port too when it asks; another holder is the news.
            if (holder.pid != self)
                return holder;
            ownProcess = holder;
            break;
        }
    }
    return ownProcess;
}

std::string describePortError(const std::string& path, const PortError& error,
                              const SystemFiles& files)
{
    switch (error.error) {
    case EACCES:
    case EPERM:
        return permissionWords(path, files);
    case EBUSY:
    case EWOULDBLOCK:
        return busyWords(error.holder ? error.holder : find_port_holder(path, files));
    case ENOENT:
    case ENODEV:
    case ENXIO:
        return "not found: the device is unplugged, or the path is wrong";
    case ENOTTY:
    case EINVAL:
        return "not a serial port";
    case EIO:
        return "input/output error: the device went away while opening; plug it in again";
    default:
        return "could not be opened: " + error.call + ": " + errorText(error.error) + " (" +
               std::to_string(error.error) + ")";
    }
}

} // namespace dravinel
