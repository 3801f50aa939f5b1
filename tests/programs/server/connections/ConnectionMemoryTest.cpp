#include <gtest/gtest.h>
#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>

#include <memory>
#include <new>
#include <optional>
#include <string>

#include "programs/server/connections/Connection.h"
#include "programs/server/connections/SharedBound.h"
#include "tavix/osa/Descriptor.h"
#include "tests/programs/server/connections/ConnectionSetup.h"
#include "tests/support/DocumentText.h"
#include "tests/support/ListeningSocket.h"
#include "tests/support/RefusedAllocation.h"

namespace tavix::test {

namespace {

class UnmadeConnection : public testing::Test {
 protected:
  // Whether it is made when that allocation of its constructor fails.
  bool Make(osa::Descriptor descriptor, int failing) {
    std::optional<daemon::Connection> connection;
    const RefusedAllocation refused(failing);
    try {
      connection.emplace(std::move(descriptor), _poll.Get(), _wake.Get(), _shared);
    } catch (const std::bad_alloc&) {
    }
    return connection.has_value();
  }

  ConnectionSetup _setup;
  const daemon::Connection::Shared _shared = _setup.GetShared();
  const osa::Descriptor _poll{epoll_create1(EPOLL_CLOEXEC)};
  const osa::Descriptor _wake{eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)};
};

constexpr long kMaxIdleBytes = 2150;

// A connection whose peer is the test.
class IdleConnection : public testing::Test {
 protected:
  static void Open(int (&ends)[2]) { ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends), 0); }

  std::unique_ptr<daemon::Connection> Make(int end) {
    return std::make_unique<daemon::Connection>(osa::Descriptor(end), _poll.Get(), _wake.Get(), _shared);
  }

  // Long enough to leave its mark where memory is kept.
  static void Get(daemon::Connection& connection, const osa::Descriptor& peer) {
    EXPECT_TRUE(Send(peer, "get delimited\nA\n.\n"));
    EXPECT_TRUE(connection.OnReadable(s_scratch, sizeof s_scratch));
    EXPECT_EQ(Receive(peer, kReplyBytes).size(), kReplyBytes);
  }

  static constexpr size_t kValueBytes = 1000;
  static constexpr size_t kReplyBytes = kValueBytes + sizeof "data\n[A]\nx=\n.\n" - 1;
  static inline char s_scratch[4096];

  ConnectionSetup _setup;
  const daemon::Connection::Shared _shared = _setup.GetShared();
  const osa::Descriptor _poll{epoll_create1(EPOLL_CLOEXEC)};
  const osa::Descriptor _wake{eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)};
};

}  // namespace

TEST_F(IdleConnection, IsSmallBeforeItsFirstRequestAndBehindIt) {
  _setup.store.MergeSettings(DocumentOf("[A]\nx=" + std::string(kValueBytes, 'v') + "\n"), 0);
  int ends[2];
  Open(ends);
  const osa::Descriptor firstPeer(ends[1]);
  const auto first = Make(ends[0]);
  Get(*first, firstPeer);  // what the thread keeps for all is there from now on
  Open(ends);
  const osa::Descriptor peer(ends[1]);
  const long before = RefusedAllocation::CountLiveBytes();
  const auto connection = Make(ends[0]);
  EXPECT_LE(RefusedAllocation::CountLiveBytes() - before, kMaxIdleBytes);
  Get(*connection, peer);
  EXPECT_LE(RefusedAllocation::CountLiveBytes() - before, kMaxIdleBytes);
}

// A held message has to be kept.
TEST_F(IdleConnection, MessageThatMemoryDoesNotSufficeForBreaksItsQueue) {
  int ends[2];
  Open(ends);
  const osa::Descriptor peer(ends[1]);
  const osa::Descriptor own(ends[0]);
  daemon::DurabilityGate gate(true);
  int kept = 0;
  const auto queue = std::make_shared<daemon::OutputQueue>(
      own.Get(), daemon::OutputQueue::Bounds{1000, 1000, _setup.bounds.backlog}, &gate, [&] { ++kept; });
  queue->Write("a\n");
  queue->HoldMessage(gate.Add(nullptr));
  {
    const RefusedAllocation refused(0);
    queue->Write("b\n");
  }
  EXPECT_EQ(queue->GetEnd(), daemon::OutputQueue::End::kMemory);
  queue->Write("c\n");
  EXPECT_EQ(ReceiveAll(peer), "a\n");
  EXPECT_GT(kept, 0) << "the loop is told";
  queue->Close();
}

// A message that other queues keep as well.
TEST(SharedBoundWithoutMemory, TextThatItDoesNotSufficeForIsNotAdded) {
  const std::string text(100, 'x');
  daemon::SharedBound bound(text.size());
  daemon::SharedBound::Part part(bound, -1);
  bool isAdded = false;
  for (int failing = 0; !isAdded; ++failing) {
    ASSERT_LT(failing, 1000);
    const RefusedAllocation refused(failing);
    try {
      part.AddText(text);
      isAdded = true;
    } catch (const std::bad_alloc&) {
    }
    part.Clear();
    EXPECT_TRUE(failing > 0 || !isAdded);
  }
  part.AddText(text);
  EXPECT_EQ(part.GetPicked(), 0u) << "nothing is left of the others";
}

TEST_F(UnmadeConnection, ClosesItsDescriptorWhicheverAllocationFailed) {
  bool isMade = false;
  for (int failing = 0; !isMade; ++failing) {
    ASSERT_LT(failing, 1000);
    int ends[2];
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends), 0);
    const osa::Descriptor peer(ends[1]);
    isMade = Make(osa::Descriptor(ends[0]), failing);
    EXPECT_TRUE(failing > 0 || !isMade);
    char byte = 0;
    EXPECT_EQ(recv(peer.Get(), &byte, 1, MSG_DONTWAIT), 0) << "open after failure " << failing;
  }
}

}  // namespace tavix::test
