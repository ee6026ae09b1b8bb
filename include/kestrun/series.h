// kestrun/series.h: a store of typed records: an engine for the records and a schema file for their types,
// in one directory.
//
//   series->AppendRecord("seattle-2012-01-01", 86400, "Weather date:%s,temp_max:%d", "2012-01-01", 12.8);
//
// A record type is named by its text (kestrun/record_meta.h). The first use of a text gives it a number,
// which is written to the file meta_v5 and leads every stored record; any process finds the type again.
//
// Ownership: Open hands out a series and Get a record, both deleted by the caller. Record types belong to
//            the library and live until the process ends.
// Threads:   every operation may be called from any thread, and several series, in this process or in
//            others, may be open on one directory. Deleting a series while another thread is inside one of
//            its operations is the caller's error.
// Failure:   operations return a status of kestrun/status.h. Nothing throws, except what a caller's own
//            callback throws; running out of memory is kStatusNoMemory. Diagnostics go to standard output,
//            without a line end.
// Units:     sizes are bytes, times to live are seconds. See kestrun/lsdb.h for the life span of an entry.
#pragma once

#include <cstdarg>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "kestrun/export.h"
#include "kestrun/key.h"
#include "kestrun/lsdb.h"
#include "kestrun/record.h"
#include "kestrun/record_meta.h"
#include "kestrun/value.h"

namespace Kestrun {

class Schema;

// How a series is opened: handed to the engine field by field, see LSDBConfig.
struct SeriesConfig {
  uint32_t walSize;
  uint16_t walOptions;
};
static_assert(sizeof(SeriesConfig) == 8);

class KESTRUN_EXPORT Series {
 public:
  // Opens the engine and then the schema in the directory `path`, creating what is missing. With a null
  // `out` both are created or checked and closed again. After a failure nothing stays open and `*out` is as
  // it was.
  //
  // The statuses of LSDBImpl::Open, with the message "Failed to load main db: %s"; kStatusOpenFailed or
  // kStatusStatFailed when meta_v5 can't be opened, with "Filed to open series meta file" and
  // "Failed to load schema: %s"; kStatusNoMemory.
  static uint32_t Open(const std::string& path, const SeriesConfig& config, Series** out);

  // Deletes the directory with everything in it; see LSDBImpl::Remove.
  static uint32_t Remove(const std::string& path);

  // A series over an engine and a schema that are open already; use Open.
  Series(std::shared_ptr<Schema> schema, std::shared_ptr<LSDBImpl> engine);

  // Reads the record stored under `key`. When there is none, when it was deleted, and when fewer than 3
  // bytes are stored, the result is kStatusOk and `*out` is untouched: set it to null before the call.
  //
  // kStatusRecordTypeUnknown  the schema has no such type ("Failed to find record meta by given key")
  // kStatusInvalid            there is a record and `out` is null; or as LSDBImpl::Get
  // The statuses of LSDBImpl::Get ("Internal error while trying to find data with given key"),
  // kStatusExpired among them; kStatusNoMemory.
  uint32_t Get(const Key& key, Record** out);

  // Stores `record` under `key` for `ttl` seconds, as the bytes that Encode writes and zeros up to
  // Capacity() after them; the record stays as it is. A number in a String field is stored as its text,
  // whole even where Capacity has no room for it. Aborts the process when the record has no value for a
  // String or Binary field (Record::Capacity).
  //
  // kStatusNoMemory when the bytes can't be allocated or are 4 GiB or more; the statuses of LSDBImpl::Insert.
  uint32_t AppendRecord(const Key& key, unsigned int ttl, Record& record);

  // The same for a record made of a record type and of values: one further argument per field
  // (Record::Record; Binary fields take none), or a vector, whose number and types are not checked. A type
  // that is not in the schema yet is added; a type passed as RecordMeta is used as it is, not added.
  //
  // kStatusInvalid  there is no such record type: the text is null, is not a record type or could not be
  //                 added ("Append record error, reason: record meta is nullptr"). Nothing is stored.
  uint32_t AppendRecord(const Key& key, unsigned int ttl, const char* format, ...);
  uint32_t AppendRecord(const Key& key, unsigned int ttl, const char* format, std::vector<Value> values);
  uint32_t AppendRecord(const Key& key, unsigned int ttl, const RecordMeta* meta, std::vector<Value> values);

  // AppendRecord with a time to live of 0: the record can be read in the second of its writing and no longer.
  uint32_t AppendRecordWithVarList(const Key& key, const char* format, ...);

  // The record type that `format` describes, added to the schema when it is new: its line is on the disk
  // when this returns. Null when `format` is not a record type (see RecordMeta::Create) and when the schema
  // file could not be read, written or synced.
  RecordMeta* CreateRecordMeta(const std::string& format);

  // As the operations of LSDBImpl with these names.
  bool Contains(const Key& key);
  uint32_t EnumerateKeys(const Key& from, const Key& to, const std::function<bool(const Key&)>& visit);
  uint32_t Delete(const Key& key);
  uint32_t DeleteByRange(const Key& from, const Key& to);
  uint32_t ForceCompact();
  // The record types stay.
  uint32_t Clear();

 private:
  // The record type of `format`, created when it is new; null as CreateRecordMeta, and for a null text.
  RecordMeta* FindMeta(const char* format);
  uint32_t AppendArguments(const Key& key, unsigned int ttl, const char* format, va_list args);

  std::shared_ptr<Schema> schema_;
  std::shared_ptr<LSDBImpl> engine_;
};

}  // namespace Kestrun
