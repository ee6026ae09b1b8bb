// One series directory, two processes.
#include <gtest/gtest.h>

#include <memory>
#include <string>

#include "kestrun/kestrun.h"
#include "tests/support/child_process.h"
#include "tests/support/scratch_directory.h"

namespace Kestrun {
namespace {

using Testing::ChildLink;
using Testing::ChildProcess;
using Testing::ScratchDirectory;

class SeriesProcessesTest : public testing::Test {
 protected:
  std::unique_ptr<Series> Open() const {
    Series* series = nullptr;
    EXPECT_EQ(Series::Open(directory_.PathOf("store"), {64 * 1024, 0}, &series), kStatusOk);
    return std::unique_ptr<Series>(series);
  }

  // The text of field "a" of the record; "-" when there is none.
  static std::string FieldOf(Series& series, const Key& key) {
    Record* found = nullptr;
    if (series.Get(key, &found) != kStatusOk || found == nullptr) return "-";
    const std::unique_ptr<Record> record(found);
    return record->GetValue("a").str;
  }

  ScratchDirectory directory_;
};

TEST_F(SeriesProcessesTest, RecordOfATypeMadeByOneProcessIsReadByTheOther) {
  const auto series = Open();
  ChildProcess child([this](ChildLink& parent) {
    const auto own = Open();
    if (own->AppendRecord("child", 600, "T a:%s", "from the child") != kStatusOk) return 1;
    parent.Signal();
    parent.Await();
    return FieldOf(*own, "parent") == "from the parent" ? 0 : 2;
  });
  ASSERT_TRUE(child.Await());
  EXPECT_EQ(FieldOf(*series, "child"), "from the child");
  EXPECT_EQ(series->AppendRecord("parent", 600, "U a:%s", "from the parent"), kStatusOk);
  child.Signal();
  EXPECT_EQ(child.Wait(), 0);
}

TEST_F(SeriesProcessesTest, BothProcessesUseOneNumberForOneText) {
  const auto series = Open();
  EXPECT_EQ(series->CreateRecordMeta("T a:%s")->id, 1);
  ChildProcess child([this](ChildLink&) {
    const auto own = Open();
    if (own->CreateRecordMeta("T a:%s")->id != 1) return 1;
    return own->CreateRecordMeta("U a:%s")->id == 2 ? 0 : 2;
  });
  EXPECT_EQ(child.Wait(), 0);
  EXPECT_EQ(series->CreateRecordMeta("U a:%s")->id, 2);
  EXPECT_EQ(series->CreateRecordMeta("V a:%s")->id, 3);
}

}  // namespace
}  // namespace Kestrun
