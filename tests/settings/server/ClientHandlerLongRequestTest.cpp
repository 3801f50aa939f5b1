#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <deque>
#include <sstream>
#include <utility>

#include "tavix/core/IniFile.h"
#include "tavix/core/MemoryStream.h"
#include "tavix/osa/Exception.h"
#include "tavix/settings/server/ClientHandler.h"
#include "tests/support/CapturedLog.h"
#include "tests/support/RecordingCallback.h"
#include "tests/support/ServedStore.h"

namespace tavix::test {

namespace {

using settings::server::ClientHandler;
using Attempt = ClientHandler::Attempt;

constexpr int kManyGroups = 3000;  // more than a thread visits that others wait for

bool IsHandling(const std::string& message) {
  return message.find("Handling command: get") != std::string::npos;
}

const std::function<bool()> kGoesOn = [] { return false; };

// A handler that is shown one whole request after the other, on a store with many groups.
class LongRequest : public testing::Test {
 protected:
  LongRequest() {
    core::IniFile settings;
    for (int group = 0; group < kManyGroups; ++group) settings.SetValue("G" + std::to_string(group), "k", "1");
    _served.store.MergeSettings(settings, 0);
  }

  void SetValue(const std::string& group, const std::string& value) {
    core::IniFile settings;
    settings.SetValue(group, "k", value);
    _served.store.MergeSettings(settings, 0);
  }

  Attempt Try(const std::string& request) {
    _text = request;
    _in.SetText(_text);
    return _handler.HandleNextIfShort();
  }

  // What comes behind what came before.
  std::string TakeOutput() {
    const std::string output = _out.str();
    _out.str("");
    return output;
  }

  std::string Handle(const std::string& request) {
    _text = request;
    _in.SetText(_text);
    EXPECT_TRUE(_handler.HandleNext());
    return TakeOutput();
  }

  ServedStore _served;
  std::string _text;
  core::ViewIstream _in;
  std::ostringstream _out;
  ClientHandler _handler{&_served.env, &_in, &_out};
};

}  // namespace

TEST_F(LongRequest, ShortOnesAreHandledAtOnce) {
  for (const std::string request :
       {"get delimited\nG1\nG2*7\n.\n", "merge\n[A]\nx=1\n.\n", "test-and-merge\n.\n[A]\nx=1\n.\n",
        "overwrite\nA\n.\n.\n", "subscribe\nA*\n.\n", "serialize ini\n", "info server\n", "unknown\n", "\n"})
    EXPECT_EQ(Try(request), Attempt::kHandled) << request;
  EXPECT_EQ(Try("quit\n"), Attempt::kHandled);
  EXPECT_EQ(Try("\n"), Attempt::kEnded);
}

TEST_F(LongRequest, IsLeftAloneByAThreadThatOthersWaitFor) {
  const std::string longValue(40'000, 'v');
  for (const std::string& request :
       {std::string("dump\n"), std::string("dump all\n"), std::string("info subscribed\n"),
        std::string("restore\nG1\n.\n"), std::string("overwrite\nG*\n.\n.\n"), std::string("get delimited\n*\n.\n"),
        std::string("get delimited\n*x*\n.\n"), "merge\n[A]\nx=" + longValue + "\n.\n"}) {
    EXPECT_EQ(Try(request), Attempt::kTooLong) << request.substr(0, 30);
    EXPECT_EQ(_in.GetRest(), request) << "it stands before it again";
  }
  EXPECT_EQ(TakeOutput(), "");
  EXPECT_EQ(Handle("get delimited\nG1\n.\n"), "data\n[G1]\nk=1\n.\n") << "nothing was changed";
}

// The change is short; its notices are not.
TEST_F(LongRequest, ThatManyAreToBeToldOfIsLeftAloneByAThreadThatOthersWaitFor) {
  std::deque<RecordingCallback> subscribers(600);
  for (RecordingCallback& callback : subscribers) _served.store.Subscribe(&callback, "*");
  EXPECT_EQ(Try("merge\n[A]\nx=1\n.\n"), Attempt::kHandled);
  for (const std::string request : {"merge\n[A]\nx=2\n[B]\n.\n", "test-and-merge\n.\n[A]\nx=2\n[B]\n.\n",
                                    "overwrite\nA\nB\n.\n.\n", "overwrite\n.\n[A]\nx=2\n[B]\n.\n"}) {
    EXPECT_EQ(Try(request), Attempt::kTooLong) << request;
    EXPECT_EQ(_in.GetRest(), request);
  }
  EXPECT_EQ(subscribers.front().GetChanges().size(), 1u);
  EXPECT_TRUE(_handler.HandleNextInParts(kGoesOn));
  EXPECT_EQ(subscribers.back().GetChanges().size(), 2u);
  for (RecordingCallback& callback : subscribers) _served.store.Unsubscribe(&callback);
}

TEST_F(LongRequest, ThatIsLeftAloneHasNoOutcomeOfTheRequestBefore) {
  _served.store.SetMaxBytes(1);
  EXPECT_EQ(Try("merge\n[A]\nx=1\n.\n"), Attempt::kHandled);
  EXPECT_NE(_handler.GetRefusal(), nullptr);
  EXPECT_EQ(Try("dump\n"), Attempt::kTooLong);
  EXPECT_EQ(_handler.GetRefusal(), nullptr);
}

TEST_F(LongRequest, InPartsHasTheSameReply) {
  for (const std::string request : {"get delimited\n*\n.\n", "get delimited\n*7\nG1\n.\n", "get\nG*\n.\n", "dump\n",
                                    "dump all\n", "get delimited\n.\n", "info subscribed\n"}) {
    const std::string expected = Handle(request);
    Try(request);
    TakeOutput();
    _in.SetText(_text);
    EXPECT_TRUE(_handler.HandleNextInParts(kGoesOn));
    EXPECT_EQ(TakeOutput(), expected) << request;
  }
}

TEST_F(LongRequest, InPartsHasTheSameReplyInTheOtherSerialization) {
  Handle("serialize phparray\n");
  const std::string expected = Handle("get delimited\n*\n.\n");
  EXPECT_EQ(Try("get delimited\n*\n.\n"), Attempt::kTooLong);
  EXPECT_TRUE(_handler.HandleNextInParts(kGoesOn));
  EXPECT_EQ(TakeOutput(), expected);
}

TEST_F(LongRequest, InPartsKeepsNoNoticeWaitingAndHoldsWhatWasAnnouncedBeforeIt) {
  Handle("subscribe\nG0\n.\n");
  EXPECT_EQ(Try("get delimited\n*\n.\n"), Attempt::kTooLong);
  bool isChanged = false;
  const auto change = [&] {
    if (!std::exchange(isChanged, true)) SetValue("G0", "2");
    return false;
  };
  EXPECT_TRUE(_handler.HandleNextInParts(change));
  EXPECT_THAT(TakeOutput(), testing::StartsWith("async change\nG0\n.\n[G0]\nk=2\n.\ndata\n[G0]\nk=2\n"));
}

TEST_F(LongRequest, ThatOnlyReadsEndsWhenItIsStopped) {
  EXPECT_EQ(Try("get delimited\n*\n.\n"), Attempt::kTooLong);
  EXPECT_THROW(static_cast<void>(_handler.HandleNextInParts([] { return true; })), osa::Exception);
  EXPECT_EQ(TakeOutput(), "");
}

TEST_F(LongRequest, ThatChangesIsMadeInParts) {
  EXPECT_EQ(Try("overwrite\nG*\n.\n[A]\nx=1\n.\n"), Attempt::kTooLong);
  EXPECT_TRUE(_handler.HandleNextInParts(kGoesOn));
  EXPECT_EQ(Handle("get delimited\n*\n.\n"), "data\n[A]\nx=1\n.\n");
}

TEST_F(LongRequest, IsCountedAndTracedOnce) {
  CapturedLog log;
  EXPECT_EQ(Try("get delimited\n*\n.\n"), Attempt::kTooLong);
  EXPECT_TRUE(_handler.HandleNextInParts(kGoesOn));
  const std::vector<std::string> messages = log.GetMessages();
  EXPECT_EQ(std::count_if(messages.begin(), messages.end(), IsHandling), 1);
}

}  // namespace tavix::test
