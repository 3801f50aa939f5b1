#include "tavix/settings/server/IClientOutput.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <sstream>
#include <string>
#include <vector>

#include "tavix/core/MemoryStream.h"
#include "tavix/osa/Exception.h"
#include "tavix/settings/common/GroupNameMatcher.h"
#include "tavix/settings/server/ClientHandler.h"
#include "tavix/settings/server/SerializationManager.h"
#include "tavix/settings/server/ServerEnv.h"
#include "tavix/settings/server/SettingsManager.h"
#include "tests/support/CapturedLog.h"
#include "tests/support/DocumentText.h"
#include "tests/support/MemoryPersister.h"

// What a handler tells the output that it is given.

namespace {

using tavix::core::IniFile;
using tavix::core::ViewIstream;
using tavix::osa::Exception;
using tavix::settings::common::GroupNameMatcher;
using tavix::settings::server::ChangeTicket;
using tavix::settings::server::ClientHandler;
using tavix::settings::server::IClientOutput;
using tavix::settings::server::SerializationManager;
using tavix::settings::server::ServerEnv;
using tavix::settings::server::SettingsManager;
using tavix::test::CapturedLog;
using tavix::test::DocumentOf;
using tavix::test::MemoryPersister;
using testing::ElementsAre;
using testing::IsEmpty;

// Gives each change a ticket, and finds one for what was changed before.
class CountingPersister : public MemoryPersister {
 public:
  ChangeTicket SaveChangedGroups(const IniFile&, const std::set<std::string>& changedGroups) override {
    return changedGroups.empty() ? 0 : ++_last;
  }
  ChangeTicket FindLastTicket(const GroupNameMatcher&) override { return kOfOthers; }

  static constexpr ChangeTicket kOfOthers = 100;

 private:
  ChangeTicket _last = 0;
};

std::string NamesOf(const GroupNameMatcher* groups) {
  if (!groups) return "anything";
  std::string names;
  for (const std::string& name : groups->GetNames()) names += name;
  return names;
}

// Notes in order what it is asked for, and the bytes of each message.
class RecordingOutput : public IClientOutput, private std::stringbuf {
 public:
  std::ostream& GetOstream() override { return _out; }
  void HoldMessages(ChangeTicket ticket) override { events.push_back("hold " + std::to_string(ticket)); }
  void BeginMessage(const GroupNameMatcher* groups) override { events.push_back("begin " + NamesOf(groups)); }
  bool IsReachable() override { return isReachable; }
  void OnMessageLost() override { events.emplace_back("lost"); }

  std::vector<std::string> events;
  bool isReachable = true;
  bool isFull = false;

 private:
  int sync() override {
    if (isFull) throw std::bad_alloc();
    events.push_back("flush " + str());
    str("");
    return 0;
  }

  std::ostream _out{this};
};

struct StreamlessOutput : IClientOutput {
  std::ostream& GetOstream() override { throw Exception("There is no stream"); }
  bool HasStream() const override { return false; }
  void WriteMessage(std::string_view message, const GroupNameMatcher* groups) override {
    messages.push_back(NamesOf(groups) + ": " + std::string(message));
  }

  std::vector<std::string> messages;
};

class OutputOfAHandler : public testing::Test {
 protected:
  std::vector<std::string> Handle(const std::string& request) {
    _output.events.clear();
    _in.SetText(request);
    EXPECT_TRUE(_handler.HandleNext());
    return _output.events;
  }

  CountingPersister _persister;
  SettingsManager _store{&_persister, nullptr, nullptr, false};
  SerializationManager _serializers;
  ServerEnv _env{&_store, &_serializers};
  ViewIstream _in;
  RecordingOutput _output;
  ClientHandler _handler{&_env, &_in, &_output};
};

}  // namespace

TEST_F(OutputOfAHandler, HoldsMessagesBehindAChange) {
  EXPECT_THAT(Handle("merge\n[A]\nx=1\n.\n"), ElementsAre("hold 1"));
  EXPECT_THAT(Handle("overwrite\nB\n.\n[B]\nx=1\n.\n"), ElementsAre("hold 2"));
  EXPECT_THAT(Handle("restore\nA\n.\n"), ElementsAre("hold 3"));
}

TEST_F(OutputOfAHandler, HoldsMessagesBeforeTheReplyThatTellsOfTheChange) {
  EXPECT_THAT(Handle("test-and-merge\n.\n[A]\nx=1\n.\n"),
              ElementsAre("hold 1", "begin anything", "flush result\nok\n"));
}

TEST_F(OutputOfAHandler, HoldsMessagesForTheChangesOfOthersThatARequestReliesOn) {
  _store.MergeSettings(DocumentOf("[A]\nx=1\n"), 0);
  EXPECT_THAT(Handle("merge\n[A]\nx=1\n.\n"), ElementsAre("hold 100"));
}

TEST_F(OutputOfAHandler, HoldsNothingForWhatIsNotSaved) {
  EXPECT_THAT(Handle("merge nopersist\n[A]\nx=1\n.\n"), IsEmpty());
  EXPECT_THAT(Handle("test-and-merge\n[A]\nx=2\n.\n[A]\nx=3\n.\n"),
              ElementsAre("begin anything", "flush result\nfailure\n"));
  _store.SetMaxBytes(1);
  EXPECT_THAT(Handle("merge\n[B]\nx=1\n.\n"), IsEmpty()) << "it is refused";
}

TEST_F(OutputOfAHandler, HoldsTheClientsOwnMessagesOnly) {
  _store.MergeSettings(DocumentOf("[A]\nx=1\n"), 0);
  EXPECT_THAT(_output.events, IsEmpty());
}

TEST_F(OutputOfAHandler, IsToldWhichGroupsAMessageShows) {
  EXPECT_THAT(Handle("get\nA\nB\n.\n"), ElementsAre("begin AB", "flush "));
  EXPECT_THAT(Handle("dump\n"), ElementsAre("begin anything", "flush .\n"));
  Handle("subscribe\nA\n.\n");
  _store.MergeSettings(DocumentOf("[A]\nx=1\n[B]\n"), 0);
  EXPECT_THAT(_output.events, ElementsAre("begin A", "flush async change\nA\n.\n[A]\nx=1\n.\n"));
}

TEST_F(OutputOfAHandler, GetsNoMessagesWhileNobodyReads) {
  _output.isReachable = false;
  EXPECT_THAT(Handle("get\nA\n.\n"), IsEmpty());
  EXPECT_THAT(Handle("merge\n[A]\nx=1\n.\n"), ElementsAre("hold 1"));
}

TEST_F(OutputOfAHandler, IsToldOfANoticeThatIsLost) {
  const CapturedLog log;
  Handle("subscribe\nA\n.\n");
  _output.isFull = true;
  _output.GetOstream().exceptions(std::ios::badbit);  // throws what the stream itself would swallow
  _store.MergeSettings(DocumentOf("[A]\nx=1\n"), 0);
  EXPECT_THAT(_output.events, ElementsAre("begin A", "lost"));
}

TEST_F(OutputOfAHandler, WithoutAStreamIsGivenEachMessageInOneStep) {
  StreamlessOutput output;
  ClientHandler handler(&_env, &_in, &output);
  for (const char* request : {"get delimited\nA\n.\n", "subscribe\nA\n.\n"}) {
    _in.SetText(request);
    EXPECT_TRUE(handler.HandleNext());
  }
  _store.MergeSettings(DocumentOf("[A]\nx=1\n"), 0);
  EXPECT_THAT(output.messages, ElementsAre("A: data\n.\n", "A: async change\nA\n.\n[A]\nx=1\n.\n"));
}

TEST_F(OutputOfAHandler, RequestCanOnlyBeLookedAtBeforeItIsHandledInAView) {
  std::istringstream in("quit\n");
  std::ostringstream out;
  ClientHandler handler(&_env, &in, &out);
  EXPECT_THROW(static_cast<void>(handler.HandleNextIfShort()), Exception);
  EXPECT_TRUE(handler.HandleNext());
}
