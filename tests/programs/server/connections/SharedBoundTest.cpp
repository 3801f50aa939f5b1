#include "programs/server/connections/SharedBound.h"

#include <gtest/gtest.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <unistd.h>

#include <list>
#include <memory>
#include <string>
#include <thread>

#include "tavix/osa/Descriptor.h"

namespace tavix::test {

using daemon::SharedBound;

namespace {

constexpr size_t kMax = 1024 * 1024;

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

size_t CountPicked(std::list<Kept>& all) {
  size_t picked = 0;
  for (Kept& kept : all) picked += kept->GetPicked() > 0 ? 1 : 0;
  return picked;
}

}  // namespace

TEST(SharedBound, LargestIsPickedWhoeverPassesTheBound) {
  SharedBound bound(kMax);
  Kept large(bound);
  Kept small(bound);
  large->Set(kMax / 2 + 1);
  small->Set(kMax / 2 - 1);
  EXPECT_EQ(large->GetPicked(), 0u);
  small->Set(kMax / 2);
  EXPECT_EQ(large->GetPicked(), kMax / 2 + 1);
  EXPECT_TRUE(large.IsShutDown());
  EXPECT_EQ(small->GetPicked(), 0u);
  EXPECT_FALSE(small.IsShutDown());
}

TEST(SharedBound, DepartedClientsArePickedFirstByTheirEventAndTheLargestOfThemBeforeTheOthers) {
  const osa::Descriptor event(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK));
  SharedBound bound(kMax);
  Kept present(bound);
  Kept small(bound);
  Kept large(bound);
  for (Kept* departed : {&small, &large}) (*departed)->Depart(event.Get());
  small->Set(1);
  large->Set(2);
  present->Set(kMax - 2);
  EXPECT_EQ(large->GetPicked(), 2u);
  EXPECT_EQ(small->GetPicked() + present->GetPicked(), 0u);
  EXPECT_FALSE(large.IsShutDown());
  eventfd_t count = 0;
  EXPECT_EQ(eventfd_read(event.Get(), &count), 0);
  present->Set(kMax);
  EXPECT_EQ(small->GetPicked(), 1u);
  EXPECT_EQ(present->GetPicked(), 0u);
}

TEST(SharedBound, DepartedClientsCountNoMoreOnceTheyHaveEnded) {
  const osa::Descriptor event(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK));
  SharedBound bound(kMax);
  Kept departed(bound);
  Kept present(bound);
  departed->Depart(event.Get());
  departed->Set(kMax);
  departed->End();
  present->Set(kMax);
  EXPECT_EQ(departed->GetPicked() + present->GetPicked(), 0u);
}

// A lock of it that is taken then is seen where threads are checked.
TEST(SharedBound, OneThatHasEndedMayOutliveTheBound) {
  auto bound = std::make_unique<SharedBound>(kMax);
  Kept kept(*bound);
  kept->Set(kMax);
  kept->End();
  bound.reset();
  kept->End();
  EXPECT_EQ(kept->GetPicked(), 0u);
}

TEST(SharedBound, OneThatPassesItAloneIsPicked) {
  SharedBound bound(kMax);
  Kept one(bound);
  one->Set(kMax + 1);
  EXPECT_EQ(one->GetPicked(), kMax + 1);
}

TEST(SharedBound, OneThatWasPickedCountsNoMore) {
  SharedBound bound(kMax);
  Kept first(bound);
  Kept second(bound);
  first->Set(kMax + 1);
  first->Set(2 * kMax);
  second->Set(kMax);
  EXPECT_EQ(second->GetPicked(), 0u);
  first->End();
  second->Set(kMax + 1);
  EXPECT_EQ(second->GetPicked(), kMax + 1);
}

TEST(SharedBound, WhatIsGivenBackMayBeUsedAgain) {
  SharedBound bound(kMax);
  Kept kept(bound);
  for (int i = 0; i < 10; ++i) {
    Kept passing(bound);
    kept->Set(kMax / 2);
    passing->Set(kMax / 2);
    kept->Set(0);
    passing->Set(kMax);
    EXPECT_EQ(passing->GetPicked(), 0u);
  }
  EXPECT_EQ(kept->GetPicked(), 0u);
}

TEST(SharedBound, AsManyArePickedAsItTakes) {
  SharedBound bound(kMax);
  std::list<Kept> all;
  for (size_t i = 0; i < 10; ++i) {
    all.emplace_back(bound);
    all.back()->Set(kMax / 10);
  }
  Kept last(bound);
  last->Set(kMax / 10 + 100);
  EXPECT_GT(last->GetPicked(), 0u) << "the largest";
  EXPECT_EQ(CountPicked(all), 0u);
}

TEST(SharedBound, TextThatManyKeepIsCountedOnce) {
  SharedBound bound(kMax);
  const std::string text(kMax / 2, 'x');
  std::list<Kept> all;
  for (int i = 0; i < 50; ++i) {
    all.emplace_back(bound);
    all.back()->AddText(text);
    all.back()->AddText(text);
  }
  Kept last(bound);
  last->Set(kMax / 2);
  for (Kept& kept : all) EXPECT_EQ(kept->GetPicked(), 0u);
  last->Set(kMax / 2 + 1);
  EXPECT_EQ(CountPicked(all), 50u) << "they are furthest behind, each by twice the text";
  EXPECT_EQ(last->GetPicked(), 0u);
}

TEST(SharedBound, TextIsCountedUntilTheLastHasDroppedIt) {
  SharedBound bound(kMax);
  const std::string text(kMax, 'x');
  Kept first(bound);
  Kept second(bound);
  first->AddText(text);
  second->AddText(text);
  first->DropText();
  Kept other(bound);
  second->DropText();
  other->Set(kMax);
  EXPECT_EQ(other->GetPicked(), 0u);
  other->Set(0);
  first->AddText(text);
  second->AddText(text);
  first->DropText();
  other->Set(kMax / 2);
  EXPECT_EQ(second->GetPicked(), kMax);
}

// Nothing is free before all of them are gone.
TEST(SharedBound, ThoseThatShareWhatTheyKeepEndTogetherAndOthersStay) {
  SharedBound bound(kMax);
  const std::string old(kMax / 2, 'o');
  const std::string present(kMax / 2, 'p');
  const std::string next(kMax / 2, 'n');
  std::list<Kept> silent;
  for (int i = 0; i < 10; ++i) {
    silent.emplace_back(bound);
    for (const std::string* text : {&old, &present}) silent.back()->AddText(*text);
  }
  std::list<Kept> healthy;
  for (int i = 0; i < 10; ++i) {
    healthy.emplace_back(bound);
    healthy.back()->AddText(next);
  }
  EXPECT_EQ(CountPicked(silent), 10u);
  EXPECT_EQ(CountPicked(healthy), 0u);
  for (Kept& kept : silent) EXPECT_TRUE(kept.IsShutDown());
}

TEST(SharedBound, OneWithoutWhomNothingWouldBeFreeIsSpared) {
  SharedBound bound(kMax);
  const std::string text(kMax / 2, 'x');
  Kept longest(bound);
  Kept sharer(bound);
  Kept alone(bound);
  longest->AddText(text);
  sharer->AddText(text);
  longest->Set(kMax / 4);
  alone->Set(kMax / 2 + 1);
  EXPECT_EQ(alone->GetPicked(), kMax / 2 + 1);
  EXPECT_EQ(longest->GetPicked(), 0u) << "although it keeps more";
  EXPECT_EQ(sharer->GetPicked(), 0u);
}

TEST(SharedBound, OneThatWasPickedKeepsNoTextsAlive) {
  SharedBound bound(kMax);
  const std::string text(kMax + 1, 'x');
  Kept first(bound);
  first->AddText(text);
  EXPECT_EQ(first->GetPicked(), kMax + 1);
  first->AddText(text);
  first->DropText();
  first->DropText();
  first->Clear();
  Kept second(bound);
  second->Set(kMax);
  EXPECT_EQ(second->GetPicked(), 0u);
}

TEST(SharedBound, ThreadsMayGrowAndEndAtTheSameTime) {
  SharedBound bound(kMax);
  const std::string text(kMax / 4, 'x');
  std::list<std::thread> threads;
  for (int i = 0; i < 4; ++i) {
    threads.emplace_back([&bound, &text] {
      for (int round = 0; round < 200; ++round) {
        Kept kept(bound);
        for (size_t bytes = 0; bytes < kMax && kept->GetPicked() == 0; bytes += kMax / 8) {
          kept->Set(bytes);
          kept->AddText(text);
        }
        kept->DropText();
      }
    });
  }
  for (std::thread& thread : threads) thread.join();
  Kept last(bound);
  last->Set(kMax);
  EXPECT_EQ(last->GetPicked(), 0u) << "nothing is left of the others";
}

}  // namespace tavix::test
