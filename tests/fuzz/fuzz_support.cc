#include "tests/fuzz/fuzz_support.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <set>
#include <system_error>

#include "format/crc32c.h"
#include "tests/fuzz/fuzz_check.h"

// Nothing is forced to the disk: a fuzz target has no loss of power.
extern "C" int fsync(int /*descriptor*/) {
  return 0;
}
extern "C" int msync(void* /*address*/, size_t /*length*/, int /*flags*/) {
  return 0;
}

// What the library keeps for each file would have the fuzzer look for leaks behind every input, which takes
// longer than the input.
extern "C" const char* __asan_default_options() {
  return "detect_leaks=0:quarantine_size_mb=16";
}

namespace Kestrun::Fuzzing {
namespace {

constexpr size_t kFarthestTable = 64 * 1024;

// Directories to be removed when the program ends.
struct Directories {
  std::set<std::string> paths;
  ~Directories() {
    std::error_code ignored;
    for (const std::string& path : paths) std::filesystem::remove_all(path, ignored);
  }
};

std::string MakeDirectory() {
  static Directories directories;
  const char* parent = std::getenv("TMPDIR");
  std::string path = std::string(parent == nullptr ? "/tmp" : parent) + "/kestrun-fuzz-XXXXXX";
  Testing::FuzzCheck(mkdtemp(path.data()) != nullptr, "a directory to work in");
  directories.paths.insert(path);
  return path;
}

uint64_t NumberAt(const std::string& bytes, size_t offset, size_t width) {
  uint64_t number = 0;
  if (offset + width <= bytes.size()) std::memcpy(&number, bytes.data() + offset, width);
  return number;
}

void SealAt(std::string& bytes, size_t offset, size_t begin, size_t end) {
  if (offset + 4 > bytes.size() || end > bytes.size()) return;
  uint32_t sum = 0xBC9F1D34;
  for (size_t i = begin; i < end; ++i) sum += static_cast<uint8_t>(bytes[i]);
  std::memcpy(&bytes[offset], &sum, sizeof(sum));
}

void SealEntriesFrom(std::string& bytes, size_t offset) {
  while (offset + 56 <= bytes.size()) {
    SealAt(bytes, offset + 52, offset, offset + 52);
    offset += 56 + NumberAt(bytes, offset + 48, 4);
  }
}

size_t RoundUpToPage(size_t offset, size_t page) {
  if (page == 0) page = static_cast<size_t>(sysconf(_SC_PAGESIZE));
  return (offset + page - 1) / page * page;
}

uint64_t SideFileHash(const std::string& bytes, uint64_t hash = 0xCBF29CE484222325u) {
  for (const char byte : bytes) hash = (hash ^ static_cast<uint8_t>(byte)) * 0x100000001B3u;
  return hash;
}

}  // namespace

uint8_t Input::Byte() {
  if (size_ == 0) return 0;
  --size_;
  return *data_++;
}

uint16_t Input::Word() {
  const uint8_t low = Byte();
  return static_cast<uint16_t>(low | Byte() << 8);
}

std::string Input::Chunk() {
  const size_t length = std::min<size_t>(Word(), size_);
  std::string bytes(reinterpret_cast<const char*>(data_), length);
  data_ += length;
  size_ -= length;
  return bytes;
}

std::string Input::Rest() {
  return std::string(reinterpret_cast<const char*>(data_), size_);
}

Directory::Directory() : path_(MakeDirectory()), kept_(MakeDirectory()) {
  // The library's diagnostics would be all that is seen.
  Testing::FuzzCheck(std::freopen("/dev/null", "w", stdout) != nullptr, "silence");
}

void Directory::Put(const std::string& name, const std::string& bytes) {
  const std::string kept = kept_ + "/" + name;
  const int file = open(kept.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600);
  Testing::FuzzCheck(file >= 0 &&
                         pwrite(file, bytes.data(), bytes.size(), 0) == static_cast<ssize_t>(bytes.size()) &&
                         ftruncate(file, static_cast<off_t>(bytes.size())) == 0,
                     "a file to work on");
  close(file);
  const std::string path = PathOf(name);
  struct stat there = {};
  struct stat wanted = {};
  Testing::FuzzCheck(stat(kept.c_str(), &wanted) == 0, "a file to work on");
  if (stat(path.c_str(), &there) == 0 && there.st_ino == wanted.st_ino) return;
  unlink(path.c_str());
  Testing::FuzzCheck(link(kept.c_str(), path.c_str()) == 0, "a second name");
}

void Directory::Remove(const std::string& name) {
  unlink(PathOf(name).c_str());
}

void Directory::RemoveMadeBlocks() {
  DIR* stream = opendir(path_.c_str());
  Testing::FuzzCheck(stream != nullptr, "a directory to work in");
  while (const dirent* entry = readdir(stream)) {
    const std::string name = entry->d_name;
    const bool made =
        name.find(".blk_v5") != std::string::npos && access((kept_ + "/" + name).c_str(), F_OK) != 0;
    if (made) Remove(name);
  }
  closedir(stream);
}

std::string SealedLog(std::string bytes) {
  SealAt(bytes, 16, 0, 16);
  for (size_t offset = 128; offset + 40 <= bytes.size();) {
    const uint64_t content = NumberAt(bytes, offset + 32, 2) + NumberAt(bytes, offset + 4, 4);
    if (NumberAt(bytes, offset + 34, 2) == 0x4B43 && content <= bytes.size() - offset - 40) {
      const uint32_t crc = Crc32c(bytes.data() + offset + 40, static_cast<size_t>(content));
      std::memcpy(&bytes[offset + 28], &crc, sizeof(crc));
    }
    SealAt(bytes, offset + 36, offset, offset + 36);
    offset += 40 + NumberAt(bytes, offset + 32, 2) + NumberAt(bytes, offset + 4, 4);
  }
  return bytes;
}

std::string SealedManifest(std::string bytes) {
  SealAt(bytes, 20, 0, 20);
  SealEntriesFrom(bytes, 128);
  return bytes;
}

std::string SealedSideFile(std::string bytes) {
  if (bytes.size() < 40) return bytes;
  SealEntriesFrom(bytes, 40);
  const uint64_t hash = SideFileHash(bytes.substr(40), SideFileHash(bytes.substr(0, 32)));
  std::memcpy(&bytes[32], &hash, sizeof(hash));
  return bytes;
}

std::string BlockFromChunks(Input& input, bool seal, size_t pageSize) {
  std::string file = input.Chunk();
  file.resize(128);
  if (seal) SealAt(file, 12, 0, 12);
  for (int section = 0; section < 3; ++section) {
    std::string bytes = input.Chunk();
    if (seal) {
      SealAt(bytes, 24, 0, 24);
      for (size_t offset = 28; section == 2 && offset + 48 <= bytes.size(); offset += 48) {
        SealAt(bytes, offset + 40, offset, offset + 40);
      }
    }
    const size_t begin = file.size();
    file += bytes;
    const size_t declared = begin + NumberAt(bytes, 20, 4);
    const size_t next = RoundUpToPage(declared < kFarthestTable ? declared : file.size(), pageSize);
    if (section < 2) file.resize(next);
  }
  return file;
}

}  // namespace Kestrun::Fuzzing
