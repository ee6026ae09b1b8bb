// storage/manifest_journal.h: the side file manifest_v5.next, which makes a replacement of the manifest's
// entries survive the death of the process that does it.
//
// It holds the entries that are to stand in the manifest, is forced to the disk before the first byte of the
// manifest changes, and is removed when the manifest is complete on the disk. Whoever finds one compares it
// with the manifest and either finishes the replacement or drops the file.
//
// Bytes: format/manifest_format.h.
//
// Threads: the caller holds the manifest's lock, Exclusive to write or remove the file.
#pragma once

#include <cstdint>
#include <string>

#include "format/manifest_reader.h"

namespace Kestrun {

// The path of the side file of the manifest at `manifestPath`.
std::string JournalPath(const std::string& manifestPath);

// Writes the side file and forces it and its name to the disk. kStatusManifestWriteFailed, kStatusSyncFailed:
// there is no side file then.
[[nodiscard]] uint32_t WriteJournal(const std::string& path, const ManifestJournal& replacement);

// False when there is no side file or it is incomplete, which means that the manifest was not touched yet;
// and with `*unreadable`, when asked for, where the system did not let anybody see.
[[nodiscard]] bool ReadJournal(const std::string& path, ManifestJournal* replacement,
                               bool* unreadable = nullptr);

// Whether there is a side file, complete or not; true also where that can't be found out.
[[nodiscard]] bool MayHaveJournal(const std::string& path);

// Removes the side file, for good; one that can't be removed is emptied. False when that failed, too: the
// manifest must not change then, as the file would be taken for the unfinished replacement of a later list.
bool RemoveJournal(const std::string& path);

}  // namespace Kestrun
