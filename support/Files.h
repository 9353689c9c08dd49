#pragma once

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>

// Small files read and replaced without surprises. A read takes only a regular file and never
// more than a limit, so a FIFO, a device or a huge file cannot hang or exhaust the program. A
// replacement is written to a fresh temporary file beside the target and renamed over it, so a
// reader never sees half a file and nothing that sits at a guessable name is written through.

namespace dravinel {

struct FileError
{
    enum class Kind {
        EmptyName,  // no file name given
        Folder,     // the path names a folder
        NotRegular, // a FIFO, device or socket
        TooLarge,   // more than the limit of a read
        System,     // call failed with error (an errno)
    };

    Kind kind = Kind::System;
    std::string path;
    std::string call; // System: the call that failed
    int error = 0;    // System: its errno
    std::string what; // NotRegular: what it is instead; TooLarge: the limit
};

// One line for a person, naming the path.
std::string describeFileError(const FileError& error);

// Reads the regular file at path (a symlink to one is followed) if it holds at most limit bytes.
std::optional<FileError> readSmallFile(const std::string& path, std::size_t limit,
                                       std::string& text);

// Where replacing path would write: path itself, or, if path is a symlink, the file it points to
// (through any chain of links), which keeps its place and mode. Refuses an empty name, a folder,
// anything but a regular file or a name not yet taken, and a folder that does not exist or that
// this user cannot write. Checked before any work whose result would have nowhere to go.
std::optional<FileError> resolveReplaceTarget(const std::string& path, std::string& target);

// Replaces target (as resolveReplaceTarget gave it) with text: written to a new temporary file in
// the target's folder, synced, renamed over the target, and the folder synced, so that after a
// crash the target holds either its old text or the new one. A new file gets the mode a plain
// creation would give it; an existing one keeps its mode.
std::optional<FileError> replaceFile(const std::string& target, std::string_view text);

} // namespace dravinel
