// Thousands of calls against a server that answers late, wrongly, half or not at all, by fixed seeds: whatever happens,
// nobody may get what was meant for another.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <deque>
#include <memory>
#include <random>
#include <string>
#include <thread>

#include "tavix/core/IniFile.h"
#include "tavix/osa/Exception.h"
#include "tavix/osa/LockException.h"
#include "tavix/settings/TavixSettingsClient.h"
#include "tests/support/BackgroundCall.h"
#include "tests/support/DocumentText.h"
#include "tests/support/RecordingCallback.h"
#include "tests/support/ScriptedServer.h"

namespace {

using tavix::core::IniFile;
using tavix::osa::Exception;
using tavix::osa::LockException;
using tavix::settings::TavixSettingsClient;
using tavix::test::BackgroundCall;
using tavix::test::RecordingCallback;
using tavix::test::ScriptedServer;
using tavix::test::ServerEnd;
using tavix::test::ServerThreads;
using tavix::test::TextOf;

using Random = std::mt19937;

size_t Below(Random& random, size_t limit) {
  return random() % limit;
}

constexpr int kClients = 6;
constexpr int kThreads = 8;  // of each client
constexpr int kCalls = 80;   // of each thread

// What the server does with one request that it read; ends the connection when it returns false.
bool AnswerSomehow(ServerEnd& peer, const std::string& reply, Random& random) {
  const size_t dice = Below(random, 1000);
  if (dice < 1) return false;
  if (dice < 2) peer.Reset();
  if (dice < 4) {
    peer.Send(reply.substr(0, Below(random, reply.size())));
    return false;
  }
  if (dice < 20) {
    peer.Send(Below(random, 2) ? "data\nno setting\n.\n" : "result\nunknown\n");
    return true;
  }
  if (dice < 30) {
    peer.Send("bogus\n");
    return true;
  }
  if (dice < 80) std::this_thread::sleep_for(std::chrono::microseconds(Below(random, 3000)));
  if (dice < 200) peer.Send("async change\nNotice\n.\n[Notice]\nx=1\n.\n");
  const size_t half = dice < 300 ? Below(random, reply.size()) : 0;
  peer.Send(reply.substr(0, half));
  peer.Send(reply.substr(half));
  return dice < 997;  // an answer may be the last thing of a connection
}

// Requests name a group "N/even" or "N/odd"; the reply has it, and a condition holds when it is even.
void Serve(ServerEnd& peer, size_t number) {
  Random random(static_cast<unsigned int>(number));
  while (true) {
    const std::string request = peer.ReadThrough();
    const std::string name =
        request.substr(request.find('\n') + 1, request.find('\n', request.find('\n') + 1) - request.find('\n') - 1);
    if (request.rfind("get delimited\n", 0) == 0) {
      if (!AnswerSomehow(peer, "data\n[" + name + "]\nvalue=" + name + "\n.\n", random)) return;
    } else if (request.rfind("test-and-merge\n", 0) == 0) {
      peer.ReadThrough();
      const bool even = name.find("even") != std::string::npos;
      if (!AnswerSomehow(peer, even ? "result\nok\n" : "result\nfailure\n", random)) return;
    }
  }
}

struct Outcomes {
  std::atomic<int> good{0};
  std::atomic<int> failed{0};
};

void Get(const TavixSettingsClient& client, const std::string& name, Outcomes& outcomes) {
  auto out = std::make_unique<IniFile>();
  if (client.GetSettings(name, *out)) {
    EXPECT_EQ(TextOf(*out), "[" + name + "]\nvalue=" + name + "\n");
    ++outcomes.good;
  } else {
    EXPECT_TRUE(out->IsEmpty());
    ++outcomes.failed;
  }
}

void Test(TavixSettingsClient& client, const std::string& name, bool even, Outcomes& outcomes) {
  const auto test = std::make_unique<IniFile>(IniFile::GroupMap{{name, {}}});
  const bool merged = client.TestAndMerge(*test, IniFile());
  EXPECT_TRUE(even || !merged) << name;
  ++(merged == even ? outcomes.good : outcomes.failed);
}

void CallManyTimes(TavixSettingsClient& client, int caller, Outcomes& outcomes) {
  Random random(static_cast<unsigned int>(caller));
  for (int i = 0; i < kCalls; ++i) {
    const bool even = Below(random, 2) == 0;
    const std::string name = std::to_string(caller * kCalls + i) + (even ? "/even" : "/odd");
    try {
      const size_t dice = Below(random, 10);
      if (dice < 6) {
        Get(client, name, outcomes);
      } else if (dice < 9) {
        Test(client, name, even, outcomes);
      } else {
        client.SetValue("[" + name + "]x", "1");
      }
    } catch (const LockException&) {  // some losses in a row, and nobody was let through in ten seconds
      ++outcomes.failed;
    } catch (const Exception& exception) {
      EXPECT_THAT(exception.what(), testing::HasSubstr("tavix-settings-server"));
      ++outcomes.failed;
    }
  }
}

TEST(TavixSettingsClientImplMultiThreaded, WhateverTheServerDoesNobodyGetsWhatIsMeantForAnother) {
  ScriptedServer server;
  const ServerThreads threads(server, Serve);
  RecordingCallback callback;
  std::deque<TavixSettingsClient> clients;
  for (int i = 0; i < kClients; ++i) clients.emplace_back(TavixSettingsClient::MultiThreaded).Subscribe(&callback, "*");
  Outcomes outcomes;
  std::deque<BackgroundCall> calls;
  for (int caller = 0; caller < kClients * kThreads; ++caller) {
    calls.emplace_back(
        [&, caller] { CallManyTimes(clients[static_cast<size_t>(caller % kClients)], caller, outcomes); });
  }
  for (BackgroundCall& call : calls) call.Join();
  EXPECT_GT(outcomes.failed, 0);
  EXPECT_GT(outcomes.good, kClients * kThreads * kCalls / 2);
}

}  // namespace
