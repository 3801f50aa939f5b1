#include "tavix/c/ClientHandle.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <string>
#include <vector>

#include "tests/c/ServedClient.h"
#include "tests/support/BackgroundCall.h"
#include "tests/support/Environment.h"
#include "tests/support/ListeningSocket.h"
#include "tests/support/NoMoreDescriptors.h"
#include "tests/support/ScriptedServer.h"

// The real daemon, through the C interface.

namespace tavix::test {

namespace {

using testing::HasSubstr;

std::string GetValue(const ClientHandle& client, const char* group, const char* key) {
  const char* value = nullptr;
  const int32_t code = tavix_get_value_z(client.get(), group, key, &value, nullptr);
  return code == TAVIX_OK ? value : CodeOf(code);
}

std::string TestAndMerge(const ClientHandle& client, const std::string& test, const std::string& change) {
  return CodeOf(tavix_test_and_merge(client.get(), Document(test).get(), Document(change).get(), nullptr));
}

std::string Erase(const ClientHandle& client, const char* name) {
  return CodeOf(tavix_erase_z(client.get(), &name, 1, nullptr));
}

std::string Overwrite(const ClientHandle& client, const char* name, const std::string& change) {
  return CodeOf(tavix_overwrite_z(client.get(), &name, 1, Document(change).get(), nullptr));
}

// parts: present, absent, set, unset, replace.
std::string Amend(const ClientHandle& client, const std::vector<std::string>& parts) {
  std::vector<DocumentHandle> documents;
  for (const std::string& part : parts) documents.push_back(Document(part));
  return CodeOf(tavix_amend(client.get(), documents[0].get(), documents[1].get(), documents[2].get(),
                            documents[3].get(), documents[4].get(), nullptr));
}

std::string Restore(const ClientHandle& client, const char* name) {
  return CodeOf(tavix_restore_z(client.get(), &name, 1, nullptr));
}

}  // namespace

TEST(ClientHandle, GetsTheGroupsThatNamesAndPatternsMean) {
  const ReplacedDaemon daemon;
  const ClientHandle client = Open(daemon.GetAddress());
  EXPECT_EQ(Merge(client, "[A]\nx=1\n[Net/0]\ny=2\n[Net/1]\nz=3\n"), "OK");
  EXPECT_EQ(GetText(client, {"Net/*", "Nothing"}), "[Net/0]\ny=2\n[Net/1]\nz=3\n");
  EXPECT_EQ(GetText(client, {"Nothing"}), "");
}

TEST(ClientHandle, GetsOneValue) {
  const ReplacedDaemon daemon;
  const ClientHandle client = Open(daemon.GetAddress());
  EXPECT_EQ(Merge(client, "[A]\nx=1\nempty=\nnul=a\\x00b\n[A*]\nx=2\n"), "OK");
  EXPECT_EQ(GetValue(client, "A", "x"), "1");
  EXPECT_EQ(GetValue(client, "A*", "x"), "2");
  EXPECT_EQ(GetValue(client, "A", "empty"), "");
  EXPECT_EQ(GetValue(client, "A", "nul"), "PARSE");
  EXPECT_EQ(GetValue(client, "A", "y"), "NOT_SET");
  EXPECT_EQ(GetValue(client, "B", "x"), "NOT_SET");
}

TEST(ClientHandle, CarriesBytesOfAllKinds) {
  const ReplacedDaemon daemon;
  const ClientHandle client = Open(daemon.GetAddress());
  const DocumentHandle change = Document("");
  const std::string bytes("a\0=\n]", 5);
  EXPECT_EQ(tavix_document_set(change.get(), "A\0", 2, bytes.data(), 5, bytes.data(), 5, nullptr), TAVIX_OK);
  EXPECT_EQ(tavix_merge(client.get(), change.get(), 0, nullptr), TAVIX_OK);
  const char* value = nullptr;
  size_t size = 0;
  EXPECT_EQ(tavix_get_value(client.get(), "A\0", 2, bytes.data(), 5, &value, &size, nullptr), TAVIX_OK);
  EXPECT_EQ(std::string(value, size), bytes);
}

TEST(ClientHandle, OverwritesErasesAndRestores) {
  const TemporaryDirectory directory;
  const ReplacedDaemon daemon({"--defaults", directory.Write("defaults.ini", "[A]\nx=1\n")});
  const ClientHandle client = Open(daemon.GetAddress());
  EXPECT_EQ(Overwrite(client, "A", "[A]\ny=2\n"), "OK");
  EXPECT_EQ(GetText(client, {"*"}), "[A]\ny=2\n");
  EXPECT_EQ(Erase(client, "A*"), "OK");
  EXPECT_EQ(GetText(client, {"*"}), "");
  EXPECT_EQ(Restore(client, "A"), "OK");
  EXPECT_EQ(GetText(client, {"A"}), "[A]\nx=1\n");
}

TEST(ClientHandle, MergesOnlyWhileTheTestHolds) {
  const ReplacedDaemon daemon;
  const ClientHandle client = Open(daemon.GetAddress());
  EXPECT_EQ(TestAndMerge(client, "", "[A]\nx=1\n"), "OK");
  EXPECT_EQ(TestAndMerge(client, "[A]\nx=1\n", "[A]\nx=2\n"), "OK");
  EXPECT_EQ(TestAndMerge(client, "[A]\nx=1\n", "[A]\nx=3\n"), "CONDITION");
  EXPECT_EQ(GetText(client, {"A"}), "[A]\nx=2\n");
}

TEST(ClientHandle, SavesNoVolatileChange) {
  const TemporaryDirectory directory;
  ReplacedDaemon daemon({"--user-settings", directory.Path("user.ini")});
  const ClientHandle client = Open(daemon.GetAddress());
  EXPECT_EQ(Merge(client, "[A]\nx=1\n", TAVIX_MERGE_VOLATILE), "OK");
  EXPECT_EQ(Merge(client, "[B]\nx=1\n"), "OK");
  EXPECT_EQ(GetText(client, {"*"}), "[A]\nx=1\n[B]\nx=1\n");
  EXPECT_EQ(Merge(client, "[C]\nx=1\n", 2), "USAGE");
  daemon.Replace();
  EXPECT_EQ(GetText(client, {"*"}), "[B]\nx=1\n");
}

TEST(ClientHandle, FindsTheDaemonAsTheEnvironmentSays) {
  const ReplacedDaemon daemon;
  const ScopedEnvironment variable("TAVIX_SETTINGS_SERVER", daemon.GetAddress().c_str());
  const ClientHandle client = Open("");
  EXPECT_EQ(GetText(client, {"*"}), "");
}

TEST(ClientHandle, MakesANewConnectionWhenTheDaemonHasEndedIt) {
  ReplacedDaemon daemon;
  const ClientHandle client = Open(daemon.GetAddress());
  EXPECT_EQ(GetText(client, {"*"}), "");
  daemon.Replace();
  EXPECT_EQ(Merge(client, "[A]\nx=1\n"), "OK");
  EXPECT_EQ(Flush(client), "OK");
  daemon.Kill();
  EXPECT_EQ(GetText(client, {"*"}), "LOST");
  daemon.StartAgain();
  EXPECT_EQ(GetText(client, {"*"}), "");
}

TEST(ClientHandle, ReportsTheLossOfAWriteByTheNextFlushAlone) {
  ReplacedDaemon daemon;
  const ClientHandle client = Open(daemon.GetAddress());
  EXPECT_EQ(Merge(client, "[A]\nx=1\n"), "OK");
  daemon.Replace();
  EXPECT_EQ(Flush(client), "LOST");
  EXPECT_EQ(Flush(client), "OK");
  EXPECT_EQ(Merge(client, "[A]\nx=1\n"), "OK");
  daemon.Replace();
  EXPECT_EQ(Merge(client, "[A]\nx=2\n"), "OK") << "on a new connection";
  EXPECT_EQ(Flush(client), "LOST");
  EXPECT_EQ(Flush(client), "OK");
  EXPECT_EQ(GetText(client, {"A"}), "[A]\nx=2\n");
}

TEST(ClientHandle, WaitsForLaterWritesBeforeItReportsALoss) {
  const ScriptedServer server;
  const ClientHandle client = Open("");
  {
    ServerEnd first = server.Accept();
    EXPECT_EQ(Merge(client, "[A]\nx=1\n"), "OK");
    first.ReadThrough();
  }
  AwaitReadable(server);
  EXPECT_EQ(Merge(client, "[A]\nx=2\n"), "OK") << "on a new connection";
  ServerEnd second = server.Accept();
  second.ReadThrough();
  tavix_error error;
  BackgroundCall flush([&] { tavix_flush(client.get(), &error); });
  EXPECT_EQ(second.ReadThrough(), "info refused\nget delimited\n.\n");
  second.Send("Refused\n-------\nreason=bound: 3 patterns\n\ndata\n.\n");
  flush.Join();
  EXPECT_EQ(CodeOf(error.code), "LOST");
  EXPECT_THAT(error.text, HasSubstr("bound: 3 patterns"));
}

TEST(ClientHandle, HasNothingToFlushWithoutAWrite) {
  ReplacedDaemon daemon;
  const ClientHandle client = Open(daemon.GetAddress());
  EXPECT_EQ(Merge(client, "[A]\nx=1\n"), "OK");
  EXPECT_EQ(Flush(client), "OK");
  daemon.Kill();
  EXPECT_EQ(Flush(client), "OK");
}

TEST(ClientHandle, RefusesRestrictedGroupsAndSendsNothing) {
  const ReplacedDaemon daemon;
  const ClientHandle client = Open(daemon.GetAddress());
  EXPECT_EQ(Merge(client, "[A]\nx=1\n[Secure/A]\nx=1\n"), "REFUSED");
  EXPECT_EQ(TestAndMerge(client, "", "[A]\nx=1\n[ATrusted]\nx=1\n"), "REFUSED");
  EXPECT_EQ(Overwrite(client, "A", "[A]\nx=1\n[Secure/A]\nx=1\n"), "REFUSED");
  EXPECT_EQ(Erase(client, "Secure/*"), "REFUSED");
  EXPECT_EQ(Restore(client, "Secure/A"), "REFUSED");
  EXPECT_EQ(Amend(client, {"", "", "[A]\nx=1\n", "", "[Secure/A]\n"}), "REFUSED");
  EXPECT_EQ(GetText(client, {"*"}), "");
  EXPECT_EQ(TestAndMerge(client, "[Secure/A]\nx=1\n", "[A]\nx=1\n"), "CONDITION") << "which may be tested";
}

TEST(ClientHandle, ReportsWhatTheDaemonRefused) {
  const ReplacedDaemon daemon({"--max-store", "65536"});
  const ClientHandle client = Open(daemon.GetAddress());
  EXPECT_EQ(Merge(client, "[A]\nx=" + std::string(100'000, 'x') + "\n"), "OK");
  tavix_error error;
  EXPECT_EQ(CodeOf(tavix_flush(client.get(), &error)), "REFUSED");
  EXPECT_THAT(error.text, HasSubstr("full store"));
  EXPECT_EQ(Flush(client), "OK") << "reported once";
  EXPECT_EQ(TestAndMerge(client, "", "[A]\nx=" + std::string(100'000, 'x') + "\n"), "REFUSED");
  EXPECT_EQ(GetText(client, {"*"}), "");
  EXPECT_EQ(Merge(client, "[A]\nx=" + std::string(100'000, 'x') + "\n"), "OK");
  EXPECT_EQ(Merge(client, "[A]\nx=1\n"), "OK");
  EXPECT_EQ(Flush(client), "OK") << "the outcome of the last write alone is kept";
}

TEST(ClientHandle, SendsNothingOfANameWithALineBreak) {
  const ReplacedDaemon daemon;
  const ClientHandle client = Open(daemon.GetAddress());
  EXPECT_EQ(Merge(client, "[A]\nx=1\n"), "OK");
  EXPECT_EQ(GetText(client, {"A\nquit"}), "USAGE");
  EXPECT_EQ(GetValue(client, "A\nquit", "x"), "USAGE");
  EXPECT_EQ(Merge(client, "[A]\nx=2\n[A\\nquit]\n"), "USAGE");
  EXPECT_EQ(TestAndMerge(client, "[A\\nquit]\n", "[A]\nx=2\n"), "USAGE");
  EXPECT_EQ(Overwrite(client, "A\n", "[A]\nx=2\n"), "USAGE");
  EXPECT_EQ(Erase(client, "A\nquit"), "USAGE");
  EXPECT_EQ(Restore(client, "A\nquit"), "USAGE");
  EXPECT_EQ(Amend(client, {"", "[A\\nquit]\n", "[A]\nx=2\n", "", ""}), "USAGE");
  EXPECT_EQ(GetText(client, {"*"}), "[A]\nx=1\n");
  EXPECT_EQ(Merge(client, "[A]\nx\\n=a\\nb\n"), "OK") << "of a key and a value";
  EXPECT_EQ(GetText(client, {"A"}), "[A]\nx=1\nx\\n=a\\nb\n");
}

TEST(ClientHandle, IsNotMadeWithoutADaemon) {
  tavix_client* client = nullptr;
  tavix_error error;
  EXPECT_EQ(CodeOf(tavix_open_z("unix:/nowhere/server", 1000, &client, &error)), "LOST");
  EXPECT_THAT(error.text, HasSubstr("/nowhere/server"));
  EXPECT_EQ(client, nullptr);
  EXPECT_EQ(CodeOf(tavix_open_z("host:no port", 1000, &client, &error)), "USAGE");
  EXPECT_EQ(CodeOf(tavix_open_z("localhost", 0, &client, &error)), "USAGE");
  EXPECT_EQ(CodeOf(tavix_open_z("localhost", -2, &client, &error)), "USAGE");
  tavix_close(nullptr);
}

TEST(ClientHandle, IsBusyWithoutADescriptor) {
  const ReplacedDaemon daemon;
  const ListeningSocket refusing(ListeningSocket::kNotListening);
  const std::string nobody = "127.0.0.1:" + std::to_string(refusing.GetPort());
  tavix_client* client = nullptr;
  // A sanitizer needs descriptors to look at the type of an exception, but only for the first one.
  EXPECT_EQ(CodeOf(tavix_open_z(nobody.c_str(), 1000, &client, nullptr)), "LOST");
  const NoMoreDescriptors none;
  EXPECT_EQ(CodeOf(tavix_open_z(daemon.GetAddress().c_str(), 1000, &client, nullptr)), "BUSY");
}

TEST(ClientHandle, TimesOutWhenTheServerIsSilent) {
  const ScriptedServer server;
  const ServerThreads threads(server, [](ServerEnd& peer, size_t) { peer.ReadToEnd(); });
  const ClientHandle client = Open("", 50);
  EXPECT_EQ(Merge(client, "[A]\nx=1\n"), "OK");
  EXPECT_EQ(Flush(client), "TIMEOUT");
  EXPECT_EQ(Flush(client), "LOST") << "its connection was closed";
}

// More than sockets hold.
TEST(ClientHandle, ReportsTheLossOfAWriteThatWasSentInPart) {
  const ScriptedServer server;
  const ClientHandle client = Open("", 200);
  const ServerEnd peer = server.Accept();
  std::string change = "[A]\n";
  for (int i = 0; i < 8; ++i) change += std::to_string(i) + "=" + std::string(8'000'000, 'x') + "\n";
  EXPECT_EQ(Merge(client, change), "TIMEOUT");
  EXPECT_EQ(Flush(client), "LOST");
  EXPECT_EQ(Flush(client), "OK") << "reported once";
}

TEST(ClientHandle, ReportsNoLossOfAWriteOfWhichNothingWasSent) {
  const ScriptedServer server;
  const ClientHandle client = Open("");
  ServerEnd peer = server.Accept();
  peer.Send("nothing that was asked for\n");
  AwaitReadable(server);
  EXPECT_EQ(Merge(client, "[A]\nx=1\n"), "PARSE");
  EXPECT_EQ(peer.ReadToEnd(), "");
  EXPECT_EQ(Flush(client), "OK");
}

TEST(ClientHandle, ReportsAnAnswerThatIsNone) {
  const ScriptedServer server;
  const ServerThreads threads(server, [](ServerEnd& peer, size_t number) {
    peer.ReadThrough();
    peer.Send(number == 0 ? "hello\n" : "data\nnonsense\n.\n");
    peer.ReadToEnd();
  });
  const ClientHandle client = Open("");
  EXPECT_EQ(GetText(client, {"*"}), "PARSE");
  EXPECT_EQ(GetText(client, {"*"}), "PARSE") << "over a new connection";
}

TEST(ClientHandle, AmendsTheStoreInOneStep) {
  const TemporaryDirectory directory;
  const ReplacedDaemon daemon({"--defaults", directory.Write("defaults.ini", "[A]\nx=1\n[B]\nx=1\n")});
  const ClientHandle client = Open(daemon.GetAddress());
  EXPECT_EQ(Amend(client, {"[A]\nx=1\n", "[A]\ny=\n", "[A]\nx=2\ny=2\n", "", "[B]\nz=3\n"}), "OK");
  EXPECT_EQ(GetText(client, {"*"}), "[A]\nx=2\ny=2\n[B]\nz=3\n");
  EXPECT_EQ(Amend(client, {"", "[A]\ny=\n", "[A]\ny=3\n", "", ""}), "CONDITION");
  EXPECT_EQ(Amend(client, {"", "", "", "[A]\nx=\n", ""}), "OK");
  EXPECT_EQ(GetText(client, {"A"}), "[A]\nx=1\ny=2\n");
}

TEST(ClientHandle, AmendsAndTellsConditionsFromRefusals) {
  const ScriptedServer server;
  const ServerThreads threads(server, [](ServerEnd& peer, size_t) {
    EXPECT_EQ(peer.ReadThrough(), "info features\nget delimited\n.\n");
    peer.Send("Features\n--------\namend\nnovelty 3\n\ndata\n.\n");
    const char* const reasons[] = {"condition: it does not hold", "bound: 3 patterns"};
    for (const char* const reason : reasons) {
      std::string request;
      for (int payload = 0; payload < 5; ++payload) request += peer.ReadThrough();
      EXPECT_EQ(request, "amend\n[P]\nx=1\n.\n[Q]\n.\n[A]\nx=2\n.\n[A]\ny=\n.\n[B]\n.\n");
      peer.Send("result\nfailure\n");
      EXPECT_EQ(peer.ReadThrough(), "info refused\nget delimited\n.\n");
      peer.Send("Refused\n-------\nreason=" + std::string(reason) + "\n\ndata\n.\n");
    }
    for (int payload = 0; payload < 5; ++payload) peer.ReadThrough();
    peer.Send("result\nok\n");
    peer.ReadToEnd();
  });
  const ClientHandle client = Open("");
  const std::vector<std::string> parts{"[P]\nx=1\n", "[Q]\n", "[A]\nx=2\n", "[A]\ny=\n", "[B]\n"};
  EXPECT_EQ(Amend(client, parts), "CONDITION");
  EXPECT_EQ(Amend(client, parts), "REFUSED");
  EXPECT_EQ(Amend(client, parts), "OK");
}

TEST(ClientHandle, KnowsThatNothingWasChangedWhenTheReasonIsLost) {
  const ScriptedServer server;
  const ServerThreads threads(server, [](ServerEnd& peer, size_t) {
    peer.ReadThrough();
    peer.ReadThrough();
    peer.Send("result\nfailure\n");
    peer.ReadThrough();
  });
  EXPECT_EQ(TestAndMerge(Open(""), "[A]\nx=1\n", "[A]\nx=2\n"), "CONDITION");
}

TEST(ClientHandle, SendsNothingOfAnAmendToAnOlderServer) {
  const ScriptedServer server;
  ClientHandle client = Open("");
  ServerEnd peer = server.Accept();
  std::string code;
  BackgroundCall call([&] { code = Amend(client, {"[A]\nx=1\n", "", "[A]\nx=2\n", "", ""}); });
  EXPECT_EQ(peer.ReadThrough(), "info features\nget delimited\n.\n");
  peer.Send("data\n.\n");
  call.Join();
  EXPECT_EQ(code, "UNSUPPORTED");
  EXPECT_EQ(Amend(client, {"", "", "[A]\nx=2\n", "", ""}), "UNSUPPORTED") << "asked once for each connection";
  client.reset();
  EXPECT_EQ(peer.ReadToEnd(), "");
}

TEST(ClientHandle, IsBusyWhileAnotherThreadUsesIt) {
  const ScriptedServer server;
  const ClientHandle client = Open("");
  ServerEnd peer = server.Accept();
  std::string first;
  BackgroundCall call([&] { first = GetText(client, {"*"}); });
  peer.ReadThrough();
  EXPECT_EQ(GetText(client, {"*"}), "BUSY");
  EXPECT_EQ(Flush(client), "BUSY");
  peer.Send("data\n.\n");
  call.Join();
  EXPECT_EQ(first, "");
}

TEST(ClientHandle, ServesAForkedChildForItsEndAlone) {
  const ReplacedDaemon daemon;
  ClientHandle client = Open(daemon.GetAddress());
  EXPECT_EQ(Merge(client, "[A]\nx=1\n"), "OK");
  const pid_t child = fork();
  if (child == 0) {
    const bool isRefused = GetText(client, {"*"}) == "USAGE" && Flush(client) == "USAGE";
    client.reset();
    _exit(isRefused ? 0 : 1);
  }
  int status = -1;
  EXPECT_EQ(waitpid(child, &status, 0), child);
  EXPECT_EQ(status, 0);
  EXPECT_EQ(Flush(client), "OK");
  EXPECT_EQ(GetText(client, {"*"}), "[A]\nx=1\n");
}

}  // namespace tavix::test
