// The files of a store, read through Snapshot::Open. Input: two bytes of flags; the log, the manifest and its
// journal as chunks; two blocks; a key to look for. A block is made like those of the other targets, sealed
// or not, or comes page by page: a byte that tells how many there are, and a chunk for each,
// which is filled up with zeros.
#include <algorithm>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "kestrun/status.h"
#include "kestrun/store.h"
#include "tests/fuzz/fuzz_check.h"
#include "tests/fuzz/fuzz_store_files.h"

using namespace Kestrun;
using namespace Kestrun::Fuzzing;
using Kestrun::Testing::FuzzCheck;

namespace {

constexpr size_t kMaxKeys = 100000;  // far more than an input has room for
constexpr size_t kMaxValue = 1 << 20;

std::string PagedBlock(Input& input, size_t pageSize) {
  std::string file;
  for (int pages = input.Byte() % 17; pages > 0; --pages) {
    file.resize((file.size() + pageSize - 1) / pageSize * pageSize);
    file += input.Chunk().substr(0, pageSize);
  }
  return file;
}

std::map<std::string, std::string> FilesOf(const std::string& path) {
  std::map<std::string, std::string> files;
  for (const auto& entry : std::filesystem::directory_iterator(path)) {
    std::ifstream file(entry.path(), std::ios::binary);
    files[entry.path().filename().string()] =
        std::string(std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>());
  }
  return files;
}

std::vector<std::string> Walk(Cursor& cursor, bool forward) {
  std::vector<std::string> keys;
  for (forward ? cursor.SeekToFirst() : cursor.SeekToLast(); cursor.Valid();
       forward ? cursor.Next() : cursor.Prev()) {
    FuzzCheck(keys.size() < kMaxKeys, "a walk comes to an end");
    const std::string key(cursor.Key());
    // No store writes an empty key; a block that was made by hand can hold one,
    // and it is shown like any other.
    FuzzCheck(!cursor.Entry().deleted, "a cursor shows keys that are alive");
    FuzzCheck(keys.empty() || (forward ? keys.back() < key : keys.back() > key),
              "keys come in order, each once");
    std::string_view value;
    if (cursor.Entry().valueSize <= kMaxValue && cursor.Value(&value) == kStatusOk) {
      FuzzCheck(value.size() == cursor.Entry().valueSize, "a value has the size that its entry says");
    }
    keys.push_back(key);
  }
  return keys;
}

void Read(const Snapshot& snapshot, const std::string& wanted) {
  std::unique_ptr<Cursor> cursor;
  FuzzCheck(snapshot.NewCursor(Range::All(), &cursor) == kStatusOk, "a cursor");
  std::vector<std::string> keys = Walk(*cursor, true);
  const bool isWhole = cursor->Status() == kStatusOk;
  std::vector<std::string> backward = Walk(*cursor, false);
  if (isWhole && cursor->Status() == kStatusOk) {
    std::reverse(backward.begin(), backward.end());
    FuzzCheck(backward == keys, "both directions show the same");
    const auto next = std::lower_bound(keys.begin(), keys.end(), wanted);
    cursor->Seek(wanted);
    FuzzCheck(next == keys.end() ? !cursor->Valid() : cursor->Key() == *next, "Seek stands on the next key");
    const auto after = std::upper_bound(keys.begin(), keys.end(), wanted);
    cursor->SeekForPrev(wanted);
    FuzzCheck(after == keys.begin() ? !cursor->Valid() : cursor->Key() == *(after - 1),
              "SeekForPrev stands on the key before");
  }
  keys.push_back(wanted);
  for (const std::string& key : keys) {
    std::optional<std::string> value;
    static_cast<void>(snapshot.Get(key, &value));  // any status will do
  }
  std::unique_ptr<Cursor> part;
  FuzzCheck(snapshot.NewCursor(Range::Prefix(wanted), &part) == kStatusOk, "a cursor");
  for (const std::string& key : Walk(*part, false)) {
    FuzzCheck(key.compare(0, wanted.size(), wanted) == 0, "a prefix is kept to");
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static StoreFiles& files = *new StoreFiles;
  Input input(data, size);
  const uint8_t seals = input.Byte();
  const uint8_t shape = input.Byte();
  std::string log = input.Chunk();
  std::string manifest = input.Chunk();
  std::string journal = input.Chunk();
  if ((seals & 1) == 0) log = SealedLog(log);
  if ((seals & 2) == 0) manifest = SealedManifest(manifest);
  if ((seals & 4) == 0) journal = SealedSideFile(journal);
  constexpr size_t kPages[] = {4096, 16384, 65536, 4096};
  const size_t pageSize = kPages[shape & 3];
  const auto block = [&](uint8_t isSealed) {
    return (shape & 4) != 0 ? PagedBlock(input, pageSize)
                            : BlockFromChunks(input, (seals & isSealed) == 0, pageSize);
  };

  files.PutBlock(kFirstBlock, block(8));
  files.PutBlock(kSecondBlock, block(16));
  files.PutLog(log);
  files.PutManifest(manifest);
  files.PutSideFile(journal);
  if ((shape & 8) != 0) files.Remove("wal_v5");
  if ((shape & 16) != 0) files.Remove("manifest_v5");
  if ((shape & 32) != 0) files.RemoveBlock(kSecondBlock);

  const auto before = FilesOf(files.Path());
  std::unique_ptr<Snapshot> snapshot;
  const uint32_t status = Snapshot::Open(files.Path(), &snapshot);
  FuzzCheck((status == kStatusOk) == (snapshot != nullptr), "a snapshot or a status");
  if (snapshot != nullptr) Read(*snapshot, input.Rest());
  FuzzCheck(FilesOf(files.Path()) == before, "reading changes nothing");
  return 0;
}
