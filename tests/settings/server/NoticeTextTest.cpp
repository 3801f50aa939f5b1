#include "tavix/settings/server/NoticeText.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace {

using tavix::settings::common::GroupNameMatcher;
using tavix::settings::server::ISettingsSerializer;
using tavix::settings::server::NoticeText;

using Groups = std::set<std::string>;

constexpr size_t kMegabyte = 1024 * 1024;

NoticeText::Notice Make(const std::string& text) {
  return {std::make_shared<const std::string>(text), std::make_shared<GroupNameMatcher>()};
}

TEST(NoticeText, IsFoundByAllThatItDependsOn) {
  const NoticeText::Round round;
  NoticeText& texts = NoticeText::OfThisThread();
  const Groups groups{"A"};
  const NoticeText::Notice notice = Make("text");
  texts.Keep({1, nullptr, groups}, notice);
  EXPECT_EQ(texts.Find({1, nullptr, groups}).text, notice.text);
  EXPECT_EQ(texts.Find({1, nullptr, groups}).groups, notice.groups);
  EXPECT_EQ(texts.Find({2, nullptr, groups}).text, nullptr);
  const auto* const other = reinterpret_cast<const ISettingsSerializer*>(&texts);
  EXPECT_EQ(texts.Find({1, other, groups}).text, nullptr);
  EXPECT_EQ(texts.Find({1, nullptr, Groups{"B"}}).text, nullptr);
}

TEST(NoticeText, SeveralAreKnownAtATime) {
  const NoticeText::Round round;
  NoticeText& texts = NoticeText::OfThisThread();
  for (const char* name : {"A", "B", "C"}) texts.Keep({1, nullptr, Groups{name}}, Make(name));
  for (const char* name : {"A", "B", "C"}) EXPECT_EQ(*texts.Find({1, nullptr, Groups{name}}).text, name);
}

TEST(NoticeText, IsReleasedWhenTheRoundEnds) {
  NoticeText& texts = NoticeText::OfThisThread();
  const Groups groups{"A"};
  const NoticeText::Notice notice = Make(std::string(10 * kMegabyte, 'x'));
  {
    const NoticeText::Round round;
    texts.Keep({1, nullptr, groups}, notice);
    EXPECT_EQ(notice.text.use_count(), 2);
  }
  EXPECT_EQ(notice.text.use_count(), 1);
  EXPECT_EQ(texts.GetKeptBytes(), 0u);
}

TEST(NoticeText, OutsideOfARoundNoneIsKept) {
  NoticeText& texts = NoticeText::OfThisThread();
  const Groups groups{"A"};
  texts.Keep({1, nullptr, groups}, Make("text"));
  EXPECT_EQ(texts.Find({1, nullptr, groups}).text, nullptr);
}

// However many different ones a round has, and however long they are.
TEST(NoticeText, LittleIsKeptAtATime) {
  const NoticeText::Round round;
  NoticeText& texts = NoticeText::OfThisThread();
  for (int i = 0; i < 100; ++i) {
    texts.Keep({1, nullptr, Groups{std::to_string(i)}}, Make(std::string(kMegabyte / 3, 'x')));
    EXPECT_LE(texts.GetKeptBytes(), kMegabyte);
  }
  const Groups last{"last"};
  texts.Keep({1, nullptr, last}, Make(std::string(5 * kMegabyte, 'x')));
  EXPECT_EQ(texts.GetKeptBytes(), 5 * kMegabyte) << "the newest alone";
  texts.Keep({1, nullptr, Groups{"A"}}, Make("text"));
  EXPECT_EQ(texts.GetKeptBytes(), 4u);
}

TEST(NoticeText, LongOneIsFoundAsLongAsAnybodyKeepsIt) {
  const NoticeText::Round round;
  NoticeText& texts = NoticeText::OfThisThread();
  const Groups first{"A"};
  const Groups second{"B"};
  NoticeText::Notice notice = Make(std::string(2 * kMegabyte, 'x'));
  texts.Keep({1, nullptr, first}, notice);
  texts.Keep({1, nullptr, second}, Make(std::string(2 * kMegabyte, 'y')));
  EXPECT_EQ(texts.Find({1, nullptr, first}).text, notice.text);
  notice.text.reset();
  EXPECT_EQ(texts.Find({1, nullptr, first}).text, nullptr);
}

}  // namespace
