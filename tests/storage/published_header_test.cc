#include "storage/published_header.h"

#include <gtest/gtest.h>
#include <signal.h>
#include <sys/mman.h>
#include <unistd.h>

#include <cstring>
#include <string>

#include "base/page_size.h"
#include "tests/support/child_process.h"

namespace Kestrun {
namespace {

using Testing::ChildLink;
using Testing::ChildProcess;

TEST(PublishHeaderTest, StoresTheFieldsBehindTheMagicAndNothingElse) {
  const std::string image = "magic---used+sumreserved--behind";
  std::string header(image.size(), '.');
  StoreHeaderAtomically(reinterpret_cast<uint8_t*>(header.data()), image.data());
  EXPECT_EQ(header, "........used+sumreserved........");
}

TEST(PublishHeaderTest, OneFieldCanBeLookedAt) {
  alignas(4) const uint8_t field[4] = {0x78, 0x56, 0x34, 0x12};
  EXPECT_EQ(LoadHeaderField(field), 0x12345678u);
}

#if defined(__x86_64__)
void EndAtOnce(int) {
  _exit(42);
}

// A store that runs into a page that can't be written stores nothing there, as one that a kill prevents: if
// the fields were stored one by one, those before that page would have changed.
TEST(PublishHeaderTest, AllFieldsAreStoredAtOnce) {
  const auto page = static_cast<size_t>(PageSize());
  for (size_t inFirstPage = 1; inFirstPage < 16; ++inFirstPage) {
    auto* pages = static_cast<uint8_t*>(
        mmap(nullptr, 2 * page, PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0));
    ASSERT_NE(pages, MAP_FAILED);
    std::memset(pages, '.', 2 * page);
    uint8_t* const header = pages + page - 8 - inFirstPage;
    ChildProcess child([&](ChildLink&) {
      struct sigaction end = {};
      end.sa_handler = EndAtOnce;
      if (sigaction(SIGSEGV, &end, nullptr) != 0 || mprotect(pages + page, page, PROT_READ) != 0) return 1;
      StoreHeaderAtomically(header, "magic---used+sumreserved");
      return 2;
    });
    EXPECT_EQ(child.Wait(), 42);
    EXPECT_EQ(std::string(reinterpret_cast<char*>(header), 24), std::string(24, '.')) << inFirstPage;
    munmap(pages, 2 * page);
  }
}
#endif

}  // namespace
}  // namespace Kestrun
