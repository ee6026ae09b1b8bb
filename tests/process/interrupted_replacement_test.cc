// What becomes of a manifest whose entries were being replaced when the process that did it was killed.
#include <gtest/gtest.h>
#include <unistd.h>

#include <memory>
#include <string>
#include <vector>

#include "storage/manifest.h"
#include "tests/support/file_bytes.h"
#include "tests/support/manifest_image.h"
#include "tests/support/scratch_directory.h"

namespace Kestrun {
namespace {

using Testing::ManifestImage;
using Testing::ReadFile;
using Testing::ScratchDirectory;
using Testing::WriteFile;

std::string Name(char letter) {
  return std::string(31, letter);
}

std::vector<std::string> NamesAfterOpening(const std::string& path) {
  Manifest* opened = nullptr;
  if (Manifest::Open(path, &opened) != 0) return {"not opened"};
  const std::unique_ptr<Manifest> manifest(opened);
  std::vector<std::string> names;
  for (const auto& entry : manifest->Entries()) names.push_back(entry->name);
  return names;
}

// The kill came between the new entries and the cut behind them: the old ones' tail is still there.
class InterruptedReplacement : public testing::Test {
 protected:
  InterruptedReplacement() {
    ManifestImage old;
    old.Append(Name('A'), std::string(20, '\5'));
    old.Append(Name('B'), std::string(30, '\5'));
    const std::string merged = Testing::ManifestEntryBytes(Name('C'), std::string(25, '\5'));
    WriteFile(path_ + ".next", Testing::SideFileBytes(3, old.Entries(), merged));
    WriteFile(path_, old.Bytes().substr(0, 128) + merged + old.Entries().substr(merged.size()));
  }

  ScratchDirectory directory_;
  const std::string path_ = directory_.PathOf("manifest_v5");
};

// The process that opened such a manifest took the generation that it had published itself for that of its
// list, which was empty: the store read as empty, and the next block recorded took the place of all others.
TEST_F(InterruptedReplacement, IsFinishedByTheNextOpeningWhichListsTheNewEntries) {
  EXPECT_EQ(NamesAfterOpening(path_), std::vector<std::string>{Name('C')});
  EXPECT_NE(access((path_ + ".next").c_str(), F_OK), 0);
}

TEST_F(InterruptedReplacement, IsFollowedByTheNextBlockRecorded) {
  Manifest* opened = nullptr;
  ASSERT_EQ(Manifest::Open(path_, &opened), 0u);
  const std::unique_ptr<Manifest> manifest(opened);
  const FileLockGuard lock(manifest->File(), LockLevel::Exclusive);
  EXPECT_EQ(manifest->Append(Name('D'), std::vector<uint8_t>(9, 5)), 0u);

  const ScratchDirectory elsewhere;
  WriteFile(elsewhere.PathOf("manifest_v5"), ReadFile(path_));
  EXPECT_EQ(NamesAfterOpening(elsewhere.PathOf("manifest_v5")),
            (std::vector<std::string>{Name('C'), Name('D')}));
}

}  // namespace
}  // namespace Kestrun
