#include <gtest/gtest.h>

#include "tests/napi/layout.h"

namespace {

TEST(NodeApiDeclarations, HaveTheSizesOffsetsAndValuesOfNodesOwnHeader) {
  const std::map<std::string, size_t> node = LayoutOfNode();
  EXPECT_FALSE(node.empty());
  EXPECT_EQ(LayoutOfOurs(), node);
}

}  // namespace
