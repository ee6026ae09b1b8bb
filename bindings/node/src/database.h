// bindings/node/src/database.h: one store as script holds it: open, closed and opened
// again, with work under way.
//
// Ownership: script shares it, and so do operations under way; the last of them closes the store.
// Threads:   the thread of the environment, except for what the pool does with StoreInUse.
#pragma once

#include <kestrun/store.h>

#include <memory>
#include <string>

#include "operation_queue.h"
#include "script_values.h"

namespace Kestrun::Script {

class Database : public Held, public std::enable_shared_from_this<Database> {
 public:
  static constexpr Kind kKind = Kind::Database;

  explicit Database(Face face);
  ~Database() override;

  Face Seen() const { return face_; }

  // The store; ends the native function when it is not open.
  Store& OpenStore(napi_env env) const;

  napi_value Open(napi_env env, const std::string& path, const StoreOptions& options);
  void OpenSync(napi_env env, const std::string& path, const StoreOptions& options);
  // Closes when everything under way is done; a promise. Nothing new may be started from then on.
  napi_value Close(napi_env env);
  // Refused while anything is under way.
  void CloseSync(napi_env env);

  // Starts a write. Writes run one after another, in the order of the calls.
  napi_value AddWrite(napi_env env, std::function<uint32_t(Store&)> write);
  // Starts a read, which has its own view of the data; reads run beside each other.
  napi_value AddRead(napi_env env, std::unique_ptr<Operation> read);
  // Starts a call of the store that may take long, beside reads and writes.
  napi_value AddCall(napi_env env, std::function<uint32_t(Store&)> call);

 private:
  void Install(std::unique_ptr<Store> store);
  void RequireIdle(napi_env env) const;
  napi_value AddOnStore(napi_env env, OperationQueue& queue, std::function<uint32_t(Store&)> call);

  const Face face_;
  bool changing_ = false;         // being opened or closed; `store_` is not to be touched then
  std::unique_ptr<Store> store_;  // null unless open
  const std::shared_ptr<OperationQueue> writes_, reads_, calls_;
};

// The state of one moment, until script closes it or forgets it.
class SnapshotHandle : public Held {
 public:
  static constexpr Kind kKind = Kind::Snapshot;

  SnapshotHandle(std::shared_ptr<Database> database, std::shared_ptr<const Snapshot> snapshot)
      : Held(kKind), database_(std::move(database)), snapshot_(std::move(snapshot)) {}

  const std::shared_ptr<Database>& Of() const { return database_; }
  const std::shared_ptr<const Snapshot>& Get() const { return snapshot_; }  // null when it was closed
  void Close() { snapshot_.reset(); }

 private:
  std::shared_ptr<Database> database_;
  std::shared_ptr<const Snapshot> snapshot_;
};

}  // namespace Kestrun::Script
