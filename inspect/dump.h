// inspect/dump.h: shows a file of a store byte by byte, each with the field that it belongs to.
//
// Every byte of the file is delivered once, in order, damaged or not; what can't be told apart is delivered
// as plain bytes. Memory stays bounded whatever the file says.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

#include "inspect/read_only_file.h"

namespace Kestrun::Inspect {

enum class FileKind { Unknown, Log, Manifest, Block, Schema };

// "log", "manifest", "block", "schema" or "unknown".
const char* FileKindName(FileKind kind);

// What kind of file it is: by its name, else by the checksum of its header.
FileKind DetectFileKind(const ReadOnlyFile& file);

// Receives what DumpFile finds. The views are valid during the call only.
class DumpSink {
 public:
  virtual ~DumpSink() = default;
  // What follows belongs to this part of the file, such as "header" or "record 3".
  virtual void Part(const std::string& title) = 0;
  // The bytes at `offset` are the field `name`; `meaning` may be empty. A long field comes in pieces, of
  // which only the first has the meaning.
  virtual void Field(uint64_t offset, std::string_view bytes, const std::string& name,
                     const std::string& meaning) = 0;
  // `size` zero bytes at `offset` that mean nothing.
  virtual void Zeros(uint64_t offset, uint64_t size, const std::string& name) = 0;
};

// False when the file can't be read to its end, as when it shrinks meanwhile.
bool DumpFile(const ReadOnlyFile& file, FileKind kind, uint64_t pageSize, DumpSink* sink);

}  // namespace Kestrun::Inspect
