#include "inspect/dump.h"

#include "tests/inspect/store_fixture.h"

namespace Kestrun::Inspect {
namespace {

using namespace Kestrun::Testing;

// Puts the file together again, and fails where a byte is left out, comes twice or in the wrong place.
class Collector : public DumpSink {
 public:
  void Part(const std::string& title) override { text += title + "\n"; }
  void Field(uint64_t offset, std::string_view bytes, const std::string& name,
             const std::string& meaning) override {
    EXPECT_EQ(offset, this->bytes.size()) << name;
    this->bytes += bytes;
    text += " " + name + (meaning.empty() ? "" : "=" + meaning) + "\n";
  }
  void Zeros(uint64_t offset, uint64_t size, const std::string& name) override {
    EXPECT_EQ(offset, bytes.size()) << name;
    bytes.append(size, '\0');
    text += " " + std::to_string(size) + " zeros " + name + "\n";
  }

  std::string bytes;
  std::string text;
};

class DumpTest : public ForgedStore {
 protected:
  std::string Dump(const std::string& name) {
    std::string why;
    const auto file = ReadOnlyFile::Open(scratch_.PathOf(name), &why);
    EXPECT_TRUE(file) << why;
    Collector collector;
    EXPECT_TRUE(DumpFile(*file, DetectFileKind(*file), kPage, &collector));
    EXPECT_EQ(collector.bytes, Bytes(name)) << name;
    return collector.text;
  }
};

TEST_F(DumpTest, NamesEveryFieldOfALog) {
  EXPECT_EQ(
      Dump("wal_v5").substr(0, 480),
      "header\n magic=KESTRUN\\x00\n version=5\n used=230\n checksum=right\n reserved=0\n 104 zeros unused\n"
      "record 1\n valueOffset=174\n valueSize=10\n deleted=0\n padding\n"
      " timestamp=1325376000, 2012-01-01T00:00:00Z\n ttl=4294967295\n padding\n keySize=6\n padding\n"
      " checksum=right\n key\n value\n"
      "record 2, a deletion\n valueOffset=230\n valueSize=0\n deleted=1\n padding\n"
      " timestamp=1325376000, 2012-01-01T00:00:00Z\n ttl=4294967295\n padding\n keySize=6\n padding\n"
      " checksum=right\n key\n"
      "free\n 794 zeros free\n");
}

TEST_F(DumpTest, NamesEveryFieldOfAManifestABlockAndASchema) {
  EXPECT_EQ(Dump("manifest_v5"),
            "header\n magic=KESTRUN\\x00\n version=5\n generation=1\n headerSize=128\n checksum=right\n"
            " 104 zeros unused\n"
            "record 1\n name=" +
                name_ +
                "\n createTime=1325376000, 2012-01-01T00:00:00Z\n"
                " modifyTime=1325376000, 2012-01-01T00:00:00Z\n filterSize=9\n checksum=right\n filterBits\n"
                " filterProbes\n");
  const std::string block = Dump(block_);
  EXPECT_NE(
      block.find(
          "data section\n type=0\n name=__DATA__\n zero=0\n size=39\n checksum=right\n value 0\n value 1\n"
          " value 2\n 3929 zeros fill\nkey table\n"),
      std::string::npos)
      << block;
  EXPECT_NE(block.find("entry 2\n valueOffset=164\n valueSize=3\n"), std::string::npos) << block;
  EXPECT_EQ(Dump("meta_v5"), "record types\n line=record type 1\n lineEnd\n");
}

TEST_F(DumpTest, TellsAWrongChecksumAndTheRightOne) {
  std::string bytes = Bytes("wal_v5");
  bytes[16] = static_cast<char>(bytes[16] ^ 0xFF);
  Put("wal_v5", bytes);
  EXPECT_NE(Dump("wal_v5").find("checksum=wrong: should be bc9f"), std::string::npos);
  EXPECT_NE(Dump("wal_v5").find("record 1"), std::string::npos)
      << "records are shown under a broken header too";
}

TEST_F(DumpTest, KnowsAFileByItsContentWhenItsNameSaysNothing) {
  const struct {
    std::string name;
    FileKind kind;
  } rows[] = {{"wal_v5", FileKind::Log},
              {"manifest_v5", FileKind::Manifest},
              {block_, FileKind::Block},
              {"meta_v5", FileKind::Schema}};
  for (const auto& row : rows) {
    std::string why;
    EXPECT_EQ(DetectFileKind(*ReadOnlyFile::Open(scratch_.PathOf(row.name), &why)), row.kind) << row.name;
    Put("copy", Bytes(row.name));
    const FileKind expected = row.kind == FileKind::Schema ? FileKind::Unknown : row.kind;
    EXPECT_EQ(DetectFileKind(*ReadOnlyFile::Open(scratch_.PathOf("copy"), &why)), expected) << row.name;
    Dump("copy");
  }
}

TEST_F(DumpTest, DeliversEveryByteOfDamagedFilesOnce) {
  for (const auto& [name, good] : std::map<std::string, std::string>(files_)) {
    for (size_t i = 0; i < good.size(); i += i < 400 || i > 8100 ? 1 : 331) {
      std::string bytes = good;
      bytes[i] = static_cast<char>(bytes[i] ^ 0x81);
      Put(name, bytes);
      Dump(name);
      Put(name, good.substr(0, i));
      Dump(name);
    }
    Put(name, good);
  }
}

TEST_F(DumpTest, SplitsLongFieldsAndFoldsZerosOnlyWhereNothingIsStored) {
  Put("wal_v5", ForgedLog({{"k", std::string(200000, '\0')}}, 300000));
  const std::string text = Dump("wal_v5");
  EXPECT_EQ(text.find("zeros value"), std::string::npos);
  EXPECT_NE(text.find("zeros free"), std::string::npos);
}

}  // namespace
}  // namespace Kestrun::Inspect
