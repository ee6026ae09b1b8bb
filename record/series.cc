#include "kestrun/series.h"

#include <cstdlib>
#include <cstring>
#include <new>
#include <utility>

#include "base/catch_bad_alloc.h"
#include "base/diagnostics.h"
#include "kestrun/status.h"
#include "record/free_memory.h"
#include "record/record_format.h"
#include "record/schema.h"
#include "record/schema_format.h"

namespace Kestrun {
namespace {

// Records of up to this many bytes are encoded on the stack.
constexpr size_t kStackCapacity = 64;

using MallocBytes = std::unique_ptr<unsigned char, FreeMemory>;

uint32_t RefuseMissingMeta() {
  Diagnostics::Printing().Print("Append record error, reason: record meta is nullptr");
  return kStatusInvalid;
}

uint32_t OpenSeries(const std::string& path, const SeriesConfig& config, Series** out) {
  LSDBConfig engineConfig = {};
  engineConfig.walSize = config.walSize;
  engineConfig.walOptions = config.walOptions;
  LSDBImpl* openedEngine = nullptr;
  if (const uint32_t status = LSDBImpl::Open(path, engineConfig, &openedEngine); status != kStatusOk) {
    Diagnostics::Printing().Printf("Failed to load main db: %s", path.c_str());
    return status;
  }
  // Owned from here on: a schema that can't be opened must not leave the engine open.
  std::shared_ptr<LSDBImpl> engine(openedEngine);

  Schema* openedSchema = nullptr;
  if (const uint32_t status = Schema::Open(path + "/" + kSchemaFileName, &openedSchema);
      status != kStatusOk) {
    Diagnostics::Printing().Printf("Failed to load schema: %s", path.c_str());
    return status;
  }
  std::shared_ptr<Schema> schema(openedSchema);

  if (out != nullptr) *out = new Series(std::move(schema), std::move(engine));
  return kStatusOk;
}

}  // namespace

uint32_t Series::Open(const std::string& path, const SeriesConfig& config, Series** out) {
  return CatchBadAlloc([&] { return OpenSeries(path, config, out); });
}

uint32_t Series::Remove(const std::string& path) {
  return LSDBImpl::Remove(path);
}

// An engine that is not open answers every call with a status, which is more than a null one could do.
Series::Series(std::shared_ptr<Schema> schema, std::shared_ptr<LSDBImpl> engine)
    : schema_(std::move(schema)), engine_(std::move(engine)) {
  if (engine_ == nullptr) engine_ = std::make_shared<LSDBImpl>(std::string(), LSDBConfig());
}

uint32_t Series::Get(const Key& key, Record** out) {
  const void* found = nullptr;
  unsigned int size = 0;
  if (const uint32_t status = engine_->Get(key, &found, &size); status != kStatusOk) {
    Diagnostics::Printing().Print("Internal error while trying to find data with given key");
    return status;
  }
  // The engine hands the buffer over; whatever can't become a record is released here.
  MallocBytes value(static_cast<unsigned char*>(const_cast<void*>(found)));
  if (value == nullptr || size < kRecordSmallestWithValues) return kStatusOk;

  return CatchBadAlloc([&]() -> uint32_t {
    uint16_t id = 0;
    std::memcpy(&id, value.get() + kRecordTypeOffset, sizeof(id));
    const RecordMeta* meta = schema_ == nullptr ? nullptr : schema_->FindRecordMeta(id);
    if (meta == nullptr) {
      Diagnostics::Printing().Print("Failed to find record meta by given key");
      return kStatusRecordTypeUnknown;
    }
    if (out == nullptr) return kStatusInvalid;
    *out = new Record(meta, value.get(), size);
    // The record has the buffer now; had memory run out, it would still be ours.
    static_cast<void>(value.release());
    return kStatusOk;
  });
}

uint32_t Series::AppendRecord(const Key& key, unsigned int ttl, Record& record) {
  const uint64_t size = record.StoredSize();
  if (size > UINT32_MAX) return kStatusNoMemory;

  unsigned char small[kStackCapacity] = {};
  MallocBytes large;
  unsigned char* bytes = small;
  if (size > kStackCapacity) {
    // Zeroed: what Encode leaves out is stored too, and must not show what the memory held before.
    large.reset(static_cast<unsigned char*>(std::calloc(1, size)));
    if (large == nullptr) return kStatusNoMemory;
    bytes = large.get();
  }
  record.Encode(bytes);
  return engine_->Insert(key, ttl, bytes, static_cast<unsigned int>(size));
}

uint32_t Series::AppendRecord(const Key& key, unsigned int ttl, const char* format, ...) {
  va_list args;
  va_start(args, format);
  const uint32_t status = AppendArguments(key, ttl, format, args);
  va_end(args);
  return status;
}

uint32_t Series::AppendRecordWithVarList(const Key& key, const char* format, ...) {
  va_list args;
  va_start(args, format);
  const uint32_t status = AppendArguments(key, 0, format, args);
  va_end(args);
  return status;
}

uint32_t Series::AppendArguments(const Key& key, unsigned int ttl, const char* format, va_list args) {
  return CatchBadAlloc([&] {
    const RecordMeta* meta = FindMeta(format);
    if (meta == nullptr) return RefuseMissingMeta();
    Record record(meta, args);
    return AppendRecord(key, ttl, record);
  });
}

uint32_t Series::AppendRecord(const Key& key, unsigned int ttl, const char* format,
                              std::vector<Value> values) {
  return CatchBadAlloc([&] {
    const RecordMeta* meta = FindMeta(format);
    return AppendRecord(key, ttl, meta, std::move(values));
  });
}

uint32_t Series::AppendRecord(const Key& key, unsigned int ttl, const RecordMeta* meta,
                              std::vector<Value> values) {
  if (meta == nullptr) return RefuseMissingMeta();
  return CatchBadAlloc([&] {
    Record record(meta, std::move(values));
    return AppendRecord(key, ttl, record);
  });
}

RecordMeta* Series::FindMeta(const char* format) {
  return format == nullptr || schema_ == nullptr ? nullptr : schema_->GetOrCreateRecordMeta(format);
}

RecordMeta* Series::CreateRecordMeta(const std::string& format) {
  if (schema_ == nullptr) return nullptr;
  try {
    return schema_->GetOrCreateRecordMeta(format);
  } catch (const std::bad_alloc&) {
    return nullptr;
  }
}

bool Series::Contains(const Key& key) {
  return engine_->Contains(key);
}

uint32_t Series::EnumerateKeys(const Key& from, const Key& to, const std::function<bool(const Key&)>& visit) {
  return engine_->EnumerateKeys(from, to, visit);
}

uint32_t Series::Delete(const Key& key) {
  return engine_->Delete(key);
}

uint32_t Series::DeleteByRange(const Key& from, const Key& to) {
  return engine_->DeleteByRange(from, to);
}

uint32_t Series::ForceCompact() {
  return engine_->ForceCompact();
}

uint32_t Series::Clear() {
  return engine_->Clear();
}

}  // namespace Kestrun
