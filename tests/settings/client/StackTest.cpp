// Both threads of the client library have small stacks. Whatever they do, more than half must stay free: for callbacks,
// for other C libraries, and for what comes.

#include <gtest/gtest.h>
#include <signal.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <atomic>
#include <functional>
#include <future>
#include <memory>
#include <regex>
#include <stdexcept>
#include <string>

#include "tavix/core/IniFile.h"
#include "tavix/core/Logger.h"
#include "tavix/osa/Exception.h"
#include "tavix/osa/Runnable.h"
#include "tavix/osa/Thread.h"
#include "tavix/settings/TavixSettingsClient.h"
#include "tavix/settings/client/ProtocolClient.h"
#include "tavix/settings/client/TavixSettingsLocalConnection.h"
#include "tests/support/BackgroundCall.h"
#include "tests/support/CapturedOutput.h"
#include "tests/support/DocumentText.h"
#include "tests/support/Patience.h"
#include "tests/support/PendingValue.h"
#include "tests/support/RecordingCallback.h"
#include "tests/support/ScriptedServer.h"
#include "tests/support/StackUse.h"
#include "tests/support/TemporaryDirectory.h"
#include "tests/support/Threads.h"

namespace {

using tavix::core::IniFile;
using tavix::core::Logger;
using tavix::osa::Exception;
using tavix::settings::IChangeCallback;
using tavix::settings::TavixSettingsClient;
using tavix::settings::client::TavixSettingsLocalConnection;
using tavix::test::CapturedOutput;
using tavix::test::Eventually;
using tavix::test::FindThreads;
using tavix::test::ListeningSocket;
using tavix::test::MeasureStack;
using tavix::test::PendingValue;
using tavix::test::ScopedEnvironment;
using tavix::test::ScriptedServer;
using tavix::test::ServerEnd;
using tavix::test::StackUse;
using tavix::test::TemporaryDirectory;

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
constexpr size_t kPercentInUse = 75;  // sanitizers run on the stack of the thread that they watch
#else
constexpr size_t kPercentInUse = 50;
#endif

void ExpectRoom(const StackUse& use) {
  testing::Test::RecordProperty("mapped", static_cast<int>(use.mapped));
  testing::Test::RecordProperty("used", static_cast<int>(use.used));
  EXPECT_GT(use.used, 0u);
  EXPECT_LT(use.used * 100, use.mapped * kPercentInUse) << use.used << " of " << use.mapped;
}

// Has everything logged everywhere: to the system log, to standard output and to a file.
class EverythingLogged {
 public:
  EverythingLogged() : _output(STDOUT_FILENO) {
    Logger::SetLogFileDirectory(_directory.GetPath());
    Logger::ConfigureLogging(
        tavix::test::DocumentOf("[Log]\nlog.level=8\nlog.syslog=true\nlog.stdout=true\nlog.file=log\n"), "Log");
  }
  ~EverythingLogged() {
    Logger::ConfigureLogging(tavix::test::DocumentOf("[Log]\nlog.syslog=false\n"), "Log");
    Logger::SetLogFileDirectory("/var/log");
  }

 private:
  const TemporaryDirectory _directory;
  CapturedOutput _output;
};

std::string ManyGroups(const std::string& suffix) {
  std::string text;
  for (int i = 0; i < 2000; ++i) text += "Group" + std::to_string(i) + suffix;
  return text;
}

// What a callback may need for itself.
void UseStack() {
  char mine[16 * 1024];
  for (volatile char& byte : mine) byte = 1;
}

class MeasuringCallback : public IChangeCallback {
 public:
  void OnChange(const std::set<std::string>& groups, const IniFile&) override {
    UseStack();
    if (groups.count("Throw")) throw std::runtime_error("of the callback");
    if (groups.count("Measure")) measured.set_value(MeasureStack(pthread_self()));
  }

  std::promise<StackUse> measured;
};

// What a wrong server can do to a worker, and what a right one does.
void Harass(ServerEnd& peer, const TavixSettingsClient& client) {
  for (const char* reply : {"data\nno setting\n.\n", "result\nok\n", "bogus\n"}) {
    PendingValue value(client);
    peer.ReadThrough("get delimited");
    peer.ReadThrough();
    peer.Send(reply);
    try {
      value.Join();
    } catch (const Exception&) {
    }
  }
  peer.Send("async change\n" + ManyGroups("\n") + ".\n[" + ManyGroups("]\nkey=value\n[") + "]\n.\n");
}

// A call waits for a connection for ten seconds, and a machine may stand still for longer.
void SubscribeToAll(TavixSettingsClient& client, MeasuringCallback& callback) {
  EXPECT_TRUE(Eventually([&] {
    try {
      client.Subscribe(&callback, "*");
      return true;
    } catch (const Exception&) {
      return false;
    }
  }));
}

StackUse MeasureHarassedWorker() {
  const EverythingLogged log;
  ScriptedServer server(ListeningSocket::kNotListening);
  const ScopedEnvironment byName("TAVIX_SETTINGS_SERVER", ("localhost:" + std::to_string(server.GetPort())).c_str());
  MeasuringCallback callback;
  TavixSettingsClient client(TavixSettingsClient::MultiThreaded);
  tavix::test::BackgroundCall subscribe([&] { SubscribeToAll(client, callback); });
  subscribe.AwaitBlocked();
  server.Listen();
  ServerEnd peer = server.Accept();
  subscribe.Join();
  for (const std::string last :
       {"async change\nno line feed", "\n", "async change\nThrow\n.\n.\n", "async change\n.\nno setting\n.\n"}) {
    Harass(peer, client);
    peer.Send(last);
    peer.HalfClose();
    peer.ReadToEnd();
    peer = server.Accept();
  }
  peer.Send("async change\nMeasure\n.\n.\n");
  return callback.measured.get_future().get();
}

// The library matches by recursion, a call or more for each character.
class MatchingCallback : public IChangeCallback {
 public:
  void OnChange(const std::set<std::string>&, const IniFile& settings) override {
    matches.set_value(std::regex_match(settings.GetValue("A", "x"), std::regex("(a|b)*")));
  }

  std::promise<bool> matches;
};

TEST(Stack, OfACallbackHoldsARegularExpressionOverALongText) {
  MatchingCallback callback;
  TavixSettingsClient client(TavixSettingsClient::MultiThreadedLocalConnection);
  client.Subscribe(&callback, "A");
  client.SetValue("[A]x", std::string(401, 'a'));
  EXPECT_TRUE(callback.matches.get_future().get());
}

TEST(Stack, OfTheWorkerHasAQuarterOfAMebibyteForCallbacks) {
  MeasuringCallback callback;
  TavixSettingsClient client(TavixSettingsClient::MultiThreadedLocalConnection);
  client.Subscribe(&callback, "Measure");
  client.SetValue("[Measure]x", "1");
  const StackUse use = callback.measured.get_future().get();
  EXPECT_GE(use.mapped, 256u * 1024 + use.used);
}

TEST(Stack, OfTheWorkerIsNeverHalfUsed) {
  ExpectRoom(MeasureHarassedWorker());
}

// All that the protocol client does, on a thread as small as those of the library.
class ProtocolCalls : public tavix::osa::Runnable {
 public:
  void Run() override {
    tavix::settings::client::ProtocolOptions options;
    options.timeouts.silence = tavix::test::kPatience;
    tavix::settings::client::ProtocolClient client(options);
    client.Subscribe({"*"});
    client.GetSubscribed();
    client.GetUserSettings();
    (void)client.TestAndMerge({}, {});
    EXPECT_TRUE(client.AwaitNotice(std::nullopt));
    use = MeasureStack(pthread_self());
  }

  StackUse use;
};

TEST(Stack, OfAThreadWithAProtocolClientIsNeverHalfUsed) {
  const ScriptedServer server;
  const ScopedEnvironment byName("TAVIX_SETTINGS_SERVER", ("localhost:" + std::to_string(server.GetPort())).c_str());
  ProtocolCalls calls;
  tavix::osa::Thread thread("ProtocolCalls", &calls, 32768, 0);
  thread.Run();
  ServerEnd peer = server.Accept();
  const std::string document = "[" + ManyGroups("]\nkey=value\n[") + "]\n.\n";
  for (const std::string& reply : {std::string(), "data\n" + document,
                                   std::string("Subscribed groups\n-----------------\n*\n\ndata\n.\n"), document}) {
    if (reply == document) {
      peer.ReadThrough("dump");
    } else {
      peer.ReadThrough();
    }
    peer.Send(reply);
  }
  peer.ReadThrough();
  peer.ReadThrough();
  peer.Send("result\nok\nasync change\n" + ManyGroups("\n") + ".\n" + document);
  thread.Join();
  ExpectRoom(calls.use);
}

std::atomic<pthread_t> g_interrupted{};

// The handle of the thread that has that name, from a signal that is not blocked on it.
pthread_t HandleOf(const std::string& name) {
  struct sigaction tell {};
  tell.sa_handler = [](int) { g_interrupted = pthread_self(); };
  sigaction(SIGTRAP, &tell, nullptr);
  g_interrupted = pthread_t{};
  syscall(SYS_tgkill, getpid(), FindThreads(name).at(0), SIGTRAP);
  EXPECT_TRUE(Eventually([] { return g_interrupted != pthread_t{}; }));
  return g_interrupted;
}

StackUse MeasureBusyHandler() {
  const EverythingLogged log;
  TavixSettingsLocalConnection connection;
  connection.EnsureConnection(1);
  const std::string document = "[" + ManyGroups("]\nkey=value\n[") + "]\n.\n";
  const std::string all = "*\nGroup1*\n*9*\n.\n";
  *connection.GetOstream() << "subscribe\n"
                           << all << "merge\n"
                           << document << "merge nopersist\n"
                           << document << "test-and-merge\n"
                           << document << document << "overwrite\n"
                           << all << document << "restore\n"
                           << all << "dump\ndump all\ninfo subscribed\nget delimited\n"
                           << all << "serialize phparray\nget delimited\n"
                           << all << "serialize ini\nbogus\nrestore\n.\n"
                           << "test-and-merge\n.\n.\n"
                           << std::flush;
  for (std::string line; line != "ok" && std::getline(*connection.GetIstream(), line);) continue;
  for (std::string line; line != "result" && std::getline(*connection.GetIstream(), line);) continue;
  return MeasureStack(HandleOf("LocalConnection"));
}

TEST(Stack, OfALocalConnectionsHandlerIsNeverHalfUsed) {
  ExpectRoom(MeasureBusyHandler());
}

}  // namespace
