#include "tavix/settings/client/NoticeQueue.h"

#include <gtest/gtest.h>

#include <sstream>

#include "tests/support/DocumentText.h"

namespace tavix::test {

namespace {

using settings::client::NoticeQueue;
using Groups = std::set<std::string>;

constexpr size_t kMuch = 1024 * 1024;

// Takes lines one by one; whether all of them belonged to notices.
bool TakeLines(NoticeQueue& queue, const std::string& text) {
  std::istringstream lines(text);
  for (std::string line; std::getline(lines, line);) {
    if (!queue.TakeLine(line)) return false;
  }
  return true;
}

std::string NoticeOf(const std::string& group, const std::string& value) {
  return "async change\n" + group + "\n.\n[" + group + "]\nk=" + value + "\n.\n";
}

}  // namespace

TEST(NoticeQueue, LeavesAReplyToItsReader) {
  NoticeQueue queue(8, kMuch);
  EXPECT_FALSE(queue.TakeLine("data"));
  EXPECT_FALSE(queue.IsInNotice());
  EXPECT_TRUE(queue.IsEmpty());
}

TEST(NoticeQueue, HoldsANoticeOnceItsLastLineCame) {
  NoticeQueue queue(8, kMuch);
  EXPECT_TRUE(TakeLines(queue, "async change\na\nb\n.\n[a]\nk=1\n"));
  EXPECT_TRUE(queue.IsInNotice());
  EXPECT_TRUE(queue.IsEmpty());
  EXPECT_TRUE(queue.TakeLine("."));
  EXPECT_FALSE(queue.IsInNotice());
  const NoticeQueue::Entry entry = queue.Pop();
  EXPECT_EQ(entry.notice.groups, (Groups{"a", "b"}));
  EXPECT_EQ(TextOf(entry.notice.settings), "[a]\nk=1\n");
  EXPECT_EQ(entry.error, "");
  EXPECT_TRUE(queue.IsEmpty());
}

TEST(NoticeQueue, TakesTheFirstLineOfANoticeForAGroupInsideOfOne) {
  NoticeQueue queue(8, kMuch);
  EXPECT_TRUE(TakeLines(queue, "async change\nasync change\n.\n[async change]\nk=1\n.\n"));
  EXPECT_EQ(queue.Pop().notice.groups, (Groups{"async change"}));
}

TEST(NoticeQueue, KeepsNoticesInTheirOrder) {
  NoticeQueue queue(8, kMuch);
  EXPECT_TRUE(TakeLines(queue, NoticeOf("a", "1") + NoticeOf("a", "2")));
  EXPECT_EQ(TextOf(queue.Pop().notice.settings), "[a]\nk=1\n");
  EXPECT_EQ(TextOf(queue.Pop().notice.settings), "[a]\nk=2\n");
}

TEST(NoticeQueue, MergesIntoTheLastNoticeWhenItIsFull) {
  NoticeQueue queue(2, kMuch);
  EXPECT_TRUE(TakeLines(queue, NoticeOf("a", "1") + NoticeOf("a", "2") + NoticeOf("b", "3") + NoticeOf("a", "4")));
  EXPECT_TRUE(TakeLines(queue, "async change\nb\n.\n.\n"));
  EXPECT_EQ(TextOf(queue.Pop().notice.settings), "[a]\nk=1\n");
  const NoticeQueue::Entry last = queue.Pop();
  EXPECT_EQ(last.notice.groups, (Groups{"a", "b"}));
  EXPECT_EQ(TextOf(last.notice.settings), "[a]\nk=4\n");
  EXPECT_TRUE(queue.IsEmpty());
}

TEST(NoticeQueue, QueuesWhyANoticeCannotBeRead) {
  NoticeQueue queue(8, kMuch);
  EXPECT_TRUE(TakeLines(queue, "async change\na\n.\nwithout a group\n.\n" + NoticeOf("a", "2")));
  EXPECT_NE(queue.Pop().error, "");
  EXPECT_EQ(queue.Pop().error, "");
}

TEST(NoticeQueue, KeepsAnErrorThatIsMergedIntoTheLastNotice) {
  NoticeQueue queue(1, kMuch);
  EXPECT_TRUE(TakeLines(queue, NoticeOf("a", "1") + "async change\nb\n.\nwithout a group\n.\n" + NoticeOf("a", "2")));
  EXPECT_NE(queue.Pop().error, "");
  EXPECT_TRUE(queue.IsEmpty());
}

TEST(NoticeQueue, DropsAllWhenTheyTakeMoreThanItsBoundAndReportsThatOnce) {
  NoticeQueue queue(8, 2000);
  EXPECT_TRUE(TakeLines(queue, NoticeOf("a", std::string(900, 'x')) + NoticeOf("b", std::string(900, 'x'))));
  EXPECT_EQ(queue.GetBytes(), 0U);
  EXPECT_TRUE(TakeLines(queue, NoticeOf("c", "1")));
  EXPECT_EQ(queue.GetBytes(), 0U) << "later ones are dropped until that is reported";
  EXPECT_FALSE(queue.IsEmpty());
  EXPECT_TRUE(queue.Pop().isDropped);
  EXPECT_TRUE(queue.IsEmpty());
  EXPECT_TRUE(TakeLines(queue, NoticeOf("c", "2")));
  EXPECT_FALSE(queue.Pop().isDropped);
}

TEST(NoticeQueue, KeepsOneNoticeWhateverItTakes) {
  NoticeQueue queue(8, 2000);
  EXPECT_TRUE(TakeLines(queue, NoticeOf("a", std::string(5000, 'x'))));
  EXPECT_GT(queue.GetBytes(), 5000U);
  EXPECT_FALSE(queue.Pop().isDropped);
  EXPECT_EQ(queue.GetBytes(), 0U);
}

// Names of groups that come and go would add up otherwise.
TEST(NoticeQueue, WhatIsMergedIntoTheLastNoticeCounts) {
  NoticeQueue queue(1, 10 * 1024);
  size_t merged = 0;
  for (; queue.GetBytes() > 0 || merged == 0; ++merged)
    ASSERT_TRUE(TakeLines(queue, "async change\ngone " + std::to_string(merged) + "\n.\n.\n"));
  EXPECT_GT(merged, 10U);
  EXPECT_TRUE(queue.Pop().isDropped);
}

TEST(NoticeQueue, AGroupThatChangesAgainAndAgainTakesNoMore) {
  NoticeQueue queue(1, kMuch);
  EXPECT_TRUE(TakeLines(queue, NoticeOf("a", "1")));
  const size_t bytes = queue.GetBytes();
  for (int i = 0; i < 100; ++i) EXPECT_TRUE(TakeLines(queue, NoticeOf("a", std::to_string(i % 10))));
  EXPECT_EQ(queue.GetBytes(), bytes);
  (void)queue.Pop();
  EXPECT_EQ(queue.GetBytes(), 0U);
}

TEST(NoticeQueue, CountsGroupsThatANoticeDoesNotName) {
  NoticeQueue queue(8, kMuch);
  EXPECT_TRUE(TakeLines(queue, "async change\na\n.\n[b]\nk=" + std::string(5000, 'x') + "\n.\n"));
  EXPECT_GT(queue.GetBytes(), 5000U);
  queue.Forget({"a"});
  EXPECT_EQ(queue.GetBytes(), 0U);
}

TEST(NoticeQueue, ForgetsGroupsByNameAndPattern) {
  NoticeQueue queue(8, kMuch);
  EXPECT_TRUE(TakeLines(queue, NoticeOf("a", "1") + "async change\nb/x\nc\n.\n[b/x]\nk=1\n[c]\nk=2\n.\n"));
  queue.Forget({"a", "b/*"});
  const NoticeQueue::Entry entry = queue.Pop();
  EXPECT_EQ(entry.notice.groups, (Groups{"c"}));
  EXPECT_EQ(TextOf(entry.notice.settings), "[c]\nk=2\n");
  EXPECT_TRUE(queue.IsEmpty());
}

}  // namespace tavix::test
