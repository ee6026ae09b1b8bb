// inspect/log_file.h: reads the write-ahead log of a store, wal_v5, record by record.
//
// Threads: as the file. Failure: what can't be read ends a scan; the result says where and why.
// Units:   offsets are bytes from the start of the file, times are seconds since the Unix epoch.
#pragma once

#include <cstdint>
#include <functional>
#include <string>

#include "format/wal_format.h"
#include "inspect/read_only_file.h"

namespace Kestrun::Inspect {

struct LogHeaderView {
  WalHeader header = {};
  bool complete = false;  // the file holds all of it; otherwise nothing else is set
  bool checksumMatches = false;
  bool magicMatches = false;

  // A store opens this log.
  bool Usable() const { return complete && checksumMatches && magicMatches; }
};

struct LogRecordView {
  WalRecord header = {};
  uint64_t offset = 0;       // of the record
  uint64_t valueOffset = 0;  // where the value lies; header.valueOffset should say the same
  uint64_t end = 0;          // of the record
  std::string key;
};

// Why a scan ended.
enum class LogEnd {
  Complete,     // the next record would begin where the used area ends, or so near that none fits
  Stopped,      // the visitor asked for it
  BadChecksum,  // the record at endOffset fails its checksum
  EmptyKey,     // the record at endOffset has no key
  OutOfBounds,  // the record at endOffset ends behind the end of the file
  Unreadable,   // the file can't be read at endOffset
};

struct LogScan {
  LogEnd end = LogEnd::Complete;
  uint64_t endOffset = kWalFirstRecord;  // behind the last whole record
  uint64_t records = 0;
};

LogHeaderView ReadLogHeader(const ReadOnlyFile& file);

// Visits the records that a store finds in the log when `used` is the end of its used area, in the order in
// which they were written: as a store does, it ends at the first record that can't be right. The visitor
// returns false to stop.
LogScan ScanLog(const ReadOnlyFile& file, uint64_t used,
                const std::function<bool(const LogRecordView&)>& visit);

}  // namespace Kestrun::Inspect
