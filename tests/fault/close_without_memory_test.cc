// Closing a descriptor of a file drops the locks that the process has on it. A lack of memory is no reason to
// do that while another thread holds them.
#include <gtest/gtest.h>

#include <cerrno>
#include <future>
#include <new>
#include <thread>

#include "kestrun/status.h"
#include "storage/os_file.h"
#include "tests/fault/fault_injection.h"
#include "tests/support/byte_locks.h"
#include "tests/support/process_maps.h"
#include "tests/support/scratch_directory.h"

namespace Kestrun::Testing {
namespace {

// A thread that holds the file locked for writing until the end of the scope.
class HoldingThread {
 public:
  explicit HoldingThread(std::shared_ptr<OsFile> file) {
    thread_ = std::thread([this, file = std::move(file)] {
      const FileLockGuard guard(file, LockLevel::Exclusive);
      status_.set_value(guard.Status());
      done_.get_future().wait();
    });
    EXPECT_EQ(status_.get_future().get(), kStatusOk);
  }
  ~HoldingThread() {
    done_.set_value();
    thread_.join();
  }
  HoldingThread(const HoldingThread&) = delete;
  HoldingThread& operator=(const HoldingThread&) = delete;

 private:
  std::promise<uint32_t> status_;
  std::promise<void> done_;
  std::thread thread_;
};

TEST(CloseWithoutMemoryTest, AnOpeningThatRunsOutOfMemoryDropsNoLockOfAnotherThread) {
  const ScratchDirectory directory;
  const std::string path = directory.PathOf("a file whose path is too long to be stored in a string itself");
  std::shared_ptr<OsFile> held;
  ASSERT_EQ(OsFile::Open(path, kOpenReadWrite, &held), kStatusOk);
  const size_t descriptors = DescriptorsOf(path).size();
  int failures = 0;
  {
    const HoldingThread holder(held);
    for (bool opened = false; !opened;) {
      FaultPlan plan;
      plan.fault = Fault::Allocate;
      plan.first = failures + 1;
      plan.last = failures + 1;
      plan.error = ENOMEM;
      SetFaultPlan(plan);
      std::shared_ptr<OsFile> file;
      ArmFaults(true);
      try {
        opened = OsFile::Open(path, kOpenReadWrite, &file) == kStatusOk;
      } catch (const std::bad_alloc&) {
        ++failures;
      }
      ArmFaults(false);
      ASSERT_EQ(LocksOnFile(path), "write 40000000+200") << "after " << failures << " failures";
    }
    EXPECT_GE(failures, 3);
  }
  EXPECT_EQ(DescriptorsOf(path).size(), descriptors);
}

}  // namespace
}  // namespace Kestrun::Testing
