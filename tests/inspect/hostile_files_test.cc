// Files whose checksums are right and whose numbers are not: whatever they say, nothing outside the buffers
// is touched and every operation comes to an end.
#include <sys/stat.h>

#include <random>

#include "inspect/dump.h"
#include "inspect/locate.h"
#include "inspect/space_stat.h"
#include "inspect/store_stat.h"
#include "inspect/store_verify.h"
#include "tests/inspect/store_fixture.h"
#include "tests/support/random_run.h"

namespace Kestrun::Inspect {
namespace {

using namespace Kestrun::Testing;

class CountingSink : public DumpSink {
 public:
  void Part(const std::string& /*title*/) override {}
  void Field(uint64_t /*offset*/, std::string_view bytes, const std::string& /*name*/,
             const std::string& /*meaning*/) override {
    size += bytes.size();
  }
  void Zeros(uint64_t /*offset*/, uint64_t zeros, const std::string& /*name*/) override { size += zeros; }
  uint64_t size = 0;
};

class HostileFilesTest : public ForgedStore {
 protected:
  void LookAtEverything() {
    std::string why;
    StoreStat stat;
    EXPECT_TRUE(CollectStat(Path(), kPage, kNow, &stat, &why)) << why;
    VerifyReport report;
    EXPECT_TRUE(VerifyStore(Path(), kPage, kNow, &report, &why)) << why;
    SpaceStat space;
    EXPECT_TRUE(CollectSpace(Path(), 0, kNow, &space, &why)) << why;
    LocateKey(Path(), "user-2", kPage);
    LocateKey(Path(), std::string(65535, 'x'), kPage);
    for (const auto& [name, bytes] : files_) {
      const auto file = ReadOnlyFile::Open(scratch_.PathOf(name), &why);
      CountingSink sink;
      ASSERT_TRUE(DumpFile(*file, DetectFileKind(*file), kPage, &sink));
      EXPECT_EQ(sink.size, bytes.size()) << name;
    }
  }

  // Makes the checksums of all headers right again, as far as they can be found.
  std::string Sealed(const std::string& name, std::string bytes) {
    if (name == "wal_v5") {
      Reseal(&bytes, 0, 16);
      for (const size_t record : {size_t{128}, size_t{184}}) Reseal(&bytes, record, record + 36);
    } else if (name == "manifest_v5") {
      Reseal(&bytes, 0, 20);
      Reseal(&bytes, 128, 128 + 52);
    } else if (name == block_) {
      Reseal(&bytes, 0, 12);
      for (const size_t section : {size_t{128}, size_t{4096}, size_t{8192}})
        Reseal(&bytes, section, section + 24);
      for (size_t i = 0; i < 3; ++i) Reseal(&bytes, 8220 + 48 * i, 8220 + 48 * i + 40);
    }
    return bytes;
  }
};

TEST_F(HostileFilesTest, EachNumberSetToItsExtremes) {
  const struct {
    std::string name;
    std::vector<size_t> offsets;
  } rows[] = {
      {"wal_v5", {12, 128, 132, 144, 152, 160, 184, 188, 216}},
      {"manifest_v5", {12, 16, 128, 156, 176}},
      {block_, {148, 4116, 8212, 8220, 8224, 8236, 8244, 8252, 8256, 8268, 8272, 8300, 8304}},
  };
  for (const auto& row : rows) {
    const std::string good = Bytes(row.name);
    for (const size_t offset : row.offsets) {
      for (const uint32_t number :
           {0u, 1u, 27u, 28u, 29u, 127u, 0xFFFFu, 0x7FFFFFFFu, 0x80000000u, 0xFFFFFFD7u, 0xFFFFFFFFu}) {
        std::string bytes = good;
        Set32(&bytes, offset, number);
        Put(row.name, Sealed(row.name, bytes));
        SCOPED_TRACE(row.name + " " + std::to_string(offset) + " " + std::to_string(number));
        LookAtEverything();
      }
    }
    Put(row.name, good);
  }
}

TEST_F(HostileFilesTest, RandomNumbersUnderRightChecksums) {
  std::mt19937_64 random = TestRandom(0);
  const uint64_t rounds = TestSize(400, 20000);
  const std::map<std::string, std::string> good = files_;
  for (uint64_t i = 0; i < rounds; ++i) {
    for (const auto& [name, bytes] : good) {
      std::string changed = bytes;
      for (int j = 0; j < 3; ++j) {
        const size_t start = name == block_ && random() % 2 == 0 ? 8192 : 0;
        const size_t reach = std::min<size_t>(changed.size() - start, 260);
        changed[start + random() % reach] = static_cast<char>(random());
      }
      if (random() % 8 == 0) changed.resize(random() % (changed.size() + 1));
      if (changed.size() == bytes.size()) changed = Sealed(name, changed);
      Put(name, changed);
    }
    SCOPED_TRACE("seed " + std::to_string(TestSeed()) + " round " + std::to_string(i));
    LookAtEverything();
    if (HasFailure()) return;
  }
}

TEST_F(HostileFilesTest, DirectoriesAndPipesUnderTheNamesOfFiles) {
  Remove("wal_v5");
  Remove(block_);
  files_.erase("wal_v5");
  files_.erase(block_);
  ASSERT_EQ(mkdir(scratch_.PathOf("wal_v5").c_str(), 0700), 0);
  ASSERT_EQ(mkfifo(scratch_.PathOf(block_).c_str(), 0600), 0);
  LookAtEverything();
  VerifyReport report;
  std::string why;
  EXPECT_TRUE(VerifyStore(Path(), kPage, kNow, &report, &why));
  EXPECT_EQ(report.damages, 2u);
}

}  // namespace
}  // namespace Kestrun::Inspect
