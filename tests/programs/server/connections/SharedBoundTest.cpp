#include "programs/server/connections/SharedBound.h"

#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>

#include <list>
#include <memory>
#include <thread>

namespace tavix::test {

using daemon::SharedBound;

namespace {

constexpr size_t kMost = 1024 * 1024;

// A part and the socket that it is about.
class Kept {
 public:
  explicit Kept(SharedBound& bound) {
    EXPECT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK, 0, _sockets), 0);
    _part = std::make_unique<SharedBound::Part>(bound, _sockets[0]);
  }

  ~Kept() {
    _part.reset();
    for (int socket : _sockets) close(socket);
  }

  SharedBound::Part* operator->() { return _part.get(); }

  // Whether the peer sees the end of the connection.
  bool IsShutDown() const {
    char byte = 0;
    return recv(_sockets[1], &byte, 1, 0) == 0;
  }

 private:
  int _sockets[2] = {-1, -1};
  std::unique_ptr<SharedBound::Part> _part;
};

}  // namespace

TEST(SharedBound, LargestIsPickedWhoeverPassesTheBound) {
  SharedBound bound(kMost);
  Kept large(bound);
  Kept small(bound);
  large->Set(kMost / 2 + 1);
  small->Set(kMost / 2 - 1);
  EXPECT_EQ(large->GetPicked(), 0u);
  small->Set(kMost / 2);
  EXPECT_EQ(large->GetPicked(), kMost / 2 + 1);
  EXPECT_TRUE(large.IsShutDown());
  EXPECT_EQ(small->GetPicked(), 0u);
  EXPECT_FALSE(small.IsShutDown());
}

TEST(SharedBound, OneThatPassesItAloneIsPicked) {
  SharedBound bound(kMost);
  Kept one(bound);
  one->Set(kMost + 1);
  EXPECT_EQ(one->GetPicked(), kMost + 1);
}

TEST(SharedBound, OneThatWasPickedCountsNoMore) {
  SharedBound bound(kMost);
  Kept first(bound);
  Kept second(bound);
  first->Set(kMost + 1);
  first->Set(2 * kMost);
  second->Set(kMost);
  EXPECT_EQ(second->GetPicked(), 0u);
  first->End();
  second->Set(kMost + 1);
  EXPECT_EQ(second->GetPicked(), kMost + 1);
}

TEST(SharedBound, WhatIsGivenBackMayBeUsedAgain) {
  SharedBound bound(kMost);
  Kept kept(bound);
  for (int i = 0; i < 10; ++i) {
    Kept passing(bound);
    kept->Set(kMost / 2);
    passing->Set(kMost / 2);
    kept->Set(0);
    passing->Set(kMost);
    EXPECT_EQ(passing->GetPicked(), 0u);
  }
  EXPECT_EQ(kept->GetPicked(), 0u);
}

TEST(SharedBound, AsManyArePickedAsItTakes) {
  SharedBound bound(kMost);
  std::list<Kept> all;
  for (size_t i = 0; i < 10; ++i) {
    all.emplace_back(bound);
    all.back()->Set(kMost / 10);
  }
  Kept last(bound);
  last->Set(kMost / 10 + 100);
  EXPECT_GT(last->GetPicked(), 0u) << "the largest";
  size_t picked = 0;
  for (Kept& kept : all) picked += kept->GetPicked() > 0 ? 1 : 0;
  EXPECT_EQ(picked, 0u);
}

TEST(SharedBound, ThreadsMayGrowAndEndAtTheSameTime) {
  SharedBound bound(kMost);
  std::list<std::thread> threads;
  for (int i = 0; i < 4; ++i) {
    threads.emplace_back([&bound] {
      for (int round = 0; round < 200; ++round) {
        Kept kept(bound);
        for (size_t bytes = 0; bytes < kMost && kept->GetPicked() == 0; bytes += kMost / 8) kept->Set(bytes);
      }
    });
  }
  for (std::thread& thread : threads) thread.join();
  Kept last(bound);
  last->Set(kMost);
  EXPECT_EQ(last->GetPicked(), 0u) << "nothing is left of the others";
}

}  // namespace tavix::test
