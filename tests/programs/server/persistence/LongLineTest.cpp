#include "programs/server/persistence/LongLine.h"

#include <gtest/gtest.h>

#include <string>

namespace tavix::test {

using daemon::HasLongLine;
using daemon::kLongLine;

namespace {

const std::string kLine(kLongLine - 2, 'x');

}  // namespace

TEST(LongLine, IsFoundWhereverItIs) {
  const std::string tooLong = kLine + "xx";
  for (const std::string& text : {tooLong, tooLong + "\nx\n", "x\n" + tooLong, kLine + "\n" + tooLong + "\n" + kLine})
    EXPECT_TRUE(HasLongLine(text));
}

TEST(LongLine, IsNoneWhereLinesAreShorter) {
  std::string many;
  for (int i = 0; i < 5; ++i) many += kLine + "\n" + "x\n";
  for (const std::string& text : {std::string(), std::string("\n"), kLine, kLine + "x", many})
    EXPECT_FALSE(HasLongLine(text)) << text.size();
}

}  // namespace tavix::test
