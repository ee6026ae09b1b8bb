// Many threads on one schema and one series.
#include <gtest/gtest.h>

#include <atomic>
#include <memory>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "kestrun/kestrun.h"
#include "record/record_meta_index.h"
#include "record/schema.h"
#include "tests/support/scratch_directory.h"

namespace Kestrun {
namespace {

using Testing::ScratchDirectory;

constexpr int kThreads = 4;
constexpr int kTypes = 50;

std::string TextOf(int number) {
  return "T f" + std::to_string(number) + ":%i4";
}

// Runs `body` in several threads, all at once, with the numbers 0, 1, ...
template <typename Body>
void RunThreads(int count, const Body& body) {
  std::atomic<int> waiting = count;
  std::vector<std::thread> threads;
  for (int number = 0; number < count; ++number) {
    threads.emplace_back([&, number] {
      --waiting;
      while (waiting != 0) std::this_thread::yield();
      body(number);
    });
  }
  for (std::thread& thread : threads) thread.join();
}

TEST(RecordMetaIndexThreads, ReadersSeeEveryEntryFromTheMomentItIsThere) {
  constexpr int kEntries = 5000;
  RecordMetaIndex<std::string> index;
  RecordMeta first(1, "", "", {});
  RecordMeta second(2, "", "", {});
  std::atomic<int> entered = 0;
  std::atomic<int> wrong = 0;
  RunThreads(kThreads, [&](int thread) {
    if (thread == 0) {
      for (int i = 0; i < kEntries; ++i) {
        index.Assign(std::to_string(i), &first);
        index.Assign(std::to_string(i / 2), &second);
        entered = i + 1;
      }
      return;
    }
    for (int seen = 0; seen < kEntries;) {
      const int now = entered;
      for (; seen < now; ++seen) {
        const RecordMeta* meta = index.Find(std::to_string(seen));
        if (meta != &first && meta != &second) ++wrong;
      }
      if (index.Find("missing") != nullptr) ++wrong;
    }
  });
  EXPECT_EQ(wrong, 0);
  EXPECT_EQ(index.Count(), static_cast<size_t>(kEntries));
  EXPECT_EQ(index.Find("0"), &second);
  EXPECT_EQ(index.Find(std::to_string(kEntries - 1)), &first);
}

TEST(SchemaThreads, TypesAreMadeOnceAndFoundWhileOthersAreMade) {
  const ScratchDirectory directory;
  Schema* opened = nullptr;
  ASSERT_EQ(Schema::Open(directory.PathOf("meta_v5"), &opened), kStatusOk);
  const std::unique_ptr<Schema> schema(opened);

  std::vector<std::vector<RecordMeta*>> seen(kThreads);
  RunThreads(kThreads, [&](int thread) {
    for (int i = 0; i < kTypes; ++i) {
      seen[static_cast<size_t>(thread)].push_back(schema->GetOrCreateRecordMeta(TextOf(i)));
      schema->FindRecordMeta(static_cast<uint16_t>(i + 1));
    }
  });

  std::set<unsigned short> numbers;
  for (int i = 0; i < kTypes; ++i) {
    const auto place = static_cast<size_t>(i);
    RecordMeta* meta = seen[0][place];
    ASSERT_NE(meta, nullptr);
    EXPECT_EQ(meta->text, TextOf(i));
    EXPECT_EQ(schema->FindRecordMeta(meta->id), meta);
    numbers.insert(meta->id);
    for (const auto& ofThread : seen) EXPECT_EQ(ofThread[place], meta);
  }
  EXPECT_EQ(numbers.size(), static_cast<size_t>(kTypes));
  EXPECT_EQ(*numbers.begin(), 1);
  EXPECT_EQ(*numbers.rbegin(), kTypes);
}

TEST(SchemaThreads, HandlesOfOneFileNumberTheirTypesTogether) {
  const ScratchDirectory directory;
  std::vector<std::unique_ptr<Schema>> schemas;
  for (int i = 0; i < kThreads; ++i) {
    Schema* opened = nullptr;
    ASSERT_EQ(Schema::Open(directory.PathOf("meta_v5"), &opened), kStatusOk);
    schemas.emplace_back(opened);
  }
  RunThreads(kThreads, [&](int thread) {
    for (int i = 0; i < kTypes; ++i) {
      schemas[static_cast<size_t>(thread)]->GetOrCreateRecordMeta(TextOf(i + thread * 10));
    }
  });

  constexpr int kAll = kTypes + (kThreads - 1) * 10;
  std::set<unsigned short> numbers;
  for (int i = 0; i < kAll; ++i) {
    const RecordMeta* meta = schemas[0]->GetOrCreateRecordMeta(TextOf(i));
    numbers.insert(meta->id);
    for (const auto& schema : schemas) EXPECT_EQ(schema->GetOrCreateRecordMeta(TextOf(i)), meta);
  }
  EXPECT_EQ(numbers.size(), static_cast<size_t>(kAll));
}

TEST(SeriesThreads, RecordsOfNewTypesAreWrittenAndReadAllAtOnce) {
  const ScratchDirectory directory;
  Series* opened = nullptr;
  ASSERT_EQ(Series::Open(directory.PathOf("store"), {16 * 1024, 0}, &opened), kStatusOk);
  const std::unique_ptr<Series> series(opened);

  std::atomic<int> wrong = 0;
  RunThreads(kThreads, [&](int thread) {
    for (int i = 0; i < kTypes; ++i) {
      const std::string key = std::to_string(thread) + "-" + std::to_string(i);
      if (series->AppendRecord(key, 600, TextOf(i).c_str(), i) != kStatusOk) ++wrong;
      Record* found = nullptr;
      if (series->Get(key, &found) != kStatusOk || found == nullptr) {
        ++wrong;
        continue;
      }
      const std::unique_ptr<Record> record(found);
      if (record->GetValue("f" + std::to_string(i)).numeric.i32 != i) ++wrong;
    }
  });
  EXPECT_EQ(wrong, 0);
}

}  // namespace
}  // namespace Kestrun
