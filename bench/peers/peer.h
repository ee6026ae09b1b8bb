// peer.h: what every store that is measured must be able to do, and no more. One
// adapter each, beside this file.
//
// Ownership: MakePeer hands out a peer that the caller deletes; deleting it closes the store.
// Threads:   one thread at a time. Stores that several processes may use are opened by each of them.
// Failure:   false means that the call did not do its work. An adapter never tries again by itself: what it
//            would hide is part of what is measured.
// Durability: as every adapter sets it up, what a call has written survives the end of the process, and no call syncs
//            for each write.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace Bench {

struct Options {
  std::string path;                   // a directory, which may be missing; its parent is there
  size_t logBytes = 4 << 20;          // of the log and of write buffers
  size_t mapBytes = size_t{1} << 30;  // address space, for a store that must know it beforehand
  bool compactsByItself = true;       // whether a store that can leave that alone does compact by itself
};

using Entries = std::vector<std::pair<std::string_view, std::string_view>>;

class Peer {
 public:
  virtual ~Peer() = default;

  // Name and version of the store, and what differs from its default settings.
  virtual std::string Version() const = 0;
  virtual std::string Settings() const = 0;

  virtual bool Open(const Options& options) = 0;
  virtual void Close() = 0;

  virtual bool Put(std::string_view key, std::string_view value) = 0;
  virtual bool Delete(std::string_view key) = 0;
  // All of the entries or none, where CanBatch; else one after the other.
  virtual bool Write(const Entries& entries) = 0;
  virtual bool CanBatch() const { return true; }

  // Copies the value to `*value`; `*found` tells whether there is one.
  virtual bool Get(std::string_view key, std::string* value, bool* found) = 0;

  // Holds on to the state of this moment, which GetFromSnapshot and ScanSnapshot read.
  virtual bool TakeSnapshot() { return false; }
  virtual bool GetFromSnapshot(std::string_view /*key*/, std::string* /*value*/, bool* /*found*/) {
    return false;
  }
  virtual bool CanSnapshot() const { return true; }
  virtual void ReleaseSnapshot() {}

  // Visits the keys from `from` up to and not including `to`, in order, as they are at the time of the call.
  // Adds the sizes of the keys and, with `values`, of the values, of which every byte was made readable, to
  // `*bytes`, and the number of entries to `*count`.
  virtual bool Scan(std::string_view from, std::string_view to, bool values, uint64_t* count,
                    uint64_t* bytes) = 0;

  // Brings what is in the log or in memory to where it stays.
  virtual bool Flush() = 0;
  // Rewrites everything into the form that is best to read.
  virtual bool Compact() = 0;

  // Whether several processes may have the store open.
  virtual bool SharedByProcesses() const { return true; }
};

std::unique_ptr<Peer> MakePeer();

}  // namespace Bench
