// A store in a scratch directory and the program to work on it.
#pragma once

#include <gtest/gtest.h>

#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "tests/support/file_bytes.h"
#include "tests/support/scratch_directory.h"
#include "tests/tools/run_kestrun.h"

namespace Kestrun::Testing {

class ToolTest : public ::testing::Test {
 protected:
  // The first argument after the command is the store, unless `arguments` is the whole line.
  Ran Run(const std::string& command, const std::vector<std::string>& arguments = {},
          const std::string& input = std::string()) {
    std::vector<std::string> line = {command, store_};
    line.insert(line.end(), arguments.begin(), arguments.end());
    return RunKestrun(line, input);
  }
  // The same where nothing but success is expected; returns the data.
  std::string Do(const std::string& command, const std::vector<std::string>& arguments = {},
                 const std::string& input = std::string()) {
    const Ran ran = Run(command, arguments, input);
    EXPECT_EQ(ran.status, 0) << command << ": " << ran.err;
    return ran.out;
  }
  // What a command tells on standard error, where nothing but success is expected.
  std::string Account(const std::string& command, const std::vector<std::string>& arguments = {},
                      const std::string& input = std::string()) {
    const Ran ran = Run(command, arguments, input);
    EXPECT_EQ(ran.status, 0) << command << ": " << ran.err;
    EXPECT_EQ(ran.out, "") << command;
    return ran.err;
  }
  nlohmann::json DoJson(const std::string& command, std::vector<std::string> arguments = {}) {
    arguments.push_back("--json");
    return nlohmann::json::parse(Do(command, arguments), nullptr, false);
  }

  void Put(const std::string& key, const std::string& value) {
    EXPECT_EQ(Run("put", {key, "-"}, value).status, 0);
  }
  std::string Get(const std::string& key) { return Do("get", {key}); }

  ScratchDirectory scratch_;
  std::string store_ = scratch_.PathOf("store");
};

inline bool Contains(const std::string& text, const std::string& part) {
  return text.find(part) != std::string::npos;
}

}  // namespace Kestrun::Testing
