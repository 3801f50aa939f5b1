#include <gtest/gtest.h>
#include <sys/resource.h>
#include <unistd.h>

#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <memory>
#include <string>

#include "tavix/core/IniFile.h"
#include "tavix/osa/Exception.h"
#include "tavix/settings/TavixSettingsClient.h"
#include "tavix/settings/client/TavixSettingsClientImplMultiThreaded.h"
#include "tests/support/FakeConnection.h"
#include "tests/support/RecordingCallback.h"
#include "tests/support/ScriptedServer.h"
#include "tests/support/Threads.h"

// What ends a process, or is tried in one of its own.

namespace {

using tavix::core::IniFile;
using tavix::osa::Exception;
using tavix::settings::TavixSettingsClient;
using tavix::settings::client::TavixSettingsClientImplMultiThreaded;
using tavix::test::FakeConnection;
using tavix::test::RecordingCallback;
using tavix::test::ScriptedServer;
using tavix::test::ServerEnd;

constexpr auto kMode = TavixSettingsClient::MultiThreaded;

// The reader's end of a connection that loses its streams under the worker, which nothing but a bug could do.
void CallWithoutStreams(const std::function<void(TavixSettingsClientImplMultiThreaded&)>& call) {
  auto* connection = new FakeConnection;
  TavixSettingsClientImplMultiThreaded client(connection);
  client.MergeSettings(IniFile(), 0);
  tavix::test::AwaitAsleep(tavix::test::FindThreads("TavixSettings").at(0));
  connection->ClearStreams();
  call(client);
}

class TavixSettingsClientImplMultiThreadedDeathTest : public testing::Test {
 protected:
  void SetUp() override { GTEST_FLAG_SET(death_test_style, "threadsafe"); }
};

TEST_F(TavixSettingsClientImplMultiThreadedDeathTest, ARequestThatFindsNoStreamsAbortsTheProcess) {
  RecordingCallback callback;
  const std::string text = ": invariant broken: take\\(_sendMutex\\) && \\(!_pConnection->IsReady\\(\\)\\)\n";
  const std::string prefix = "TavixSettingsClientImplMultiThreaded::";
  EXPECT_EXIT(CallWithoutStreams([](auto& client) { client.MergeSettings(IniFile(), 0); }),
              testing::KilledBySignal(SIGABRT), prefix + "MergeSettings" + text);
  EXPECT_EXIT(CallWithoutStreams([](auto& client) { client.TestAndMerge(IniFile(), IniFile()); }),
              testing::KilledBySignal(SIGABRT), prefix + "TestAndMerge" + text);
  EXPECT_EXIT(CallWithoutStreams([&](auto& client) { client.Subscribe(&callback, {"A"}); }),
              testing::KilledBySignal(SIGABRT), prefix + "Subscribe" + text);
}

void DestroyFromACallback() {
  ScriptedServer server;
  std::unique_ptr<TavixSettingsClient> client;
  RecordingCallback callback([&] { client.reset(); });
  client = std::make_unique<TavixSettingsClient>(kMode);
  ServerEnd peer = server.Accept();
  client->Subscribe(&callback, "A");
  peer.Send("async change\nA\n.\n[A]\nx=1\n.\n");
  peer.ReadToEnd();
}

TEST_F(TavixSettingsClientImplMultiThreadedDeathTest, DestructionFromACallbackAbortsTheProcessInsteadOfHanging) {
  EXPECT_EXIT(DestroyFromACallback(), testing::KilledBySignal(SIGABRT),
              "~TavixSettingsClientImplMultiThreaded: called from a change callback of its own client\n");
}

// As a user who may not start any more threads.
[[noreturn]] void MakeClientWithoutThreads() {
  if (geteuid() == 0 && setuid(65534) != 0) std::_Exit(2);
  const rlimit none{0, 0};
  setrlimit(RLIMIT_NPROC, &none);
  try {
    const TavixSettingsClient client(kMode);
  } catch (const Exception& exception) {
    std::fprintf(stderr, "%s\n", exception.what());
    std::_Exit(0);
  }
  std::_Exit(1);
}

TEST_F(TavixSettingsClientImplMultiThreadedDeathTest, AWorkerThatCannotBeStartedFailsTheConstructor) {
  EXPECT_EXIT(MakeClientWithoutThreads(), testing::ExitedWithCode(0), "Failed to start thread 'TavixSettings': ");
}

}  // namespace
