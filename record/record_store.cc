#include "kestrun/record_store.h"

#include <cstdlib>
#include <cstring>
#include <new>
#include <optional>
#include <utility>

#include "base/catch_bad_alloc.h"
#include "kestrun/write_batch.h"
#include "record/free_memory.h"
#include "record/record_format.h"
#include "record/record_meta_parser.h"
#include "record/schema.h"
#include "record/schema_format.h"
#include "record/strict_record.h"

namespace Kestrun {
namespace {

uint32_t ConvertAll(const std::vector<Field*>& fields, const std::vector<Value>& values,
                    std::vector<Value>* converted) {
  if (values.size() != fields.size()) return kStatusInvalid;
  converted->resize(values.size());
  for (size_t i = 0; i < values.size(); ++i) {
    if (!ConvertExactly(values[i], fields[i]->type, &(*converted)[i])) return kStatusInvalid;
  }
  return kStatusOk;
}

// As the store's own checks of a key and a time to live: a batch takes what a store takes.
uint32_t CheckEntry(std::string_view key, unsigned int ttl) {
  WriteBatch batch;
  return batch.Put(key, std::string_view(), ttl);
}

}  // namespace

class RecordStore::Impl {
 public:
  Impl(std::unique_ptr<Store> store, std::unique_ptr<Schema> schema, unsigned int busyTimeout)
      : store(std::move(store)), schema(std::move(schema)), busyTimeout(busyTimeout) {}

  uint32_t Encode(std::string_view key, const std::string& type, const std::vector<Value>& values,
                  unsigned int ttl, std::string* bytes);
  uint32_t Decode(std::string_view bytes, std::unique_ptr<Record>* record);

  const std::unique_ptr<Store> store;
  const std::unique_ptr<Schema> schema;
  const unsigned int busyTimeout;
};

// The bytes of the record. A type that is not known is recorded last of all, when nothing else can be refused
// any more: what was refused must not leave a type.
uint32_t RecordStore::Impl::Encode(std::string_view key, const std::string& type,
                                   const std::vector<Value>& values, unsigned int ttl, std::string* bytes) {
  std::unique_ptr<RecordMeta> parsed;
  RecordMeta* meta = schema->FindUnambiguous(type);
  if (meta == nullptr) {
    parsed = ParseRecordMeta(0, type);
    if (parsed == nullptr) return kStatusInvalid;
  }
  const std::vector<Field*>& fields = meta == nullptr ? parsed->fields : meta->fields;
  if (!IsStrictType(type, fields)) return kStatusInvalid;

  std::vector<Value> converted;
  if (const uint32_t status = ConvertAll(fields, values, &converted); status != kStatusOk) return status;
  if (meta == nullptr) {
    if (const uint32_t status = CheckEntry(key, ttl); status != kStatusOk) return status;
    if (const uint32_t status = schema->GetOrCreateUnambiguous(type, busyTimeout, &meta); status != kStatusOk)
      return status;
  }

  Record record(meta, std::move(converted));
  const uint64_t size = record.StoredSize();
  if (size > UINT32_MAX) return kStatusInvalid;
  bytes->assign(size, '\0');
  record.Encode(reinterpret_cast<unsigned char*>(bytes->data()));
  return kStatusOk;
}

uint32_t RecordStore::Impl::Decode(std::string_view bytes, std::unique_ptr<Record>* record) {
  if (bytes.size() < kRecordSmallestWithValues || bytes.size() > UINT32_MAX) return kStatusInvalid;
  const auto size = static_cast<uint32_t>(bytes.size());
  uint16_t id = 0;
  std::memcpy(&id, bytes.data() + kRecordTypeOffset, sizeof(id));
  RecordMeta* meta = nullptr;
  if (const uint32_t status = schema->FindUnlocked(id, &meta); status != kStatusOk) return status;

  std::unique_ptr<unsigned char, FreeMemory> copy(static_cast<unsigned char*>(std::malloc(size)));
  if (copy == nullptr) return kStatusNoMemory;
  std::memcpy(copy.get(), bytes.data(), size);
  auto decoded = std::make_unique<Record>(meta, copy.get(), size);
  static_cast<void>(copy.release());  // the record has it

  if (EndsWithEmptyBinary(meta->fields, decoded->buffer_, size, decoded->values_)) {
    decoded->values_.push_back(Value::BinaryValue(decoded->buffer_ + size, 0));
  }
  *record = std::move(decoded);
  return kStatusOk;
}

RecordStore::RecordStore(std::unique_ptr<Impl> impl) : impl_(std::move(impl)) {}

RecordStore::~RecordStore() = default;

uint32_t RecordStore::Open(const std::string& path, const StoreOptions& options,
                           std::unique_ptr<RecordStore>* out) {
  if (out == nullptr) return kStatusInvalid;
  return CatchBadAlloc([&] {
    std::unique_ptr<Store> store;
    if (const uint32_t status = Store::Open(path, options, &store); status != kStatusOk) return status;
    std::unique_ptr<Schema> schema;
    if (const uint32_t status = Schema::OpenQuietly(path + "/" + kSchemaFileName, &schema);
        status != kStatusOk)
      return status;
    auto impl = std::make_unique<Impl>(std::move(store), std::move(schema), options.busyTimeout);
    out->reset(new RecordStore(std::move(impl)));
    return kStatusOk;
  });
}

// What the body of a transaction must not do must not record a type either: the store is asked before.
uint32_t RecordStore::Put(std::string_view key, const std::string& type, const std::vector<Value>& values,
                          unsigned int ttl) {
  return CatchBadAlloc([&] {
    bool alive = false;
    if (impl_->schema->FindUnambiguous(type) == nullptr &&
        impl_->store->Contains(key, &alive) == kStatusInvalid)
      return kStatusInvalid;
    std::string bytes;
    if (const uint32_t status = impl_->Encode(key, type, values, ttl, &bytes); status != kStatusOk)
      return status;
    return impl_->store->Put(key, bytes, ttl);
  });
}

uint32_t RecordStore::Get(std::string_view key, std::unique_ptr<Record>* record) {
  if (record == nullptr) return kStatusInvalid;
  return CatchBadAlloc([&]() -> uint32_t {
    std::optional<std::string> bytes;
    if (const uint32_t status = impl_->store->Get(key, &bytes); status != kStatusOk) return status;
    if (bytes) return impl_->Decode(*bytes, record);
    record->reset();
    return kStatusOk;
  });
}

uint32_t RecordStore::AddToBatch(WriteBatch* batch, std::string_view key, const std::string& type,
                                 const std::vector<Value>& values, unsigned int ttl) {
  if (batch == nullptr) return kStatusInvalid;
  return CatchBadAlloc([&] {
    std::string bytes;
    if (const uint32_t status = impl_->Encode(key, type, values, ttl, &bytes); status != kStatusOk)
      return status;
    return batch->Put(key, bytes, ttl);
  });
}

uint32_t RecordStore::Decode(std::string_view bytes, std::unique_ptr<Record>* record) {
  if (record == nullptr) return kStatusInvalid;
  return CatchBadAlloc([&] { return impl_->Decode(bytes, record); });
}

std::vector<std::string> RecordStore::Types() {
  return impl_->schema->Texts();
}

Store& RecordStore::Raw() {
  return *impl_->store;
}

}  // namespace Kestrun
