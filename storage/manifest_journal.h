// storage/manifest_journal.h: the file manifest_v5.next, with which a rewrite of the manifest's entries
// survives the death of its process.
//
// It holds the new entries. It is synced before the first byte of the manifest changes, and removed when the
// manifest is synced. A process that finds one compares it with the manifest (ExamineRewrite), finishes a
// rewrite that is pending, and removes the file.
//
// Bytes: format/manifest_format.h.
//
// Threads: the caller holds the manifest's lock, Exclusive to write or remove the file.
#pragma once

#include <cstdint>
#include <string>

#include "format/manifest_reader.h"

namespace Kestrun {

// The path of the journal of the manifest at `manifestPath`.
std::string JournalPath(const std::string& manifestPath);

// Writes the journal and syncs it and its name. kStatusManifestWriteFailed, kStatusSyncFailed: there is no
// journal then.
[[nodiscard]] uint32_t WriteJournal(const std::string& path, const ManifestJournal& journal);

// False if there is no journal, or an incomplete one, which means that the manifest was not touched yet. Sets
// `*unreadable` on I/O errors.
[[nodiscard]] bool ReadJournal(const std::string& path, ManifestJournal* journal, bool* unreadable = nullptr);

// Whether there is a journal, complete or not. True also if that can't be found out.
[[nodiscard]] bool MayHaveJournal(const std::string& path);

// Removes the journal for good; one that can't be removed is emptied. False if that failed, too: the manifest
// must not change then, because the journal would be taken for the pending rewrite of a later list.
bool RemoveJournal(const std::string& path);

}  // namespace Kestrun
