#include "tavix/settings/client/ReplyLine.h"

#include <gtest/gtest.h>

#include <string>

namespace {

using tavix::settings::client::FirstWord;

TEST(ReplyLine, TheFirstWordEndsAtABlank) {
  for (const std::string line : {"async", "async change", "async\tchange", "async\r", "  async", " \t async \r"})
    EXPECT_EQ(FirstWord(line), "async") << '"' << line << '"';
}

TEST(ReplyLine, ALineOfBlanksHasNoWord) {
  for (const std::string line : {"", " ", "\t \r"}) EXPECT_EQ(FirstWord(line), "");
}

}  // namespace
