#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <ctime>

#include "tavix/core/IniFile.h"
#include "tests/programs/server/Daemon.h"
#include "tests/programs/server/process/FileFaultsModule.h"
#include "tests/support/BackgroundCall.h"
#include "tests/support/FileFaults.h"

// What the daemon reports of itself.

namespace tavix::test {

namespace {

using testing::AllOf;
using testing::Contains;
using testing::Key;
using testing::Not;
using testing::Pair;

using Figures = core::IniFile::KeyMap;

Figures AskForFigures(ProtocolClient& client) {
  core::IniFile document;
  document.LoadFromString("[]\n" + AskForServerInfo(client).substr(std::string("Server\n------\n").size()));
  return document[""];
}

// Where the text says when something was.
std::string WithoutValueOf(const std::string& name, std::string text) {
  const size_t begin = text.find("\n" + name + "=") + name.size() + 2;
  return text.erase(begin, text.find('\n', begin) - begin);
}

class ServerInfo : public testing::Test {
 protected:
  const TemporaryDirectory _directory;
};

}  // namespace

TEST_F(ServerInfo, OfADaemonThatKeepsNothingHasTheseLines) {
  _directory.Write("d.ini", "[A]\nx=1\ny=1\n[B]\n");
  _directory.Write("r.ini", "[Secure/S]\nk=1\n");
  Daemon daemon(_directory, {"--defaults", "d.ini", "--restricted", "r.ini"});
  ProtocolClient client(daemon.GetPort());
  client.Send("subscribe\nA\nC*\n.\nmerge\n[A]\nx=2\n[Z]\nk=1\n.\n");
  EXPECT_EQ(client.ReadUntil("[A]\nx=2\ny=1\n.\n"), "async change\nA\n.\n[A]\nx=2\ny=1\n.\n");
  const std::string bytes = AskForFigures(client)["store-bytes"];
  EXPECT_EQ(WithoutValueOf("started", AskForServerInfo(client)),
            "Server\n------\nclients=1\ncut.all_backlog=0\ncut.all_requests=0\ncut.backlog=0\ncut.error=0\n"
            "cut.hard_backlog=0\ncut.held_backlog=0\ncut.http=0\ncut.line=0\ncut.memory=0\ncut.request=0\n"
            "cut.request_time=0\ncut.tls=0\ngroups.defaults=2\ngroups.effective=4\ngroups.restricted=1\n"
            "groups.user=2\nkept=false\nkeys.defaults=2\nkeys.effective=4\nkeys.restricted=1\nkeys.user=2\n"
            "started=\nstore-bytes=" +
                bytes + "\nsubscriptions=2\nversion=" TAVIX_TEST_VERSION "\n\n");
}

TEST_F(ServerInfo, SaysWhenTheDaemonStarted) {
  const std::time_t before = std::time(nullptr);
  Daemon daemon(_directory);
  ProtocolClient client(daemon.GetPort());
  const std::time_t started = std::stoll(AskForFigures(client)["started"]);
  EXPECT_GE(started, before - 1);
  EXPECT_LE(started, std::time(nullptr) + 1);
}

TEST_F(ServerInfo, CountsClientsAndWhoWasCut) {
  Daemon daemon(_directory);
  ProtocolClient client(daemon.GetPort());
  ProtocolClient other(daemon.GetPort());
  other.AwaitHandled();
  EXPECT_EQ(AskForFigures(client)["clients"], "2");
  other.Send("merge\nno settings text\n.\n");
  EXPECT_EQ(other.ReadToEnd(), "");
  EXPECT_TRUE(Eventually([&] { return AskForFigures(client)["clients"] == "1"; }));
  EXPECT_EQ(AskForFigures(client)["cut.error"], "1");
}

TEST_F(ServerInfo, SaysWhereChangesAreKept) {
  Daemon daemon(_directory, {"--user-settings", "user.ini", "--durability", "2s"});
  ProtocolClient client(daemon.GetPort());
  EXPECT_THAT(AskForFigures(client),
              AllOf(Contains(Pair("kept", "true")), Contains(Pair("user-settings", _directory.Path("user.ini"))),
                    Contains(Pair("durability", "2000ms")), Contains(Pair("saved", "true")),
                    Not(Contains(Key("last-save"))), Not(Contains(Key("failure")))));
}

TEST_F(ServerInfo, SaysSinceWhenChangesAreSaved) {
  const std::time_t before = std::time(nullptr);
  Daemon daemon(_directory, {"--user-settings", "user.ini"});
  ProtocolClient client(daemon.GetPort());
  client.Send("merge\n[A]\nx=1\n.\n");
  client.AwaitHandled();
  Figures figures;
  EXPECT_TRUE(Eventually([&] { return (figures = AskForFigures(client))["saved"] == "true"; }));
  EXPECT_GE(std::stoll(figures["last-save"]), before - 1);
  EXPECT_EQ(figures["failed-saves"], "0");
}

TEST_F(ServerInfo, BehindAChangeThatIsNotKeptSaysWhyUntilItIs) {
  FileFaults faults(_directory.GetPath());
  const FileFaults::Environment environment(faults, FileFaultsModule());
  faults.Fail(ENOSPC);
  const std::string file = _directory.Path("user.ini");
  Daemon daemon(_directory, {"--user-settings", file});
  ProtocolClient client(daemon.GetPort());
  client.Send("merge\n[A]\nx=1\n.\n");
  client.AwaitHandled();
  Figures figures = AskForFigures(client);
  EXPECT_THAT(figures["failure"], testing::MatchesRegex("Failed to .* '" + file + ".*': No space left on device"));
  EXPECT_EQ(figures["saved"], "false");
  EXPECT_NE(figures["failed-saves"], "0");
  faults.Succeed();
  EXPECT_TRUE(Eventually([&] { return (figures = AskForFigures(client))["saved"] == "true"; }));
  EXPECT_THAT(figures, AllOf(Not(Contains(Key("failure"))), Not(Contains(Key("unsaved-since")))));
}

}  // namespace tavix::test
