#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "tests/programs/server/load/LoadedDaemon.h"
#include "tests/support/BackgroundCall.h"
#include "tests/support/ProcessFigures.h"

// Clients that ask for changes that take long, and leave at once. All that they ask for together would take hours.

namespace tavix::test {

namespace {

constexpr size_t kPlaces = 8;
constexpr size_t kLeavers = 60;
constexpr size_t kRequestBytes = 100'000;  // of one leaver, which the kernel keeps while the daemon reads nothing

// Each reads all files.
std::string ManyRestores() {
  std::string requests;
  while (requests.size() < kRequestBytes) requests += "restore\n*\n.\n";
  return requests;
}

LoadSize SizeOfStore() {
  LoadSize size;
  size.storeGroups = 20'000;
  return size;
}

class DepartedClients : public testing::Test {
 protected:
  explicit DepartedClients(const std::vector<std::string>& options = {})
      : _daemon(SizeOfStore(), Load(), Join(options)) {}

  static std::vector<std::string> Join(std::vector<std::string> options) {
    options.insert(options.end(), {"--listen", "unix:s.sock", "--max-connections", std::to_string(kPlaces)});
    return options;
  }

  size_t CountDaemonDescriptors() { return CountDescriptors(_daemon.Get().GetId()); }

  // Returns when the daemon has seen that all have left: a client that comes behind them is served.
  void SendAndLeave() {
    const size_t descriptors = CountDaemonDescriptors();
    const std::string requests = ManyRestores();
    // One that finds no place for long is refused, maybe before it has sent all, and another one comes.
    for (size_t i = 0; i < kLeavers; ++i)
      EXPECT_TRUE(Eventually([&] { return ProtocolClient(_address).TrySend(requests); }));
    EXPECT_TRUE(Eventually([this] { return IsServed(); }));
    EXPECT_TRUE(Eventually([&] { return CountDaemonDescriptors() == descriptors; }));
  }

  // Whether a new connection is; otherwise it finds no place.
  bool IsServed() const {
    ProtocolClient client(_address);
    return client.TrySend("get delimited\n.\nquit\n") && client.ReadToEnd() == "data\n.\n";
  }

  LoadedDaemon _daemon;
  const std::string _address = "unix:" + _daemon.GetDirectory().Path("s.sock");
};

class ManyDepartedClients : public DepartedClients {
 protected:
  // The client that is present may take long over its request.
  ManyDepartedClients() : DepartedClients({"--all-requests", "2097152", "--request-timeout", "86400"}) {}
};

}  // namespace

TEST_F(DepartedClients, KeepNobodyOut) {
  SendAndLeave();
  for (int i = 0; i < 100; ++i) ASSERT_TRUE(IsServed()) << i;
}

TEST_F(ManyDepartedClients, AreCutBeyondTheBoundOfAllRequestsBeforeAnyoneElse) {
  const std::string value(500'000, 'v');
  ProtocolClient present(_address);
  present.AwaitHandled();  // it has its descriptor
  present.Send("merge\n[Present]\nk=" + value);
  SendAndLeave();
  _daemon.Get().AwaitErrors("connection cut: too much unfinished of all together");
  present.Send("\n.\n");
  EXPECT_EQ(present.Get("Present\n"), "data\n[Present]\nk=" + value + "\n.\n");
}

}  // namespace tavix::test
