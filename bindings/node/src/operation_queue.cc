#include "operation_queue.h"

#include <kestrun/status.h>

#include <algorithm>
#include <chrono>
#include <new>
#include <utility>

#include "process_end.h"

namespace Kestrun::Script {

namespace {

constexpr std::chrono::milliseconds kLongWork(2);

uint32_t Run(const Operation& operation) noexcept {
  try {
    return operation.execute();
  } catch (const std::bad_alloc&) {
    return kStatusNoMemory;
  }
}

}  // namespace

struct OperationQueue::Work {
  std::shared_ptr<OperationQueue> queue;
  napi_async_work handle = nullptr;
  std::vector<std::unique_ptr<Operation>> operations;
  size_t done = 0;
};

napi_value OperationQueue::Add(napi_env env, std::unique_ptr<Operation> operation) {
  napi_value promise = nullptr;
  Check(env, napi_create_promise(env, &operation->promise, &promise));
  AddPromised(env, std::move(operation));
  return promise;
}

void OperationQueue::AddPromised(napi_env env, std::unique_ptr<Operation> operation) {
  waiting_.push_back(std::move(operation));
  ++count_;
  StartWorks(env);
}

void OperationQueue::WhenIdle(std::function<void(napi_env)> callback, napi_env env) {
  if (count_ == 0) {
    callback(env);
  } else {
    whenIdle_.push_back(std::move(callback));
  }
}

void OperationQueue::StartWorks(napi_env env) {
  while (works_ < maxWorks_ && !waiting_.empty()) {
    if (StartWork(env)) continue;
    if (works_ > 0) return;  // the next work that ends tries again
    // The host has no thread for us and nothing will come back from one: fail what waits.
    while (!waiting_.empty()) {
      std::unique_ptr<Operation> operation = std::move(waiting_.front());
      waiting_.pop_front();
      operation->status = kStatusNoMemory;
      Settle(env, std::move(operation));
    }
  }
}

bool OperationQueue::StartWork(napi_env env) {
  auto work = std::make_unique<Work>();
  work->queue = shared_from_this();
  const size_t count = std::min(maxOperations_, waiting_.size());
  work->operations.reserve(count);

  napi_value name = nullptr;
  if (napi_create_string_latin1(env, "kestrun", NAPI_AUTO_LENGTH, &name) != napi_ok ||
      napi_create_async_work(env, nullptr, name, &Execute, &Complete, work.get(), &work->handle) != napi_ok) {
    return false;
  }
  for (size_t i = 0; i < count; ++i) {
    work->operations.push_back(std::move(waiting_.front()));
    waiting_.pop_front();
  }
  if (napi_queue_async_work(env, work->handle) != napi_ok) {
    for (; !work->operations.empty(); work->operations.pop_back()) {
      waiting_.push_front(std::move(work->operations.back()));
    }
    napi_delete_async_work(env, work->handle);
    return false;
  }
  ++works_;
  static_cast<void>(work.release());  // Complete deletes it
  return true;
}

void OperationQueue::Execute(napi_env, void* data) {
  auto* work = static_cast<Work*>(data);
  const auto started = std::chrono::steady_clock::now();
  for (const std::unique_ptr<Operation>& operation : work->operations) {
    // Not beside the end of the process: the library goes with it.
    const ProcessEnd::Guard guard;
    operation->status = guard.Ended() ? kStatusInvalid : Run(*operation);
    ++work->done;
    if (std::chrono::steady_clock::now() - started > kLongWork) return;
  }
}

// May run while the environment ends: then nothing can be settled, and all that counts is that what
// was held is given back.
void OperationQueue::Complete(napi_env env, napi_status status, void* data) {
  const std::unique_ptr<Work> work(static_cast<Work*>(data));
  OperationQueue& queue = *work->queue;
  napi_delete_async_work(env, work->handle);
  --queue.works_;

  // A work that was cancelled has done nothing, and is tried again like the rest of one that took long.
  if (status != napi_ok) work->done = 0;
  for (size_t i = work->operations.size(); i > work->done; --i) {
    queue.waiting_.push_front(std::move(work->operations[i - 1]));
  }
  // Before script hears of what is done, so that the pool is not idle meanwhile.
  queue.StartWorks(env);
  for (size_t i = 0; i < work->done; ++i) queue.Settle(env, std::move(work->operations[i]));
}

void OperationQueue::Settle(napi_env env, std::unique_ptr<Operation> operation) {
  napi_handle_scope scope = nullptr;
  napi_open_handle_scope(env, &scope);
  if (operation->settled) operation->settled(operation->status);
  try {
    if (operation->status == kStatusOk) {
      const napi_value value = operation->result ? operation->result(env) : Undefined(env);
      napi_resolve_deferred(env, operation->promise, value);
    } else {
      napi_reject_deferred(env, operation->promise,
                           MakeError(env, operation->face, operation->status, operation->subject));
    }
  } catch (const PendingException&) {
    napi_value exception = nullptr;
    if (napi_get_and_clear_last_exception(env, &exception) == napi_ok) {
      napi_reject_deferred(env, operation->promise, exception);
    }
  } catch (const std::bad_alloc&) {
    napi_value message = nullptr, exception = nullptr;
    if (napi_create_string_latin1(env, "memory could not be allocated", NAPI_AUTO_LENGTH, &message) ==
            napi_ok &&
        napi_create_error(env, nullptr, message, &exception) == napi_ok) {
      napi_reject_deferred(env, operation->promise, exception);
    }
  }
  operation.reset();
  if (scope != nullptr) napi_close_handle_scope(env, scope);

  if (--count_ > 0) return;
  std::vector<std::function<void(napi_env)>> callbacks = std::move(whenIdle_);
  whenIdle_.clear();
  for (const std::function<void(napi_env)>& callback : callbacks) callback(env);
}

}  // namespace Kestrun::Script
