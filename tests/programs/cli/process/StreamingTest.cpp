// What the command does with a store that is large, while the reply is still to come.

#include <csignal>
#include <memory>

#include "tests/programs/cli/process/CommandTest.h"
#include "tests/support/ScriptedServer.h"

namespace tavix::test {

namespace {

// A server that has sent a part of its reply, and a command that has to do with that.
class StreamingCommands : public testing::Test {
 protected:
  std::unique_ptr<CommandProcess> Start(const Words& words) const { return StartOn(_server, words); }

  std::unique_ptr<CommandProcess> StartOn(const ScriptedServer& server, Words words) const {
    words.insert(words.begin(), {TAVIX_CLI_PROGRAM, "-t", "80", "-s", AddressOf(server)});
    return std::make_unique<CommandProcess>(_directory.GetPath(), words);
  }

  static std::string AddressOf(const ScriptedServer& server) { return "127.0.0.1:" + std::to_string(server.GetPort()); }

  const TemporaryDirectory _directory;
  const ScriptedServer _server;
};

std::string Groups(int first, int count) {
  std::string text;
  for (int i = first; i < first + count; ++i) text += "[G" + std::to_string(i) + "]\nkey=value\n";
  return text;
}

}  // namespace

TEST_F(StreamingCommands, PrintWhatHasComeWhileTheRestIsStillToCome) {
  const std::vector<std::pair<Words, std::string>> cases{
      {{"show"}, "[G100]\nkey=value\n"},
      {{"show", "--json"}, "{\n  \"G100\": {\n    \"key\": \"value\"\n  }"},
      {{"list"}, "G100  1\n"},
      {{"list", "--keys"}, "[G100]key\n"},
      {{"list", "--json"}, "[\n  {\n    \"count\": 1,\n    \"group\": \"G100\"\n  }"},
      {{"export"}, "# This backup covers all groups\n[G100]\nkey=value\n"},
      {{"search", "val"}, "[G100]key=value\n"},
  };
  for (const auto& [words, first] : cases) {
    const auto command = Start(words);
    ServerEnd peer = _server.Accept();
    EXPECT_EQ(peer.ReadThrough(), "get delimited\n*\n.\n");
    peer.Send("data\n" + Groups(100, 101));
    command->AwaitOutput(first);
    peer.Send(".\n");
    EXPECT_EQ(command->AwaitEnd(), 0) << testing::PrintToString(words);
    EXPECT_THAT(command->GetOutput(), testing::HasSubstr("G200")) << testing::PrintToString(words);
    EXPECT_EQ(command->GetErrors(), "");
  }
}

TEST_F(StreamingCommands, PrintTheUserLayerAsItComes) {
  const auto command = Start({"export", "--user"});
  ServerEnd peer = _server.Accept();
  EXPECT_EQ(peer.ReadThrough("dump"), "dump\n");
  peer.Send(Groups(1, 2));
  command->AwaitOutput("[G1]\nkey=value\n");
  peer.Send(".\n");
  EXPECT_EQ(command->AwaitEnd(), 0);
  EXPECT_EQ(command->GetOutput(), "# This backup covers all groups\n" + Groups(1, 2) + "# End of backup\n");
}

// The reply has no end: only who reads no more of it is done with it.
TEST_F(StreamingCommands, EndWithTheReaderOfTheirOutput) {
  for (const Words& words : std::vector<Words>{{"show"}, {"list"}, {"export"}, {"search", "key"}, {"show", "--json"}}) {
    const ScriptedServer server;
    const ServerThreads threads(server, [](ServerEnd& peer, size_t) {
      peer.ReadThrough();
      peer.Send("data\n");
      for (int i = 1000000;; i += 1000) peer.Send(Groups(i, 1000));
    });
    const auto command = StartOn(server, words);
    command->AwaitOutput("G1000000");
    command->CloseOutput();
    EXPECT_EQ(command->AwaitEnd(), 128 + SIGPIPE) << testing::PrintToString(words);
    EXPECT_EQ(command->GetErrors(), "");
  }
}

TEST_F(StreamingCommands, NameWhatIsWrongBehindWhatTheyHavePrinted) {
  const auto command = Start({"export"});
  ServerEnd peer = _server.Accept();
  peer.ReadThrough();
  peer.Send("data\n[B]\nx=1\n[A]\nx=1\n.\n");
  EXPECT_EQ(command->AwaitEnd(), 6);
  EXPECT_EQ(command->GetOutput(), "# This backup covers all groups\n[B]\nx=1\n");
  EXPECT_EQ(command->GetErrors(),
            "tavix-settings: the reply of " + AddressOf(_server) + " can't be read: group \"A\" stands behind \"B\"\n");
}

TEST_F(StreamingCommands, LookForSimilarNamesAmongThoseThatBeginAlike) {
  const auto command = Start({"show", "Network/eth0"});
  ServerEnd peer = _server.Accept();
  EXPECT_EQ(peer.ReadThrough(), "get delimited\nNetwork/eth0\n.\n");
  peer.Send("data\n.\n");
  EXPECT_EQ(peer.ReadThrough(), "get delimited\nNetwork\n.\n");  // where eth0 might be a setting
  peer.Send("data\n.\n");
  EXPECT_EQ(peer.ReadThrough(), "get delimited\nNetwork/*\n.\n");
  peer.Send("data\n.\n");
  EXPECT_EQ(peer.ReadThrough(), "get delimited\nNetw*\n.\n");
  peer.Send("data\n[Netware]\n[Network:Eth0]\nx=[Network/eth1]\n.\n");
  EXPECT_EQ(command->AwaitEnd(), 1);
  EXPECT_EQ(command->GetErrors(), "tavix-settings: there is no group 'Network/eth0'; did you mean 'Network:Eth0'?\n");
}

// A sanitizer needs memory of its own.
#if !defined(__SANITIZE_ADDRESS__) && !defined(__SANITIZE_THREAD__)

class LargeStore : public CommandTest {
 protected:
  static constexpr size_t kStoreBytes = 21 * 1000 * 1000;

  // Groups of 210 bytes.
  static std::string MakeText() {
    std::string text;
    for (int i = 1000000; text.size() < kStoreBytes; ++i) {
      text += "[Net/Interface/G" + std::to_string(i) + "]\n";
      for (int key = 0; key < 4; ++key)
        text += "setting" + std::to_string(key) + "=a value of some thirty-four bytes " + std::to_string(key) + "\n";
    }
    return text;
  }

  // With so many KiB of memory for data.
  Outcome RunWithin(size_t limit, const std::string& words) const {
    return RunInShell("ulimit -d " + std::to_string(limit) + "; exec \"$0\" \"$@\" " + words);
  }
};

TEST_F(LargeStore, IsPrintedInLittleMemory) {
  const Daemon large(_directory, {"--defaults", _directory.Write("large.ini", MakeText())});
  const std::string server = "-s " + large.AwaitAddresses().front();
  for (const char* words : {"list", "show", "export --json", "search 34"}) {
    const Outcome outcome = RunWithin(10 * 1024, server + " " + words + " >/dev/null");
    EXPECT_EQ(outcome.status, 0) << words;
    EXPECT_EQ(outcome.errors, "") << words;
  }
}

TEST_F(LargeStore, IsImportedInSixTimesItsSize) {
  const Daemon other(_directory);
  _directory.Write("large.ini", MakeText());
  const std::string server = "-s " + other.AwaitAddresses().front();
  for (const char* words : {" -q import large.ini", " -q import large.ini --replace --yes"}) {
    const Outcome outcome = RunWithin(6 * kStoreBytes / 1024, server + words);
    EXPECT_EQ(outcome.status, 0) << words;
    EXPECT_EQ(outcome.errors, "") << words;
  }
}

TEST_F(LargeStore, InAFileIsChangedInThreeTimesItsSize) {
  _directory.Write("large.ini", MakeText());
  const Outcome outcome = RunWithin(3 * kStoreBytes / 1024, "--local large.ini set '[New]x=1'");
  EXPECT_EQ(outcome.status, 0);
  EXPECT_EQ(outcome.errors, "done: 1 setting\n");
  EXPECT_EQ(Run({"--local", "large.ini", "get", "New", "x"}).output, "1\n");
}

#endif

}  // namespace tavix::test
