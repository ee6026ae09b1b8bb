#include "format/byte_window.h"

#include <gtest/gtest.h>

#include <string>

namespace Kestrun {
namespace {

using Result = ByteWindow::Result;

// Bytes in memory that can't be read while `isBroken`.
class BreakableSource final : public ByteSource {
 public:
  explicit BreakableSource(const std::string& bytes) : bytes_(bytes) {}
  ssize_t ReadAt(uint64_t offset, void* buffer, size_t length) override {
    ++reads;
    return isBroken ? -1 : MemorySource(bytes_.data(), bytes_.size()).ReadAt(offset, buffer, length);
  }
  bool Size(uint64_t* size) override {
    *size = bytes_.size();
    return !isBroken;
  }

  bool isBroken = false;
  int reads = 0;

 private:
  const std::string& bytes_;
};

class ByteWindowTest : public testing::Test {
 protected:
  ByteWindowTest() {
    for (int i = 0; i < 1000; ++i) bytes_ += static_cast<char>(i * 7);
  }

  // The bytes, or what the window says in place of them.
  static std::string View(ByteWindow& window, uint64_t offset, size_t length) {
    const uint8_t* bytes = nullptr;
    switch (window.View(offset, length, &bytes)) {
      case Result::Ok:
        return std::string(reinterpret_cast<const char*>(bytes), length);
      case Result::Short:
        return "<short>";
      case Result::Failed:
        break;
    }
    return "<failed>";
  }

  std::string bytes_;
  BreakableSource source_{bytes_};
};

TEST_F(ByteWindowTest, ShowsAnyStretchWhateverItsCapacity) {
  for (const size_t capacity : {1, 7, 64, 1000, 5000}) {
    ByteWindow window(source_, capacity);
    for (const uint64_t offset : {0, 1, 63, 64, 500, 3, 990, 999, 0}) {
      for (const size_t length : {0, 1, 2, 10, 100, 1}) {
        if (offset + length > 1000) continue;
        EXPECT_EQ(View(window, offset, length), bytes_.substr(offset, length)) << capacity << " " << offset;
      }
    }
    EXPECT_EQ(View(window, 0, 1000), bytes_);
  }
}

TEST_F(ByteWindowTest, TellsThatTheSourceEndsBeforeTheStretch) {
  ByteWindow window(source_, 64);
  EXPECT_EQ(View(window, 999, 2), "<short>");
  EXPECT_EQ(View(window, 1000, 1), "<short>");
  EXPECT_EQ(View(window, 5000, 1), "<short>");
  EXPECT_EQ(View(window, 1000, 0), "");
  EXPECT_EQ(View(window, 999, 1), bytes_.substr(999)) << "and can still be used";
}

TEST_F(ByteWindowTest, ReadsInPiecesOfItsCapacity) {
  const std::string before = bytes_;
  ByteWindow window(source_, 100);
  EXPECT_EQ(View(window, 0, 1), before.substr(0, 1));
  bytes_.assign(1000, 'x');
  EXPECT_EQ(View(window, 10, 90), before.substr(10, 90)) << "was read with the first byte";
  EXPECT_EQ(View(window, 10, 91), std::string(91, 'x'));
  EXPECT_EQ(source_.reads, 2);
}

TEST_F(ByteWindowTest, ALimitKeepsItFromReadingFurther) {
  ByteWindow window(source_, 100);
  window.LimitTo(10);
  EXPECT_EQ(View(window, 0, 10), bytes_.substr(0, 10));
  EXPECT_EQ(source_.reads, 1);
  EXPECT_EQ(View(window, 10, 1), bytes_.substr(10, 1));
  EXPECT_EQ(source_.reads, 2);
}

TEST_F(ByteWindowTest, TellsThatTheSourceCouldNotBeReadAndTriesAgain) {
  ByteWindow window(source_, 64);
  source_.isBroken = true;
  EXPECT_EQ(View(window, 0, 1), "<failed>");
  source_.isBroken = false;
  EXPECT_EQ(View(window, 0, 1), bytes_.substr(0, 1));
}

TEST_F(ByteWindowTest, ReleasedItReadsAgain) {
  ByteWindow window(source_, 64);
  EXPECT_EQ(View(window, 0, 1), bytes_.substr(0, 1));
  window.Release();
  EXPECT_EQ(View(window, 0, 1), bytes_.substr(0, 1));
  EXPECT_EQ(source_.reads, 2);
}

// Copying says less than a view: whether all of the bytes are there.
TEST_F(ByteWindowTest, CopiesBytesOrSaysThatTheyAreNotThere) {
  ByteWindow window(source_, 64);
  std::string copied(100, '\0');
  EXPECT_TRUE(window.Copy(500, copied.data(), copied.size()));
  EXPECT_EQ(copied, bytes_.substr(500, 100));
  EXPECT_FALSE(window.Copy(950, copied.data(), copied.size()));
  source_.isBroken = true;
  EXPECT_FALSE(window.Copy(0, copied.data(), 1));
  EXPECT_TRUE(window.Copy(0, nullptr, 0)) << "no bytes are always there";
}

}  // namespace
}  // namespace Kestrun
