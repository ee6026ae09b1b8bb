#include "database.h"

#include <utility>

#include "process_end.h"

namespace Kestrun::Script {

namespace {

// A work of writes is as long as the store takes for what has gathered; a read leaves
// its place to others soon.
constexpr size_t kMaxWritesOfWork = 256;
constexpr size_t kMaxReadsOfWork = 32;
// The pool of Node.js has four threads; more works than that would only wait.
constexpr size_t kMaxReadWorks = 4;
constexpr size_t kMaxCallWorks = 2;

}  // namespace

Database::Database(Face face)
    : Held(kKind),
      face_(face),
      writes_(std::make_shared<OperationQueue>(1, kMaxWritesOfWork)),
      reads_(std::make_shared<OperationQueue>(kMaxReadWorks, kMaxReadsOfWork)),
      calls_(std::make_shared<OperationQueue>(kMaxCallWorks, 1)) {}

Database::~Database() {
  ProcessEnd::Remove(this);
}

Store& Database::OpenStore(napi_env env) const {
  if (changing_ || store_ == nullptr) {
    ThrowCodedError(env, face_ == Face::Level ? "LEVEL_DATABASE_NOT_OPEN" : "KESTRUN_NOT_OPEN",
                    "Database is not open");
  }
  return *store_;
}

void Database::Install(std::unique_ptr<Store> store) {
  store_ = std::move(store);
  ProcessEnd::Add(this, [this] { store_.reset(); });
}

void Database::RequireIdle(napi_env env) const {
  if (changing_ || writes_->Count() + reads_->Count() + calls_->Count() > 0) {
    ThrowCodedError(env, "KESTRUN_BUSY", "operations of the store are under way; await them first");
  }
}

napi_value Database::Open(napi_env env, const std::string& path, const StoreOptions& options) {
  RequireIdle(env);
  if (store_ != nullptr) ThrowCodedError(env, "KESTRUN_BUSY", "the store is open");

  auto opened = std::make_shared<std::unique_ptr<Store>>();
  auto operation = std::make_unique<Operation>();
  operation->execute = [opened, path, options] { return Store::Open(path, options, opened.get()); };
  operation->settled = [self = shared_from_this(), opened](uint32_t status) {
    self->changing_ = false;
    if (status == kStatusOk) self->Install(std::move(*opened));
  };
  operation->subject = path;
  operation->face = face_;
  changing_ = true;
  return calls_->Add(env, std::move(operation));
}

void Database::OpenSync(napi_env env, const std::string& path, const StoreOptions& options) {
  RequireIdle(env);
  if (store_ != nullptr) ThrowCodedError(env, "KESTRUN_BUSY", "the store is open");
  std::unique_ptr<Store> opened;
  const uint32_t status = Store::Open(path, options, &opened);
  if (status != kStatusOk) throw StatusException{face_, status};
  Install(std::move(opened));
}

// Nothing is started any more, so that each queue is idle for good once it was found so.
napi_value Database::Close(napi_env env) {
  OpenStore(env);
  auto operation = std::make_shared<std::unique_ptr<Operation>>(std::make_unique<Operation>());
  (*operation)->face = face_;
  (*operation)->execute = [self = shared_from_this()] {
    self->store_.reset();
    return kStatusOk;
  };
  (*operation)->settled = [self = shared_from_this()](uint32_t) {
    ProcessEnd::Remove(self.get());
    self->changing_ = false;
  };

  napi_value promise = nullptr;
  Check(env, napi_create_promise(env, &(*operation)->promise, &promise));
  changing_ = true;
  const std::shared_ptr<Database> self = shared_from_this();
  writes_->WhenIdle(
      [self, operation](napi_env envOfWrites) {
        self->reads_->WhenIdle(
            [self, operation](napi_env envOfReads) {
              self->calls_->WhenIdle(
                  [self, operation](napi_env envOfCalls) {
                    self->calls_->AddPromised(envOfCalls, std::move(*operation));
                  },
                  envOfReads);
            },
            envOfWrites);
      },
      env);
  return promise;
}

void Database::CloseSync(napi_env env) {
  RequireIdle(env);
  store_.reset();
  ProcessEnd::Remove(this);
}

napi_value Database::AddWrite(napi_env env, std::function<uint32_t(Store&)> write) {
  return AddOnStore(env, *writes_, std::move(write));
}

napi_value Database::AddCall(napi_env env, std::function<uint32_t(Store&)> call) {
  return AddOnStore(env, *calls_, std::move(call));
}

napi_value Database::AddOnStore(napi_env env, OperationQueue& queue, std::function<uint32_t(Store&)> call) {
  auto operation = std::make_unique<Operation>();
  Store* const store = &OpenStore(env);
  operation->execute = [self = shared_from_this(), store, call = std::move(call)] { return call(*store); };
  operation->face = face_;
  return queue.Add(env, std::move(operation));
}

napi_value Database::AddRead(napi_env env, std::unique_ptr<Operation> read) {
  read->face = face_;
  return reads_->Add(env, std::move(read));
}

}  // namespace Kestrun::Script
