// What becomes of a manifest whose entries were being replaced when the process that did it was killed.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <unistd.h>

#include <memory>
#include <string>
#include <vector>

#include "kestrun/status.h"
#include "storage/manifest.h"
#include "tests/support/child_process.h"
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

// A side file that was not read was taken for one that says nothing, and removed: what was left was a
// manifest that nobody could open any more.
TEST_F(InterruptedReplacement, IsKeptWhileItsSideFileCanNotBeRead) {
  Testing::ChildProcess process([this](Testing::ChildLink&) {
    const int next = open("/dev/null", O_RDONLY);
    const rlimit forTheManifestAlone = {static_cast<rlim_t>(next) + 2, static_cast<rlim_t>(next) + 2};
    if (setrlimit(RLIMIT_NOFILE, &forTheManifestAlone) != 0) return 1;
    Manifest* manifest = nullptr;
    return Manifest::Open(path_, &manifest) == kStatusManifestUnreadable ? 0 : 2;
  });
  EXPECT_EQ(process.Wait(), 0);
  EXPECT_EQ(access((path_ + ".next").c_str(), F_OK), 0);
  EXPECT_EQ(NamesAfterOpening(path_), std::vector<std::string>{Name('C')});
}

// A side file that could not be removed came into force when the next block recorded brought the manifest to
// the generation that it was written for.
TEST(StaleReplacement, IsDroppedWhereABlockWasRecordedBehindTheEntriesThatItWasToReplace) {
  const ScratchDirectory directory;
  const std::string path = directory.PathOf("manifest_v5");
  ManifestImage manifest;
  manifest.Append(Name('A'), std::string(20, '\5'));
  manifest.Append(Name('B'), std::string(30, '\5'));
  const std::string old = manifest.Entries();
  manifest.Append(Name('D'), std::string(9, '\5'));
  WriteFile(path, manifest.Bytes());
  WriteFile(path + ".next",
            Testing::SideFileBytes(3, old, Testing::ManifestEntryBytes(Name('C'), std::string(25, '\5'))));

  EXPECT_EQ(NamesAfterOpening(path), (std::vector<std::string>{Name('A'), Name('B'), Name('D')}));
  EXPECT_NE(access((path + ".next").c_str(), F_OK), 0);
}

}  // namespace
}  // namespace Kestrun
