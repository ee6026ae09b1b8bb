#include <cstring>
#include <functional>

#include "format/checksum.h"
#include "inspect/block_file.h"
#include "inspect/dump_parts.h"
#include "inspect/escape.h"

namespace Kestrun::Inspect {
namespace {

void DumpFileHeader(const BlockFileHeader& header, FieldWriter* writer) {
  writer->Part("header");
  writer->Field(8, "magic", Printable({reinterpret_cast<const char*>(header.magic), sizeof(header.magic)}));
  writer->Field(4, "version", std::to_string(header.version));
  writer->Field(4, "checksum",
                ChecksumMeaning(header.checksum, StoreChecksum(&header, BlockFileHeaderOffset::kChecksum)));
  writer->Filler(sizeof(BlockFileHeader), "zero");
}

void DumpSectionHeader(const SectionView& section, const std::string& title, FieldWriter* writer) {
  const SectionHeader& header = section.header;
  writer->Part(title);
  writer->Field(2, "type", std::to_string(header.type));
  writer->Field(sizeof(header.name), "name",
                Printable({header.name, strnlen(header.name, sizeof(header.name))}));
  writer->Field(2, "zero", std::to_string(header.zero));
  writer->Field(4, "size", std::to_string(header.size));
  writer->Field(4, "checksum",
                ChecksumMeaning(header.checksum, StoreChecksum(&header, SectionHeaderOffset::kChecksum)));
}

// Hands over the pieces of a section, one for each entry: `place` tells where an entry's piece lies, as
// offset from the start of the file and size. A piece that is not where it should be is not told apart.
void DumpPieces(BlockFile* block, const SectionView& section, const std::string& name, FieldWriter* writer,
                const std::function<void(const BlockDataEntry&, uint64_t*, uint64_t*)>& place) {
  for (uint64_t i = 0; i < block->EntryCount() && !writer->Failed(); ++i) {
    BlockDataEntry entry;
    bool checksumMatches = false;
    if (!block->ReadEntry(i, &entry, &checksumMatches) || !checksumMatches) continue;
    uint64_t offset = 0;
    uint64_t size = 0;
    place(entry, &offset, &size);
    if (size == 0 || offset < writer->Position() || offset + size > section.End()) continue;
    writer->Filler(offset, "bytes");
    writer->Field(size, name + " " + std::to_string(i));
  }
  writer->Filler(section.End(), "bytes");
}

void DumpEntry(const BlockDataEntry& entry, uint64_t index, FieldWriter* writer) {
  writer->Part("entry " + std::to_string(index) + (entry.deleted != 0 ? ", a deletion" : ""));
  writer->Field(4, "valueOffset", std::to_string(entry.valueOffset));
  writer->Field(4, "valueSize", std::to_string(entry.valueSize));
  writer->Field(1, "deleted", std::to_string(entry.deleted));
  writer->Field(7, "padding");
  writer->Field(8, "timestamp", TimeMeaning(entry.timestamp));
  writer->Field(4, "ttl", std::to_string(entry.ttl));
  if (IsMarked(entry)) {
    writer->Field(4, "crc");
  } else {
    writer->Field(4, "padding");
  }
  writer->Field(4, "keyOffset", std::to_string(entry.keyOffset));
  writer->Field(2, "keySize", std::to_string(entry.keySize));
  if (IsMarked(entry)) {
    writer->Field(2, "mark", "key and value have a checksum");
  } else {
    writer->Field(2, "padding");
  }
  writer->Field(4, "checksum",
                ChecksumMeaning(entry.checksum, StoreChecksum(&entry, BlockDataEntryOffset::kChecksum)));
  writer->Field(4, "padding");
}

}  // namespace

void DumpBlock(const ReadOnlyFile& file, uint64_t pageSize, FieldWriter* writer) {
  BlockFile block(file, pageSize);
  if (!block.HeaderComplete()) return;
  DumpFileHeader(block.Header(), writer);

  if (!block.Data().complete) return;
  DumpSectionHeader(block.Data(), "data section", writer);
  if (!block.Data().Usable()) return;
  DumpPieces(&block, block.Data(), "value", writer,
             [](const BlockDataEntry& entry, uint64_t* offset, uint64_t* size) {
               *offset = entry.valueOffset;
               *size = entry.valueSize;
             });

  if (!block.KeyTable().complete) return;
  writer->Filler(block.KeyTable().offset, "fill");
  DumpSectionHeader(block.KeyTable(), "key table", writer);
  if (!block.KeyTable().Usable()) return;
  const uint64_t keys = block.KeyTable().offset;
  DumpPieces(&block, block.KeyTable(), "key", writer,
             [keys](const BlockDataEntry& entry, uint64_t* offset, uint64_t* size) {
               *offset = keys + entry.keyOffset;
               *size = entry.keySize;
             });

  if (!block.EntryTable().complete) return;
  writer->Filler(block.EntryTable().offset, "fill");
  DumpSectionHeader(block.EntryTable(), "entry table", writer);
  for (uint64_t i = 0; i < block.EntryCount() && !writer->Failed(); ++i) {
    BlockDataEntry entry;
    bool checksumMatches = false;
    if (!block.ReadEntry(i, &entry, &checksumMatches)) return;
    DumpEntry(entry, i, writer);
  }
}

}  // namespace Kestrun::Inspect
