#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/socket.h>

#include <algorithm>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <filesystem>
#include <iostream>
#include <random>
#include <string>
#include <thread>

#include "tests/programs/server/PrometheusText.h"
#include "tests/programs/server/load/LoadedDaemon.h"
#include "tests/support/BackgroundCall.h"
#include "tests/support/EchoFloor.h"
#include "tests/support/PacedCalls.h"
#include "tests/support/ProcessFigures.h"
#include "tests/support/RandomClients.h"
#include "tests/support/RunLength.h"

// Clients that do whatever the bounds allow, and one beside them that has a group for itself.

namespace tavix::test {

namespace {

constexpr size_t kMegabyte = 1024 * 1024;
constexpr size_t kBound = 64 * kMegabyte;     // of all unread replies, and of all unfinished requests
constexpr size_t kUncounted = 3 * 64 * 1024;  // of one client: of its requests, its replies, the texts it is told
constexpr size_t kDescriptorsBeside = 200;
constexpr size_t kPlacesBeside = 100;

// Another one at each run, unless the environment names one that is to be tried again.
unsigned int ChooseSeed() {
  const char* const given = std::getenv("TAVIX_TEST_SEED");
  return given ? static_cast<unsigned int>(std::stoul(given)) : std::random_device()();
}

// How many connections this process and the daemon may have; asks the system for more where it gives more.
size_t AllowConnections(size_t wanted) {
  rlimit limit{};
  EXPECT_EQ(getrlimit(RLIMIT_NOFILE, &limit), 0);
  limit.rlim_cur = std::max(limit.rlim_cur, std::min<rlim_t>(limit.rlim_max, wanted + kDescriptorsBeside));
  EXPECT_EQ(setrlimit(RLIMIT_NOFILE, &limit), 0);
  return std::min<size_t>(wanted, limit.rlim_cur - kDescriptorsBeside);
}

// A client that has a group for itself and is told of its changes. It knows every byte that the daemon may send it.
class OwnGroup {
 public:
  // state: the number that its next value is above; nobody has set one above that before.
  OwnGroup(const std::string& address, size_t state) : _client(address), _state(state) {
    _client.Send("subscribe\nOWN\n.\n");
  }

  // Changes it twice and reads it, and a group that nobody changes. Returns what was wrong; empty when nothing was.
  std::string Use() {
    const std::string before = State();
    ++_state;
    const std::string merged = State();
    ++_state;
    const std::string store = LoadedGroupName(7) + "\n";
    _client.Send("merge\n" + merged + ".\nget delimited\nOWN\n" + store + ".\n");
    _client.Send("test-and-merge\n" + merged + ".\n" + State() + ".\n");
    const std::string wanted =
        Notice(merged) + "data\n" + LoadedGroupText(7) + merged + ".\n" + Notice(State()) + "result\nok\n";
    const std::string received = _client.Read(wanted.size());
    return received == wanted ? "" : "wanted:\n" + wanted + "received:\n" + received;
  }

  // Makes a use that is under way fail, from another thread.
  void Interrupt() const { shutdown(_client.GetDescriptor(), SHUT_RDWR); }

  std::string State() const { return "[OWN]\nn=" + std::to_string(_state) + "\n"; }

 private:
  static std::string Notice(const std::string& state) { return "async change\nOWN\n.\n" + state + ".\n"; }

  ProtocolClient _client;
  size_t _state;
};

// The state that a new client has brought its group to. The places of those who have left are free once the daemon has
// seen it; a client that finds no place meanwhile is refused, and comes again.
std::string UseAsANewClient(const std::string& address, size_t state) {
  std::string result;
  EXPECT_TRUE(Eventually([&] {
    try {
      OwnGroup group(address, state += 10);
      EXPECT_EQ(group.Use(), "");
      result = group.State();
    } catch (const std::exception&) {
      return false;
    }
    return true;
  }));
  return result;
}

// What the daemon's settings take at the moment, in bytes.
size_t StoreBytes(LoadedDaemon& daemon) {
  const TemporaryDirectory& directory = daemon.GetDirectory();
  std::filesystem::remove(directory.Path("metrics"));
  daemon.Get().Signal(SIGUSR1);
  EXPECT_TRUE(Eventually([&] { return directory.Has("metrics"); }));
  return static_cast<size_t>(PrometheusText(directory.Read("metrics")).Get("store_bytes"));
}

}  // namespace

TEST(RandomClients, InsideTheBoundsHoldUpNobodyWhoHasAGroupOfItsOwn) {
  const unsigned int seed = ChooseSeed();
  const size_t clients = AllowConnections(IsLongRun() ? 2000 : 50);
  std::cout << clients << " clients, seed " << seed << std::endl;  // seen even if the test is ended
  LoadSize size;
  if (!IsLongRun()) size.storeGroups = 2'000;
  LoadedDaemon daemon(size, Load{"random", "", true, {}},
                      {"--listen", "unix:own.sock", "--max-connections", std::to_string(clients + kPlacesBeside),
                       "--durability", "1s", "--all-backlogs", std::to_string(kBound), "--all-requests",
                       std::to_string(kBound), "--metrics-file", "metrics"});
  const size_t memory = ResidentMemory(daemon.Get().GetId());
  const size_t stored = StoreBytes(daemon);
  const std::string tcp = daemon.Get().AwaitAddresses(2).back();
  const auto port = static_cast<unsigned short>(std::stoul(tcp.substr(tcp.rfind(':') + 1)));
  const std::string address = "unix:" + daemon.GetDirectory().Path("own.sock");
  OwnGroup own(address, 1'000'000);
  PacedCalls uses(
      kUsualPause, [&] { return own.Use(); }, [&] { own.Interrupt(); });
  EchoFloor floor;
  RandomClients random(port, clients, seed);

  if (IsLongRun()) {
    std::this_thread::sleep_for(std::chrono::seconds(60));  // the load is what the test is about
  } else {
    EXPECT_TRUE(Eventually([&] { return random.CountRequests() >= 2000 && uses.Count() >= 5; }));
  }

  const CallFigures figures = Summarise(uses.Stop());
  EXPECT_EQ(uses.GetFailure(), "") << "seed " << seed;
  const CallFigures machine = floor.Stop();
  const size_t descriptors = CountDescriptors(daemon.Get().GetId());
  const size_t growth = PeakResidentGrowth(daemon.Get().GetId(), memory);
  const size_t storeGrowth = StoreBytes(daemon) - stored;
  std::printf("%zu requests on %zu connections; 3 of another's: p50 %.2f p99 %.2f longest %.1f ms; ",
              random.CountRequests(), random.CountConnections(), figures.median, figures.p99, figures.longest);
  std::printf("the machine %.2f, %.2f, %.1f ms; watchdog %ld ms; %zu MiB more, %zu of them stored; %zu descriptors\n",
              machine.median, machine.p99, machine.longest, daemon.GetWatchdogTimes().GetLongestGap(),
              growth / kMegabyte, storeGrowth / kMegabyte, descriptors);
  EXPECT_LE(descriptors, clients + kPlacesBeside + kDescriptorsBeside) << "those who have left count, too";
  random.Stop();
  const std::string last = UseAsANewClient(address, 2'000'000);
  EXPECT_EQ(daemon.Get().Stop(), 0) << "seed " << seed;
  EXPECT_THAT(daemon.GetDirectory().Read("user.ini"), testing::HasSubstr(last));
  if (!IsLongRun()) return;
  // Its longest pause is a figure, not a promise: each of its merges is announced to all who subscribed to everything.
  // Among 2,000 clients that always ask for as much, it has its turn when those that waited longer have had theirs.
  EXPECT_LT(figures.p99, 100 + machine.longest) << "seed " << seed;
  const size_t texts = 2 * LoadedStoreText(size.storeGroups).size();  // a reply that is being made, one that is kept
  EXPECT_LT(growth, 2 * kBound + clients * kUncounted + 2 * storeGrowth + texts) << "seed " << seed;
}

}  // namespace tavix::test
