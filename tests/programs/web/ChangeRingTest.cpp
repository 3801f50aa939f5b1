#include "programs/web/changes/ChangeRing.h"

#include <gtest/gtest.h>

#include "programs/web/changes/KnownValues.h"

namespace tavix::test {

namespace {

web::ChangePointer MakeChange(const std::string& group, const std::string& before, const std::string& after) {
  return std::make_shared<web::GroupChangeEvent>(web::GroupChangeEvent{group, false, "v", after, before});
}

}  // namespace

TEST(ChangeRing, JoinsChangesOfOneGroup) {
  web::ChangeRing ring;
  ring.Begin("x");
  ring.Add(MakeChange("a", "0", "1"));
  ring.Add(MakeChange("b", "0", "1"));
  ring.Add(MakeChange("a", "1", "2"));
  const auto items = ring.FindBehind(0);
  ASSERT_EQ(items.size(), 2U);
  EXPECT_EQ(items[0].change->group, "b");
  EXPECT_EQ(items[1].number, 3U);
  EXPECT_EQ(*items[1].first->oldValues, "0");
  EXPECT_EQ(items[1].change->newValues, "2");
  EXPECT_EQ(ring.FindBehind(2).size(), 1U);
}

TEST(ChangeRing, KeepsTheLastChanges) {
  web::ChangeRing ring;
  ring.Begin("x");
  for (size_t i = 0; i < web::ChangeRing::kMaxChanges + 10; ++i) ring.Add(MakeChange(std::to_string(i), "", ""));
  EXPECT_FALSE(ring.IsKept(9));
  EXPECT_TRUE(ring.IsKept(10));
  EXPECT_EQ(ring.FindBehind(10).size(), web::ChangeRing::kMaxChanges);
}

TEST(ChangeRing, KeepsNoMoreThanItsBytes) {
  web::ChangeRing ring;
  ring.Begin("x");
  const std::string large(1024 * 1024, 'x');
  for (int i = 0; i < 8; ++i) ring.Add(MakeChange(std::to_string(i), "", large));
  EXPECT_FALSE(ring.IsKept(4));
  EXPECT_TRUE(ring.IsKept(5));
}

TEST(ChangeRing, KnowsItsOwnIdsAlone) {
  web::ChangeRing ring;
  EXPECT_FALSE(ring.ParseId("-0"));
  ring.Begin("x");
  ring.Add(MakeChange("a", "", ""));
  EXPECT_EQ(ring.ParseId(ring.FormatId(1)), 1U);
  EXPECT_EQ(ring.ParseId("x-0"), 0U);
  for (const char* id : {"x-2", "y-1", "x-", "x-1 ", "x", ""}) EXPECT_FALSE(ring.ParseId(id)) << id;
  ring.Begin("y");
  EXPECT_FALSE(ring.ParseId("x-1"));
}

TEST(KnownValues, KnowWhatWasThere) {
  web::KnownValues known;
  EXPECT_EQ(known.Exchange("a", "1"), "null");
  EXPECT_EQ(known.Exchange("a", "2"), "1");
  EXPECT_EQ(known.Exchange("a", std::nullopt), "2");
  EXPECT_EQ(known.Exchange("a", "3"), "null");
}

TEST(KnownValues, DoNotKnowWhatDidNotFit) {
  web::KnownValues known;
  known.Exchange("large", std::string(web::KnownValues::kMaxBytes, 'x'));
  EXPECT_EQ(known.Exchange("large", "1"), std::nullopt);
  EXPECT_EQ(known.Exchange("large", "2"), "1");
  known.Clear();
  EXPECT_EQ(known.Exchange("large", "1"), "null");
}

}  // namespace tavix::test
