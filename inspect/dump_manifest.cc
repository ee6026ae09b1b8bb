#include "format/checksum.h"
#include "format/manifest_reader.h"
#include "inspect/dump_parts.h"
#include "inspect/escape.h"

namespace Kestrun::Inspect {
namespace {

void DumpHeader(const ManifestHeader& header, FieldWriter* writer) {
  writer->Part("header");
  writer->Field(8, "magic", Printable({reinterpret_cast<const char*>(header.magic), sizeof(header.magic)}));
  writer->Field(4, "version", std::to_string(header.version));
  writer->Field(4, "generation", std::to_string(header.generation));
  writer->Field(4, "headerSize", std::to_string(header.headerSize));
  writer->Field(4, "checksum",
                ChecksumMeaning(header.checksum, StoreChecksum(&header, ManifestHeaderOffset::kChecksum)));
  writer->Filler(sizeof(ManifestHeader), "unused");
}

void DumpRecord(const ManifestEntryView& record, uint64_t number, FieldWriter* writer) {
  const ManifestEntry& entry = record.entry;
  writer->Part("record " + std::to_string(number));
  writer->Field(sizeof(entry.name), "name", Printable(record.name));
  writer->Field(8, "createTime", TimeMeaning(entry.createTime));
  writer->Field(8, "modifyTime", TimeMeaning(entry.modifyTime));
  writer->Field(4, "filterSize", std::to_string(entry.filterSize));
  writer->Field(4, "checksum",
                ChecksumMeaning(entry.checksum, StoreChecksum(&entry, ManifestEntryOffset::kChecksum)));
  if (entry.filterSize == 0) return;
  writer->Field(entry.filterSize - 1, "filterBits");
  writer->Field(1, "filterProbes");
}

}  // namespace

void DumpManifest(const ReadOnlyFile& file, FieldWriter* writer) {
  FileSource source(file);
  const ManifestHeaderView view = ReadManifestHeader(source);
  if (!view.complete) return;
  DumpHeader(view.header, writer);
  uint64_t number = 0;
  ManifestReader reader(source, file.Size());
  while (!writer->Failed() && reader.Next(true)) DumpRecord(reader.Entry(), ++number, writer);
  if (writer->Position() < file.Size()) {
    writer->Part("not readable");
    writer->Field(file.Size() - writer->Position(), "bytes");
  }
}

}  // namespace Kestrun::Inspect
