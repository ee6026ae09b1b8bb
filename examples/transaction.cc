// A transaction between two processes: both move amounts between the same accounts, and nothing is lost or
// made. Takes the directory of the store.
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <iostream>
#include <memory>
#include <optional>
#include <string>

#include "kestrun/kestrun.h"

namespace {

using Kestrun::kStatusOk;

constexpr int kAccounts = 10;
constexpr int kStartBalance = 100;
constexpr int kMoves = 500;

[[noreturn]] void Fail(uint32_t status) {
  std::cerr << Kestrun::StatusName(status) << ": " << Kestrun::StatusText(status) << '\n';
  std::_Exit(1);
}

void Check(uint32_t status) {
  if (status != kStatusOk) Fail(status);
}

// A store is opened in the process that uses it, after the fork.
std::unique_ptr<Kestrun::Store> OpenStore(const char* path) {
  std::unique_ptr<Kestrun::Store> store;
  Check(Kestrun::Store::Open(path, {}, &store));
  return store;
}

std::string Account(int number) {
  return "account-" + std::to_string(number);
}

// Moves `amount` if the account has it. While the body runs nobody else can write, in any process.
uint32_t Move(Kestrun::Store& store, int from, int to, int amount) {
  return store.Transact([&](Kestrun::Transaction& transaction) -> uint32_t {
    std::optional<std::string> source;
    std::optional<std::string> target;
    if (const uint32_t status = transaction.Get(Account(from), &source)) return status;
    if (const uint32_t status = transaction.Get(Account(to), &target)) return status;
    const int left = std::stoi(source.value_or("0")) - amount;
    if (left < 0) return kStatusOk;  // nothing was put, so nothing is written
    if (const uint32_t status = transaction.Put(Account(from), std::to_string(left))) return status;
    return transaction.Put(Account(to), std::to_string(std::stoi(target.value_or("0")) + amount));
  });
}

void MoveAround(Kestrun::Store& store, int seed) {
  for (int i = 0; i < kMoves; ++i) {
    const int from = (i * 7 + seed) % kAccounts;
    const int to = (from + 1 + i % (kAccounts - 1)) % kAccounts;
    Check(Move(store, from, to, i % 40));
  }
}

// The sum of all balances in one moment, whatever is being moved.
int Total(Kestrun::Store& store) {
  std::unique_ptr<Kestrun::Snapshot> snapshot;
  Check(store.TakeSnapshot(&snapshot));
  std::unique_ptr<Kestrun::Cursor> cursor;
  Check(snapshot->NewCursor(Kestrun::Range::Prefix("account-"), &cursor));
  int total = 0;
  for (cursor->SeekToFirst(); cursor->Valid(); cursor->Next()) {
    std::string_view balance;
    Check(cursor->Value(&balance));
    total += std::stoi(std::string(balance));
  }
  Check(cursor->Status());
  return total;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 2) {
    std::cerr << "usage: transaction STORE\n";
    return 2;
  }
  {
    Kestrun::WriteBatch accounts;
    for (int number = 0; number < kAccounts; ++number) {
      Check(accounts.Put(Account(number), std::to_string(kStartBalance)));
    }
    Check(OpenStore(argv[1])->Write(accounts));
  }

  const pid_t child = fork();
  const std::unique_ptr<Kestrun::Store> store = OpenStore(argv[1]);
  MoveAround(*store, child == 0 ? 1 : 2);
  if (child == 0) return 0;
  if (Total(*store) != kAccounts * kStartBalance) return 1;

  int status = 0;
  waitpid(child, &status, 0);
  std::cerr << "after " << 2 * kMoves << " moves by two processes the accounts hold " << Total(*store)
            << '\n';
  return status == 0 ? 0 : 1;
}
