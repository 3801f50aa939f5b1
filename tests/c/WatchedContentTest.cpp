#include "tavix/c/WatchedContent.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <set>
#include <string>
#include <vector>

#include "tests/support/DocumentText.h"
#include "tests/support/RandomDocument.h"

namespace tavix::test {

namespace {

using c::WatchedChange;
using c::WatchedContent;
using core::IniFile;
using testing::ElementsAre;
using testing::IsEmpty;
using Kind = WatchedChange::Kind;

std::string Show(const std::optional<std::string>& value) {
  return value ? *value : "-";
}

std::string Show(const WatchedChange& change) {
  if (change.kind == Kind::kResync) return "resync";
  const std::string gone = change.isGone ? " gone" : "";
  if (change.kind == Kind::kGroup) return "[" + change.group + "]" + gone;
  return "[" + change.group + "]" + change.key + ": " + Show(change.old) + " > " + Show(change.now) + gone;
}

std::vector<std::string> TakeAll(WatchedContent& content) {
  std::vector<std::string> changes;
  while (const auto change = content.TakeChange()) changes.push_back(Show(*change));
  return changes;
}

void Notice(WatchedContent& content, const std::set<std::string>& groups, const std::string& settings) {
  content.TakeNotice({groups, DocumentOf(settings)});
}

class WatchedContentTest : public testing::Test {
 protected:
  explicit WatchedContentTest(const std::string& first = "[A]\nx=1\ny=1\n") { _content.TakeReading(DocumentOf(first)); }

  WatchedContent _content{false};
};

}  // namespace

TEST_F(WatchedContentTest, ReportsNothingOfTheFirstReading) {
  EXPECT_FALSE(_content.HasPending());
  EXPECT_THAT(TakeAll(_content), IsEmpty());
}

TEST_F(WatchedContentTest, ReportsTheFirstReadingWhenAskedTo) {
  WatchedContent content(true);
  content.TakeReading(DocumentOf("[A]\nx=1\n[B]\n"));
  EXPECT_THAT(TakeAll(content), ElementsAre("[A]x: - > 1", "[B]"));
}

TEST_F(WatchedContentTest, ReportsWhatDiffersInANotice) {
  Notice(_content, {"A", "B"}, "[A]\nx=2\ny=1\nz=3\n[B]\nx=1\n");
  EXPECT_TRUE(_content.HasPending());
  EXPECT_THAT(TakeAll(_content), ElementsAre("[A]x: 1 > 2", "[A]z: - > 3", "[B]x: - > 1"));
  EXPECT_FALSE(_content.HasPending());
  Notice(_content, {"A"}, "[A]\nx=2\ny=1\nz=3\n");
  EXPECT_THAT(TakeAll(_content), IsEmpty());
}

TEST_F(WatchedContentTest, ReportsWhatIsGone) {
  Notice(_content, {"A"}, "[A]\nx=1\n");
  EXPECT_THAT(TakeAll(_content), ElementsAre("[A]y: 1 > -"));
  Notice(_content, {"A"}, "");
  EXPECT_THAT(TakeAll(_content), ElementsAre("[A]x: 1 > - gone"));
}

TEST_F(WatchedContentTest, ReportsGroupsWithoutKeys) {
  Notice(_content, {"B"}, "[B]\n");
  EXPECT_THAT(TakeAll(_content), ElementsAre("[B]"));
  Notice(_content, {"B"}, "");
  EXPECT_THAT(TakeAll(_content), ElementsAre("[B] gone"));
  Notice(_content, {"A"}, "[A]\n");
  EXPECT_THAT(TakeAll(_content), ElementsAre("[A]x: 1 > -", "[A]y: 1 > -"));
}

TEST_F(WatchedContentTest, ReportsPendingChangesOfAKeyAsOne) {
  Notice(_content, {"A"}, "[A]\nx=2\ny=1\n");
  Notice(_content, {"A"}, "[A]\nx=2\ny=2\n");
  Notice(_content, {"A"}, "[A]\nx=3\ny=2\n");
  EXPECT_THAT(TakeAll(_content), ElementsAre("[A]x: 1 > 3", "[A]y: 1 > 2"));
}

TEST_F(WatchedContentTest, ReportsNothingThatCancelsOut) {
  Notice(_content, {"A", "B"}, "[A]\nx=2\ny=1\n[B]\nx=1\n");
  Notice(_content, {"A", "B"}, "[A]\nx=1\ny=1\n");
  EXPECT_FALSE(_content.HasPending());
  Notice(_content, {"C"}, "[C]\n");
  Notice(_content, {"C"}, "[C]\nx=1\n");
  Notice(_content, {"C"}, "");
  EXPECT_FALSE(_content.HasPending());
}

TEST_F(WatchedContentTest, ReportsTheDifferencesOfALaterReadingThenOneMark) {
  Notice(_content, {"A"}, "[A]\nx=2\ny=1\n");
  _content.TakeReading(DocumentOf("[A]\nx=3\n[B]\nx=1\n"));
  _content.TakeReading(DocumentOf("[B]\nx=1\n"));
  EXPECT_THAT(TakeAll(_content), ElementsAre("[A]x: 1 > - gone", "[A]y: 1 > - gone", "[B]x: - > 1", "resync"));
  _content.TakeReading(DocumentOf("[B]\nx=1\n"));
  EXPECT_THAT(TakeAll(_content), ElementsAre("resync"));
}

// Whatever comes, what is reported leads from what was there to what is there.
TEST_F(WatchedContentTest, ReportsWhatLeadsFromTheOldContentToTheNewOne) {
  RandomDocuments documents(9);
  IniFile reported;
  WatchedContent content(true);
  for (int round = 0; round < 200; ++round) {
    const IniFile now{documents.Next()};
    content.TakeReading(IniFile(now));
    if (documents.Below(3) == 0) continue;
    while (const auto change = content.TakeChange()) {
      if (change->kind == Kind::kResync) continue;
      if (change->isGone) {
        reported.RemoveGroup(change->group);
      } else if (change->kind == Kind::kGroup) {
        reported[change->group];
      } else if (change->now) {
        EXPECT_EQ(reported.GetValueOrDefault(change->group, change->key), change->old.value_or(""));
        reported.SetValue(change->group, change->key, *change->now);
      } else {
        reported[change->group].erase(change->key);
      }
    }
    EXPECT_EQ(TextOf(reported), TextOf(now)) << round;
  }
}

}  // namespace tavix::test
