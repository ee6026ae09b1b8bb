// inspect/field_writer.h: hands the bytes of a file to a DumpSink from the first to the last, without gaps.
#pragma once

#include <cstdint>
#include <string>

#include "inspect/dump.h"
#include "inspect/read_only_file.h"

namespace Kestrun::Inspect {

class FieldWriter {
 public:
  FieldWriter(const ReadOnlyFile& file, DumpSink* sink) : file_(file), window_(file), sink_(sink) {}

  // Where the next field begins; everything before has been handed over.
  uint64_t Position() const { return position_; }
  // Some byte could not be read. Nothing is handed over from there on.
  bool Failed() const { return failed_; }

  void Part(const std::string& title) { sink_->Part(title); }
  // The next `size` bytes, or those that the file still has.
  void Field(uint64_t size, const std::string& name, const std::string& meaning = std::string());
  // The bytes up to `end`, runs of zeros told as such.
  void Filler(uint64_t end, const std::string& name);

 private:
  void Copy(uint64_t size, const std::string& name, std::string meaning, bool foldZeros);

  const ReadOnlyFile& file_;
  FileWindow window_;
  DumpSink* sink_;
  uint64_t position_ = 0;
  bool failed_ = false;
};

// What a checksum field means: right, or what it should be.
std::string ChecksumMeaning(uint32_t stored, uint32_t computed);

// "1325376000, 2012-01-01T00:00:00Z"
std::string TimeMeaning(uint64_t seconds);

}  // namespace Kestrun::Inspect
