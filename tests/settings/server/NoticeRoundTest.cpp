#include "tavix/settings/server/NoticeRound.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <deque>
#include <memory>
#include <optional>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include "tavix/core/IniFile.h"
#include "tavix/settings/server/ClientHandler.h"
#include "tests/support/BackgroundCall.h"
#include "tests/support/DocumentText.h"
#include "tests/support/ServedStore.h"

namespace {

using tavix::core::IniFile;
using tavix::settings::server::ClientHandler;
using tavix::settings::server::NoticeRound;
using tavix::test::BackgroundCall;
using tavix::test::DocumentOf;
using tavix::test::ServedStore;
using testing::ElementsAre;
using testing::IsEmpty;

using Groups = std::set<std::string>;

struct Receiver : NoticeRound::IReceiver {
  void WriteNotice(const Groups& changedGroups) noexcept override {
    written.push_back(changedGroups);
    addresses.insert(&changedGroups);
  }

  std::vector<Groups> written;
  std::set<const Groups*> addresses;
};

TEST(NoticeRound, TakesNothingWhereThereIsNone) {
  const auto receiver = std::make_shared<Receiver>();
  EXPECT_FALSE(NoticeRound::Add(receiver, {"A"}));
  NoticeRound round;
  BackgroundCall([&] { EXPECT_FALSE(NoticeRound::Add(receiver, {"A"})) << "it is another thread's"; }).Join();
}

TEST(NoticeRound, WritesItsNoticesInTheirOrderOnceItIsToldToAndAtItsEnd) {
  const auto receiver = std::make_shared<Receiver>();
  {
    NoticeRound round;
    EXPECT_TRUE(NoticeRound::Add(receiver, {"A"}));
    EXPECT_TRUE(NoticeRound::Add(receiver, {"B", "C"}));
    EXPECT_THAT(receiver->written, IsEmpty());
    round.WriteNotices();
    EXPECT_THAT(receiver->written, ElementsAre(Groups{"A"}, Groups{"B", "C"}));
    EXPECT_TRUE(NoticeRound::Add(receiver, {"D"}));
  }
  EXPECT_THAT(receiver->written, ElementsAre(Groups{"A"}, Groups{"B", "C"}, Groups{"D"}));
}

TEST(NoticeRound, WithinAnotherOneKeepsItsNoticesApart) {
  const auto receiver = std::make_shared<Receiver>();
  NoticeRound outer;
  EXPECT_TRUE(NoticeRound::Add(receiver, {"A"}));
  {
    NoticeRound inner;
    EXPECT_TRUE(NoticeRound::Add(receiver, {"B"}));
  }
  EXPECT_THAT(receiver->written, ElementsAre(Groups{"B"}));
  EXPECT_TRUE(NoticeRound::Add(receiver, {"C"}));
  outer.WriteNotices();
  EXPECT_THAT(receiver->written, ElementsAre(Groups{"B"}, Groups{"A"}, Groups{"C"}));
}

TEST(NoticeRound, KeepsTheSameGroupsOfManyOnce) {
  const auto receiver = std::make_shared<Receiver>();
  NoticeRound round;
  for (int i = 0; i < 10; ++i) EXPECT_TRUE(NoticeRound::Add(receiver, Groups{"A", "B"}));
  round.WriteNotices();
  EXPECT_EQ(receiver->written.size(), 10u);
  EXPECT_EQ(receiver->addresses.size(), 1u);
}

// Looks at the locks while it is written to.
struct LookingBuffer : std::stringbuf {
  explicit LookingBuffer(const ServedStore& store) : served(store) {}

  std::streamsize xsputn(const char* bytes, std::streamsize count) override {
    EXPECT_FALSE(served.store.GetNotificationGate().IsHeldByThisThread());
    EXPECT_NO_THROW(served.store.GetDispatcher().Probe()) << "it would, if this thread had the mutex";
    ++looks;
    return std::stringbuf::xsputn(bytes, count);
  }

  const ServedStore& served;
  int looks = 0;
};

std::string MergeOfGroups(int count) {
  std::string request = "merge\n";
  for (int i = 0; i < count; ++i) request += "[G" + std::to_string(i) + "]\nx=1\n";
  return request + ".\n";
}

TEST(ClientHandler, WritesNoticesWithTheLocksOfTheNotificationReleased) {
  ServedStore served;
  LookingBuffer buffer(served);
  std::ostream out(&buffer);
  std::istringstream in("subscribe\nG*\n.\n");
  ClientHandler handler(&served.env, &in, &out);
  EXPECT_TRUE(handler.HandleNext());
  for (const int groups : {1, 5000}) {
    const int before = buffer.looks;
    served.Serve(MergeOfGroups(groups));
    EXPECT_GT(buffer.looks, before) << groups;
  }
}

TEST(ClientHandler, IsSentNothingThatIsOnItsWayOnceItHasEnded) {
  ServedStore served({"[A]\nx=1\n"});
  std::istringstream in;
  std::ostringstream out;
  std::optional<ClientHandler> handler(std::in_place, &served.env, &in, &out);
  {
    NoticeRound round;
    handler->OnChange({"A"}, IniFile());
    round.WriteNotices();
    EXPECT_EQ(out.str(), "async change\nA\n.\n[A]\nx=1\n.\n");
    handler->OnChange({"A"}, IniFile());
    handler.reset();
    out.str("");
  }
  EXPECT_EQ(out.str(), "");
}

// Each of many subscribers gets each of its notices, though others come and go between the pieces of a change.
TEST(ClientHandler, IsToldOfAChangeOfManyGroupsAmongManyOthers) {
  ServedStore served;
  std::deque<std::istringstream> inputs;
  std::deque<std::ostringstream> outputs;
  std::deque<ClientHandler> handlers;
  for (int i = 0; i < 200; ++i) {
    inputs.emplace_back("subscribe\n*" + std::to_string(i) + "\n.\n");
    handlers.emplace_back(&served.env, &inputs.back(), &outputs.emplace_back());
    EXPECT_TRUE(handlers.back().HandleNext());
  }
  served.Serve(MergeOfGroups(2000));
  for (int i = 0; i < 200; ++i) {
    const std::string name = "[G" + std::to_string(i) + "]\n";
    EXPECT_THAT(outputs[static_cast<size_t>(i)].str(), testing::HasSubstr(name)) << i;
  }
}

}  // namespace
