// bindings/node/src/operation_queue.h: operations that run on the host's thread pool and settle promises.
//
// A queue runs a number of works at a time; each takes the operations that have gathered, up to a number, and
// settles them together, because a work costs the event loop more than most operations do. A work that has
// taken a few milliseconds leaves the rest to the next one.
//
// Ownership: an operation belongs to its queue until it is settled; a work keeps its queue alive.
// Threads:   Add, and everything that settles, on the thread of the environment; Execute on a
//            thread of the pool.
// Failure:   what an operation returns or throws rejects its promise.
#pragma once

#include <cstddef>
#include <cstdint>
#include <deque>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "script_values.h"

namespace Kestrun::Script {

class OperationQueue;

struct Operation {
  // On a thread of the pool; returns a status.
  std::function<uint32_t()> execute;
  // On the thread of the environment, after execute succeeded; what the promise
  // is fulfilled with. Empty: undefined.
  std::function<napi_value(napi_env)> result;
  // On the thread of the environment, before the promise is settled, whatever execute returned. May be empty.
  std::function<void(uint32_t status)> settled;
  // Goes before the message of an error; empty for none.
  std::string subject;

  Face face = Face::Level;
  napi_deferred promise = nullptr;
  uint32_t status = 0;
};

class OperationQueue : public std::enable_shared_from_this<OperationQueue> {
 public:
  // At most `maxWorks` works at a time, of `maxOperations` operations each.
  OperationQueue(size_t maxWorks, size_t maxOperations)
      : maxWorks_(maxWorks), maxOperations_(maxOperations) {}

  // Starts `operation` and returns its promise.
  napi_value Add(napi_env env, std::unique_ptr<Operation> operation);
  // The same for an operation that has its promise.
  void AddPromised(napi_env env, std::unique_ptr<Operation> operation);

  // Operations that were added and are not settled.
  size_t Count() const { return count_; }
  // Calls `callback`, on the thread of the environment, when nothing is under way any more: at once or later.
  void WhenIdle(std::function<void(napi_env)> callback, napi_env env);

 private:
  struct Work;
  static void Execute(napi_env env, void* data);
  static void Complete(napi_env env, napi_status status, void* data);
  void StartWorks(napi_env env);
  bool StartWork(napi_env env);
  void Settle(napi_env env, std::unique_ptr<Operation> operation);

  const size_t maxWorks_;
  const size_t maxOperations_;
  size_t works_ = 0;
  size_t count_ = 0;
  std::deque<std::unique_ptr<Operation>> waiting_;
  std::vector<std::function<void(napi_env)>> whenIdle_;
};

}  // namespace Kestrun::Script
