#include "tavix/settings/client/LineBuffer.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <random>

namespace tavix::test {

namespace {

using settings::client::LineBuffer;
using testing::Optional;

constexpr size_t kRoom = 1024;

void Add(LineBuffer& buffer, const std::string& text) {
  text.copy(buffer.MakeRoom(text.size()), text.size());
  buffer.AddWritten(text.size());
}

}  // namespace

TEST(LineBuffer, GivesLinesInTheirOrderWithoutLineFeeds) {
  LineBuffer buffer;
  Add(buffer, "a\n\nb\n");
  EXPECT_THAT(buffer.TakeLine(), Optional(std::string("a")));
  EXPECT_THAT(buffer.TakeLine(), Optional(std::string()));
  EXPECT_THAT(buffer.TakeLine(), Optional(std::string("b")));
  EXPECT_EQ(buffer.TakeLine(), std::nullopt);
}

TEST(LineBuffer, ALineIsThereOnceItsEndIs) {
  LineBuffer buffer;
  Add(buffer, "ab");
  EXPECT_EQ(buffer.TakeLine(), std::nullopt);
  EXPECT_EQ(buffer.CountLineBytes(), 2U);
  Add(buffer, "c\nd");
  EXPECT_EQ(buffer.CountLineBytes(), 3U);
  EXPECT_THAT(buffer.TakeLine(), Optional(std::string("abc")));
  EXPECT_EQ(buffer.GetBytes(), 1U);
}

TEST(LineBuffer, RoomThatWasNotWrittenHoldsNothing) {
  LineBuffer buffer;
  std::fill_n(buffer.MakeRoom(kRoom), kRoom, '\n');
  buffer.AddWritten(0);
  EXPECT_EQ(buffer.GetBytes(), 0U);
  EXPECT_EQ(buffer.TakeLine(), std::nullopt);
}

TEST(LineBuffer, ALineThatWasPutBackIsTheNextOne) {
  LineBuffer buffer;
  Add(buffer, "a\nbc\nd\n");
  (void)buffer.TakeLine();
  buffer.PutBack(*buffer.TakeLine());
  EXPECT_EQ(buffer.GetBytes(), 5U);
  EXPECT_THAT(buffer.TakeLine(), Optional(std::string("bc")));
  EXPECT_THAT(buffer.TakeLine(), Optional(std::string("d")));
}

TEST(LineBuffer, TakesNoMoreForManyLinesThanForThoseThatWereNotTaken) {
  LineBuffer buffer;
  const std::string line(100, 'x');
  Add(buffer, std::string(kRoom, 'y') + "\n");
  for (int i = 0; i < 10000; ++i) {
    (void)buffer.MakeRoom(kRoom);
    Add(buffer, line + "\n");
    EXPECT_TRUE(buffer.TakeLine());
    ASSERT_LE(buffer.GetCapacity(), 2 * (kRoom + line.size()) + kRoom);
  }
}

TEST(LineBuffer, GivesTheRoomOfALargeLineBackWhenItIsEmpty) {
  LineBuffer buffer;
  Add(buffer, std::string(4 * 1024 * 1024, 'x') + "\n");
  (void)buffer.TakeLine();
  (void)buffer.MakeRoom(kRoom);
  EXPECT_EQ(buffer.GetCapacity(), kRoom);
}

TEST(LineBuffer, PartsOfAnySizeGiveTheSameLines) {
  std::mt19937 random(3);
  std::string text;
  for (int i = 0; i < 2000; ++i) text += std::string(random() % 50, static_cast<char>('a' + i % 26)) + "\n";
  LineBuffer buffer;
  std::string taken;
  for (size_t at = 0; at < text.size();) {
    const std::string part = text.substr(at, 1 + random() % 300);
    Add(buffer, part);
    at += part.size();
    for (size_t lines = random() % 8; lines > 0; --lines) {
      if (const auto line = buffer.TakeLine()) taken += *line + "\n";
    }
  }
  while (const auto line = buffer.TakeLine()) taken += *line + "\n";
  EXPECT_EQ(taken, text);
}

}  // namespace tavix::test
