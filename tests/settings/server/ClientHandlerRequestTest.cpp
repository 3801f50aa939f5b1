#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>

#include "tavix/core/IniFile.h"
#include "tavix/osa/Exception.h"
#include "tavix/settings/server/IServerInfo.h"
#include "tavix/settings/server/SettingsManager.h"
#include "tests/support/CapturedLog.h"
#include "tests/support/DocumentText.h"
#include "tests/support/RecordingCallback.h"
#include "tests/support/ServedStore.h"

// Every request of the protocol, byte for byte.

namespace {

using tavix::osa::Exception;
using tavix::test::AllSettingsOf;
using tavix::test::CapturedLog;
using tavix::test::RecordingCallback;
using tavix::test::ServedStore;
using tavix::test::UserSettingsOf;

// A host with figures that take escapes.
struct Figures : tavix::settings::server::IServerInfo {
  void AddFigures(tavix::core::IniFile::KeyMap& figures) const override {
    figures = {{"kept", " true"}, {"a=b", "two\nlines \\"}, {"#", ""}};
  }
};

struct NoFigures : tavix::settings::server::IServerInfo {
  void AddFigures(tavix::core::IniFile::KeyMap&) const override {}
};

constexpr char kNetwork[] = "[Audio]\nv=1\n[Net/Eth0]\nip=10.0.0.2\n[Net/Wlan0]\nssid=x\n";

TEST(ClientHandler, GetWritesTheGroupsThatMatch) {
  ServedStore served({kNetwork});
  EXPECT_EQ(served.Serve("get delimited\nNet/*\n.\n"), "data\n[Net/Eth0]\nip=10.0.0.2\n[Net/Wlan0]\nssid=x\n.\n");
  EXPECT_EQ(served.Serve("get delimited\nNone\nNet/Wlan0\nAudio\nAudio\n.\n"),
            "data\n[Audio]\nv=1\n[Net/Wlan0]\nssid=x\n.\n");
}

TEST(ClientHandler, GetOfNothingIsAnsweredWithNothing) {
  ServedStore served({kNetwork});
  EXPECT_EQ(served.Serve("get delimited\n.\n"), "data\n.\n");
  EXPECT_EQ(served.Serve("get delimited\nNone\nX*\n.\n"), "data\n.\n");
}

// Deliberate: only the one word makes a reply that says where it begins and ends.
TEST(ClientHandler, GetWithoutDelimitedWritesTheBareGroups) {
  ServedStore served({kNetwork});
  for (const char* request : {"get\n", "get Delimited\n", "get delimited.\n", "get x delimited\n"})
    EXPECT_EQ(served.Serve(request + std::string("Audio\n.\n")), "[Audio]\nv=1\n") << request;
  EXPECT_EQ(served.Serve("get\n.\n"), "");
}

TEST(ClientHandler, GetFindsTheGroupWithAnEmptyName) {
  ServedStore served({"[]\nx=1\n[A]\n"});
  EXPECT_EQ(served.Serve("get delimited\n\n.\n"), "data\n[]\nx=1\n.\n");
}

TEST(ClientHandler, GetReadsRestrictedGroupsLikeAnyOther) {
  ServedStore served({}, "", "[Secure/K]\nkey=1\n");
  EXPECT_EQ(served.Serve("get delimited\nSecure/K\n.\n"), "data\n[Secure/K]\nkey=1\n.\n");
}

TEST(ClientHandler, MergeHasNoReplyAndIsSaved) {
  ServedStore served({"[A]\nx=1\n"});
  EXPECT_EQ(served.Serve("merge\n[A]\ny=2\n[B]\n.\n"), "");
  EXPECT_EQ(AllSettingsOf(served.store), "[A]\nx=1\ny=2\n[B]\n");
  EXPECT_EQ(served.persister.GetSaved(), "[A]\ny=2\n[B]\n");
}

TEST(ClientHandler, MergeNopersistIsNotSaved) {
  ServedStore served({"[A]\nx=1\n"});
  EXPECT_EQ(served.Serve("merge nopersist\n[A]\nx=5\n.\nget delimited\nA\n.\n"), "data\n[A]\nx=5\n.\n");
  EXPECT_EQ(served.Serve("merge nopersist more\n[A]\nx=6\n.\n"), "");
  EXPECT_EQ(AllSettingsOf(served.store), "[A]\nx=6\n");
  EXPECT_EQ(served.persister.CountSaves(), 0);
}

// Deliberate: an unknown word is ignored, as everywhere in the protocol.
TEST(ClientHandler, MergeWithAnyOtherWordIsSaved) {
  ServedStore served;
  for (const char* word : {"foo", "NoPersist", "nopersist,", "persist nopersist"})
    EXPECT_EQ(served.Serve(std::string("merge ") + word + "\n[A]\n.\n"), "");
  EXPECT_EQ(served.persister.CountSaves(), 4);
}

TEST(ClientHandler, MergeDropsRestrictedGroups) {
  ServedStore served({}, "", "[Secure/K]\nkey=1\n");
  served.Serve("merge\n[A]\n[Secure/K]\nkey=2\n.\nmerge nopersist\n[TrustedT]\n.\n");
  EXPECT_EQ(AllSettingsOf(served.store), "[A]\n[Secure/K]\nkey=1\n");
}

TEST(ClientHandler, MergeOfAnEmptyPayload) {
  ServedStore served({"[A]\n"});
  EXPECT_EQ(served.Serve("merge\n.\ndump all\n"), "[A]\n.\n");
}

TEST(ClientHandler, TestAndMergeAnswersWhetherTheConditionHeld) {
  ServedStore served({"[A]\nx=1\n"});
  const std::string request = "test-and-merge\n[A]\nx=1\n.\n[A]\nx=2\n.\n";
  EXPECT_EQ(served.Serve(request), "result\nok\n");
  EXPECT_EQ(served.Serve(request), "result\nfailure\n");
  EXPECT_EQ(AllSettingsOf(served.store), "[A]\nx=2\n");
  EXPECT_EQ(served.persister.CountSaves(), 1);
}

TEST(ClientHandler, TestAndMergeTakesEmptyPayloads) {
  ServedStore served({"[A]\nx=1\n"});
  EXPECT_EQ(served.Serve("test-and-merge\n.\n.\ntest-and-merge\n[B]\n.\n.\ntest-and-merge\n[B]\nx=1\n.\n.\n"),
            "result\nok\nresult\nok\nresult\nfailure\n")
      << "a group without keys asks for nothing";
}

TEST(ClientHandler, OverwriteReplacesTheGroupsOfItsList) {
  ServedStore served({"[A]\nx=1\n[B]\ny=1\n[Net/1]\n[Net/2]\n"});
  EXPECT_EQ(served.Serve("overwrite\nA\nNet/*\n.\n[A]\nz=1\n[C]\n.\n"), "");
  EXPECT_EQ(AllSettingsOf(served.store), "[A]\nz=1\n[B]\ny=1\n[C]\n");
  EXPECT_EQ(served.persister.GetSaved(), "[A]\nz=1\n[C]\n[TavixSettings/Data/DeletedGroups]\nA=A\nNet/*=Net/*\n");
}

TEST(ClientHandler, OverwriteTakesAnEmptyListAndAnEmptyPayload) {
  ServedStore served({"[A]\nx=1\n"});
  served.Serve("overwrite\n.\n[A]\ny=1\n.\n");
  EXPECT_EQ(AllSettingsOf(served.store), "[A]\nx=1\ny=1\n");
  served.Serve("overwrite\nA\n.\n.\n");
  EXPECT_EQ(AllSettingsOf(served.store), "");
}

TEST(ClientHandler, RestoreBringsDefaultsBack) {
  ServedStore served({"[A]\nx=1\n[Net/1]\ny=1\n"}, "[A]\nx=5\n[Net/1]\ny=5\n[Net/2]\n");
  EXPECT_EQ(served.Serve("restore\nNet/*\n.\n"), "");
  EXPECT_EQ(AllSettingsOf(served.store), "[A]\nx=5\n[Net/1]\ny=1\n");
  EXPECT_EQ(served.Serve("restore\nA\n.\n"), "");
  EXPECT_EQ(AllSettingsOf(served.store), "[A]\nx=1\n[Net/1]\ny=1\n");
}

// Deliberate: the store is asked, too, when there is nothing to restore; it saves.
TEST(ClientHandler, RestoreOfAnEmptyListIsARestore) {
  ServedStore served({"[A]\nx=1\n"}, "[A]\nx=5\n");
  served.Serve("restore\n.\n");
  EXPECT_EQ(served.persister.CountSaves(), 1);
  EXPECT_EQ(AllSettingsOf(served.store), "[A]\nx=5\n");
}

TEST(ClientHandler, DumpWritesTheUserSettingsWithTheirBookkeeping) {
  ServedStore served({"[A]\nx=1\n[B]\ny=1\n"}, "[B]\ny=2\n");
  const std::string user = "[A]\nz=1\n[B]\ny=2\n[TavixSettings/Data/DeletedGroups]\nA=A\n.\n";
  EXPECT_EQ(served.Serve("overwrite\nA\n.\n[A]\nz=1\n.\ndump\n"), user);
  for (const char* request : {"dump All\n", "dump user\n", "dump x all\n"}) EXPECT_EQ(served.Serve(request), user);
}

TEST(ClientHandler, DumpAllWritesWhatReadersSee) {
  ServedStore served({"[A]\nx=1\n"}, "[A]\ny=2\n", "[Secure/K]\nkey=1\n");
  EXPECT_EQ(served.Serve("dump all\n"), "[A]\nx=1\ny=2\n[Secure/K]\nkey=1\n.\n");
  EXPECT_EQ(ServedStore().Serve("dump\ndump all\n"), ".\n.\n");
}

TEST(ClientHandler, InfoListsWhatAllSubscribersSubscribedTo) {
  ServedStore served;
  RecordingCallback elsewhere;
  served.store.Subscribe(&elsewhere, "Net*");
  EXPECT_EQ(served.Serve("subscribe\nB\nA\n.\ninfo subscribed\n"),
            "Subscribed groups\n-----------------\nA\nB\nNet*\n\n");
}

TEST(ClientHandler, InfoWithoutSubscribersIsAnEmptyListing) {
  ServedStore served;
  EXPECT_EQ(served.Serve("info subscribed\n"), "Subscribed groups\n-----------------\n\n");
  EXPECT_EQ(served.Serve("subscribe\n.\ninfo subscribed\n"), "Subscribed groups\n-----------------\n\n")
      << "an empty list subscribes to nothing";
}

TEST(ClientHandler, InfoOfTheServerWritesWhatTheHostReportsAsSettingsText) {
  ServedStore served({"[A]\nx=1\n"});
  const Figures figures;
  served.env.serverInfo = &figures;
  EXPECT_EQ(served.Serve("serialize phparray\ninfo server now\nserialize ini\nget delimited\n.\n"),
            "Server\n------\n\\x23=\na\\x3db=two\\nlines \\\\\nkept=\\strue\n\ndata\n.\n");
}

TEST(ClientHandler, InfoOfAServerWithoutFiguresIsAnEmptyListing) {
  ServedStore served;
  const NoFigures figures;
  served.env.serverInfo = &figures;
  EXPECT_EQ(served.Serve("info server\n"), "Server\n------\n\n");
}

TEST(ClientHandler, InfoOfTheServerOfAHostThatReportsNothingWritesNothing) {
  ServedStore served;
  EXPECT_EQ(served.Serve("info server\nget delimited\n.\n"), "data\n.\n");
}

TEST(ClientHandler, InfoOfAnythingElseWritesNothing) {
  ServedStore served;
  EXPECT_EQ(served.Serve("info\ninfo all\ninfo Subscribed\ninfo subscribed.\ninfo all subscribed\n"), "");
}

TEST(ClientHandler, SerializeWithAnUnknownNameChangesNothing) {
  ServedStore served({"[A]\nx=1\n"});
  EXPECT_EQ(served.Serve("serialize nonsense\nserialize\nserialize INI\nget\nA\n.\n"), "[A]\nx=1\n");
  EXPECT_EQ(served.Serve("serialize phparray\nserialize nonsense\nget\nNone\n.\n"), "a:0:{}\n\n");
}

TEST(ClientHandler, APayloadThatIsNoSettingsTextEndsTheConnectionAndChangesNothing) {
  for (const char* request :
       {"merge\n[A]\nx=9\nbogus\n.\n", "merge nopersist\nx=9\n.\n", "test-and-merge\nbogus\n.\n[A]\nx=9\n.\n",
        "test-and-merge\n.\n[A]\nx=9\n[B\n.\n", "overwrite\nA\n.\nbogus\n.\n"}) {
    ServedStore served({"[A]\nx=1\n"});
    EXPECT_THAT([&] { served.Serve(request); },
                testing::ThrowsMessage<Exception>(testing::StartsWith("settings payload:")))
        << request;
    EXPECT_EQ(AllSettingsOf(served.store), "[A]\nx=1\n") << request;
    EXPECT_EQ(served.persister.CountSaves(), 0) << request;
  }
}

// Group lists have a name on each line: such a group could never be asked for, nor announced.
TEST(ClientHandler, AGroupNameThatCanNotStandOnALineEndsTheConnectionAndChangesNothing) {
  for (const char* group : {"[A\\nB]\n", "[\\n]\n", "[.]\n", "[A]\nx=9\n[B\\x0aC]\n"}) {
    for (const char* request :
         {"merge\n", "merge nopersist\n", "test-and-merge\n", "test-and-merge\n.\n", "overwrite\n*\n.\n"}) {
      ServedStore served({"[A]\nx=1\n"});
      EXPECT_THAT([&] { served.Serve(std::string(request) + group + ".\n.\n"); },
                  testing::ThrowsMessage<Exception>(testing::HasSubstr("can't stand on a line of its own")))
          << request << group;
      EXPECT_EQ(AllSettingsOf(served.store), "[A]\nx=1\n") << request << group;
      EXPECT_EQ(served.persister.CountSaves(), 0) << request << group;
    }
  }
}

TEST(ClientHandler, OddGroupNamesThatCanStandOnALineAreWelcome) {
  ServedStore served;
  const std::string payload = "[]\n[ A ]\n[#]\n[..]\n[A\\r]\n[\\x00]\n";
  EXPECT_EQ(served.Serve("merge\n" + payload + ".\nget delimited\n*\n.\n"),
            "data\n[]\n[\\x00]\n[ A ]\n[#]\n[..]\n[A\\r]\n.\n");
}

TEST(ClientHandler, LineBreaksAndDotsInKeysAndValuesPass) {
  ServedStore served;
  EXPECT_EQ(served.Serve("merge\n[A]\n.=.\nk\\n=\\n.\\n\n.\nget delimited\nA\n.\n"),
            "data\n[A]\n.=.\nk\\n=\\n.\\n\n.\n");
}

}  // namespace
