#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "tavix/settings/Amendment.h"
#include "tests/settings/client/ProtocolClientTest.h"
#include "tests/support/DocumentText.h"

// Later requests, which a client asks for before it sends them.

namespace tavix::test {

namespace {

using settings::Amendment;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Pair;

constexpr char kAsk[] = "info features\nget delimited\n.\n";
constexpr char kFeatures[] = "Features\n--------\namend 2\nhistory 1 5\n\n";
constexpr char kNothing[] = "data\n.\n";
constexpr char kNotice[] = "async change\na\n.\n[a]\nk=2\n.\n";

class ProtocolClientAmend : public ProtocolClientTest {
 protected:
  static Amendment Change() {
    Amendment amendment;
    amendment.present = DocumentOf("[a]\nk=1\n");
    amendment.absent = DocumentOf("[a]\nl=\n");
    amendment.set = DocumentOf("[a]\nk=2\n");
    amendment.unset = DocumentOf("[b]\n");
    amendment.replace = DocumentOf("[c]\n");
    return amendment;
  }

  // The five payloads.
  static std::string ReadAmendment(ServerEnd& peer) {
    std::string request;
    for (int i = 0; i < 5; ++i) request += peer.ReadThrough();
    return request;
  }
};

}  // namespace

TEST_F(ProtocolClientAmend, AsksOnceAndThenSendsFivePayloads) {
  Serve([](ServerEnd& peer) {
    EXPECT_EQ(peer.ReadThrough(), kAsk);
    peer.Send(kFeatures + std::string(kNothing));
    EXPECT_EQ(ReadAmendment(peer), "amend\n[a]\nk=1\n.\n[a]\nl=\n.\n[a]\nk=2\n.\n[b]\n.\n[c]\n.\n");
    peer.Send("result\nok\n");
    EXPECT_EQ(ReadAmendment(peer), "amend\n.\n.\n.\n.\n.\n");
    peer.Send("result\nfailure\n");
    peer.ReadToEnd();
  });
  Client client(Patient());
  EXPECT_TRUE(client.Amend(Change()));
  EXPECT_FALSE(client.Amend(Amendment()));
}

TEST_F(ProtocolClientAmend, SendsNothingOfTheChangeToAnOlderServer) {
  Serve([](ServerEnd& peer) {
    EXPECT_EQ(peer.ReadThrough(), kAsk);
    peer.Send(kNothing);
    EXPECT_EQ(peer.ReadThrough(), "get delimited\n.\n");
    peer.Send(kNothing);
    peer.ReadToEnd();
  });
  Client client(Patient());
  for (int i = 0; i < 2; ++i) {
    const Exception exception = Catch([&] { (void)client.Amend(Change()); });
    EXPECT_EQ(exception.GetReason(), Reason::kTooOld);
    EXPECT_EQ(exception.what(), GetAddress() + " is too old for amendments");
    EXPECT_FALSE(exception.WasSent());
  }
  client.Flush();
}

TEST_F(ProtocolClientAmend, IsNotSentToAServerWithOtherFeatures) {
  Answer({"Features\n--------\namendment\nhistory amend\n\n" + std::string(kNothing)});
  Client client(Patient());
  EXPECT_EQ(ReasonOf([&] { (void)client.Amend(Change()); }), Reason::kTooOld);
}

TEST_F(ProtocolClientAmend, NoticesMayComeInBetween) {
  Serve([](ServerEnd& peer) {
    peer.ReadThrough();
    peer.Send(kNotice + std::string(kFeatures) + kNotice + kNothing + kNotice);
    ReadAmendment(peer);
    peer.Send(std::string(kNotice) + "result\nok\n");
    peer.ReadToEnd();
  });
  Client client(Patient());
  EXPECT_TRUE(client.Amend(Change()));
  for (int i = 0; i < 4; ++i) EXPECT_EQ(client.AwaitNotice(kPatience)->groups, (Groups{"a"}));
}

TEST_F(ProtocolClientAmend, RefusesWhatNoLineCanHoldBeforeItAsks) {
  Client client(Patient());
  for (const char* name : {".", "a\nb"}) {
    Amendment amendment;
    for (core::IniFile* part :
         {&amendment.present, &amendment.absent, &amendment.set, &amendment.unset, &amendment.replace}) {
      (*part)[name];
      EXPECT_EQ(ReasonOf([&] { (void)client.Amend(amendment); }), Reason::kUsage);
      part->Clear();
    }
  }
  Amendment amendment;
  amendment.unset.SetValue("a", std::string(16 * 1024 * 1024, 'k'), "");
  EXPECT_EQ(ReasonOf([&] { (void)client.Amend(amendment); }), Reason::kUsage);
}

TEST_F(ProtocolClientAmend, AnswerThatIsNoneEndsTheConnection) {
  for (const char* reply : {"Features\n-----\n", "Features\n--------\namend\n\nresult\n", "result\nok\n"}) {
    ScriptedServer server;
    const ServerThreads threads(server, [&](ServerEnd& peer, size_t) {
      peer.ReadThrough();
      peer.Send(reply);
      peer.ReadToEnd();
    });
    Client client(Patient());
    EXPECT_EQ(ReasonOf([&] { (void)client.Amend(Change()); }), Reason::kNotProtocol) << reply;
    EXPECT_FALSE(client.IsOpen());
  }
}

TEST_F(ProtocolClientAmend, FeaturesAreTheirLines) {
  Answer({kFeatures + std::string(kNothing), "Features\n--------\n\n" + std::string(kNothing), kNothing});
  Client client(Patient());
  EXPECT_THAT(*client.GetFeatures(), ElementsAre("amend 2", "history 1 5"));
  EXPECT_THAT(*client.GetFeatures(), IsEmpty());
  EXPECT_FALSE(client.GetFeatures());
}

TEST_F(ProtocolClientAmend, WhoamiIsByName) {
  Answer({"Whoami\n------\nconnection=tcp\nuser=nobody\n\n" + std::string(kNothing), kNothing});
  Client client(Patient());
  EXPECT_THAT(client.GetWhoami(), ElementsAre(Pair("connection", "tcp"), Pair("user", "nobody")));
  EXPECT_THAT(client.GetWhoami(), IsEmpty());
}

TEST_F(ProtocolClientAmend, RefusalIsItsReason) {
  Answer({"Refused\n-------\nreason=restricted group: Secure\\t\n\n" + std::string(kNothing),
          "Refused\n-------\n\n" + std::string(kNothing), kNothing});
  Client client(Patient());
  EXPECT_EQ(client.TakeRefusal(), "restricted group: Secure\t");
  EXPECT_EQ(client.TakeRefusal(), "");
  EXPECT_EQ(client.TakeRefusal(), "");
}

TEST_F(ProtocolClientAmend, NoteIsOneLine) {
  Serve([](ServerEnd& peer) {
    EXPECT_EQ(peer.ReadThrough(), "note site 4\nget delimited\n.\n");
    peer.Send(kNothing);
    peer.ReadToEnd();
  });
  Client client(Patient());
  EXPECT_EQ(ReasonOf([&] { client.Note("a\nb"); }), Reason::kUsage);
  EXPECT_EQ(ReasonOf([&] { client.Note(std::string(257, 'n')); }), Reason::kUsage);
  client.Note("site 4");
  client.Flush();
}

TEST_F(ProtocolClientAmend, AsksByOneLineForDataOrARefusal) {
  Serve([](ServerEnd& peer) {
    EXPECT_EQ(peer.ReadThrough("info features"), "history - 2 A\ninfo features\n");
    peer.Send("data\n[1]\nis [a]k=\\s1\n.\n" + std::string(kFeatures));
    EXPECT_EQ(peer.ReadThrough("info features"), "rollback 7\ninfo features\n");
    peer.Send("refused\nrevision 7 is not kept\\x3a the oldest is 9\n" + std::string(kFeatures));
    EXPECT_EQ(peer.ReadThrough("info features"), "checkpoint\ninfo features\n");
    peer.Send(kNothing + std::string(kFeatures));
    peer.ReadToEnd();
  });
  Client client(Patient());
  Client::Answer answer = client.Ask("history - 2 A");
  EXPECT_FALSE(answer.isRefused);
  EXPECT_THAT(answer.data["1"], ElementsAre(Pair("is [a]k", " 1")));
  answer = client.Ask("rollback 7");
  EXPECT_TRUE(answer.isRefused);
  EXPECT_EQ(answer.reason, "revision 7 is not kept: the oldest is 9");
  EXPECT_TRUE(client.Ask("checkpoint").data.IsEmpty());
}

TEST_F(ProtocolClientAmend, LineThatTheServerDoesNotKnowLeavesTheConnectionInOrder) {
  Serve([](ServerEnd& peer) {
    peer.ReadThrough("info features");
    peer.Send(kFeatures);
    EXPECT_EQ(peer.ReadThrough(), "get delimited\n.\n");
    peer.Send(kNothing);
    peer.ReadToEnd();
  });
  Client client(Patient());
  const Exception exception = Catch([&] { client.Ask("rollback 7"); });
  EXPECT_EQ(exception.GetReason(), Reason::kTooOld);
  EXPECT_EQ(exception.what(), GetAddress() + " is too old for 'rollback'");
  client.Flush();
}

TEST_F(ProtocolClientAmend, AnswerToALineThatIsNoneEndsTheConnection) {
  Serve([](ServerEnd& peer) {
    peer.ReadThrough("trial");
    peer.Send("result\nok\n");
    peer.ReadToEnd();
  });
  Client client(Patient());
  const Exception exception = Catch([&] { client.Ask("trial"); });
  EXPECT_THAT(exception.what(), HasSubstr("expected \"data\", got \"result\""));
  EXPECT_FALSE(client.IsOpen());
}

TEST_F(ProtocolClientAmend, LineWithoutAnAnswerMayHaveBeenCarriedOut) {
  Serve([](ServerEnd& peer) { peer.ReadThrough("confirm t"); });
  Client client(Patient());
  EXPECT_TRUE(Catch([&] { client.Ask("confirm t"); }).WasSent());
}

TEST_F(ProtocolClientAmend, TryStandsInFrontOfTheChange) {
  Serve([](ServerEnd& peer) {
    EXPECT_EQ(peer.ReadThrough(), "try 90 t-3f9a\nmerge\n[a]\nk=1\n.\n");
    peer.ReadToEnd();
  });
  Client client(Patient());
  client.Try(90, "t-3f9a");
  client.Merge(DocumentOf("[a]\nk=1\n"));
}

TEST_F(ProtocolClientAmend, LineThatWouldBeSeveralIsNotSent) {
  Serve([](ServerEnd& peer) { EXPECT_EQ(peer.ReadToEnd(), ""); });
  Client client(Patient());
  EXPECT_EQ(ReasonOf([&] { client.Ask("history - 2 A\nquit"); }), Reason::kUsage);
  EXPECT_EQ(ReasonOf([&] { client.Try(1, "t\nquit"); }), Reason::kUsage);
}

}  // namespace tavix::test
