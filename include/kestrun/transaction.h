// kestrun/transaction.h: what the body of Store::Transact reads and writes with.
//
// Ownership: belongs to the store; valid until the body returns.
// Threads:   the thread of the body only.
// Failure:   statuses.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "kestrun/data_entry.h"
#include "kestrun/export.h"

namespace Kestrun {

class KESTRUN_EXPORT Transaction {
 public:
  ~Transaction();
  Transaction(const Transaction&) = delete;
  Transaction& operator=(const Transaction&) = delete;

  // The value of `key` as it is now, what this transaction has put and deleted included; nullopt
  // unless alive. Statuses as Store::Get.
  [[nodiscard]] uint32_t Get(std::string_view key, std::optional<std::string>* value);
  // Written when the body returns kStatusOk, not before. Statuses as WriteBatch::Put.
  [[nodiscard]] uint32_t Put(std::string_view key, std::string_view value, unsigned int ttl = kTtlForever);
  [[nodiscard]] uint32_t Delete(std::string_view key);

 private:
  friend class Store;
  class Impl;

  explicit Transaction(Impl* impl) : impl_(impl) {}

  Impl* impl_;  // not owned
};

}  // namespace Kestrun
