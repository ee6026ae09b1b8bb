#include "storage/file_window.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <string>

#include "kestrun/status.h"
#include "tests/support/file_bytes.h"
#include "tests/support/process_maps.h"
#include "tests/support/scratch_directory.h"

namespace Kestrun {
namespace {

using Result = FileWindow::Result;
using Testing::ScratchDirectory;
using Testing::WriteFile;

class FileWindowTest : public testing::Test {
 protected:
  FileWindowTest() {
    for (int i = 0; i < 1000; ++i) bytes_ += static_cast<char>(i * 7);
    WriteFile(path_, bytes_);
    EXPECT_EQ(OsFile::Open(path_, kOpenReadOnly, &file_), kStatusOk);
  }

  // The bytes, or what the window says in place of them.
  static std::string View(FileWindow& window, uint64_t offset, size_t length) {
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

  const ScratchDirectory directory_;
  const std::string path_ = directory_.PathOf("file");
  std::string bytes_;
  std::shared_ptr<OsFile> file_;
};

TEST_F(FileWindowTest, ShowsAnyStretchWhateverItsCapacity) {
  for (const size_t capacity : {1, 7, 64, 1000, 5000}) {
    FileWindow window(file_, capacity);
    for (const uint64_t offset : {0, 1, 63, 64, 500, 3, 990, 999, 0}) {
      for (const size_t length : {0, 1, 2, 10, 100, 1}) {
        if (offset + length > 1000) continue;
        EXPECT_EQ(View(window, offset, length), bytes_.substr(offset, length)) << capacity << " " << offset;
      }
    }
    EXPECT_EQ(View(window, 0, 1000), bytes_);
  }
}

TEST_F(FileWindowTest, TellsThatTheFileEndsBeforeTheStretch) {
  FileWindow window(file_, 64);
  EXPECT_EQ(View(window, 999, 2), "<short>");
  EXPECT_EQ(View(window, 1000, 1), "<short>");
  EXPECT_EQ(View(window, 5000, 1), "<short>");
  EXPECT_EQ(View(window, 1000, 0), "");
  EXPECT_EQ(View(window, 999, 1), bytes_.substr(999)) << "and can still be used";
}

TEST_F(FileWindowTest, ReadsInPiecesOfItsCapacity) {
  FileWindow window(file_, 100);
  EXPECT_EQ(View(window, 0, 1), bytes_.substr(0, 1));
  WriteFile(path_, std::string(1000, 'x'));
  EXPECT_EQ(View(window, 10, 90), bytes_.substr(10, 90)) << "was read with the first byte";
  EXPECT_EQ(View(window, 10, 91), std::string(91, 'x'));
}

TEST_F(FileWindowTest, TellsThatTheSystemCouldNotReadAndTriesAgain) {
  FileWindow window(file_, 64);
  const int descriptor = Testing::DescriptorsOf(path_).at(0);
  const int kept = dup(descriptor);
  close(descriptor);
  EXPECT_EQ(View(window, 0, 1), "<failed>");
  ASSERT_EQ(dup2(kept, descriptor), descriptor);
  close(kept);
  EXPECT_EQ(View(window, 0, 1), bytes_.substr(0, 1));
}

TEST_F(FileWindowTest, AsksForItsFileWheneverItMoves) {
  int asked = 0;
  bool available = true;
  FileWindow window([&] { return ++asked, available ? file_ : nullptr; }, 100);
  EXPECT_EQ(View(window, 0, 50), bytes_.substr(0, 50));
  EXPECT_EQ(View(window, 50, 50), bytes_.substr(50, 50));
  EXPECT_EQ(asked, 1);
  available = false;
  EXPECT_EQ(View(window, 20, 10), bytes_.substr(20, 10));
  EXPECT_EQ(View(window, 100, 10), "<failed>");
  available = true;
  EXPECT_EQ(View(window, 100, 10), bytes_.substr(100, 10));
  EXPECT_EQ(asked, 3);
}

}  // namespace
}  // namespace Kestrun
