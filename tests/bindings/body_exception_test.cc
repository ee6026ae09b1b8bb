// What a C++ body of kestrun_transact throws ends in the C face, and nothing of the transaction is written.
#include <gtest/gtest.h>

#include <new>
#include <stdexcept>

#include "kestrun/c.h"
#include "tests/support/scratch_directory.h"

namespace {

using Kestrun::Testing::ScratchDirectory;

template <typename Exception>
uint32_t PutAndThrow(kestrun_transaction* transaction, void* exception) {
  EXPECT_EQ(kestrun_transaction_put(transaction, "key", 3, KESTRUN_TTL_FOREVER, "value", 5),
            KESTRUN_STATUS_OK);
  throw *static_cast<Exception*>(exception);
}

class BodyExceptionTest : public testing::Test {
 protected:
  void SetUp() override {
    ASSERT_EQ(kestrun_open(directory_.PathOf("store").c_str(), nullptr, &store_), KESTRUN_STATUS_OK);
  }
  void TearDown() override { kestrun_close(store_); }

  void ExpectNothingWritten() {
    void* value = this;
    size_t size = 1;
    EXPECT_EQ(kestrun_get(store_, "key", 3, &value, &size), KESTRUN_STATUS_OK);
    EXPECT_EQ(value, nullptr);
    // The locks were given up as well.
    EXPECT_EQ(kestrun_put(store_, "other", 5, KESTRUN_TTL_FOREVER, "value", 5), KESTRUN_STATUS_OK);
  }

  ScratchDirectory directory_;
  kestrun_store* store_ = nullptr;
};

TEST_F(BodyExceptionTest, RunningOutOfMemoryIsAStatus) {
  std::bad_alloc exception;
  EXPECT_EQ(kestrun_transact(store_, &PutAndThrow<std::bad_alloc>, &exception), KESTRUN_STATUS_NO_MEMORY);
  ExpectNothingWritten();
}

TEST_F(BodyExceptionTest, AnyOtherExceptionIsInvalid) {
  std::runtime_error exception("the body's own");
  EXPECT_EQ(kestrun_transact(store_, &PutAndThrow<std::runtime_error>, &exception), KESTRUN_STATUS_INVALID);
  ExpectNothingWritten();
}

}  // namespace
