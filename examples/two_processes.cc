// Two processes on one store: each sees what the other has written as soon as the other's call has returned.
// Takes the directory of the store.
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <iostream>
#include <memory>
#include <string>

#include "kestrun/kestrun.h"

namespace {

constexpr int kEntries = 1000;

void Check(uint32_t status) {
  if (status == Kestrun::kStatusOk) return;
  std::cerr << Kestrun::StatusName(status) << ": " << Kestrun::StatusText(status) << '\n';
  std::_Exit(1);
}

int CountKeys(Kestrun::Store& store, const std::string& prefix) {
  std::unique_ptr<Kestrun::Snapshot> snapshot;
  Check(store.TakeSnapshot(&snapshot));
  std::unique_ptr<Kestrun::Cursor> cursor;
  Check(snapshot->NewCursor(Kestrun::Range::Prefix(prefix), &cursor));
  int count = 0;
  for (cursor->SeekToFirst(); cursor->Valid(); cursor->Next()) ++count;
  Check(cursor->Status());
  return count;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 2) {
    std::cerr << "usage: two_processes STORE\n";
    return 2;
  }
  // A store is opened in the process that uses it, after the fork. Locks are waited for.
  const pid_t child = fork();
  const std::string name = child == 0 ? "child-" : "parent-";
  std::unique_ptr<Kestrun::Store> store;
  Kestrun::StoreOptions options;
  options.logSize = 16 * 1024;  // small on purpose: it is flushed many times while both write
  Check(Kestrun::Store::Open(argv[1], options, &store));
  for (int number = 0; number < kEntries; ++number) {
    const std::string key = name + std::to_string(number);
    Check(store->Put(key, key));
  }
  if (child == 0) return 0;

  int status = 0;
  waitpid(child, &status, 0);
  std::cerr << "the parent reads " << CountKeys(*store, "parent-") << " entries of its own and "
            << CountKeys(*store, "child-") << " of the child\n";
  return status == 0 ? 0 : 1;
}
