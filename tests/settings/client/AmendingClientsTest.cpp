#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>

#include "tavix/core/IniFile.h"
#include "tavix/osa/Exception.h"
#include "tavix/settings/TavixSettingsClient.h"
#include "tests/support/DocumentText.h"
#include "tests/support/Environment.h"
#include "tests/support/RecordingCallback.h"
#include "tests/support/ScriptedServer.h"
#include "tests/support/TemporaryDirectory.h"

// Amendments in every operation mode.

namespace tavix::test {

namespace {

using core::IniFile;
using osa::Exception;
using settings::Amendment;
using testing::ThrowsMessage;
using Client = settings::TavixSettingsClient;

constexpr char kAsk[] = "info features\nget delimited\n.\n";
constexpr char kFeatures[] = "Features\n--------\namend 2\nlater\n\n";
constexpr char kNothing[] = "data\n.\n";
constexpr char kNotice[] = "async change\nA\n.\n[A]\nx=1\n.\n";
constexpr char kTooOld[] = "Amend can't be called: tavix-settings-server is older than this request";

Amendment SetUnless() {
  Amendment amendment;
  amendment.absent = DocumentOf("[A]\nx=\n");
  amendment.set = DocumentOf("[A]\nx=1\n");
  return amendment;
}

std::string ReadAmendment(ServerEnd& peer) {
  std::string request;
  for (int i = 0; i < 5; ++i) request += peer.ReadThrough();
  return request;
}

// Answers to what is asked for in front of the first amendment of a connection.
void AnswerFeatures(ServerEnd& peer) {
  EXPECT_EQ(peer.ReadThrough(), kAsk);
  peer.Send(std::string(kFeatures) + kNothing);
}

class OfRemoteClients : public testing::TestWithParam<Client::OperationMode> {
 protected:
  ScriptedServer _server;
};

class OfClientsInTheProcess : public testing::TestWithParam<Client::OperationMode> {
 protected:
  const ScopedEnvironment _noLocalFile{"TAVIX_SETTINGS_LOCALFILE", nullptr};
};

}  // namespace

TEST_P(OfRemoteClients, AmendmentIsSentBehindOneQuestion) {
  const ServerThreads threads(_server, [](ServerEnd& peer, size_t) {
    AnswerFeatures(peer);
    EXPECT_EQ(ReadAmendment(peer), "amend\n.\n[A]\nx=\n.\n[A]\nx=1\n.\n.\n.\n");
    peer.Send("result\nok\n");
    EXPECT_EQ(ReadAmendment(peer), "amend\n.\n.\n.\n.\n.\n");
    peer.Send("result\nfailure\n");
    peer.ReadToEnd();
  });
  Client client(GetParam());
  EXPECT_TRUE(client.Amend(SetUnless()));
  EXPECT_FALSE(client.Amend(Amendment()));
}

TEST_P(OfRemoteClients, AmendmentIsNotSentToAnOlderServer) {
  const ServerThreads threads(_server, [](ServerEnd& peer, size_t) {
    EXPECT_EQ(peer.ReadThrough(), kAsk);
    peer.Send(kNothing);
    EXPECT_EQ(peer.ReadThrough(), "get delimited\nA\n.\n") << "asked once";
    peer.Send("data\n[A]\nx=7\n.\n");
    peer.ReadToEnd();
  });
  Client client(GetParam());
  for (int i = 0; i < 2; ++i)
    EXPECT_THAT([&] { client.Amend(SetUnless()); }, ThrowsMessage<Exception>(testing::StrEq(kTooOld)));
  EXPECT_EQ(client.GetValue("[A]x"), "7") << "the connection goes on";
}

// What a server can do is known of its connection alone. A loss may fail the call that finds it.
TEST_P(OfRemoteClients, AmendmentAsksEachConnectionAnew) {
  const ServerThreads threads(_server, [](ServerEnd& peer, size_t number) {
    if (number == 0) {
      AnswerFeatures(peer);
      ReadAmendment(peer);
      return peer.Send("result\nok\n");
    }
    while (peer.ReadThrough() == kAsk) peer.Send(kNothing);
    ADD_FAILURE() << "an older server is sent nothing else";
  });
  Client client(GetParam());
  EXPECT_TRUE(client.Amend(SetUnless()));
  std::string text;
  while (text != kTooOld) {
    try {
      client.Amend(SetUnless());
      FAIL() << "it was answered";
    } catch (const Exception& exception) {
      text = exception.what();
    }
  }
}

TEST_P(OfRemoteClients, AmendmentWithANameThatNoLineCanHoldIsNotAskedFor) {
  Client client(GetParam());
  for (IniFile Amendment::*part :
       {&Amendment::present, &Amendment::absent, &Amendment::set, &Amendment::unset, &Amendment::replace}) {
    Amendment amendment;
    (amendment.*part)["a\nb"];
    EXPECT_THAT([&] { client.Amend(amendment); },
                ThrowsMessage<Exception>(testing::HasSubstr("it can't stand on a line of its own")));
    amendment = Amendment();
    (amendment.*part).SetValue("A", std::string(16 * 1024 * 1024, 'k'), "");
    EXPECT_THAT([&] { client.Amend(amendment); }, ThrowsMessage<Exception>(testing::HasSubstr("can't be sent")));
  }
}

INSTANTIATE_TEST_SUITE_P(Modes, OfRemoteClients, testing::Values(Client::MultiThreaded, Client::SingleThreaded));

TEST(AmendingClient, HandlesNoticesBetweenThePartsOfTheAnswer) {
  ScriptedServer server;
  const ServerThreads threads(server, [](ServerEnd& peer, size_t) {
    EXPECT_EQ(peer.ReadThrough(), "subscribe\nA\n.\n");
    EXPECT_EQ(peer.ReadThrough(), kAsk);
    peer.Send(std::string(kNotice) + kFeatures + kNotice + kNothing + kNotice);
    ReadAmendment(peer);
    peer.Send(std::string(kNotice) + "result\nok\n");
    peer.ReadToEnd();
  });
  RecordingCallback callback;
  Client client(Client::MultiThreaded);
  client.Subscribe(&callback, "A");
  EXPECT_TRUE(client.Amend(SetUnless()));
  EXPECT_EQ(callback.GetChanges().size(), 4U);
  client.UnSubscribe(&callback);
}

// The connection breaks in front of the last line feed. The repeat fails by the first one's change.
TEST(AmendingClient, KeepsASuccessWhoseLineWasCutOff) {
  ScriptedServer server;
  const ServerThreads threads(server, [](ServerEnd& peer, size_t number) {
    AnswerFeatures(peer);
    ReadAmendment(peer);
    if (number == 0) return peer.Send("result\nok");
    peer.Send("result\nfailure\n");
    peer.ReadToEnd();
  });
  Client client(Client::SingleThreaded);
  EXPECT_TRUE(client.Amend(SetUnless()));
}

TEST(AmendingClient, WhoseAnswerIsCutOffSendsNothingOfTheChange) {
  ScriptedServer server;
  const ServerThreads threads(server, [](ServerEnd& peer, size_t number) {
    peer.ReadThrough();
    if (number == 0) return peer.Send("Features\n--------\namend\n");
    peer.Send(kNothing);
    EXPECT_EQ(peer.ReadThrough(), kAsk) << "nothing of the change";
  });
  Client client(Client::MultiThreaded);
  EXPECT_THAT([&] { client.Amend(SetUnless()); },
              ThrowsMessage<Exception>(testing::StrEq("Amend failed to communicate with tavix-settings-server")));
}

TEST_P(OfClientsInTheProcess, AmendmentIsMadeByTheStore) {
  Client client(GetParam());
  EXPECT_TRUE(client.Amend(SetUnless()));
  EXPECT_FALSE(client.Amend(SetUnless()));
  EXPECT_EQ(client.GetValue("[A]x"), "1");
  Amendment amendment;
  amendment.unset = DocumentOf("[A]\nx=\n");
  EXPECT_TRUE(client.Amend(amendment));
  EXPECT_EQ(client.FindValue("[A]x"), std::nullopt);
}

INSTANTIATE_TEST_SUITE_P(Modes, OfClientsInTheProcess,
                         testing::Values(Client::Local, Client::SingleThreadedLocalConnection,
                                         Client::MultiThreadedLocalConnection));

TEST(AmendingClient, OfALocalFileShowsItsDefaultsAgain) {
  const TemporaryDirectory directory;
  directory.Write("local.ini", "[A]\nx=5\n");
  const ScopedEnvironment localFile("TAVIX_SETTINGS_LOCALFILE", directory.Path("local.ini").c_str());
  Client client(Client::MultiThreaded);
  client.SetValue("[A]x", "6");
  Amendment amendment;
  amendment.present = DocumentOf("[A]\nx=6\n");
  amendment.unset = DocumentOf("[A]\nx=\n");
  EXPECT_TRUE(client.Amend(amendment));
  EXPECT_EQ(client.GetValue("[A]x"), "5");
  EXPECT_EQ(directory.Read("local.ini"), "[A]\nx=5\n");
}

}  // namespace tavix::test
