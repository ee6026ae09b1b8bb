#include "kestrun/status.h"

#include <gtest/gtest.h>

#include <set>
#include <string>

namespace Kestrun {
namespace {

struct Row {
  uint32_t status;
  uint32_t number;
  const char* name;
};

#define KESTRUN_STATUS(name, number) \
  { name, number, #name }
constexpr Row kRows[] = {
    KESTRUN_STATUS(kStatusOk, 0x0),
    KESTRUN_STATUS(kStatusInvalid, 0x2),
    KESTRUN_STATUS(kStatusOpenFailed, 0x3),
    KESTRUN_STATUS(kStatusNotAStore, 0x4),
    KESTRUN_STATUS(kStatusStoreMissing, 0x5),
    KESTRUN_STATUS(kStatusStoreExists, 0x6),
    KESTRUN_STATUS(kStatusNoPermission, 0x7),
    KESTRUN_STATUS(kStatusManifestUnreadable, 0x102),
    KESTRUN_STATUS(kStatusBlockShortRead, 0x103),
    KESTRUN_STATUS(kStatusRecordTypeUnknown, 0x202),
    KESTRUN_STATUS(kStatusWalOpenFailed, 0x302),
    KESTRUN_STATUS(kStatusCreateFailed, 0x303),
    KESTRUN_STATUS(kStatusSyncFailed, 0x403),
    KESTRUN_STATUS(kStatusManifestWriteFailed, 0x502),
    KESTRUN_STATUS(kStatusStatFailed, 0x703),
    KESTRUN_STATUS(kStatusBlockWriteFailed, 0x802),
    KESTRUN_STATUS(kStatusWalChecksum, 0xB02),
    KESTRUN_STATUS(kStatusBlockCorrupt, 0xC02),
    KESTRUN_STATUS(kStatusNoMemory, 0xC03),
    KESTRUN_STATUS(kStatusWalFull, 0xD02),
    KESTRUN_STATUS(kStatusBadMagic, 0xE02),
    KESTRUN_STATUS(kStatusManifestChecksum, 0xF02),
    KESTRUN_STATUS(kStatusLockFailed, 0xF03),
    KESTRUN_STATUS(kStatusExpired, 0x1002),
    KESTRUN_STATUS(kStatusDirectoryFailed, 0x1103),
    KESTRUN_STATUS(kStatusMapFailed, 0x1203),
    KESTRUN_STATUS(kStatusTruncateFailed, 0x1303),
    KESTRUN_STATUS(kStatusSeekFailed, 0x1403),
};
#undef KESTRUN_STATUS

TEST(StatusTest, EveryStatusHasItsNumberItsNameAndOneLineOfText) {
  std::set<std::string> texts;
  for (const Row& row : kRows) {
    EXPECT_EQ(row.status, row.number) << row.name;
    EXPECT_STREQ(StatusName(row.number), row.name);
    const std::string text = StatusText(row.number);
    EXPECT_FALSE(text.empty()) << row.name;
    EXPECT_NE(text, "unknown status") << row.name;
    EXPECT_EQ(text.find('\n'), std::string::npos) << row.name;
    EXPECT_TRUE(texts.insert(text).second) << row.name << " says the same as another status";
  }
}

TEST(StatusTest, NoOtherNumberHasAName) {
  std::set<uint32_t> known;
  for (const Row& row : kRows) known.insert(row.number);
  for (uint32_t number = 0; number < 0x10000; ++number) {
    if (known.count(number) != 0) continue;
    ASSERT_STREQ(StatusName(number), "unknown") << number;
    ASSERT_STREQ(StatusText(number), "unknown status") << number;
  }
  EXPECT_STREQ(StatusText(0xFFFFFFFF), "unknown status");
}

}  // namespace
}  // namespace Kestrun
