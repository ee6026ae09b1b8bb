// What the fuzz targets share: how an input is taken apart, and the files that it becomes.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

namespace Kestrun::Fuzzing {

// Takes an input apart from its front. What is missing reads as zero or empty.
class Input {
 public:
  Input(const uint8_t* data, size_t size) : data_(data), size_(size) {}

  uint8_t Byte();
  uint16_t Word();
  // A word that tells the length, and so many bytes.
  std::string Chunk();
  std::string Rest();
  bool IsEmpty() const { return size_ == 0; }

 private:
  const uint8_t* data_;
  size_t size_;
};

// A directory that is made when the program starts and removed when it ends. The library keeps a record for
// each file by its number for ever, so the same few files serve every input.
class Directory {
 public:
  Directory();

  const std::string& Path() const { return path_; }
  std::string PathOf(const std::string& name) const { return path_ + "/" + name; }

  // Gives the file `name` these bytes. It keeps its number, even when the store has removed it meanwhile.
  void Put(const std::string& name, const std::string& bytes);
  // Removes the file `name`, if it is there.
  void Remove(const std::string& name);
  // Removes the blocks that the store has made itself.
  void RemoveMadeBlocks();

 private:
  std::string path_;
  std::string kept_;  // the directory in which the files of Put lie as well
};

// Makes the store's checksums fit: of a log's header and of its records as far as one leads to the next, of a
// manifest's header and entries. A record with the mark of a checked content gets the checksum of that. Bytes
// that are not there are not made.
std::string SealedLog(std::string bytes);
std::string SealedManifest(std::string bytes);
std::string SealedSideFile(std::string bytes);

// A block file from four chunks: the file header, and the three sections with their headers. The tables are
// put where the sizes in the headers say, as far as that is near. `seal` makes the checksums fit.
// The sections begin at pages of `pageSize` bytes, or of the machine's when that is 0.
std::string BlockFromChunks(Input& input, bool seal, size_t pageSize = 0);

}  // namespace Kestrun::Fuzzing
