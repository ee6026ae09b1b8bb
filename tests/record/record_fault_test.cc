// What becomes of record types and records when the system or the allocator fails.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <filesystem>
#include <memory>
#include <string>
#include <vector>

#include "kestrun/kestrun.h"
#include "record/schema.h"
#include "tests/record/faults.h"
#include "tests/support/captured_stdout.h"
#include "tests/support/file_bytes.h"
#include "tests/support/scratch_directory.h"

namespace Kestrun {
namespace {

using Testing::CapturedStdout;
using Testing::CurrentFaults;
using Testing::Faults;
using Testing::ReadFile;
using Testing::ResetFaults;
using Testing::ScratchDirectory;
using Testing::WriteFile;

using Lines = std::vector<std::string>;

class SchemaFaultTest : public testing::Test {
 protected:
  SchemaFaultTest() : path_(directory_.PathOf("meta_v5")), faults_(CurrentFaults()) { ResetFaults(); }
  ~SchemaFaultTest() override { ResetFaults(); }

  std::unique_ptr<Schema> Open() {
    Schema* schema = nullptr;
    EXPECT_EQ(Schema::Open(path_, &schema), kStatusOk);
    return std::unique_ptr<Schema>(schema);
  }

  // The last part of the directory's path.
  std::string DirectoryName() const { return std::filesystem::path(directory_.Path()).filename().string(); }

  // Three lines over more than two kilobytes, which take several reads.
  std::string ThreeLines() const {
    const std::string filler(900, 'n');
    return "1#T " + filler + ":%i4\n2#U " + filler + ":%i4\n3#V " + filler + ":%i4\n";
  }

  ScratchDirectory directory_;
  std::string path_;
  Faults& faults_;
};

// The file is read twice, with three reads that give something and one that finds the end.
TEST_F(SchemaFaultTest, ReadErrorBeforeTheCreationByteIsHadDoesNoHarm) {
  for (int read = 1; read <= 4; ++read) {
    WriteFile(path_, ThreeLines());
    const auto schema = Open();
    faults_.failRead = read;
    faults_.error = EIO;
    const RecordMeta* meta = schema->GetOrCreateRecordMeta("W a:%i4");
    EXPECT_EQ(faults_.failRead, 0);
    ASSERT_NE(meta, nullptr) << read;
    EXPECT_EQ(meta->id, 4) << read;
    EXPECT_EQ(ReadFile(path_), ThreeLines() + "4#W a:%i4\n") << read;
  }
}

TEST_F(SchemaFaultTest, NoTypeIsMadeUnlessTheFileWasReadToItsEnd) {
  for (int read = 5; read <= 8; ++read) {
    WriteFile(path_, ThreeLines());
    const auto schema = Open();
    faults_.failRead = read;
    faults_.error = EIO;
    EXPECT_EQ(schema->GetOrCreateRecordMeta("W a:%i4"), nullptr) << read;
    EXPECT_EQ(faults_.failRead, 0);
    EXPECT_EQ(ReadFile(path_), ThreeLines()) << read;
    ASSERT_NE(schema->GetOrCreateRecordMeta("W a:%i4"), nullptr);
    EXPECT_EQ(schema->GetOrCreateRecordMeta("W a:%i4")->id, 4);
    EXPECT_EQ(ReadFile(path_), ThreeLines() + "4#W a:%i4\n");
  }
}

TEST_F(SchemaFaultTest, WhatWasReadBeforeAReadErrorCounts) {
  WriteFile(path_, ThreeLines());
  faults_.failRead = 2;
  faults_.error = EIO;
  const auto schema = Open();
  EXPECT_EQ(faults_.failRead, 0);
  // The first line is known, so this needs no further read.
  faults_.failRead = 1;
  EXPECT_NE(schema->FindRecordMeta(1), nullptr);
  EXPECT_EQ(faults_.failRead, 1);
  EXPECT_EQ(schema->FindRecordMeta(3), nullptr);
  EXPECT_NE(schema->FindRecordMeta(3), nullptr);
}

TEST_F(SchemaFaultTest, InterruptedAndShortReadsGoOn) {
  WriteFile(path_, ThreeLines());
  faults_.failRead = 2;
  faults_.error = EINTR;
  faults_.bytesPerRead = 7;
  const auto schema = Open();
  EXPECT_EQ(faults_.failRead, 0);
  faults_.failRead = 1;
  EXPECT_NE(schema->FindRecordMeta(3), nullptr);
  EXPECT_EQ(faults_.failRead, 1);
}

TEST_F(SchemaFaultTest, WithoutReachingTheStartOfTheFileNothingIsReadOrMade) {
  WriteFile(path_, "1#T a:%i4\n");
  faults_.failSeek = 1;
  faults_.error = EIO;
  const auto schema = Open();
  faults_.failSeek = 1;
  EXPECT_FALSE(schema->Load());
  faults_.failSeek = 1;
  EXPECT_EQ(schema->FindRecordMeta(1), nullptr);
  faults_.failSeek = 2;
  EXPECT_EQ(schema->GetOrCreateRecordMeta("U a:%i4"), nullptr);
  EXPECT_EQ(ReadFile(path_), "1#T a:%i4\n");
  EXPECT_TRUE(schema->Load());
}

TEST_F(SchemaFaultTest, FileAndItsNameAreForcedToTheDiskBeforeATypeIsHandedOut) {
  const auto schema = Open();
  EXPECT_EQ(faults_.syncs, (Lines{DirectoryName()}));
  faults_.syncs.clear();
  EXPECT_NE(schema->GetOrCreateRecordMeta("T a:%i4"), nullptr);
  EXPECT_EQ(faults_.syncs, (Lines{"meta_v5", DirectoryName()}));
  faults_.syncs.clear();
  EXPECT_NE(schema->GetOrCreateRecordMeta("U a:%i4"), nullptr);
  EXPECT_EQ(faults_.syncs, (Lines{"meta_v5"}));
  faults_.syncs.clear();
  EXPECT_NE(schema->GetOrCreateRecordMeta("U a:%i4"), nullptr);
  EXPECT_NE(Open()->FindRecordMeta(2), nullptr);
  EXPECT_EQ(faults_.syncs, Lines());
}

TEST_F(SchemaFaultTest, TypeIsHandedOutOnlyOnceItsLineIsOnTheDisk) {
  const auto schema = Open();
  faults_.error = EIO;
  faults_.failSync = 1;
  EXPECT_EQ(schema->GetOrCreateRecordMeta("T a:%i4"), nullptr);
  // The line stays: another process may have read it and stored records with its number.
  EXPECT_EQ(ReadFile(path_), "1#T a:%i4\n");
  faults_.failSync = 1;
  EXPECT_EQ(schema->GetOrCreateRecordMeta("T a:%i4"), nullptr);

  faults_.syncs.clear();
  EXPECT_EQ(schema->GetOrCreateRecordMeta("T a:%i4")->id, 1);
  EXPECT_EQ(faults_.syncs, (Lines{"meta_v5", DirectoryName()}));
  EXPECT_EQ(ReadFile(path_), "1#T a:%i4\n");
}

TEST_F(SchemaFaultTest, FirstTypeIsNotHandedOutWhileTheNameOfTheFileMayBeLost) {
  const auto schema = Open();
  faults_.error = EIO;
  faults_.failSync = 2;
  EXPECT_EQ(schema->GetOrCreateRecordMeta("T a:%i4"), nullptr);
  EXPECT_EQ(faults_.failSync, 0);
  faults_.failSync = 2;
  EXPECT_EQ(schema->GetOrCreateRecordMeta("T a:%i4"), nullptr);
  EXPECT_EQ(schema->GetOrCreateRecordMeta("T a:%i4")->id, 1);
}

// Number, order and levels are what other programs on the same file see.
TEST_F(SchemaFaultTest, LocksAreTakenAsOthersExpectThem) {
  const auto schema = Open();
  EXPECT_EQ(faults_.locks, Lines());
  const Lines shared = {"read 40000000+200", "unlock 40000000+1"};
  const Lines creation = {"write 40000200+1", "unlock 40000200+1"};
  Lines making = shared;
  making.insert(making.end(), creation.begin(), creation.end());
  making.push_back("unlock 40000001+1ff");

  EXPECT_NE(schema->GetOrCreateRecordMeta("T a:%i4"), nullptr);
  EXPECT_EQ(faults_.locks, making);
  faults_.locks.clear();
  EXPECT_NE(schema->GetOrCreateRecordMeta("T a:%i4"), nullptr);
  EXPECT_NE(schema->FindRecordMeta(1), nullptr);
  EXPECT_EQ(faults_.locks, Lines());

  EXPECT_EQ(schema->FindRecordMeta(2), nullptr);
  EXPECT_EQ(faults_.locks, (Lines{"write 40000000+200", "unlock 40000000+200"}));
  faults_.locks.clear();

  WriteFile(path_, "1#T a:%i4\n2#U a:%i4\n");
  EXPECT_NE(schema->GetOrCreateRecordMeta("U a:%i4"), nullptr);
  EXPECT_EQ(faults_.locks, (Lines{"read 40000000+200", "unlock 40000000+1", "unlock 40000001+1ff"}));
}

// Between the first reading and the moment at which the byte is had, another process adds its type.
TEST_F(SchemaFaultTest, MakerReadsTheFileAgainOnceItHasTheCreationByte) {
  const auto schema = Open();
  faults_.onLock = [this](const struct flock& lock) {
    if (lock.l_start == 0x40000200 && lock.l_type == F_WRLCK) WriteFile(path_, "1#U a:%i4\n");
    return true;
  };
  EXPECT_EQ(schema->GetOrCreateRecordMeta("T a:%i4")->id, 2);
  EXPECT_EQ(ReadFile(path_), "1#U a:%i4\n2#T a:%i4\n");
}

TEST_F(SchemaFaultTest, MakerTakesOverTheTypeThatAnotherOneHasJustMade) {
  const auto schema = Open();
  faults_.onLock = [this](const struct flock& lock) {
    if (lock.l_start == 0x40000200 && lock.l_type == F_WRLCK) WriteFile(path_, "9#T a:%i4\n");
    return true;
  };
  EXPECT_EQ(schema->GetOrCreateRecordMeta("T a:%i4")->id, 9);
  EXPECT_EQ(ReadFile(path_), "9#T a:%i4\n");
}

TEST_F(SchemaFaultTest, MakerWaitsForTheCreationByte) {
  const auto schema = Open();
  int refusals = 0;
  faults_.onLock = [&refusals](const struct flock& lock) {
    return lock.l_start != 0x40000200 || ++refusals > 10;
  };
  EXPECT_EQ(schema->GetOrCreateRecordMeta("T a:%i4")->id, 1);
  EXPECT_EQ(faults_.locks.at(faults_.locks.size() - 2), "unlock 40000200+1");
}

TEST_F(SchemaFaultTest, NothingIsHeldOrHalfDoneWhenMemoryRunsOut) {
  const std::string text = "A type with a long text:%s";
  bool ranOut = true;
  for (int allocation = 1; ranOut; ++allocation) {
    path_ = directory_.PathOf("meta_v5-" + std::to_string(allocation));
    WriteFile(path_, "1#T a:%i4\n");
    const auto schema = Open();
    ranOut = false;
    faults_.failNew = allocation;
    try {
      EXPECT_NE(schema->GetOrCreateRecordMeta(text), nullptr);
    } catch (const std::bad_alloc&) {
      ranOut = true;
    }
    faults_.failNew = 0;
    ASSERT_FALSE(faults_.locks.empty());
    EXPECT_EQ(faults_.locks.back(), "unlock 40000001+1ff") << allocation;
    const std::string content = ReadFile(path_);
    EXPECT_TRUE(content == "1#T a:%i4\n" || content == "1#T a:%i4\n2#" + text + "\n") << content;

    const RecordMeta* meta = schema->GetOrCreateRecordMeta(text);
    ASSERT_NE(meta, nullptr) << allocation;
    EXPECT_EQ(meta->id, 2) << allocation;
    EXPECT_EQ(schema->FindRecordMeta(2), meta) << allocation;
    EXPECT_EQ(ReadFile(path_), "1#T a:%i4\n2#" + text + "\n") << allocation;
  }
}

class SeriesFaultTest : public testing::Test {
 protected:
  SeriesFaultTest() : path_(directory_.PathOf("store")), faults_(CurrentFaults()) { ResetFaults(); }
  ~SeriesFaultTest() override { ResetFaults(); }

  std::unique_ptr<Series> Open() {
    Series* series = nullptr;
    EXPECT_EQ(Series::Open(path_, {64 * 1024, 0}, &series), kStatusOk);
    return std::unique_ptr<Series>(series);
  }

  ScratchDirectory directory_;
  std::string path_;
  Faults& faults_;
};

TEST_F(SeriesFaultTest, RecordsOfUpTo64BytesAreEncodedWithoutAnAllocation) {
  const auto series = Open();
  const RecordMeta* meta = series->CreateRecordMeta("T a:%s");
  for (const size_t length : std::vector<size_t>{0, 57, 58, 59, 60}) {
    Record record(meta, {Value::StringValue(std::string(length, 'x'))});
    const int before = faults_.callocs;
    EXPECT_EQ(series->AppendRecord("k", 60, record), kStatusOk);
    EXPECT_EQ(faults_.callocs - before, record.Capacity() <= 64 ? 0 : 1) << record.Capacity();
  }
}

TEST_F(SeriesFaultTest, RecordThatCannotBeEncodedForWantOfMemoryIsNotStored) {
  const auto series = Open();
  const std::string text(100, 'x');
  CapturedStdout output;
  faults_.failCalloc = 1;
  EXPECT_EQ(series->AppendRecord("k", 60, "T a:%s", text.c_str()), kStatusNoMemory);
  EXPECT_EQ(output.Take(), "");
  EXPECT_FALSE(series->Contains("k"));
}

TEST_F(SeriesFaultTest, RecordWhoseBinaryNeedsAnotherBufferIsNotReadForWantOfMemory) {
  LSDBImpl* opened = nullptr;
  ASSERT_EQ(LSDBImpl::Open(path_, {64 * 1024, 0}, &opened), kStatusOk);
  const std::shared_ptr<LSDBImpl> engine(opened);
  WriteFile(path_ + "/meta_v5", "1#T a:*\n");
  const unsigned char bytes[] = {1, 0, 9};
  EXPECT_EQ(engine->Insert("k", 60, bytes, sizeof(bytes)), kStatusOk);

  const auto series = Open();
  Record* record = nullptr;
  faults_.failCalloc = 1;
  EXPECT_EQ(series->Get("k", &record), kStatusNoMemory);
  EXPECT_EQ(record, nullptr);
  EXPECT_EQ(series->Get("k", &record), kStatusOk);
  ASSERT_NE(record, nullptr);
  EXPECT_EQ(record->GetValue("a").binarySize, 9U);
  delete record;
}

// Every allocation in turn fails once. Nothing is thrown, and what is acknowledged is there.
TEST_F(SeriesFaultTest, RunningOutOfMemoryIsAStatusAnywhere) {
  constexpr char kFormat[] = "A type with a long text:%s,and:%s,three:%d,fields:%i4";
  int successes = 0;
  for (int allocation = 1; successes == 0; ++allocation) {
    CapturedStdout output;
    Series* opened = nullptr;
    faults_.failNew = allocation;
    const uint32_t status = Series::Open(path_, {64 * 1024, 0}, &opened);
    faults_.failNew = 0;
    if (status == kStatusOk) {
      ASSERT_NE(opened, nullptr);
      ++successes;
    } else {
      EXPECT_EQ(status, kStatusNoMemory) << allocation;
      EXPECT_EQ(opened, nullptr) << allocation;
    }
    delete opened;
  }

  const auto series = Open();
  const std::string text(200, 'x');
  for (int allocation = 1; successes == 1; ++allocation) {
    const Key key("a rather long key, number " + std::to_string(allocation));
    CapturedStdout output;
    faults_.failNew = allocation;
    const uint32_t status = series->AppendRecord(key, 60, kFormat, text.c_str(), "and", 0.5, 7);
    faults_.failNew = 0;
    EXPECT_EQ(output.Take(), "") << allocation;
    EXPECT_EQ(series->Contains(key), status == kStatusOk) << allocation;
    if (status == kStatusOk) {
      ++successes;
    } else {
      EXPECT_EQ(status, kStatusNoMemory) << allocation;
    }
  }

  EXPECT_EQ(series->AppendRecord("k", 60, kFormat, text.c_str(), "and", 0.5, 7), kStatusOk);
  for (int allocation = 1; successes == 2; ++allocation) {
    CapturedStdout output;
    Record* record = nullptr;
    faults_.failNew = allocation;
    const uint32_t status = series->Get("k", &record);
    faults_.failNew = 0;
    if (status == kStatusOk) {
      ASSERT_NE(record, nullptr);
      EXPECT_EQ(record->GetValue("with a long text").str, "");
      EXPECT_EQ(record->GetValue(0U).str, text);
      ++successes;
    } else {
      EXPECT_EQ(status, kStatusNoMemory) << allocation;
      EXPECT_EQ(record, nullptr);
    }
    delete record;
  }

  const std::string format = "Another type, made for this alone:%i4";
  for (int allocation = 1; successes == 3; ++allocation) {
    faults_.failNew = allocation;
    const RecordMeta* meta = series->CreateRecordMeta(format);
    faults_.failNew = 0;
    if (meta != nullptr) ++successes;
  }
}

// A line whose sync failed may be read again by a lookup; that does not make it safe.
TEST_F(SchemaFaultTest, TypeThatCouldNotBeSyncedIsNotHandedOutBecauseALookupHasReadIt) {
  const auto schema = Open();
  faults_.failSync = 1;
  faults_.error = EIO;
  EXPECT_EQ(schema->GetOrCreateRecordMeta("T a:%i4"), nullptr);
  EXPECT_NE(schema->FindRecordMeta(1), nullptr);
  faults_.failSync = 1;
  EXPECT_EQ(schema->GetOrCreateRecordMeta("T a:%i4"), nullptr);
  EXPECT_NE(schema->GetOrCreateRecordMeta("T a:%i4"), nullptr);
}

class RecordStoreFaultTest : public testing::Test {
 protected:
  RecordStoreFaultTest() : faults_(CurrentFaults()) {
    ResetFaults();
    StoreOptions options;
    options.autoCompact = false;  // faults are counted by one thread
    EXPECT_EQ(RecordStore::Open(directory_.PathOf("store"), options, &store_), kStatusOk);
  }
  ~RecordStoreFaultTest() override { ResetFaults(); }

  std::string TypesFile() const { return ReadFile(directory_.PathOf("store") + "/meta_v5"); }

  ScratchDirectory directory_;
  Faults& faults_;
  std::unique_ptr<RecordStore> store_;
};

TEST_F(RecordStoreFaultTest, NoTypeIsRecordedUnlessTheFileWasReadToItsEnd) {
  faults_.failRead = 1;
  faults_.error = EIO;
  EXPECT_EQ(store_->Put("k", "T a:%i4", Values(7)), kStatusOpenFailed);
  EXPECT_EQ(faults_.failRead, 0);
  EXPECT_EQ(TypesFile(), "");
  bool alive = true;
  EXPECT_EQ(store_->Raw().Contains("k", &alive), kStatusOk);
  EXPECT_FALSE(alive);
  EXPECT_EQ(store_->Put("k", "T a:%i4", Values(7)), kStatusOk);
}

TEST_F(RecordStoreFaultTest, RecordIsNotStoredBeforeItsTypeIsSynced) {
  for (int attempt = 0; attempt < 2; ++attempt) {
    faults_.failSync = 1;
    faults_.error = EIO;
    EXPECT_EQ(store_->Put("k", "T a:%i4", Values(7)), kStatusSyncFailed) << attempt;
    std::unique_ptr<Record> record;
    EXPECT_EQ(store_->Get("k", &record), kStatusOk);
    EXPECT_EQ(record, nullptr);
    // A lookup reads the file and with it the line that is not synced.
    EXPECT_EQ(store_->Types(), std::vector<std::string>{"T a:%i4"});
  }
  EXPECT_EQ(store_->Put("k", "T a:%i4", Values(7)), kStatusOk);
  EXPECT_EQ(TypesFile(), "1#T a:%i4\n");
}

TEST_F(RecordStoreFaultTest, UnknownTypeOfAFileThatCannotBeReadIsNotCalledUnknown) {
  std::unique_ptr<RecordStore> other;
  ASSERT_EQ(RecordStore::Open(directory_.PathOf("store"), {}, &other), kStatusOk);
  ASSERT_EQ(other->Put("k", "T a:%i4", Values(7)), kStatusOk);
  faults_.failRead = 1;
  faults_.error = EIO;
  std::unique_ptr<Record> record;
  EXPECT_EQ(store_->Get("k", &record), kStatusOpenFailed);
  EXPECT_EQ(record, nullptr);
  ASSERT_EQ(store_->Get("k", &record), kStatusOk);
  EXPECT_EQ(record->GetValue("a").numeric.i32, 7);
}

// Each allocation of a call fails once; the call is refused and has changed nothing, or succeeds.
TEST_F(RecordStoreFaultTest, CallsThatRunOutOfMemoryAreRefusedAndNothingIsThrown) {
  ASSERT_EQ(store_->Put("k", "T a:%s", Values("before")), kStatusOk);
  const std::string text(100, 'x');
  int refused = 0;
  for (int allocation = 1;; ++allocation) {
    const std::string type = "U a:%s";
    const std::vector<Value> values = Values(text);
    faults_.failNew = allocation;
    const uint32_t status = store_->Put("k", type, values);
    const bool failed = faults_.failNew == 0;
    faults_.failNew = 0;
    if (!failed) {
      EXPECT_EQ(status, kStatusOk);
      break;
    }
    if (status == kStatusOk) continue;
    EXPECT_EQ(status, kStatusNoMemory) << allocation;
    ++refused;
    std::unique_ptr<Record> record;
    ASSERT_EQ(store_->Get("k", &record), kStatusOk);
    ASSERT_NE(record, nullptr);
  }
  EXPECT_GT(refused, 5);
  for (int allocation = 1;; ++allocation) {
    std::unique_ptr<Record> record;
    faults_.failNew = allocation;
    const uint32_t status = store_->Get("k", &record);
    const bool failed = faults_.failNew == 0;
    faults_.failNew = 0;
    if (!failed) {
      EXPECT_EQ(status, kStatusOk);
      break;
    }
    EXPECT_TRUE(status == kStatusNoMemory || (status == kStatusOk && record != nullptr)) << allocation;
  }
}

}  // namespace
}  // namespace Kestrun
