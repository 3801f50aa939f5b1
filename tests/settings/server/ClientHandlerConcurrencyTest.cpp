#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <deque>
#include <functional>
#include <future>
#include <map>
#include <ostream>
#include <sstream>
#include <string>

#include "tavix/core/IniFile.h"
#include "tavix/osa/MutexAutoLock.h"
#include "tavix/settings/server/ClientHandler.h"
#include "tests/support/BackgroundCall.h"
#include "tests/support/DocumentText.h"
#include "tests/support/PipedHandler.h"
#include "tests/support/RecordingCallback.h"
#include "tests/support/ServedStore.h"

// Several connections at once. A deadlock is ended by the watchdog, a race is found by ThreadSanitizer; what is left to
// expect is that every message is whole and none is missing.

namespace {

using tavix::core::IniFile;
using tavix::osa::MutexAutoLock;
using tavix::settings::server::ClientHandler;
using tavix::test::BackgroundCall;
using tavix::test::DocumentOf;
using tavix::test::PipedHandler;
using tavix::test::RecordingCallback;
using tavix::test::ServedStore;

constexpr int kRounds = 100;

using MessageCounts = std::map<std::string, int>;

// Two settings that are always changed together.
void ExpectPair(const std::string& payload) {
  if (payload.rfind("[Pair]", 0) != 0) return;
  const IniFile document = DocumentOf(payload.substr(0, payload.size() - 2));
  EXPECT_EQ(document.GetValue("Pair", "first"), document.GetValue("Pair", "second"));
}

// Reads what a handler writes up to its end, and fails on a message that is not whole.
MessageCounts ReadMessages(PipedHandler& client) {
  MessageCounts counts;
  for (std::string line; client.ReadLine(line);) {
    ++counts[line];
    if (line == "async change") {
      EXPECT_EQ(client.ReadThrough("."), "Pair\n.\n");
      ExpectPair(client.ReadThrough("."));
    } else if (line == "data") {
      ExpectPair(client.ReadThrough("."));
    } else if (line == "result") {
      EXPECT_TRUE(client.ReadLine(line));
      EXPECT_TRUE(line == "ok" || line == "failure") << line;
    } else if (line == "Subscribed groups") {
      EXPECT_EQ(client.ReadThrough(""), "-----------------\nPair\n\n");
    } else {
      ADD_FAILURE() << "no message begins with: " << line;
    }
  }
  return counts;
}

std::string MergeOf(int value) {
  const std::string text = std::to_string(value);
  return "merge\n[Pair]\nfirst=" + text + "\nsecond=" + text + "\n.\n";
}

const std::string kPairIs0 = "[Pair]\nfirst=0\nsecond=0\n";

// Connections that all subscribed to the same.
class Subscribers {
 public:
  Subscribers(ServedStore& served, int count) {
    for (int i = 0; i < count; ++i) {
      clients.emplace_back(&served.env);
      clients.back().Send("subscribe\nPair\n.\n");
      clients.back().AwaitHandled();
    }
  }

  std::deque<PipedHandler> clients;
};

// Sends requests round after round while another thread reads the messages; returns their counts.
MessageCounts Converse(PipedHandler& client, const std::function<std::string(int round)>& requests) {
  MessageCounts counts;
  BackgroundCall reader([&] { counts = ReadMessages(client); });
  for (int round = 0; round < kRounds; ++round) client.Send(requests(round));
  client.Send("quit\n");
  reader.Join();
  return counts;
}

TEST(ClientHandlerConcurrency, EveryConnectionGetsEveryMessageWhole) {
  ServedStore served({kPairIs0});
  Subscribers subscribers(served, 3);
  const auto converse = [](PipedHandler& client) {
    MessageCounts counts = Converse(client, [](int round) {
      return MergeOf(round) + "get delimited\nPair\n.\ninfo subscribed\ntest-and-merge\n[None]\nx=1\n.\n.\n";
    });
    EXPECT_EQ(counts["data"], kRounds);
    EXPECT_EQ(counts["result"], kRounds);
    EXPECT_EQ(counts["Subscribed groups"], kRounds);
    EXPECT_GE(counts["async change"], kRounds) << "its own changes at least";
  };
  BackgroundCall first([&] { converse(subscribers.clients[0]); });
  BackgroundCall second([&] { converse(subscribers.clients[1]); });
  converse(subscribers.clients[2]);
}

TEST(ClientHandlerConcurrency, NoChangeIsMissed) {
  ServedStore served({kPairIs0});
  Subscribers subscribers(served, 2);
  const auto write = [&] {
    for (int round = 0; round < kRounds; ++round) served.Serve(MergeOf(round));
  };
  {
    BackgroundCall first(write);
    BackgroundCall second(write);
  }
  for (PipedHandler& client : subscribers.clients) {
    client.Send("quit\n");
    EXPECT_EQ(ReadMessages(client)["async change"], 2 * kRounds);
  }
}

// A listing takes the connection's output before the subscriptions, a notice the other way round: the listing must not
// hold the one while it waits for the other.
TEST(ClientHandlerConcurrency, AListingWaitsForANotificationWithoutHoldingTheOutput) {
  ServedStore served({kPairIs0});
  std::promise<void> entered;
  std::promise<void> mayLeave;
  std::istringstream in("subscribe\nPair\n.\ninfo subscribed\n");
  std::ostringstream out;
  struct {  // called in the order of addresses
    RecordingCallback first;
    ClientHandler second;
  } subscribers{RecordingCallback([&] {
                  entered.set_value();
                  mayLeave.get_future().wait();
                }),
                ClientHandler(&served.env, &in, &out)};
  served.store.Subscribe(&subscribers.first, "Pair");
  EXPECT_TRUE(subscribers.second.HandleNext());
  BackgroundCall change([&] { served.store.MergeSettings(DocumentOf(kPairIs0), 0); });
  entered.get_future().wait();
  BackgroundCall listing([&] { EXPECT_TRUE(subscribers.second.HandleNext()); });
  listing.AwaitBlocked();
  mayLeave.set_value();
  change.Join();
  listing.Join();
  const std::string notice = "async change\nPair\n.\n" + kPairIs0 + ".\n";
  const std::string reply = "Subscribed groups\n-----------------\nPair\n\n";
  EXPECT_THAT(out.str(), testing::AnyOf(notice + reply, reply + notice));
}

TEST(ClientHandlerConcurrency, AListingTakesNoGate) {
  ServedStore served({kPairIs0});
  const MutexAutoLock gate(served.store.GetNotificationGate());
  std::string reply;
  BackgroundCall([&] { reply = served.Serve("subscribe\nPair\n.\ninfo subscribed\n"); }).Join();
  EXPECT_EQ(reply, "Subscribed groups\n-----------------\nPair\n\n");
}

TEST(ClientHandlerConcurrency, ListingSubscriptionsAndNoticesDoNotWaitForEachOther) {
  ServedStore served({kPairIs0});
  Subscribers subscribers(served, 2);
  std::atomic<bool> stop{false};
  BackgroundCall writer([&] {
    for (int round = 0; !stop; ++round) served.Serve(MergeOf(round));
  });
  const auto list = [](PipedHandler& client) {
    MessageCounts counts = Converse(client, [](int) { return "info subscribed\n"; });
    EXPECT_EQ(counts["Subscribed groups"], kRounds);
  };
  {
    BackgroundCall first([&] { list(subscribers.clients[0]); });
    BackgroundCall second([&] { list(subscribers.clients[1]); });
  }
  stop = true;
}

TEST(ClientHandlerConcurrency, TheSerializationIsSwitchedWhileNoticesArrive) {
  ServedStore served({kPairIs0});
  Subscribers subscribers(served, 1);
  std::atomic<bool> stop{false};
  BackgroundCall writer([&] {
    for (int round = 0; !stop; ++round) served.Serve(MergeOf(round));
  });
  MessageCounts counts = Converse(subscribers.clients[0], [](int round) {
    return (round % 2 ? "serialize ini\n" : "serialize phparray\n") + std::string("get delimited\nPair\n.\n");
  });
  stop = true;
  EXPECT_EQ(counts["data"], kRounds);
}

TEST(ClientHandlerConcurrency, ConnectionsComeAndGoWhileNoticesArrive) {
  ServedStore served({kPairIs0});
  std::atomic<bool> stop{false};
  BackgroundCall writer([&] {
    for (int round = 0; !stop; ++round) served.Serve(MergeOf(round));
  });
  const auto comeAndGo = [&] {
    for (int round = 0; round < kRounds; ++round) {
      PipedHandler client(&served.env);
      client.Send("subscribe\nPair\n.\n" + MergeOf(round) + "quit\n");
      EXPECT_GE(ReadMessages(client)["async change"], 1);
    }
  };
  {
    BackgroundCall first(comeAndGo);
    BackgroundCall second(comeAndGo);
  }
  stop = true;
}

// A peer that takes its time must not keep others from changing the store and hearing of it.
TEST(ClientHandlerConcurrency, NothingButTheOutputIsHeldWhileAReplyIsWritten) {
  struct WritingBuffer : std::stringbuf {
    std::streamsize xsputn(const char* bytes, std::streamsize count) override {
      BackgroundCall([this] { served->Serve(MergeOf(++merges)); }).Join();
      return std::stringbuf::xsputn(bytes, count);
    }
    ServedStore* served = nullptr;
    int merges = 0;
  } buffer;
  ServedStore served({kPairIs0});
  RecordingCallback callback;
  served.store.Subscribe(&callback, "Pair");
  buffer.served = &served;
  std::ostream out(&buffer);
  std::istringstream in("get delimited\nPair\n.\ndump\ndump all\ninfo subscribed\ntest-and-merge\n.\n.\n");
  ClientHandler(&served.env, &in, &out).Run();
  EXPECT_GE(buffer.merges, 5);
  EXPECT_EQ(callback.GetChanges().size(), static_cast<size_t>(buffer.merges));
  EXPECT_THAT(buffer.str(), testing::StartsWith("data\n[Pair]\nfirst=0\nsecond=0\n.\n[Pair]\n"));
}

}  // namespace
