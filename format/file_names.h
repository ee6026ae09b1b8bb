// format/file_names.h: how the files of a store are called, and what all of them share.
#pragma once

#include <cstddef>

namespace Kestrun {

inline constexpr char kWalFileName[] = "wal_v5";
inline constexpr char kManifestFileName[] = "manifest_v5";
inline constexpr char kSchemaFileName[] = "meta_v5";
// A block's file is its name and this ending.
inline constexpr char kBlockFileSuffix[] = ".blk_v5";
// The manifest's journal is the manifest's name and this ending.
inline constexpr char kManifestJournalSuffix[] = ".next";

// What a store has put aside of a log that was damaged is the log's name, this mark and a number.
inline constexpr char kDamagedLogMark[] = ".damaged-";

// Files of an earlier format, which a compaction removes: the log, and whatever has the mark in its name.
inline constexpr char kLegacyWalFileName[] = "wal_v3";
inline constexpr char kLegacyBlockFileMark[] = ".blk_v3";

// Letters of a block's name: digits and capital letters.
inline constexpr size_t kBlockNameLength = 31;
// A compaction of the older face leaves fewer blocks alone.
inline constexpr size_t kMinBlocksToCompact = 4;

// Keys from this byte on stay in the log: no block and no filter has them, so that a flush drops them.
inline constexpr unsigned char kFirstUnflushedByte = 0xFF;

}  // namespace Kestrun
