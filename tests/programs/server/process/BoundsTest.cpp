#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <list>

#include "tests/programs/server/Daemon.h"
#include "tests/programs/server/process/CutConnection.h"
#include "tests/support/BackgroundCall.h"

namespace tavix::test {

namespace {

constexpr size_t kMegabyte = 1024 * 1024;

std::string MergeOfLargeGroup() {
  return "merge nopersist\n[Large]\nk=" + std::string(8 * kMegabyte, 'v') + "\n.\n";
}

// The number's last 14 binary digits, as pieces of one byte each.
std::string MakeAlikePattern(int number) {
  std::string pattern = "*";
  for (int digit = 0; digit < 14; ++digit) pattern += (number >> digit) % 2 ? "a*" : "b*";
  return pattern;
}

}  // namespace

TEST(Bounds, LineThatIsTooLongEndsItsConnection) {
  ExpectCut({}, std::string(16 * kMegabyte + 70'000, 'x'),
            ": expected at most 16777216, found \"" + std::string(60, 'x') + "...\"\n");
}

TEST(Bounds, RequestThatIsTooLongEndsItsConnection) {
  std::string lines = "merge\n[A]\n";
  while (lines.size() < 200 * 1024) lines += "key" + std::to_string(lines.size()) + "=value\n";
  ExpectCut({"--max-request", "131072"}, lines, ": expected at most 131072, found \"merge\"\n");
}

TEST(Bounds, RequestThatStaysUnfinishedEndsItsConnection) {
  ExpectCut({"--request-timeout", "1"}, "merge\n[A]\nx=1\n",
            "connection cut: unfinished request, bytes 14: expected the end of the request within 1 s, found "
            "\"merge\"\n");
}

TEST(Bounds, ChangeThatTheStoreHasNoRoomForIsNotMadeAndTheClientStays) {
  const TemporaryDirectory directory;
  Daemon daemon(directory, {"--max-store", "100000"});
  ProtocolClient client(daemon.GetPort());
  const std::string large = "[Large]\nk=" + std::string(100'000, 'v') + "\n.\n";
  client.Send("merge\n" + large + "merge nopersist\n" + large + "overwrite\nA\n.\n" + large);
  client.Send("test-and-merge\n.\n[Large]\nk=" + std::string(120'000, 'v') + "\n.\n");  // the log counts equal lines
  EXPECT_EQ(client.ReadUntil("failure\n"), "result\nfailure\n");
  client.Send("merge\n[A]\nx=1\n.\n");
  EXPECT_EQ(client.Get("*\n"), "data\n[A]\nx=1\n.\n");
  EXPECT_EQ(daemon.Stop(), 0);
  EXPECT_EQ(CountOf(": change refused: the store holds about 0 bytes of the 100000 allowed, and would grow by ",
                    daemon.GetErrors()),
            4u);
}

TEST(Bounds, OverwriteThatRecordsTooManyPatternsIsNotMadeAndTheClientStays) {
  const TemporaryDirectory directory;
  Daemon daemon(directory);
  ProtocolClient client(daemon.GetPort());
  for (int first = 0; first < 1024; first += 256) {
    client.Send("overwrite\n");
    for (int i = first; i < first + 256; ++i) client.Send("P" + std::to_string(i) + "/*\n");
    client.Send(".\n.\n");
  }
  client.Send("overwrite\nOne more*\n.\n[A]\nx=1\n.\noverwrite\na name\nP7/*\n.\n[B]\nx=1\n.\n");
  EXPECT_EQ(client.Get("*\n"), "data\n[B]\nx=1\n.\n");
  EXPECT_EQ(daemon.Stop(), 0);
  EXPECT_THAT(daemon.GetErrors(), testing::HasSubstr(": change refused: the record of deleted groups holds 1024 "
                                                     "patterns of the 1024 allowed, and would get 1 more"));
}

TEST(Bounds, SettingsThatTakeMoreThanTheStoreMayAreLoadedWithAWarning) {
  const TemporaryDirectory directory;
  directory.Write("defaults.ini", "[Large]\nk=" + std::string(10'000, 'v') + "\n");
  Daemon daemon(directory, {"--defaults", directory.Path("defaults.ini"), "--max-store", "10000"});
  ProtocolClient client(daemon.GetPort());
  client.Send("merge\n[A]\nx=1\n.\n");
  EXPECT_EQ(client.Get("*\n"), "data\n[Large]\nk=" + std::string(10'000, 'v') + "\n.\n");
  client.Send("merge\n[Large]\nk=short\n.\n");
  EXPECT_EQ(client.Get("*\n"), "data\n[Large]\nk=short\n.\n");
  EXPECT_EQ(daemon.Stop(), 0);
  EXPECT_EQ(CountOf("The settings take about ", daemon.GetErrors()), 1u);
  EXPECT_EQ(CountOf(": change refused: ", daemon.GetErrors()), 1u) << daemon.GetErrors();
}

// Nothing of it is subscribed to; what was before is, and the connection goes on in step.
TEST(Bounds, SubscriptionBeyondABoundIsRefusedAlone) {
  const std::string name(100, 'x');
  const struct {
    std::vector<std::string> arguments;
    std::string list;
    std::string reason;
  } cases[] = {
      {{"--max-subscriptions", "2"}, "B*\nC\n", "3 subscriptions are more than the 2 allowed"},
      {{"--max-subscription-bytes", "10"}, name + "\n", "103 bytes of subscriptions are more than the 10 allowed"},
      {{"--all-subscription-bytes", "10"}, name + "\n", "All subscriptions together would have more than the 10 bytes"},
      {{"--max-list", "2", "--max-subscriptions", "2"}, "A\nA\nA\n", "A list holds more than the 2 names and patterns"},
  };
  for (const auto& [arguments, list, reason] : cases) {
    const TemporaryDirectory directory;
    Daemon daemon(directory, arguments);
    ProtocolClient client(daemon.GetPort());
    client.Send("subscribe\nA\nB*\n.\nsubscribe\n" + list + ".\nmerge\n[A]\nk=1\n[C]\nk=1\n[" + name + "]\n.\n");
    EXPECT_EQ(client.ReadUntil("k=1\n.\n"), "async change\nA\n.\n[A]\nk=1\n.\n");
    client.AwaitHandled();
    EXPECT_EQ(Converse(daemon.GetPort(), "info subscribed\n"), "Subscribed groups\n-----------------\nA\nB*\n\n");
    EXPECT_EQ(daemon.Stop(), 0);
    EXPECT_THAT(daemon.GetErrors(), testing::HasSubstr("ClientHandler: Subscription refused: " + reason));
  }
}

// Also when connections end, whose bytes others may then have.
TEST(Bounds, SubscriptionsOfAllConnectionsShareOneBound) {
  const TemporaryDirectory directory;
  Daemon daemon(directory, {"--all-subscription-bytes", "10"});
  ProtocolClient first(daemon.GetPort());
  first.Send("subscribe\nSixSix\n.\nsubscribe\nSixSix\n.\n");
  first.AwaitHandled();
  ProtocolClient second(daemon.GetPort());
  second.Send("subscribe\nFive5\n.\nsubscribe\nFour\n.\n");
  second.AwaitHandled();
  EXPECT_EQ(Converse(daemon.GetPort(), "info subscribed\n"), "Subscribed groups\n-----------------\nFour\nSixSix\n\n");
  first.Close();
  EXPECT_TRUE(Eventually([&] {
    second.Send("subscribe\nFive5\n.\n");
    second.AwaitHandled();
    return CountOf("Five5\n", Converse(daemon.GetPort(), "info subscribed\n")) == 1;
  }));
}

TEST(Bounds, NameThatIsTooLongEndsItsConnection) {
  const std::string name(4097, 'x');
  const std::string longest(4096, 'x');
  const std::string length = std::to_string(name.size());
  for (const std::string& request :
       {"get delimited\n" + name + "\n.\n", "subscribe\n" + name + "\n.\n", "restore\n" + name + "\n.\n",
        "overwrite\n" + name + "\n.\n.\n", "merge\n[" + name + "]\n.\n", "merge\n[A]\n" + name + "=1\n.\n",
        "test-and-merge\n[A]\n" + name + "=1\n.\n.\n",
        "serialize phparray\nmerge\na:1:{s:" + length + ":\"" + name + "\";a:0:{}}\n.\n",
        "serialize phparray\nmerge\na:1:{s:1:\"A\";a:1:{s:" + length + ":\"" + name + "\";s:0:\"\";}}\n.\n"})
    ExpectCut({}, request, "of 4097 bytes is longer than the 4096 allowed");
  const TemporaryDirectory directory;
  Daemon daemon(directory);
  EXPECT_EQ(
      Converse(daemon.GetPort(), "merge\n[" + longest + "]\n" + longest + "=1\n.\nget delimited\n" + longest + "\n.\n"),
      "data\n[" + longest + "]\n" + longest + "=1\n.\n");
}

TEST(Bounds, FilesMayHoldLongerNamesThanClientsSend) {
  const TemporaryDirectory directory;
  const std::string name(5000, 'x');
  const std::string group = "[" + name + "]\n" + name + "=1\n";
  Daemon daemon(directory, {"--defaults", directory.Write("d.ini", group)});
  EXPECT_EQ(Converse(daemon.GetPort(), "get\n*\n.\n"), group);
  EXPECT_EQ(Converse(daemon.GetPort(), "restore\n*\n.\nget\n*\n.\n"), group);
  EXPECT_EQ(CountOf("names longer than 4096 bytes, which clients can't send (--max-name): 2\n", daemon.GetErrors()),
            1u);
}

TEST(Bounds, ValueOfAMegabyteIsTaken) {
  const TemporaryDirectory directory;
  Daemon daemon(directory);
  const std::string group = "[A]\nk=" + std::string(1'100'000, 'v') + "\n";
  EXPECT_EQ(Converse(daemon.GetPort(), "merge\n" + group + ".\nget\nA\n.\n"), group);
}

TEST(Bounds, MoreInAListThanAllowedEndsTheConnection) {
  for (const char* request : {"get delimited\n", "restore\n", "overwrite\n"}) {
    ExpectCut({"--max-list", "2", "--max-subscriptions", "1"}, request + std::string("A\nA\nA\n.\n[A]\n.\n"),
              "connection ended: A list holds more than the 2 names and patterns allowed");
  }
}

// Each may have to be tried on every group of the store.
TEST(Bounds, MorePatternsInAListThanAllowedEndTheConnection) {
  for (const char* request : {"get delimited\n", "restore\n", "overwrite\n"}) {
    ExpectCut({"--max-patterns", "2"}, request + std::string("A\nB\nC\nA*\n*B\nC*\n.\n[A]\n.\n"),
              "connection ended: A list holds more than the 2 patterns allowed");
  }
}

// The work counts: patterns times the bytes of the names of all groups.
TEST(Bounds, PatternsOnMoreBytesOfNamesThanAllowedEndTheConnection) {
  for (const char* request : {"get delimited\n", "restore\n", "overwrite\n"}) {
    ExpectCut({"--max-work", "19"}, "merge\n[Ten bytes!]\n.\n" + std::string(request) + "A*\n*B\nName\n.\n.\n",
              "connection ended: To try 2 patterns on 10 bytes of group names is more than the 19 bytes allowed");
  }
}

TEST(Bounds, NamesAndFewPatternsAreWithinTheBoundOfWork) {
  const TemporaryDirectory directory;
  Daemon daemon(directory, {"--max-work", "20"});
  ProtocolClient client(daemon.GetPort());
  client.Send("merge\n[Ten bytes!]\n.\n");
  EXPECT_EQ(client.Get("A*\n*!\n"), "data\n[Ten bytes!]\n.\n");
  client.Send("merge\n[And many more]\n.\n");
  EXPECT_EQ(client.Get("Ten bytes!\nB\n"), "data\n[Ten bytes!]\n.\n");
  client.Send("overwrite\nAnd many more\n.\n.\n");
  EXPECT_EQ(client.Get("A*\n*!\n"), "data\n[Ten bytes!]\n.\n") << "the names have gone from the work, too";
}

TEST(Bounds, WorkHasNoBoundWhereItIsZero) {
  const TemporaryDirectory directory;
  Daemon daemon(directory, {"--max-work", "0", "--max-alike-patterns", "0"});
  EXPECT_EQ(Converse(daemon.GetPort(), "merge\n[Ten bytes!]\n.\nget delimited\n*\n*!\n.\n"), "data\n[Ten bytes!]\n.\n");
}

// Of one-byte pieces, of which there are two: each pattern has to be tried on every name that has the byte that it is
// filed under.
TEST(Bounds, PatternsThatAreTooAlikeAreRefusedAndOrdinaryOnesAreNot) {
  const TemporaryDirectory directory;
  Daemon daemon(directory);
  std::list<ProtocolClient> clients;
  for (int first = 0; first < 3 * 4096; first += 4096) {
    clients.emplace_back(daemon.GetPort()).Send("subscribe\n");
    for (int i = first; i < first + 4096; ++i) clients.back().Send(MakeAlikePattern(i) + "\n");
    clients.back().Send(".\n");
    clients.back().AwaitHandled();
  }
  for (int i = 0; i < 1000; ++i) {
    const std::string camera = std::to_string(i % 50);
    clients.emplace_back(daemon.GetPort()).Send("subscribe\nCamera/" + camera + "/*\n*/Status\n*\nNet*\n.\n");
  }
  for (ProtocolClient& client : clients) client.AwaitHandled();
  EXPECT_EQ(CountOf("\n", Converse(daemon.GetPort(), "info subscribed\n")), 3u + 2 * 4096u + 50u + 3u);
  EXPECT_EQ(daemon.Stop(), 0);
  EXPECT_EQ(CountOf("refused", daemon.GetErrors()), 1u);
  EXPECT_THAT(daemon.GetErrors(),
              testing::HasSubstr("ClientHandler: Subscription refused: More patterns would be alike "
                                 "than the 4096 allowed"));
}

TEST(Bounds, ListMayHave256PatternsAndManyMoreNames) {
  const TemporaryDirectory directory;
  Daemon daemon(directory);
  std::string list;
  for (int i = 0; i < 256; ++i) list += "*Pattern" + std::to_string(i) + "\n";
  for (int i = 0; i < 20'000; ++i) list += "Name" + std::to_string(i) + "\n";
  EXPECT_EQ(Converse(daemon.GetPort(), "get delimited\n" + list + ".\n"), "data\n.\n");
  EXPECT_EQ(daemon.GetErrors(), "");
}

TEST(Bounds, ConnectionMayHave4096SubscriptionsAndNotOneMore) {
  const TemporaryDirectory directory;
  Daemon daemon(directory);
  std::string names;
  for (int i = 0; i < 4096; ++i) names += (i % 2 ? "Group" : "*Pattern") + std::to_string(i) + "\n";
  ProtocolClient client(daemon.GetPort());
  client.Send("subscribe\n" + names + ".\nsubscribe\n*Pattern0\nGroup1\n.\n");
  client.AwaitHandled();
  EXPECT_EQ(CountOf("\n", Converse(daemon.GetPort(), "info subscribed\n")), 3u + 4096u);
  client.Send("subscribe\nOneMore\n.\n");
  client.AwaitHandled();
  daemon.AwaitErrors("4097 subscriptions are more than the 4096 allowed");
}

// Each is within the bounds, whatever comes with it.
TEST(Bounds, ManyRequestsThatComeAtOnceAreNotTakenForOneLineOrOneRequest) {
  const TemporaryDirectory directory;
  Daemon daemon(directory, {"--max-line", "100", "--max-request", "100"});
  std::string requests;
  std::string replies;
  for (int i = 0; i < 1000; ++i) {
    requests += "get delimited\n.\n";
    replies += "data\n.\n";
  }
  EXPECT_EQ(Converse(daemon.GetPort(), requests), replies);
  EXPECT_EQ(daemon.GetErrors(), "");
}

TEST(Bounds, SubscriberThatStopsReadingIsCutOffAndWritersDoNotWait) {
  const TemporaryDirectory directory;
  Daemon daemon(directory, {"--max-line", "67108864", "--backlog-timeout", "1"});
  ProtocolClient subscriber(daemon.GetPort(), 4096);
  subscriber.Send("subscribe\nLarge\n.\n");
  subscriber.AwaitHandled();
  ProtocolClient writer(daemon.GetPort());
  for (int i = 0; i < 3; ++i) {
    writer.Send(MergeOfLargeGroup());
    EXPECT_EQ(writer.Get("A\n"), "data\n.\n");
  }
  EXPECT_TRUE(Eventually(
      [&] { return Converse(daemon.GetPort(), "info subscribed\n") == "Subscribed groups\n-----------------\n\n"; }));
  EXPECT_LT(subscriber.ReadToEnd().size(), 24 * kMegabyte);
  EXPECT_EQ(daemon.Stop(), 0);
  EXPECT_THAT(daemon.GetErrors(), testing::HasSubstr("connection cut: too much unread for too long"));
}

TEST(Bounds, BacklogBeyondTheHardBoundBreaksTheConnectionAtOnce) {
  const TemporaryDirectory directory;
  Daemon daemon(directory, {"--max-line", "67108864", "--hard-backlog", "9000000", "--backlog-timeout", "1000"});
  ProtocolClient subscriber(daemon.GetPort(), 4096);
  subscriber.Send("subscribe\nLarge\n.\n");
  subscriber.AwaitHandled();
  for (int i = 0; i < 3; ++i) Converse(daemon.GetPort(), MergeOfLargeGroup());
  EXPECT_TRUE(Eventually(
      [&] { return Converse(daemon.GetPort(), "info subscribed\n") == "Subscribed groups\n-----------------\n\n"; }));
  EXPECT_EQ(daemon.Stop(), 0);
  EXPECT_EQ(CountOf("connection cut: more unread than is kept 9000000\n", daemon.GetErrors()), 1u);
}

// Replies that nobody reads are kept up to a bound; then nothing more is read, and all are answered once somebody does.
TEST(Bounds, RepliesThatNobodyReadsHoldUpTheirOwnConnectionOnly) {
  const TemporaryDirectory directory;
  Daemon daemon(directory, {"--max-line", "67108864", "--backlog-timeout", "1000"});
  ProtocolClient client(daemon.GetPort());
  client.Send(MergeOfLargeGroup());
  std::string requests;
  for (int i = 0; i < 5; ++i) requests += "get\nLarge\n.\n";
  client.Send(requests + "quit\n");
  EXPECT_EQ(Converse(daemon.GetPort(), "get delimited\n.\n"), "data\n.\n");
  EXPECT_EQ(client.ReadToEnd().size(), 5 * (8 * kMegabyte + std::string("[Large]\nk=\n").size()));
}

// The memory of all is bounded, whatever each may have.
TEST(Bounds, LongestUnfinishedRequestIsCutWhenAllAreTooLong) {
  const TemporaryDirectory directory;
  Daemon daemon(directory, {"--all-requests", "1048576", "--loops", "2", "--request-timeout", "1000"});
  const std::string lines = "merge nopersist\n[A]\nk=" + std::string(600'000, 'v') + "\n";
  ProtocolClient longest(daemon.GetPort());
  longest.Send(lines);
  daemon.AwaitIdle();
  ProtocolClient other(daemon.GetPort());
  other.Send(lines.substr(0, 500'000));
  EXPECT_EQ(longest.ReadToEnd(), "");
  other.Send("\n.\n");
  other.AwaitHandled();
  EXPECT_EQ(daemon.Stop(), 0);
  EXPECT_THAT(daemon.GetErrors(), testing::HasSubstr("connection cut: too much unfinished of all together, bytes"));
  EXPECT_EQ(CountOf("connection cut", daemon.GetErrors()), 1u);
}

// The notice, which both are told, counts once; the longest has a reply before it that is longer than the
// notice by more than the kernel keeps of it.
TEST(Bounds, LongestBacklogIsCutWhenAllAreTooLong) {
  const TemporaryDirectory directory;
  Daemon daemon(directory, {"--max-line", "67108864", "--all-backlogs", "30000000", "--backlog-timeout", "1000"});
  ProtocolClient writer(daemon.GetPort());
  writer.Send(MergeOfLargeGroup() + "merge\n[More]\nk=" + std::string(20 * kMegabyte, 'm') + "\n.\n");
  writer.AwaitHandled();
  ProtocolClient longest(daemon.GetPort(), 4096);
  longest.Send("subscribe\nLarge\n.\nget\nLarge\nMore\n.\n");
  longest.ReadUntil("k=");
  ProtocolClient other(daemon.GetPort(), 4096);
  other.Send("subscribe\nLarge\n.\n");
  other.AwaitHandled();
  writer.Send(MergeOfLargeGroup());
  writer.AwaitHandled();
  EXPECT_LT(longest.ReadToEnd().size(), 16 * kMegabyte);
  other.ReadUntil("v\n.\n");
  EXPECT_EQ(daemon.Stop(), 0);
  EXPECT_THAT(daemon.GetErrors(), testing::HasSubstr("connection cut: too much unread by all together, bytes of this"));
  EXPECT_EQ(CountOf("connection cut", daemon.GetErrors()), 1u);
}

}  // namespace tavix::test
