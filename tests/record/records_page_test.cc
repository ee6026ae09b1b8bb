// The bytes shown in docs/internals/format/record.md are those that a series stores.
#include <gtest/gtest.h>

#include <cstdlib>
#include <memory>
#include <string>

#include "kestrun/kestrun.h"
#include "tests/support/doc_hex.h"
#include "tests/support/file_bytes.h"
#include "tests/support/scratch_directory.h"

namespace Kestrun {
namespace {

using Testing::ReadDocHex;
using Testing::ReadFile;
using Testing::ScratchDirectory;
using Testing::ToHexBlock;

TEST(RecordsPageTest, TheRecordAndItsTypeAreThoseOfTheExample) {
  const ScratchDirectory directory;
  const std::string path = directory.PathOf("weather");
  Series* opened = nullptr;
  ASSERT_EQ(Series::Open(path, {64 * 1024, 0}, &opened), kStatusOk);
  const std::unique_ptr<Series> series(opened);
  ASSERT_EQ(series->AppendRecord("seattle-2012-01-01", 86400, "Weather date:%s,precipitation:%d,temp_max:%d",
                                 "2012-01-01", 0.0, 12.8),
            kStatusOk);
  EXPECT_EQ(ToHexBlock(ReadDocHex(KESTRUN_RECORDS_PAGE, "weather-types")),
            ToHexBlock(ReadFile(path + "/meta_v5")));

  LSDBImpl* openedEngine = nullptr;
  ASSERT_EQ(LSDBImpl::Open(path, {64 * 1024, 0}, &openedEngine), kStatusOk);
  const std::unique_ptr<LSDBImpl> engine(openedEngine);
  const void* value = nullptr;
  unsigned int size = 0;
  ASSERT_EQ(engine->Get("seattle-2012-01-01", &value, &size), kStatusOk);
  const std::string stored(static_cast<const char*>(value), size);
  std::free(const_cast<void*>(value));
  EXPECT_EQ(ToHexBlock(ReadDocHex(KESTRUN_RECORDS_PAGE, "weather-record")), ToHexBlock(stored));
}

}  // namespace
}  // namespace Kestrun
