#include "tavix/settings/client/NoticeQueue.h"

#include <gtest/gtest.h>

#include <sstream>

#include "tests/support/DocumentText.h"

namespace tavix::test {

namespace {

using settings::client::NoticeQueue;
using Groups = std::set<std::string>;

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
  NoticeQueue queue(8);
  EXPECT_FALSE(queue.TakeLine("data"));
  EXPECT_FALSE(queue.IsInNotice());
  EXPECT_TRUE(queue.IsEmpty());
}

TEST(NoticeQueue, HoldsANoticeOnceItsLastLineCame) {
  NoticeQueue queue(8);
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
  NoticeQueue queue(8);
  EXPECT_TRUE(TakeLines(queue, "async change\nasync change\n.\n[async change]\nk=1\n.\n"));
  EXPECT_EQ(queue.Pop().notice.groups, (Groups{"async change"}));
}

TEST(NoticeQueue, KeepsNoticesInTheirOrder) {
  NoticeQueue queue(8);
  EXPECT_TRUE(TakeLines(queue, NoticeOf("a", "1") + NoticeOf("a", "2")));
  EXPECT_EQ(TextOf(queue.Pop().notice.settings), "[a]\nk=1\n");
  EXPECT_EQ(TextOf(queue.Pop().notice.settings), "[a]\nk=2\n");
}

TEST(NoticeQueue, MergesIntoTheLastNoticeWhenItIsFull) {
  NoticeQueue queue(2);
  EXPECT_TRUE(TakeLines(queue, NoticeOf("a", "1") + NoticeOf("a", "2") + NoticeOf("b", "3") + NoticeOf("a", "4")));
  EXPECT_TRUE(TakeLines(queue, "async change\nb\n.\n.\n"));
  EXPECT_EQ(TextOf(queue.Pop().notice.settings), "[a]\nk=1\n");
  const NoticeQueue::Entry last = queue.Pop();
  EXPECT_EQ(last.notice.groups, (Groups{"a", "b"}));
  EXPECT_EQ(TextOf(last.notice.settings), "[a]\nk=4\n");
  EXPECT_TRUE(queue.IsEmpty());
}

TEST(NoticeQueue, QueuesWhyANoticeCannotBeRead) {
  NoticeQueue queue(8);
  EXPECT_TRUE(TakeLines(queue, "async change\na\n.\nwithout a group\n.\n" + NoticeOf("a", "2")));
  EXPECT_NE(queue.Pop().error, "");
  EXPECT_EQ(queue.Pop().error, "");
}

TEST(NoticeQueue, KeepsAnErrorThatIsMergedIntoTheLastNotice) {
  NoticeQueue queue(1);
  EXPECT_TRUE(TakeLines(queue, NoticeOf("a", "1") + "async change\nb\n.\nwithout a group\n.\n" + NoticeOf("a", "2")));
  EXPECT_NE(queue.Pop().error, "");
  EXPECT_TRUE(queue.IsEmpty());
}

TEST(NoticeQueue, ForgetsGroupsByNameAndPattern) {
  NoticeQueue queue(8);
  EXPECT_TRUE(TakeLines(queue, NoticeOf("a", "1") + "async change\nb/x\nc\n.\n[b/x]\nk=1\n[c]\nk=2\n.\n"));
  queue.Forget({"a", "b/*"});
  const NoticeQueue::Entry entry = queue.Pop();
  EXPECT_EQ(entry.notice.groups, (Groups{"c"}));
  EXPECT_EQ(TextOf(entry.notice.settings), "[c]\nk=2\n");
  EXPECT_TRUE(queue.IsEmpty());
}

}  // namespace tavix::test
