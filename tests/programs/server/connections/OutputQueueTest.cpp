#include "programs/server/connections/OutputQueue.h"

#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <memory>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "tavix/osa/Exception.h"
#include "tests/support/BackgroundCall.h"
#include "tests/support/OwnSockets.h"

namespace tavix::test {

using daemon::DurabilityGate;
using daemon::OutputQueue;
using daemon::SharedBound;

namespace {

constexpr size_t kMax = 1024 * 1024;
const std::set<std::string> kGroups = {"A"};

// A queue over one end of a pair of sockets; the test is the peer.
class HoldingQueue : public testing::Test {
 protected:
  HoldingQueue() {
    EXPECT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK, 0, _sockets), 0);
    _queue = std::make_shared<OutputQueue>(_sockets[0], _bounds, &_gate, [this] { ++_kept; });
  }

  ~HoldingQueue() override {
    _queue->Close();
    for (int socket : _sockets) close(socket);
  }

  DurabilityGate::Ticket Change() { return _gate.Add(&kGroups); }

  // A message that shows that change; 0: none.
  void Write(const std::string& message, DurabilityGate::Ticket ticket = 0) {
    _queue->HoldMessage(ticket);
    _queue->Write(message);
  }

  // What has come so far.
  std::string Receive() {
    std::string all;
    char bytes[4096];
    for (ssize_t count; (count = recv(_sockets[1], bytes, sizeof bytes, 0)) > 0;)
      all.append(bytes, static_cast<size_t>(count));
    return all;
  }

  int _sockets[2] = {-1, -1};
  SharedBound _all{2 * kMax};
  const OutputQueue::Bounds _bounds{kMax, kMax, _all};
  DurabilityGate _gate{true};
  std::atomic<int> _kept{0};
  std::shared_ptr<OutputQueue> _queue;
};

}  // namespace

TEST_F(HoldingQueue, MessageThatShowsNoChangeLeavesAtOnce) {
  Change();
  Write("a\n");
  EXPECT_EQ(Receive(), "a\n");
  EXPECT_EQ(_queue->GetKeptBytes(), 0u);
}

TEST_F(HoldingQueue, MessageLeavesWhenItsChangeIsDurable) {
  const DurabilityGate::Ticket ticket = Change();
  Write("a\n", ticket);
  EXPECT_EQ(Receive(), "");
  EXPECT_EQ(_queue->GetKeptBytes(), 2u);
  EXPECT_EQ(_queue->GetSendableBytes(), 0u);
  _gate.SetDurable(ticket);
  EXPECT_EQ(Receive(), "a\n");
  EXPECT_EQ(_queue->GetKeptBytes(), 0u);
}

TEST_F(HoldingQueue, MessageOfADurableChangeIsNotHeld) {
  const DurabilityGate::Ticket ticket = Change();
  _gate.SetDurable(ticket);
  Write("a\n", ticket);
  EXPECT_EQ(Receive(), "a\n");
}

TEST_F(HoldingQueue, WhatIsWrittenLaterWaitsBehindIt) {
  const DurabilityGate::Ticket ticket = Change();
  Write("a\n", ticket);
  Write("b\n");
  EXPECT_EQ(Receive(), "");
  _gate.SetDurable(ticket);
  EXPECT_EQ(Receive(), "a\nb\n");
}

TEST_F(HoldingQueue, EachMessageWaitsForItsOwnChange) {
  const DurabilityGate::Ticket first = Change();
  const DurabilityGate::Ticket second = Change();
  Write("a\n", first);
  Write("b\n");
  Write("c\n", second);
  Write("d\n", first);
  _gate.SetDurable(first);
  EXPECT_EQ(Receive(), "a\nb\n");
  _gate.SetDurable(second);
  EXPECT_EQ(Receive(), "c\nd\n");
}

TEST_F(HoldingQueue, HoldingFromNowOnHoldsMessagesThatShowNothing) {
  const DurabilityGate::Ticket ticket = Change();
  _queue->HoldMessages(ticket);
  Write("a\n");
  EXPECT_EQ(Receive(), "");
  _gate.SetDurable(ticket);
  Write("b\n");
  EXPECT_EQ(Receive(), "a\nb\n");
}

TEST_F(HoldingQueue, IsLetGoWhenTheDiskFails) {
  Write("a\n", Change());
  _gate.StopHolding();
  EXPECT_EQ(Receive(), "a\n");
}

TEST_F(HoldingQueue, PeerThatTakesNoMoreGetsTheRestFromTheLoopInOrder) {
  FillOutput(_sockets[0]);
  const DurabilityGate::Ticket ticket = Change();
  Write("a\n", ticket);
  EXPECT_EQ(_kept, 0);
  _gate.SetDurable(ticket);
  EXPECT_EQ(_kept, 1);
  Write("b\n");
  Receive();
  EXPECT_EQ(_queue->Send(), 0u);
  EXPECT_EQ(Receive(), "a\nb\n");
}

TEST_F(HoldingQueue, LoopSendsNothingThatIsHeld) {
  const DurabilityGate::Ticket ticket = Change();
  Write("a\n", ticket);
  EXPECT_EQ(_queue->Send(), 2u);
  EXPECT_EQ(Receive(), "");
}

// A connection that has quit, or reads nothing more until its output shrinks, goes on then.
TEST_F(HoldingQueue, LoopIsToldWhenHeldOutputHasLeftIfItAskedForThat) {
  const DurabilityGate::Ticket first = Change();
  Write("a\n", first);
  _gate.SetDurable(first);
  EXPECT_EQ(_kept, 0);
  _queue->ReportSent(true);
  const DurabilityGate::Ticket second = Change();
  Write("b\n", second);
  _gate.SetDurable(second);
  EXPECT_EQ(_kept, 1);
}

TEST_F(HoldingQueue, MoreThanIsKeptBreaksIt) {
  Write(std::string(kMax + 1, 'a'), Change());
  EXPECT_TRUE(_queue->IsBroken());
  EXPECT_EQ(_queue->GetKeptBytes(), 0u);
  _gate.StopHolding();
  EXPECT_EQ(Receive(), "");
}

// Whose fault it is that much is kept makes a difference.
TEST_F(HoldingQueue, WhatWaitsForTheDiskHasABoundOfItsOwn) {
  EXPECT_EQ(_queue->GetEnd(), OutputQueue::End::kNone);
  Write(std::string(kMax, 'a'), Change());
  EXPECT_FALSE(_queue->IsBroken());
  Write("b");
  EXPECT_EQ(_queue->GetEnd(), OutputQueue::End::kHeld);
}

TEST_F(HoldingQueue, WhatThePeerDoesNotReadIsNotCountedAsHeld) {
  FillOutput(_sockets[0]);
  Write(std::string(kMax / 2 + 1, 'a'));
  Write(std::string(kMax / 2 + 1, 'b'), Change());
  EXPECT_FALSE(_queue->IsBroken());
  _gate.StopHolding();
  Write(std::string(1, 'c'));
  EXPECT_EQ(_queue->GetEnd(), OutputQueue::End::kUnread);
}

TEST_F(HoldingQueue, HasNoStream) {
  EXPECT_FALSE(_queue->HasStream());
  EXPECT_THROW(_queue->GetOstream(), osa::Exception);
}

TEST_F(HoldingQueue, MessageOfTheHandlerWaitsForTheGroupsThatItShows) {
  settings::common::GroupNameMatcher groups;
  groups.AddNameOrPattern("A");
  _queue->WriteMessage("a\n", &groups);
  const DurabilityGate::Ticket ticket = Change();
  _queue->WriteMessage("b\n", &groups);
  EXPECT_EQ(Receive(), "a\n");
  _gate.SetDurable(ticket);
  EXPECT_EQ(Receive(), "b\n");
}

TEST_F(HoldingQueue, PeerThatIsGoneBreaksItAndIsStillReadFrom) {
  EXPECT_EQ(send(_sockets[1], "request", 7, 0), 7);
  EXPECT_EQ(shutdown(_sockets[1], SHUT_RDWR), 0);
  Write("a\n");
  EXPECT_EQ(_queue->GetEnd(), OutputQueue::End::kPeer);
  char bytes[16];
  EXPECT_EQ(recv(_sockets[0], bytes, sizeof bytes, 0), 7);
}

TEST_F(HoldingQueue, LoopThatFoundThePeerGoneIsNotCalled) {
  Write("a\n", Change());
  const int before = _kept;
  _queue->OnPeerGone();
  EXPECT_EQ(_kept, before);
  EXPECT_EQ(_queue->GetEnd(), OutputQueue::End::kPeer);
  EXPECT_EQ(_queue->GetKeptBytes(), 0u);
}

TEST_F(HoldingQueue, ThatKeepsMostOfAllIsPickedWhenAllKeepTooMuch) {
  int others[2];
  ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK, 0, others), 0);
  SharedBound::Part other(_all, others[0]);
  other.Set(kMax + kMax / 2);
  Write(std::string(kMax / 2 + 1, 'a'), Change());
  EXPECT_EQ(other.GetPicked(), kMax + kMax / 2);
  EXPECT_EQ(_queue->GetPicked(), 0u);
  other.End();
  for (int socket : others) close(socket);
}

TEST_F(HoldingQueue, SharedMessageThatTheSocketTakesIsNotKept) {
  const auto text = std::make_shared<const std::string>(5000, 'a');
  _queue->WriteShared(text);
  EXPECT_EQ(Receive(), *text);
  EXPECT_EQ(text.use_count(), 1);
}

TEST_F(HoldingQueue, SharedMessageIsKeptAsOneTextAndHeldInItsOrder) {
  const auto text = std::make_shared<const std::string>(5000, 'a');
  const DurabilityGate::Ticket ticket = Change();
  Write("before\n");
  _queue->HoldMessage(ticket);
  _queue->WriteShared(text);
  _queue->WriteShared(text);
  Write("behind\n");
  EXPECT_EQ(text.use_count(), 3);
  EXPECT_EQ(_queue->GetKeptBytes(), 10'007u);
  EXPECT_EQ(Receive(), "before\n");
  _gate.SetDurable(ticket);
  EXPECT_EQ(Receive(), *text + *text + "behind\n");
  EXPECT_EQ(text.use_count(), 1);
}

TEST_F(HoldingQueue, EachSharedMessageWaitsForItsOwnChange) {
  const auto first = std::make_shared<const std::string>(5000, 'a');
  const auto second = std::make_shared<const std::string>(5000, 'b');
  const DurabilityGate::Ticket before = Change();
  const DurabilityGate::Ticket after = Change();
  _queue->HoldMessage(before);
  _queue->WriteShared(first);
  _queue->HoldMessage(after);
  _queue->WriteShared(second);
  _gate.SetDurable(before);
  EXPECT_EQ(Receive(), *first);
  _gate.SetDurable(after);
  EXPECT_EQ(Receive(), *second);
}

TEST_F(HoldingQueue, SharedMessageOfWhichTheSocketTookAPartGoesOnThere) {
  const auto text = std::make_shared<const std::string>(kMax - 1, 'a');
  _queue->WriteShared(text);
  EXPECT_EQ(text.use_count(), 2);
  EXPECT_LT(_queue->GetKeptBytes(), text->size());
  std::string received;
  while (_queue->Send() > 0) received += Receive();
  EXPECT_EQ(received + Receive(), *text);
  EXPECT_EQ(text.use_count(), 1);
}

TEST_F(HoldingQueue, BrokenQueueDropsSharedMessages) {
  const auto text = std::make_shared<const std::string>(kMax / 2 + 1, 'a');
  _queue->HoldMessage(Change());
  _queue->WriteShared(text);
  EXPECT_EQ(text.use_count(), 2);
  _queue->WriteShared(text);
  EXPECT_EQ(_queue->GetEnd(), OutputQueue::End::kHeld) << "each queue's own bound counts all that waits in it";
  EXPECT_FALSE(_queue->IsReachable());
  EXPECT_EQ(text.use_count(), 1);
  _queue->WriteShared(text);
  EXPECT_EQ(text.use_count(), 1);
  EXPECT_EQ(_queue->GetKeptBytes(), 0u);
}

// What all queues together may keep is far less than the sum of what they wait for.
TEST_F(HoldingQueue, ManyQueuesKeepOneTextTogether) {
  const auto text = std::make_shared<const std::string>(kMax, 'a');
  const DurabilityGate::Ticket ticket = Change();
  std::vector<std::shared_ptr<OutputQueue>> queues;
  for (int i = 0; i < 50; ++i) {
    queues.push_back(std::make_shared<OutputQueue>(_sockets[0], _bounds, &_gate, [] {}));
    queues.back()->HoldMessage(ticket);
    queues.back()->WriteShared(text);
  }
  EXPECT_EQ(text.use_count(), 51);
  for (const auto& queue : queues) EXPECT_TRUE(queue->IsReachable());
  for (const auto& queue : queues) queue->Close();
  EXPECT_EQ(text.use_count(), 1);
}

TEST_F(HoldingQueue, QueuesMaySendOneTextOnDifferentThreads) {
  constexpr int kMessages = 300;
  std::atomic<bool> ended{false};
  BackgroundCall sync([&] {
    for (; !ended; std::this_thread::yield()) _gate.SetDurable(_gate.FindLast(nullptr));
  });
  BackgroundCall loop([&] {
    for (; !ended; std::this_thread::yield()) _queue->Send();
  });
  std::string received;
  size_t expected = 0;
  for (int i = 0; i < kMessages; ++i) {
    const auto text = std::make_shared<const std::string>(3000, static_cast<char>('a' + i % 26));
    if (i % 3 == 0) _queue->HoldMessage(Change());
    _queue->WriteShared(text);
    expected += text->size();
    received += Receive();
  }
  EXPECT_TRUE(Eventually([&] { return (received += Receive()).size() == expected; }));
  ended = true;
  sync.Join();
  loop.Join();
  for (size_t i = 0; i < received.size(); ++i) ASSERT_EQ(received[i], static_cast<char>('a' + i / 3000 % 26)) << i;
}

TEST_F(HoldingQueue, ClosedQueueSendsAndTellsNothingWhenTheChangeIsDurable) {
  const DurabilityGate::Ticket ticket = Change();
  _queue->ReportSent(true);
  Write("a\n", ticket);
  _queue->Close();
  _gate.SetDurable(ticket);
  EXPECT_EQ(Receive(), "");
  EXPECT_EQ(_kept, 0);
}

TEST_F(HoldingQueue, QueueMayBeClosedAndGoWhileAnotherThreadReleasesIt) {
  for (int i = 0; i < 300; ++i) {
    auto queue = std::make_shared<OutputQueue>(_sockets[0], _bounds, &_gate, [this] { ++_kept; });
    const DurabilityGate::Ticket ticket = Change();
    queue->HoldMessage(ticket);
    queue->Write("a\n");
    BackgroundCall release([&] { _gate.SetDurable(ticket); });
    queue->Close();
    queue.reset();
    release.Join();
    const std::string received = Receive();
    EXPECT_TRUE(received.empty() || received == "a\n");
  }
}

TEST_F(HoldingQueue, ComesWholeAndInOrderWhileAnotherThreadMakesItDurable) {
  constexpr int kMessages = 5000;
  std::atomic<bool> ended{false};
  BackgroundCall sync([&] {
    for (; !ended; std::this_thread::yield()) _gate.SetDurable(_gate.FindLast(nullptr));
  });
  std::string expected;
  std::string received;
  for (int i = 0; i < kMessages; ++i) {
    const std::string message = std::to_string(i) + "\n";
    Write(message, i % 3 == 0 ? Change() : 0);
    expected += message;
    received += Receive();
  }
  ended = true;
  sync.Join();
  _gate.SetDurable(_gate.FindLast(nullptr));
  EXPECT_EQ(received + Receive(), expected);
}

}  // namespace tavix::test
