// inspect/store_verify.h: whether the files of a store are sound.
//
// Every checksum is checked, the chain of the log's records, the order of keys, that offsets and sizes stay
// within their files, that the manifest lists the blocks that are there, and that its filters let every key
// of their block and every primary of such a key through.
//
// Nothing is opened for writing and no lock is taken: a store that is written meanwhile can look damaged.
// StoreFingerprint tells whether that may have been so. Memory stays bounded whatever the files say.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace Kestrun::Inspect {

enum class Severity {
  Note,    // worth knowing; the store loses nothing by it
  Damage,  // something is not as a store writes it
};

struct Finding {
  Severity severity = Severity::Damage;
  std::string file;     // its name in the directory
  uint64_t offset = 0;  // bytes from the start of the file
  std::string text;     // one line, safe to show
};

// What a check found.
class VerifyReport {
 public:
  // The first ones found; all are counted.
  static constexpr size_t kMaxFindings = 10000;

  void Damage(const std::string& file, uint64_t offset, const std::string& text);
  void Note(const std::string& file, uint64_t offset, const std::string& text);

  bool Sound() const { return damages == 0; }

  std::vector<Finding> findings;
  std::string denied;  // the first file that may not be read; what stands in it nobody knows
  uint64_t damages = 0;
  uint64_t notes = 0;
  uint64_t logRecords = 0;
  uint64_t blocks = 0;        // block files looked into
  uint64_t blockEntries = 0;  // entries in them
  uint64_t recordTypes = 0;

 private:
  void Add(Severity severity, const std::string& file, uint64_t offset, const std::string& text);
};

// Checks the store in `directory`, whose blocks were written with pages of `pageSize` bytes; `now` tells what
// has expired. False when the directory can't be read or holds neither log nor manifest, with the reason in
// `*why`.
bool VerifyStore(const std::string& directory, uint64_t pageSize, uint64_t now, VerifyReport* report,
                 std::string* why);

// Bytes that change when somebody writes to the store.
std::string StoreFingerprint(const std::string& directory);

}  // namespace Kestrun::Inspect
