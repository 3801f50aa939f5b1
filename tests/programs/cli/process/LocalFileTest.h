#pragma once

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "tests/support/CommandProcess.h"
#include "tests/support/TemporaryDirectory.h"

namespace tavix::test {

using Words = std::vector<std::string>;

// The command on a file, with no daemon anywhere.
class LocalFileTest : public testing::Test {
 protected:
  Words WithFile(Words words) const {
    words.insert(words.begin(), {TAVIX_CLI_PROGRAM, "--local", "x.ini"});
    return words;
  }

  Outcome Run(const Words& words, const std::string& input = {}, Variables variables = {}) const {
    variables["TAVIX_SETTINGS_SERVER"] = "127.0.0.1:1";
    return RunToEnd(_directory.GetPath(), WithFile(words), input, variables);
  }

  void ExpectRun(const Words& words, int status, const std::string& output, const std::string& errors) const {
    const Outcome outcome = Run(words);
    EXPECT_EQ(outcome.output, output) << testing::PrintToString(words);
    EXPECT_EQ(outcome.errors, errors) << testing::PrintToString(words);
    EXPECT_EQ(outcome.status, status) << testing::PrintToString(words);
  }

  std::string Read() const { return _directory.Read("x.ini"); }
  void Write(const std::string& text) const { _directory.Write("x.ini", text); }

  const TemporaryDirectory _directory;
};

}  // namespace tavix::test
