#include "tavix/c/WatchHandle.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/wait.h>
#include <unistd.h>

#include <string>
#include <vector>

#include "tests/c/ServedClient.h"
#include "tests/support/BackgroundCall.h"
#include "tests/support/NoMoreDescriptors.h"
#include "tests/support/ScriptedServer.h"

// The real daemon, watched through the C interface.

namespace tavix::test {

namespace {

using testing::ElementsAre;
using testing::HasSubstr;

WatchHandle OpenWatch(const std::string& address, const std::vector<const char*>& names, int32_t flags = 0) {
  tavix_watch* watch = nullptr;
  tavix_error error;
  EXPECT_EQ(CodeOf(tavix_watch_open_z(address.c_str(), names.data(), names.size(), flags, kPatient, &watch, &error)),
            "OK")
      << error.text;
  return WatchHandle(watch);
}

std::string Show(const char* bytes, size_t size) {
  return bytes ? std::string(bytes, size) : "-";
}

std::string Show(const tavix_change& change) {
  if (change.kind == TAVIX_CHANGE_RESYNC) return "resync";
  const std::string group = "[" + Show(change.group, change.group_size) + "]";
  const std::string gone = change.gone == 1 ? " gone" : "";
  if (change.kind == TAVIX_CHANGE_GROUP) return group + gone;
  return group + Show(change.key, change.key_size) + ": " + Show(change.old_value, change.old_value_size) + " > " +
         Show(change.new_value, change.new_value_size) + gone;
}

// The next change, or the code.
std::string Next(const WatchHandle& watch, int32_t timeoutMs = kPatient) {
  const tavix_change* change = nullptr;
  const int32_t code = tavix_watch_next(watch.get(), timeoutMs, &change, nullptr);
  EXPECT_EQ(code == TAVIX_OK, change != nullptr);
  return change ? Show(*change) : CodeOf(code);
}

int32_t DescriptorOf(const WatchHandle& watch) {
  int32_t fd = -1;
  EXPECT_EQ(CodeOf(tavix_watch_fd(watch.get(), &fd, nullptr)), "OK");
  return fd;
}

bool IsReadable(int32_t fd, int32_t timeoutMs) {
  pollfd wait{fd, POLLIN, 0};
  return poll(&wait, 1, timeoutMs) == 1;
}

// The changes up to the one that ends with that text, by a loop that takes one change each time the descriptor shows.
std::vector<std::string> PollThrough(const WatchHandle& watch, const std::string& last) {
  std::vector<std::string> changes;
  const int32_t fd = DescriptorOf(watch);
  while ((changes.empty() || changes.back() != last) && IsReadable(fd, kPatient)) {
    const std::string next = Next(watch, 0);
    if (next != "TIMEOUT") changes.push_back(next);
    EXPECT_EQ(DescriptorOf(watch), fd);
  }
  return changes;
}

}  // namespace

TEST(WatchHandle, ReportsChangesOfItsGroupsAlone) {
  const ReplacedDaemon daemon;
  const ClientHandle client = Open(daemon.GetAddress());
  EXPECT_EQ(Merge(client, "[Net/0]\nx=1\n"), "OK");
  EXPECT_EQ(Flush(client), "OK");
  const WatchHandle watch = OpenWatch(daemon.GetAddress(), {"Net/*"});
  EXPECT_EQ(Next(watch, 0), "TIMEOUT");
  EXPECT_EQ(Merge(client, "[A]\nx=1\n[Net/0]\nx=2\ny=3\n"), "OK");
  EXPECT_EQ(Next(watch), "[Net/0]x: 1 > 2");
  EXPECT_EQ(Next(watch), "[Net/0]y: - > 3");
  const char* name = "Net/0";
  EXPECT_EQ(tavix_erase_z(client.get(), &name, 1, nullptr), TAVIX_OK);
  EXPECT_EQ(Next(watch, TAVIX_FOREVER), "[Net/0]x: 2 > - gone");
}

TEST(WatchHandle, ReportsWhatIsThereAtFirstWhenAskedTo) {
  const ReplacedDaemon daemon;
  const ClientHandle client = Open(daemon.GetAddress());
  EXPECT_EQ(Merge(client, "[A]\nx=a\\x00b\n[B]\n"), "OK");
  EXPECT_EQ(Flush(client), "OK");
  const WatchHandle watch = OpenWatch(daemon.GetAddress(), {"*"}, TAVIX_WATCH_INITIAL);
  EXPECT_EQ(Next(watch), std::string("[A]x: - > a\0b", 13));
  EXPECT_EQ(Next(watch), "[B]");
  EXPECT_EQ(Next(watch, 0), "TIMEOUT");
}

// Over a unix socket: what was sent has arrived.
TEST(WatchHandle, ReportsPendingChangesOfAKeyAsOne) {
  const TemporaryDirectory directory;
  const std::string address = "unix:" + directory.Path("server");
  const DaemonProcess daemon(TAVIX_SERVER_PROGRAM, directory.GetPath(), {"--listen", address});
  daemon.AwaitAddresses();
  const ClientHandle client = Open(address);
  const WatchHandle watch = OpenWatch(address, {"*"});
  for (int i = 0; i < 10; ++i) EXPECT_EQ(Merge(client, "[A]\nx=" + std::to_string(i) + "\n[B]\ny=1\n"), "OK");
  const char* name = "B";
  EXPECT_EQ(tavix_erase_z(client.get(), &name, 1, nullptr), TAVIX_OK);
  EXPECT_EQ(Flush(client), "OK");
  EXPECT_EQ(Next(watch), "[A]x: - > 9");
  EXPECT_EQ(Next(watch, 0), "TIMEOUT");
}

TEST(WatchHandle, ComesBackWithTheDifferencesAndOneMark) {
  ReplacedDaemon daemon;
  const WatchHandle watch = OpenWatch(daemon.GetAddress(), {"*"});
  const WatchHandle other = OpenWatch(daemon.GetAddress(), {"B"});
  EXPECT_EQ(Merge(Open(daemon.GetAddress()), "[A]\nx=1\n"), "OK");
  EXPECT_EQ(Next(watch), "[A]x: - > 1");
  daemon.Replace();
  EXPECT_EQ(Next(watch), "[A]x: 1 > - gone");
  EXPECT_EQ(Next(watch), "resync");
  EXPECT_EQ(Next(other), "resync");
  EXPECT_EQ(Merge(Open(daemon.GetAddress()), "[B]\nx=1\n"), "OK");
  EXPECT_EQ(Next(watch), "[B]x: - > 1");
  EXPECT_EQ(Next(other), "[B]x: - > 1");
}

TEST(WatchHandle, NamesWhyThereIsNoConnection) {
  ReplacedDaemon daemon;
  const WatchHandle watch = OpenWatch(daemon.GetAddress(), {"*"});
  daemon.Kill();
  const tavix_change* change = nullptr;
  tavix_error error;
  EXPECT_EQ(CodeOf(tavix_watch_next(watch.get(), 200, &change, &error)), "TIMEOUT");
  EXPECT_THAT(error.text, HasSubstr(daemon.GetAddress()));
  daemon.StartAgain();
  EXPECT_EQ(Next(watch), "resync");
}

TEST(WatchHandle, ShowsByItsDescriptorThatAChangeWaits) {
  const ReplacedDaemon daemon;
  const ClientHandle client = Open(daemon.GetAddress());
  const WatchHandle watch = OpenWatch(daemon.GetAddress(), {"*"});
  EXPECT_FALSE(IsReadable(DescriptorOf(watch), 0));
  EXPECT_EQ(Merge(client, "[A]\nx=1\ny=2\n[B]\nz=3\n"), "OK");
  EXPECT_THAT(PollThrough(watch, "[B]z: - > 3"), ElementsAre("[A]x: - > 1", "[A]y: - > 2", "[B]z: - > 3"));
  EXPECT_FALSE(IsReadable(DescriptorOf(watch), 0));
}

TEST(WatchHandle, ShowsByItsDescriptorWhenToComeBack) {
  ReplacedDaemon daemon;
  const WatchHandle watch = OpenWatch(daemon.GetAddress(), {"*"});
  EXPECT_FALSE(IsReadable(DescriptorOf(watch), 0));
  daemon.Replace();
  EXPECT_EQ(Merge(Open(daemon.GetAddress()), "[A]\nx=1\n"), "OK");
  const std::vector<std::string> changes = PollThrough(watch, "resync");
  EXPECT_EQ(changes.back(), "resync");
  EXPECT_EQ(Merge(Open(daemon.GetAddress()), "[B]\nx=1\n"), "OK");
  EXPECT_EQ(PollThrough(watch, "[B]x: - > 1").back(), "[B]x: - > 1");
}

TEST(WatchHandle, IsNotMadeOfWhatIsWrong) {
  const ReplacedDaemon daemon;
  tavix_watch* watch = nullptr;
  const char* name = "A\nB";
  const char* address = daemon.GetAddress().c_str();
  EXPECT_EQ(CodeOf(tavix_watch_open_z(address, &name, 1, 0, kPatient, &watch, nullptr)), "USAGE");
  name = "A";
  EXPECT_EQ(CodeOf(tavix_watch_open_z(address, &name, 1, 2, kPatient, &watch, nullptr)), "USAGE");
  EXPECT_EQ(CodeOf(tavix_watch_open_z(address, &name, 1, 0, 0, &watch, nullptr)), "USAGE");
  EXPECT_EQ(CodeOf(tavix_watch_open_z("unix:/nowhere", &name, 1, 0, kPatient, &watch, nullptr)), "LOST");
  EXPECT_EQ(watch, nullptr);
  tavix_watch_close(nullptr);
  EXPECT_EQ(Next(OpenWatch(daemon.GetAddress(), {"A"}), -2), "USAGE");
}

TEST(WatchHandle, IsRefusedBeyondABoundOfTheDaemon) {
  const ReplacedDaemon daemon({"--max-subscriptions", "1"});
  tavix_watch* watch = nullptr;
  const char* const names[] = {"A", "B"};
  tavix_error error;
  EXPECT_EQ(CodeOf(tavix_watch_open_z(daemon.GetAddress().c_str(), names, 2, 0, kPatient, &watch, &error)), "REFUSED");
  EXPECT_THAT(error.text, HasSubstr("bound"));
  EXPECT_EQ(watch, nullptr);
}

TEST(WatchHandle, GoesOnAfterDescriptorsRanOut) {
  const ReplacedDaemon daemon;
  const WatchHandle watch = OpenWatch(daemon.GetAddress(), {"*"});
  // A sanitizer needs descriptors to look at the type of an exception, but only for the first one.
  EXPECT_EQ(CodeOf(tavix_watch_fd(watch.get(), nullptr, nullptr)), "USAGE");
  {
    const NoMoreDescriptors none;
    int32_t fd = -1;
    EXPECT_EQ(CodeOf(tavix_watch_fd(watch.get(), &fd, nullptr)), "BUSY");
  }
  EXPECT_EQ(Merge(Open(daemon.GetAddress()), "[A]\nx=1\n"), "OK");
  EXPECT_THAT(PollThrough(watch, "[A]x: - > 1"), ElementsAre("[A]x: - > 1"));
}

TEST(WatchHandle, ReadsAgainWhatItCouldNotRead) {
  const ScriptedServer server;
  const ServerThreads threads(server, [](ServerEnd& peer, size_t number) {
    peer.ReadThrough();
    peer.ReadThrough();
    peer.Send(number == 0 ? "data\n[A]\nx=1\n.\n" : "data\n[A]\nx=2\n.\n");
    EXPECT_EQ(peer.ReadThrough(), "info refused\nget delimited\n.\n");
    peer.Send(number == 0 ? "data\n.\nasync change\nA\n.\nnonsense\n.\n" : "data\n.\n");
    peer.ReadToEnd();
  });
  const WatchHandle watch = OpenWatch("", {"A"});
  EXPECT_EQ(Next(watch), "[A]x: 1 > 2");
  EXPECT_EQ(Next(watch), "resync");
}

// The notice comes between the two replies of coming back, so that it is received, and nothing more will be.
TEST(WatchHandle, ShowsByItsDescriptorWhatCameWhileItCameBack) {
  const ScriptedServer server;
  const ServerThreads threads(server, [](ServerEnd& peer, size_t number) {
    peer.ReadThrough();
    peer.ReadThrough();
    peer.Send("data\n[A]\nx=1\n.\n");
    peer.ReadThrough();
    if (number > 0) peer.Send("async change\nA\n.\n[A]\nx=2\n.\n");
    peer.Send("data\n.\n");
    if (number > 0) peer.ReadToEnd();
  });
  const WatchHandle watch = OpenWatch("", {"A"});
  const int32_t fd = DescriptorOf(watch);
  std::string next = "TIMEOUT";
  while (next == "TIMEOUT" && IsReadable(fd, kPatient)) next = Next(watch, 0);
  EXPECT_EQ(next, "resync");
  EXPECT_TRUE(IsReadable(fd, 0));
  EXPECT_EQ(Next(watch, 0), "[A]x: 1 > 2");
}

// The change stands behind more notices that change nothing than one call without a time takes.
TEST(WatchHandle, WaitsNoLongerWhileNoticesChangeNothing) {
  const ScriptedServer server;
  const ServerThreads threads(server, [](ServerEnd& peer, size_t) {
    peer.ReadThrough();
    peer.ReadThrough();
    peer.Send("data\n[A]\nx=1\n.\n");
    peer.ReadThrough();
    std::string notices;
    for (int i = 0; i < 100'000; ++i) notices += "async change\nA\n.\n[A]\nx=1\n.\n";
    peer.Send("data\n.\n" + notices + "async change\nA\n.\n[A]\nx=2\n.\n");
    peer.ReadToEnd();
  });
  const WatchHandle watch = OpenWatch("", {"A"});
  const int32_t fd = DescriptorOf(watch);
  std::string next = "TIMEOUT";
  int calls = 0;
  for (; next == "TIMEOUT" && IsReadable(fd, kPatient); ++calls) next = Next(watch, 0);
  EXPECT_EQ(next, "[A]x: 1 > 2");
  EXPECT_GT(calls, 10);
}

// Behind a part of a notice each server is silent for longer than the watch waits; a slow machine may be, too, before.
TEST(WatchHandle, ShowsByItsDescriptorThatANoticeDoesNotEnd) {
  const ScriptedServer server;
  const ServerThreads threads(server, [](ServerEnd& peer, size_t) {
    peer.ReadThrough();
    peer.ReadThrough();
    peer.Send("data\n.\n");
    peer.ReadThrough();
    peer.Send("data\n.\nasync change\nA\n");
    peer.ReadToEnd();
  });
  const char* name = "A";
  tavix_watch* made = nullptr;
  EXPECT_TRUE(Eventually([&] { return tavix_watch_open_z("", &name, 1, 0, 200, &made, nullptr) == TAVIX_OK; }));
  const WatchHandle watch(made);
  const int32_t fd = DescriptorOf(watch);
  std::string next = "TIMEOUT";
  while (next == "TIMEOUT" && IsReadable(fd, kPatient)) next = Next(watch, 0);
  EXPECT_EQ(next, "resync");
}

TEST(WatchHandle, IsBusyWhileAnotherThreadUsesIt) {
  const ReplacedDaemon daemon;
  const WatchHandle watch = OpenWatch(daemon.GetAddress(), {"*"});
  std::string first;
  BackgroundCall call([&] { first = Next(watch); });
  call.AwaitBlocked();
  EXPECT_EQ(Next(watch, 0), "BUSY");
  EXPECT_EQ(Merge(Open(daemon.GetAddress()), "[A]\nx=1\n"), "OK");
  call.Join();
  EXPECT_EQ(first, "[A]x: - > 1");
}

TEST(WatchHandle, ServesAForkedChildForItsEndAlone) {
  const ReplacedDaemon daemon;
  WatchHandle watch = OpenWatch(daemon.GetAddress(), {"*"});
  EXPECT_FALSE(IsReadable(DescriptorOf(watch), 0));
  const pid_t child = fork();
  if (child == 0) {
    const bool isRefused = Next(watch, 0) == "USAGE";
    watch.reset();
    _exit(isRefused ? 0 : 1);
  }
  int status = -1;
  EXPECT_EQ(waitpid(child, &status, 0), child);
  EXPECT_EQ(status, 0);
  EXPECT_EQ(Merge(Open(daemon.GetAddress()), "[A]\nx=1\n"), "OK");
  EXPECT_THAT(PollThrough(watch, "[A]x: - > 1"), ElementsAre("[A]x: - > 1"));
}

}  // namespace tavix::test
