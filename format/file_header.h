// format/file_header.h: reads the header of a log or a manifest and tells what is wrong with it.
#pragma once

#include <cstddef>
#include <cstring>

#include "format/byte_source.h"
#include "format/checksum.h"
#include "format/file_magic.h"

namespace Kestrun {

template <typename Header>
struct FileHeaderView {
  Header header = {};
  bool complete = false;  // the source holds all of it; otherwise nothing else is set
  bool checksumMatches = false;
  bool magicMatches = false;

  // A store opens the file as far as its header goes.
  bool Usable() const { return complete && checksumMatches && magicMatches; }
};

// The checksum covers the bytes before it, which stands at `checksumOffset`.
template <typename Header>
FileHeaderView<Header> ReadFileHeader(ByteSource& source, size_t checksumOffset) {
  FileHeaderView<Header> view;
  Header header;
  if (!ReadExactly(source, 0, &header, sizeof(header))) return view;
  view.header = header;
  view.complete = true;
  view.checksumMatches = header.checksum == StoreChecksum(&header, checksumOffset);
  view.magicMatches = std::memcmp(header.magic, kFileMagic, kMagicSize) == 0;
  return view;
}

}  // namespace Kestrun
