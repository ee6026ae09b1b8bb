#include <algorithm>
#include <cstring>
#include <string_view>

#include "format/checksum.h"
#include "format/file_magic.h"
#include "format/key_filter.h"
#include "inspect/block_file.h"
#include "inspect/escape.h"
#include "inspect/verify_file.h"

namespace Kestrun::Inspect {
namespace {

// The part of a key before its last dash, where a dash in first place does not count.
size_t PrimarySize(const std::string& key) {
  const size_t dash = key.rfind('-');
  return dash == std::string::npos || dash == 0 ? key.size() : dash;
}

bool FilterHolds(const std::vector<uint8_t>& filter, const std::string& key, size_t size) {
  const uint32_t hash = FilterHash(reinterpret_cast<const uint8_t*>(key.data()), size, kChecksumSeed);
  return KeyFilterMayContain(hash, filter);
}

class BlockVerifier {
 public:
  BlockVerifier(const ReadOnlyFile& file, const std::string& name, uint64_t pageSize,
                const std::vector<uint8_t>* filter, VerifyReport* report)
      : file_(file), name_(name), filter_(filter), report_(report), block_(file, pageSize) {
    nextKeyOffset_ = sizeof(SectionHeader);
    nextValueOffset_ = kFirstValueOffset;
  }

  void Run(uint64_t pageSize) {
    if (!VerifyHeader() || !VerifySections(pageSize)) return;
    for (uint64_t i = 0; i < block_.EntryCount(); ++i) {
      if (!VerifyEntry(i)) return;
    }
    if (nextKeyOffset_ != block_.KeyTable().header.size && !broken_) {
      Damage(block_.KeyTable().offset + nextKeyOffset_,
             "the key table holds more than the keys of the entries");
    }
  }

 private:
  void Damage(uint64_t offset, const std::string& text) { report_->Damage(name_, offset, text); }

  bool VerifyHeader() {
    if (!block_.HeaderComplete()) {
      Damage(0, "the file has " + std::to_string(file_.Size()) + " bytes and ends inside its header");
      return false;
    }
    if (!block_.HeaderChecksumMatches()) {
      Damage(BlockFileHeaderOffset::kChecksum, "the header fails its checksum");
    } else if (!block_.MagicMatches()) {
      Damage(BlockFileHeaderOffset::kMagic, "the file does not begin as a file of a store");
    } else if (block_.Header().version != kFormatVersion) {
      Damage(BlockFileHeaderOffset::kVersion, "the version is " + std::to_string(block_.Header().version) +
                                                  " and not " + std::to_string(kFormatVersion));
    }
    return true;
  }

  // False when the entries can't be found.
  bool VerifySections(uint64_t pageSize) {
    if (!VerifySection(block_.Data(), SectionType::Data, kDataSectionName) ||
        !VerifySection(block_.KeyTable(), SectionType::KeyTable, kKeyTableName) ||
        !VerifySection(block_.EntryTable(), SectionType::EntryTable, kEntryTableName)) {
      const uint64_t other = OtherPageSize(file_, pageSize);
      if (other != 0) {
        report_->Note(name_, 0,
                      "the block was written with pages of " + std::to_string(other) + " bytes, not " +
                          std::to_string(pageSize));
      }
      return false;
    }
    if ((block_.EntryTable().header.size - sizeof(SectionHeader)) % sizeof(BlockDataEntry) != 0) {
      Damage(block_.EntryTable().offset + SectionHeaderOffset::kSize, "the entry table ends inside an entry");
    }
    if (file_.Size() > block_.EntryTable().End()) {
      report_->Note(name_, block_.EntryTable().End(),
                    std::to_string(file_.Size() - block_.EntryTable().End()) +
                        " bytes follow the entry table; nothing reads them");
    }
    return true;
  }

  bool VerifySection(const SectionView& section, SectionType type, const char* sectionName) {
    const std::string what = std::string("the header of section ") + sectionName;
    if (!section.complete) {
      Damage(section.offset, "the file ends before " + what);
      return false;
    }
    if (!section.checksumMatches) {
      Damage(section.offset + SectionHeaderOffset::kChecksum, what + " fails its checksum");
      return false;
    }
    if (!section.fits) {
      Damage(section.offset + SectionHeaderOffset::kSize, what + " tells a size of " +
                                                              std::to_string(section.header.size) +
                                                              " bytes, which does not fit into the file");
      return false;
    }
    const std::string_view given(section.header.name,
                                 strnlen(section.header.name, sizeof(section.header.name)));
    if (section.header.type != static_cast<uint16_t>(type) || given != sectionName) {
      Damage(section.offset + SectionHeaderOffset::kType, what + " names another section");
    }
    return true;
  }

  // False when the file can't be read on.
  bool VerifyEntry(uint64_t index) {
    const uint64_t offset = block_.EntryOffset(index);
    const std::string what = "entry " + std::to_string(index);
    BlockDataEntry entry;
    bool checksumMatches = false;
    if (!block_.ReadEntry(index, &entry, &checksumMatches)) {
      Damage(offset, what + " can't be read");
      return false;
    }
    ++report_->blockEntries;
    if (!checksumMatches) {
      Damage(offset + BlockDataEntryOffset::kChecksum, what + " fails its checksum");
      broken_ = true;
      return true;
    }
    VerifyValue(entry, offset, what);
    return VerifyKey(entry, offset, what);
  }

  void VerifyValue(const BlockDataEntry& entry, uint64_t offset, const std::string& what) {
    const uint64_t end = uint64_t{entry.valueOffset} + entry.valueSize;
    if (entry.valueOffset < kFirstValueOffset || end > block_.Data().End()) {
      Damage(offset + BlockDataEntryOffset::kValueOffset, what + " has a value outside the data section");
    } else if (entry.valueOffset < nextValueOffset_) {
      Damage(offset + BlockDataEntryOffset::kValueOffset, what + " has a value that overlaps the one before");
    }
    nextValueOffset_ = std::max(nextValueOffset_, end);
    if (entry.deleted != 0 && entry.valueSize != 0) {
      Damage(offset + BlockDataEntryOffset::kDeleted, what + " is a deletion that carries a value");
    }
  }

  bool VerifyKey(const BlockDataEntry& entry, uint64_t offset, const std::string& what) {
    if (entry.keySize == 0) {
      Damage(offset + BlockDataEntryOffset::kKeySize, what + " has no key");
      broken_ = true;
      return true;
    }
    if (!block_.KeyFits(entry)) {
      Damage(offset + BlockDataEntryOffset::kKeyOffset, what + " has a key outside the key table");
      broken_ = true;
      return true;
    }
    if (!block_.ReadKey(entry, &key_)) {
      Damage(block_.KeyTable().offset + entry.keyOffset, "the key of " + what + " can't be read");
      return false;
    }
    if (entry.keyOffset != nextKeyOffset_ && !broken_) {
      Damage(offset + BlockDataEntryOffset::kKeyOffset,
             what + " has a key that does not follow the one before");
    }
    nextKeyOffset_ = uint64_t{entry.keyOffset} + entry.keySize;
    broken_ = false;
    if (hasLastKey_ && key_ <= lastKey_) {
      Damage(offset, what + ", \"" + Printable(key_) + "\", is not behind \"" + Printable(lastKey_) +
                         "\" in the order of keys");
    }
    VerifyFilter(offset);
    VerifyContent(entry, offset, what);
    lastKey_.swap(key_);
    hasLastKey_ = true;
    return true;
  }

  // Entries that are not marked have nothing to compare with.
  void VerifyContent(const BlockDataEntry& entry, uint64_t offset, const std::string& what) {
    if (!IsMarked(entry) || !block_.ValueFits(entry)) return;
    if (!block_.ReadValue(entry, &value_)) {
      Damage(offset, "the value of " + what + " can't be read");
    } else if (!ContentMatches(entry, key_, value_)) {
      Damage(offset, "the key and the value of " + what + ", \"" + Printable(key_) +
                         "\", are not those that were written");
    }
  }

  void VerifyFilter(uint64_t offset) {
    if (filter_ == nullptr || static_cast<unsigned char>(key_.front()) >= kFirstUnflushedByte) return;
    const size_t primary = PrimarySize(key_);
    if (!FilterHolds(*filter_, key_, key_.size())) {
      Damage(offset, "the manifest's filter hides the key \"" + Printable(key_) + "\"");
    } else if (primary != key_.size() && !FilterHolds(*filter_, key_, primary)) {
      Damage(offset,
             "the manifest's filter hides the primary \"" + Printable(key_.substr(0, primary)) + "\"");
    }
  }

  const ReadOnlyFile& file_;
  const std::string& name_;
  const std::vector<uint8_t>* filter_;
  VerifyReport* report_;
  BlockFile block_;
  std::string key_;
  std::string value_;
  std::string lastKey_;
  bool hasLastKey_ = false;
  bool broken_ = false;  // the last entry was damaged, so where the next key should begin is not known
  uint64_t nextKeyOffset_;
  uint64_t nextValueOffset_;
};

}  // namespace

void VerifyBlock(const ReadOnlyFile& file, const std::string& name, uint64_t pageSize,
                 const std::vector<uint8_t>* filter, VerifyReport* report) {
  ++report->blocks;
  BlockVerifier(file, name, pageSize, filter, report).Run(pageSize);
}

}  // namespace Kestrun::Inspect
