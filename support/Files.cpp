#include "support/Files.h"

#include "support/ErrorText.h"

#include <cerrno>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <fstream>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace dravinel {

namespace {

// As the kernel's own limit on symlinks followed in one lookup.
constexpr int kMaxLinks = 40;
// When /proc does not say: the usual umask of a login session.
constexpr mode_t kDefaultUmask = 022;

FileError systemError(std::string call, const std::string& path, int error = errno)
{
    return FileError{FileError::Kind::System, path, std::move(call), error, {}};
}

FileError fault(FileError::Kind kind, const std::string& path, std::string what = {})
{
    return FileError{kind, path, {}, 0, std::move(what)};
}

std::string folderOf(const std::string& path)
{
    const auto slash = path.rfind('/');
    if (slash == std::string::npos)
        return ".";
    return slash == 0 ? "/" : path.substr(0, slash);
}

std::string kindOf(mode_t mode)
{
    if (S_ISFIFO(mode))
        return "a FIFO";
    if (S_ISCHR(mode))
        return "a character device";
    if (S_ISBLK(mode))
        return "a block device";
    if (S_ISSOCK(mode))
        return "a socket";
    return "something else";
}

// The process's umask, read without changing it: umask(2) can only be read by setting it, which
// would race with any other thread creating a file.
mode_t currentUmask()
{
    std::ifstream status("/proc/self/status");
    for (std::string line; std::getline(status, line);) {
        if (line.starts_with("Umask:"))
            return static_cast<mode_t>(std::strtoul(line.c_str() + 6, nullptr, 8)) & 0777;
    }
    return kDefaultUmask;
}

bool writeAll(int fd, std::string_view text)
{
    while (!text.empty()) {
        const ssize_t n = ::write(fd, text.data(), text.size());
        if (n < 0 && errno == EINTR)
            continue;
        if (n <= 0)
            return false;
        text.remove_prefix(static_cast<std::size_t>(n));
    }
    return true;
}

} // namespace

std::string describeFileError(const FileError& error)
{
    switch (error.kind) {
    case FileError::Kind::EmptyName:
        return "no file name given";
    case FileError::Kind::Folder:
        return error.path + " is a folder";
    case FileError::Kind::NotRegular:
        return error.path + " is not a regular file but " + error.what;
    case FileError::Kind::TooLarge:
        return error.path + " is larger than " + error.what;
    case FileError::Kind::System:
        break;
    }
    return error.path + ": " + error.call + ": " + errorText(error.error) + " (" +
           std::to_string(error.error) + ")";
}

namespace {

// Reads the open regular file fd into text if it holds at most limit bytes.
std::optional<FileError> readOpenFile(int fd, const std::string& path, std::size_t limit,
                                      std::string& text)
{
    const std::string limitText = std::to_string(limit) + " bytes";
    struct stat info
    {};
    if (::fstat(fd, &info) != 0)
        return systemError("fstat", path);
    if (!S_ISREG(info.st_mode))
        return fault(FileError::Kind::NotRegular, path, kindOf(info.st_mode));
    if (static_cast<std::uint64_t>(info.st_size) > limit)
        return fault(FileError::Kind::TooLarge, path, limitText);
    // One byte more than allowed tells a file that grew past the limit from one that did not.
    std::string buffer(limit + 1, '\0');
    std::size_t used = 0;
    while (used < buffer.size()) {
        const ssize_t n = ::read(fd, buffer.data() + used, buffer.size() - used);
        if (n < 0 && errno == EINTR)
            continue;
        if (n < 0)
            return systemError("read", path);
        if (n == 0)
            break;
        used += static_cast<std::size_t>(n);
    }
    if (used > limit)
        return fault(FileError::Kind::TooLarge, path, limitText);
    buffer.resize(used);
    text = std::move(buffer);
    return std::nullopt;
}

// Follows current through its chain of symlinks to a regular file or a name not yet taken.
std::optional<FileError> followLinks(const std::string& path, std::string& current)
{
    for (int links = 0;; ++links) {
        struct stat info
        {};
        if (::lstat(current.c_str(), &info) != 0) {
            if (errno != ENOENT)
                return systemError("lstat", current);
            return std::nullopt; // a new file
        }
        if (S_ISDIR(info.st_mode))
            return fault(FileError::Kind::Folder, path);
        if (S_ISREG(info.st_mode))
            return std::nullopt;
        if (!S_ISLNK(info.st_mode))
            return fault(FileError::Kind::NotRegular, path, kindOf(info.st_mode));
        if (links == kMaxLinks)
            return systemError("readlink", path, ELOOP);
        char buffer[PATH_MAX];
        const ssize_t n = ::readlink(current.c_str(), buffer, sizeof buffer);
        if (n < 0)
            return systemError("readlink", current);
        if (static_cast<std::size_t>(n) >= sizeof buffer)
            return systemError("readlink", current, ENAMETOOLONG);
        const std::string link(buffer, static_cast<std::size_t>(n));
        current = link.starts_with('/') ? link : folderOf(current) + "/" + link;
        if (current.back() == '/')
            return fault(FileError::Kind::Folder, path);
    }
}

} // namespace

std::optional<FileError> readSmallFile(const std::string& path, std::size_t limit,
                                       std::string& text)
{
    if (path.empty())
        return fault(FileError::Kind::EmptyName, path);
    // Looked at before it is opened: opening a device or a FIFO can block or have effects.
    struct stat info
    {};
    if (::stat(path.c_str(), &info) != 0)
        return systemError("stat", path);
    if (S_ISDIR(info.st_mode))
        return fault(FileError::Kind::Folder, path);
    if (!S_ISREG(info.st_mode))
        return fault(FileError::Kind::NotRegular, path, kindOf(info.st_mode));
    // Non-blocking, in case it was swapped for a FIFO since; checked again once open.
    const int fd = ::open(path.c_str(), O_RDONLY | O_NONBLOCK | O_NOCTTY | O_CLOEXEC);
    if (fd < 0)
        return systemError("open", path);
    auto failure = readOpenFile(fd, path, limit, text);
    ::close(fd);
    return failure;
}

std::optional<FileError> resolveReplaceTarget(const std::string& path, std::string& target)
{
    if (path.empty())
        return fault(FileError::Kind::EmptyName, path);
    if (path.back() == '/')
        return fault(FileError::Kind::Folder, path);
    std::string current = path;
    if (auto failure = followLinks(path, current))
        return failure;
    const std::string folder = folderOf(current);
    struct stat info
    {};
    if (::stat(folder.c_str(), &info) != 0)
        return systemError("stat", folder);
    if (!S_ISDIR(info.st_mode))
        return systemError("stat", folder, ENOTDIR);
    if (::access(folder.c_str(), W_OK | X_OK) != 0)
        return systemError("access", folder);
    target = current;
    return std::nullopt;
}

std::optional<FileError> replaceFile(const std::string& target, std::string_view text)
{
    const std::string folder = folderOf(target);
    const auto slash = target.rfind('/');
    const std::string name = slash == std::string::npos ? target : target.substr(slash + 1);

    mode_t mode = 0666 & ~currentUmask();
    struct stat existing
    {};
    if (::stat(target.c_str(), &existing) == 0 && S_ISREG(existing.st_mode))
        mode = existing.st_mode & 07777;

    // mkstemp creates the file with O_EXCL under a name nobody could have prepared.
    std::string temporary = folder + "/." + name + ".XXXXXX";
    const int fd = ::mkostemp(temporary.data(), O_CLOEXEC);
    if (fd < 0)
        return systemError("mkstemp", folder);
    std::optional<FileError> failure;
    if (!writeAll(fd, text))
        failure = systemError("write", temporary);
    else if (::fchmod(fd, mode) != 0)
        failure = systemError("fchmod", temporary);
    else if (::fsync(fd) != 0)
        failure = systemError("fsync", temporary);
    if (::close(fd) != 0 && !failure)
        failure = systemError("close", temporary);
    if (!failure && ::rename(temporary.c_str(), target.c_str()) != 0)
        failure = systemError("rename", target);
    if (failure) {
        ::unlink(temporary.c_str());
        return failure;
    }
    // The rename is durable only once the folder's entry is on disk.
    const int folderFd = ::open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (folderFd < 0)
        return systemError("open", folder);
    if (::fsync(folderFd) != 0 && errno != EINVAL)
        failure = systemError("fsync", folder);
    ::close(folderFd);
    return failure;
}

} // namespace dravinel
