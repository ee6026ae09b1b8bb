// storage/directory.h: what the store does with directories.
#pragma once

#include <cstdint>
#include <string>

namespace Kestrun {

// Deletes the directory `path` with the files and directories in it. Symbolic links, sockets and devices are
// left in place, so a directory that holds one stays. kStatusOpenFailed when a directory can't be read or
// removed; what was removed before that stays removed.
[[nodiscard]] uint32_t RemoveDirectoryTree(const std::string& path);

// Removes every file of the directory whose name contains `text`. kStatusOpenFailed when the directory can't
// be read; a file that can't be removed is left. The directory stream stays open until the process ends
// (Compat: clear-keeps-stream).
[[nodiscard]] uint32_t RemoveFilesContaining(const std::string& directory, const std::string& text);

// Syncs the names in a directory. False when the system reports a failure; a file system that
// can't do it for directories, or one that may not be read, counts as success.
[[nodiscard]] bool SyncDirectory(const std::string& path);

// The directory that holds `path`, which may end in slashes; "." when the path names none.
std::string DirectoryOf(const std::string& path);

}  // namespace Kestrun
