#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "tests/programs/server/Daemon.h"

namespace tavix::test {

namespace {

using testing::HasSubstr;

constexpr char kDefaults[] =
    "[A]\nx=1\n"
    "[Net/Eth0]\nip=10.0.0.2\n"
    "[Net/Wlan0]\nssid=lab\n";

// What a whole connection sends, and what comes back until the daemon closes it.
struct Conversation {
  const char* about;
  std::string sent;
  std::string received;
};

class Protocol : public testing::Test {
 protected:
  Protocol()
      : _defaults(_directory.Write("defaults.ini", kDefaults)),
        _daemon(_directory, {"--defaults", "defaults.ini", "--restricted", "restricted.ini", "--user-settings", "u.ini",
                             "--max-line", "67108864"}),
        _port(_daemon.GetPort()) {}

  std::string Converse(const std::string& requests) { return tavix::test::Converse(_port, requests); }

  void ExpectReplies(const std::vector<Conversation>& conversations) {
    for (const Conversation& conversation : conversations)
      EXPECT_EQ(Converse(conversation.sent), conversation.received) << conversation.about;
  }

  // Standard error, complete.
  std::string ErrorsAtTheEnd() {
    EXPECT_EQ(_daemon.Stop(), 0);
    return _daemon.GetErrors();
  }

  const TemporaryDirectory _directory;
  const std::string _defaults;
  const std::string _restricted{_directory.Write("restricted.ini", "[Secure/Keys]\nk=1\n")};
  Daemon _daemon;
  const unsigned short _port;
};

}  // namespace

TEST_F(Protocol, EmptyListIsAnsweredByAnEmptyPayload) {
  EXPECT_EQ(Converse("get delimited\n.\n"), "data\n.\n");
}

TEST_F(Protocol, PatternYieldsEveryMatchingGroupInAscendingOrder) {
  EXPECT_EQ(Converse("get delimited\nNet/*\n.\n"), "data\n[Net/Eth0]\nip=10.0.0.2\n[Net/Wlan0]\nssid=lab\n.\n");
}

TEST_F(Protocol, GroupsAreReadWhateverTheListLooksLike) {
  ExpectReplies({
      {"a name", "get delimited\nA\n.\n", "data\n[A]\nx=1\n.\n"},
      {"a name twice, and a pattern for it", "get delimited\nA\nA\n*A\n.\n", "data\n[A]\nx=1\n.\n"},
      {"names out of order", "get delimited\nNet/Wlan0\nA\n.\n", "data\n[A]\nx=1\n[Net/Wlan0]\nssid=lab\n.\n"},
      {"a name that is no group", "get delimited\nB\n.\n", "data\n.\n"},
      {"no group has the empty name", "get delimited\n\n.\n", "data\n.\n"},
      {"blanks belong to the name", "get delimited\n A\nA \n.\n", "data\n.\n"},
      {"a carriage return does, too", "get delimited\nA\r\n.\n", "data\n.\n"},
      {"two dots are a name", "get delimited\n..\nA\n.\n", "data\n[A]\nx=1\n.\n"},
      {"everything", "get delimited\n*\n.\n",
       "data\n[A]\nx=1\n[Net/Eth0]\nip=10.0.0.2\n[Net/Wlan0]\nssid=lab\n[Secure/Keys]\nk=1\n.\n"},
  });
}

// Deliberate: the bare form is for people; without "delimited" nothing tells where a reply ends.
TEST_F(Protocol, GetWithoutDelimitedIsAnsweredByBareGroups) {
  ExpectReplies({
      {"no argument", "get\nA\n.\n", "[A]\nx=1\n"},
      {"another argument", "get Delimited\nA\n.\n", "[A]\nx=1\n"},
      {"an empty list", "get\n.\n", ""},
  });
}

TEST_F(Protocol, MergeIsSilentAndSeenByTheNextGet) {
  EXPECT_EQ(Converse("merge nopersist\n[A]\nx=5\n.\nget delimited\nA\n.\n"), "data\n[A]\nx=5\n.\n");
  EXPECT_EQ(Converse("merge\n[A]\ny=6\n.\nget delimited\nA\n.\n"), "data\n[A]\nx=5\ny=6\n.\n");
}

TEST_F(Protocol, OnlyTheExactWordNopersistKeepsAMergeFromBeingSaved) {
  ExpectReplies({
      {"nopersist", "merge nopersist\n[N]\na=1\n.\ndump\n", ".\n"},
      {"another word", "merge foo\n[N]\na=2\n.\ndump\n", "[N]\na=2\n.\n"},
      {"the second word", "merge foo nopersist\n[N]\na=3\n.\ndump\n", "[N]\na=3\n.\n"},
      {"another case", "merge NoPersist\n[N]\na=4\n.\ndump\n", "[N]\na=4\n.\n"},
  });
}

TEST_F(Protocol, TestAndMergeSaysWhetherTheConditionHeld) {
  const std::string request = "test-and-merge\n[A]\nx=1\n.\n[A]\nx=2\n.\n";
  EXPECT_EQ(Converse(request), "result\nok\n");
  EXPECT_EQ(Converse(request), "result\nfailure\n");
  EXPECT_EQ(Converse("get delimited\nA\n.\n"), "data\n[A]\nx=2\n.\n");
}

TEST_F(Protocol, EmptyConditionAlwaysHolds) {
  EXPECT_EQ(Converse("test-and-merge\n.\n[A]\nx=7\n.\nget delimited\nA\n.\n"), "result\nok\ndata\n[A]\nx=7\n.\n");
}

TEST_F(Protocol, OverwriteReplacesWholeGroups) {
  EXPECT_EQ(Converse("overwrite\nNet/*\n.\n[Net/Eth0]\nmtu=9000\n.\nget delimited\nNet/*\n.\n"),
            "data\n[Net/Eth0]\nmtu=9000\n.\n");
}

TEST_F(Protocol, RestoreBringsDefaultsBack) {
  EXPECT_EQ(Converse("merge\n[A]\nx=5\ny=6\n.\nrestore\nA\n.\nget delimited\nA\n.\n"), "data\n[A]\nx=1\n.\n");
}

TEST_F(Protocol, DumpShowsTheUserLayerWithItsBookkeepingAndDumpAllWhatReadersSee) {
  ExpectReplies({
      {"nothing yet", "dump\n", ".\n"},
      {"user layer", "overwrite\nNet/*\n.\n[A]\nx=2\n.\ndump\n",
       "[A]\nx=2\n[TavixSettings/Data/DeletedGroups]\nNet/*=Net/*\n.\n"},
      {"another word", "dump All\n", "[A]\nx=2\n[TavixSettings/Data/DeletedGroups]\nNet/*=Net/*\n.\n"},
      {"all", "dump all\n", "[A]\nx=2\n[Secure/Keys]\nk=1\n.\n"},
  });
}

// The warnings go through the log, and the line "." is passed over in silence.
TEST_F(Protocol, UnknownCommandIsWarnedOfLineByLineAndNotAnswered) {
  EXPECT_EQ(Converse("bogus\n[A]\nx=1\n.\nget delimited\nA\n.\n"), "data\n[A]\nx=1\n.\n");
  const std::string errors = ErrorsAtTheEnd();
  for (const char* word : {"bogus", "[A]", "x=1"})
    EXPECT_THAT(errors, HasSubstr(std::string("MsgDispatcher: Invalid command: ") + word + "\n"));
  EXPECT_EQ(CountOf("Invalid command", errors), 3u) << errors;
}

TEST_F(Protocol, EmptyLinesAndLinesThatBeginWithADotAreIgnoredInSilence) {
  EXPECT_EQ(Converse("\n.\n \n. get\n\r\nget delimited\n.\n"), "data\n.\n");
  EXPECT_EQ(ErrorsAtTheEnd(), "");
}

TEST_F(Protocol, InfoAnswersOnlyTheWordSubscribed) {
  ExpectReplies({
      {"no word", "info\n", ""},
      {"another word", "info all\n", ""},
      {"no subscriber", "info subscribed\n", "Subscribed groups\n-----------------\n\n"},
      {"names and patterns", "subscribe\nNet/*\nA\n.\ninfo subscribed\n",
       "Subscribed groups\n-----------------\nA\nNet/*\n\n"},
  });
}

TEST_F(Protocol, UnknownSerializationChangesNothingAndIsNotLogged) {
  EXPECT_EQ(Converse("serialize nonsense\nserialize PHPARRAY\nserialize\nget delimited\nA\n.\n"),
            "data\n[A]\nx=1\n.\n");
  EXPECT_EQ(ErrorsAtTheEnd(), "");
}

TEST_F(Protocol, LinesAfterQuitAreNotRead) {
  EXPECT_EQ(Converse("quit\nget delimited\nA\n.\nbogus\n"), "");
  EXPECT_EQ(ErrorsAtTheEnd(), "");
}

TEST_F(Protocol, CommandsAreTakenAsWordsSoThatBlanksAndCarriageReturnsDoNoHarm) {
  ExpectReplies({
      {"carriage return behind the command", "get delimited\r\nA\n.\n", "data\n[A]\nx=1\n.\n"},
      {"blanks around", "  get \t delimited  \nA\n.\n", "data\n[A]\nx=1\n.\n"},
      {"words beyond those used", "get delimited please\nA\n.\n", "data\n[A]\nx=1\n.\n"},
      {"another case is another word", "GET delimited\n.\n", ""},
      {"a word that goes on is another word", "gets delimited\n.\n", ""},
  });
}

TEST_F(Protocol, PayloadMayComeWithCarriageReturns) {
  EXPECT_EQ(Converse("merge\r\n[A]\r\nx=5\r\n.\nget delimited\nA\n.\n"), "data\n[A]\nx=5\n.\n");
}

// Deliberate: a line ".\r" is a name like any other, so it does not end the list.
TEST_F(Protocol, TerminatorTakesNoCarriageReturn) {
  EXPECT_EQ(Converse("get delimited\nA\n.\r\n.\n"), "data\n[A]\nx=1\n.\n");
}

TEST_F(Protocol, RestrictedGroupsAreReadAndNeverWritten) {
  ExpectReplies({
      {"merge", "merge\n[Secure/Keys]\nk=2\n[Trusted/New]\nn=1\n.\ndump\n", ".\n"},
      {"test-and-merge", "test-and-merge\n[Secure/Keys]\nk=1\n.\n[Secure/Keys]\nk=2\n.\n", "result\nok\n"},
      {"overwrite", "overwrite\nSecure/Keys\n.\n[Secure/Keys]\nk=2\n.\n", ""},
      {"read", "get delimited\nSecure/*\nTrusted/*\n.\n", "data\n[Secure/Keys]\nk=1\n.\n"},
  });
}

TEST_F(Protocol, ListThatTheEndOfTheConnectionCutsOffIsStillAnswered) {
  ExpectReplies({
      {"behind a line", "get delimited\nA\n", "data\n[A]\nx=1\n.\n"},
      {"within a line", "get delimited\nA", "data\n[A]\nx=1\n.\n"},
      {"behind the command", "get delimited", "data\n.\n"},
  });
}

TEST_F(Protocol, ChangeThatTheEndOfTheConnectionCutsOffIsNotCarriedOut) {
  for (const char* request : {"merge\n[A]\nx=5\n", "merge\n[A]\nx=5", "merge", "overwrite\nA\n.\n", "overwrite\nA\n",
                              "overwrite\nA\n.\n[A]\ny=1", "restore\nA\n", "test-and-merge\n.\n[A]\nx=5\n",
                              "serialize phparray\nmerge\na:1:{s:1:\"A\";a:1:{s:1:\"x\";"}) {
    EXPECT_EQ(Converse(request), "") << request;
    EXPECT_EQ(Converse("get delimited\nA\n.\ndump\n"), "data\n[A]\nx=1\n.\n.\n") << request;
  }
}

TEST_F(Protocol, PayloadThatIsNoSettingsTextEndsTheConnectionAndChangesNothing) {
  EXPECT_EQ(Converse("merge\n[A]\nx=5\nnonsense\n.\nget delimited\nA\n.\n"), "");
  EXPECT_EQ(Converse("get delimited\nA\n.\n"), "data\n[A]\nx=1\n.\n");
  EXPECT_THAT(ErrorsAtTheEnd(), HasSubstr("connection ended: settings payload:3: expected \"[group]\" or "
                                          "\"key=value\", found \"nonsense\"\n"));
}

// Such a group could be announced to nobody: lists have a name on each line.
TEST_F(Protocol, GroupNameThatCanNotStandOnALineEndsTheConnection) {
  EXPECT_EQ(Converse("merge\n[a\\nb]\nx=1\n.\ndump\n"), "");
  EXPECT_EQ(Converse("merge\n[.]\nx=1\n.\ndump\n"), "");
  EXPECT_EQ(Converse("dump\n"), ".\n");
}

TEST_F(Protocol, PhpArrayCarriesSettingsBothWays) {
  ExpectReplies({
      {"get", "serialize phparray\nget delimited\nNet/Eth0\n.\n",
       "data\na:1:{s:8:\"Net/Eth0\";a:1:{s:2:\"ip\";s:8:\"10.0.0.2\";}}\n\n.\n"},
      {"a selection that matches nothing", "serialize phparray\nget delimited\nB\n.\n", "data\na:0:{}\n\n.\n"},
      {"deliberate: an empty list is no selection", "serialize phparray\nget delimited\n.\n", "data\n.\n"},
      {"bare", "serialize phparray\nget\nA\n.\n", "a:1:{s:1:\"A\";a:1:{s:1:\"x\";s:1:\"1\";}}\n\n"},
      {"merge", "serialize phparray\nmerge\na:1:{s:1:\"A\";a:1:{s:1:\"x\";s:3:\"a\nb\";}}\n.\nget delimited\nA\n.\n",
       "data\na:1:{s:1:\"A\";a:1:{s:1:\"x\";s:3:\"a\nb\";}}\n\n.\n"},
      {"and back", "serialize phparray\nserialize ini\nget delimited\nA\n.\n", "data\n[A]\nx=a\\nb\n.\n"},
      {"overwrite", "serialize phparray\noverwrite\nA\n.\na:1:{s:1:\"A\";a:0:{}}\n.\nget delimited\nA\n.\n",
       "data\na:1:{s:1:\"A\";a:0:{}}\n\n.\n"},
  });
}

TEST_F(Protocol, PhpArrayPayloadsOfOneRequestMayFollowEachOtherWithOrWithoutATerminator) {
  const std::string condition = "a:1:{s:1:\"A\";a:1:{s:1:\"x\";s:1:\"1\";}}";
  const std::string change = "a:1:{s:1:\"B\";a:1:{s:1:\"y\";s:1:\"2\";}}";
  for (const char* between : {"\n.\n", "\n\n.\n", "\n", ""}) {
    EXPECT_EQ(
        Converse("serialize phparray\ntest-and-merge\n" + condition + between + change + "\n\n.\ninfo subscribed\n"),
        "result\nok\nSubscribed groups\n-----------------\n\n")
        << between;
  }
}

TEST_F(Protocol, DumpAndInfoAreTheSameInEverySerialization) {
  EXPECT_EQ(Converse("serialize phparray\ndump all\ninfo subscribed\n"),
            std::string(kDefaults) + "[Secure/Keys]\nk=1\n.\nSubscribed groups\n-----------------\n\n");
}

TEST_F(Protocol, SerializationIsTheConnectionsOwn) {
  ProtocolClient scripted(_port);
  scripted.Send("serialize phparray\n");
  EXPECT_EQ(scripted.Get("A\n"), "data\na:1:{s:1:\"A\";a:1:{s:1:\"x\";s:1:\"1\";}}\n\n.\n");
  EXPECT_EQ(Converse("get delimited\nA\n.\n"), "data\n[A]\nx=1\n.\n");
}

TEST_F(Protocol, MalformedPhpArrayEndsThatConnectionOnly) {
  ProtocolClient other(_port);
  const std::vector<std::pair<std::string, std::string>> payloads{
      {"b:1:{", "expected: 'a' but got: 'b'"},
      {"a:x:{", "failed to read size specification"},
      {"a:-1:{", "failed to read size specification"},
      {"a:1:{s:3:\"Net\";a:1:{s:2:\"ip\";}}", "expected: 's' but got: '}'"},
      {"a:1:{s:9:\"ab", "phparray failed to read 9 characters for string"},
      {"a:1:{s:1:\"A\";a:0:{}", "phparray missing data (expected '}')"},
  };
  for (const auto& [payload, reason] : payloads) {
    EXPECT_EQ(Converse("serialize phparray\nmerge\n" + payload), "") << payload;
    _daemon.AwaitErrors("connection ended: " + reason + "\n");
    EXPECT_EQ(other.Get("A\n"), "data\n[A]\nx=1\n.\n");
  }
}

namespace {

// Each leaves the store as it found it.
const std::vector<Conversation> kOfEveryKind{
    {"get", "get delimited\nNet/*\nA\n.\n", "data\n[A]\nx=1\n[Net/Eth0]\nip=10.0.0.2\n[Net/Wlan0]\nssid=lab\n.\n"},
    {"merge", "merge nopersist\n[A]\nx=1\n.\nget delimited\nA\n.\n", "data\n[A]\nx=1\n.\n"},
    {"test-and-merge", "test-and-merge\n[A]\nx=1\n.\n[B]\ny=2\n.\n", "result\nok\n"},
    {"overwrite", "overwrite\nC*\n.\n[C]\nz=3\n.\nget delimited\nC\n.\n", "data\n[C]\nz=3\n.\n"},
    {"restore", "restore\nNet/Eth0\n.\nget delimited\nNet/Eth0\n.\n", "data\n[Net/Eth0]\nip=10.0.0.2\n.\n"},
    {"subscribe", "subscribe\nD\n.\nmerge nopersist\n[D]\nw=4\n.\n", "async change\nD\n.\n[D]\nw=4\n.\n"},
    {"info", "subscribe\nD\nN*\n.\ninfo subscribed\n", "Subscribed groups\n-----------------\nD\nN*\n\n"},
    {"phparray", "serialize phparray\ntest-and-merge\na:0:{}\n.\na:1:{s:1:\"C\";a:1:{s:1:\"z\";s:1:\"3\";}}\n.\n",
     "result\nok\n"},
    {"quit", "bogus\n\n.\nquit\nget delimited\n.\n", ""},
};

}  // namespace

TEST_F(Protocol, RequestSplitAnywhereIsAnsweredTheSame) {
  for (const Conversation& conversation : kOfEveryKind) {
    const size_t quit = conversation.sent.find("quit\n");
    const size_t end = quit == std::string::npos ? conversation.sent.size() : quit + 4;
    for (size_t split = 1; split <= end; ++split) {
      ProtocolClient client(_port);
      client.Send(conversation.sent.substr(0, split));
      _daemon.AwaitIdle();
      client.Send(conversation.sent.substr(split));
      client.HalfClose();
      ASSERT_EQ(client.ReadToEnd(), conversation.received) << conversation.about << " split at " << split;
      client.Reset();
    }
  }
}

TEST_F(Protocol, RequestsMayComeByteByByte) {
  for (const Conversation& conversation : kOfEveryKind) {
    ProtocolClient client(_port);
    for (const char byte : conversation.sent) client.TrySend(std::string(1, byte));
    client.HalfClose();
    EXPECT_EQ(client.ReadToEnd(), conversation.received) << conversation.about;
  }
}

TEST_F(Protocol, ManyRequestsInOneWriteAreAnsweredInOrder) {
  std::string requests;
  std::string replies;
  for (int i = 0; i < 2000; ++i) {
    const std::string value = std::to_string(i);
    requests += "merge nopersist\n[A]\nx=" + value + "\n.\nget delimited\nA\n.\ntest-and-merge\n[A]\nx=1\n.\n.\n";
    replies += "data\n[A]\nx=" + value + "\n.\nresult\n" + (i == 1 ? "ok" : "failure") + "\n";
  }
  EXPECT_EQ(Converse(requests), replies);
}

TEST_F(Protocol, LargePayloadsPassWhole) {
  const std::string large(4 * 1024 * 1024, 'v');
  ProtocolClient client(_port);
  client.Send("merge\n[Large]\nk=" + large + "\n.\n");
  EXPECT_EQ(client.Get("Large\n"), "data\n[Large]\nk=" + large + "\n.\n");
  client.Send("serialize phparray\n");
  EXPECT_EQ(client.Get("Large\n"), "data\na:1:{s:5:\"Large\";a:1:{s:1:\"k\";s:4194304:\"" + large + "\";}}\n\n.\n");
}

}  // namespace tavix::test
