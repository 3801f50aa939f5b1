#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <functional>
#include <future>
#include <memory>
#include <set>
#include <string>

#include "tavix/core/IniFile.h"
#include "tavix/osa/Exception.h"
#include "tavix/settings/Subscription.h"
#include "tavix/settings/TavixSettingsClient.h"
#include "tests/settings/StoreInMode.h"
#include "tests/support/BackgroundCall.h"
#include "tests/support/OwnSockets.h"
#include "tests/support/Patience.h"
#include "tests/support/RecordingCallback.h"

// Clients in processes that were forked.

namespace tavix::test {

using core::IniFile;
using osa::Exception;
using testing::IsEmpty;
using testing::Not;

namespace {

constexpr Mode kModesWithThreads[] = {Client::MultiThreaded, Client::SingleThreadedLocalConnection,
                                      Client::MultiThreadedLocalConnection};

// Whether the call returns true in a forked process, which ends behind it.
bool HoldsInChild(const std::function<bool()>& call) {
  const pid_t child = fork();
  if (child == 0) {
    alarm(static_cast<unsigned int>(kPatience.count()));
    _exit(call() ? EXIT_SUCCESS : EXIT_FAILURE);
  }
  int status = -1;
  return waitpid(child, &status, 0) == child && WIFEXITED(status) && WEXITSTATUS(status) == EXIT_SUCCESS;
}

// The connections of this process to the store's daemon.
std::set<ino_t> FindConnections() {
  std::set<ino_t> found;
  const char* const endpoint = std::getenv("TAVIX_SETTINGS_SERVER");
  if (!endpoint) return found;
  const std::string text = endpoint;
  for (const int descriptor :
       FindConnectionsTo(static_cast<unsigned short>(std::stoi(text.substr(text.rfind(':') + 1))))) {
    struct stat status {};
    if (fstat(descriptor, &status) == 0) found.insert(status.st_ino);
  }
  return found;
}

bool Throws(const std::function<void()>& call) {
  try {
    call();
    return false;
  } catch (const Exception& exception) {
    return std::string(exception.what()).find(" can't be called in a forked process") != std::string::npos;
  }
}

// A client of the store with a connection, which is its one and only at the end.
class ConnectedClient {
 public:
  explicit ConnectedClient(Mode mode) : _store(mode), _client(std::make_unique<Client>(mode)) {
    _client->SetValue("[A]x", "1");
    EXPECT_EQ(_client->GetValue("[A]x"), "1");
    _connections = FindConnections();
  }

  std::unique_ptr<Client>& Get() { return _client; }

  void ExpectStillConnected() {
    EXPECT_EQ(_client->GetValue("[A]x"), "1");
    EXPECT_EQ(FindConnections(), _connections);
  }

 private:
  StoreInMode _store;
  std::unique_ptr<Client> _client;
  std::set<ino_t> _connections;
};

}  // namespace

TEST(ForkedClient, IsDestroyedWithoutAnEffectOnItsParents) {
  for (const Mode mode : kAllModes) {
    ConnectedClient client(mode);
    EXPECT_TRUE(HoldsInChild([&] {
      client.Get().reset();
      return true;
    }));
    client.ExpectStillConnected();
  }
}

TEST(ForkedClient, ThrowsWhereItsThreadsAreTheParents) {
  for (const Mode mode : kModesWithThreads) {
    ConnectedClient client(mode);
    Client& copy = *client.Get();
    IniFile settings;
    RecordingCallback callback;
    EXPECT_TRUE(HoldsInChild([&] {
      return Throws([&] { copy.GetSettings("A", settings); }) && Throws([&] { copy.SetValue("[A]x", "child"); }) &&
             Throws([&] { static_cast<void>(copy.Apply(settings)); }) && Throws([&] { copy.EraseGroups("A"); }) &&
             Throws([&] { copy.RestoreToDefaults("A"); }) && Throws([&] { copy.Subscribe(&callback, "A"); });
    }));
    client.ExpectStillConnected();
  }
}

TEST(ForkedClient, EndsNoSubscriptionOfItsParents) {
  for (const Mode mode : {Client::MultiThreaded, Client::MultiThreadedLocalConnection}) {
    ConnectedClient client(mode);
    RecordingCallback callback;
    client.Get()->Subscribe(&callback, "A");
    EXPECT_TRUE(HoldsInChild([&] {
      client.Get()->UnSubscribe(&callback);
      client.Get()->Detach(&callback);
      return true;
    }));
    client.Get()->SetValue("[A]x", "1");
    client.ExpectStillConnected();
    EXPECT_THAT(callback.GetChanges(), Not(IsEmpty()));
  }
}

// The callback's lock is held by a thread that is in the parent alone.
TEST(ForkedSubscription, IsDestroyedWhileItsParentIsInACall) {
  for (const Mode mode : {Client::MultiThreaded, Client::MultiThreadedLocalConnection}) {
    StoreInMode store(mode);
    std::promise<void> called;
    std::promise<void> mayReturn;
    RecordingCallback target([&] {
      called.set_value();
      mayReturn.get_future().wait();
    });
    auto subscription = std::make_unique<settings::Subscription>(store.GetClient(), &target);
    subscription->Subscribe({"A"});
    BackgroundCall change([&] { store.Merge("[A]\nx=1\n"); });
    called.get_future().wait();
    EXPECT_TRUE(HoldsInChild([&] {
      subscription.reset();
      return true;
    }));
    mayReturn.set_value();
  }
}

TEST(ForkedSubscription, EndsInACopyOfALocalStore) {
  StoreInMode store(Client::Local);
  RecordingCallback target;
  auto subscription = std::make_unique<settings::Subscription>(store.GetClient(), &target);
  subscription->Subscribe({"A"});
  EXPECT_TRUE(HoldsInChild([&] {
    subscription.reset();
    store.Merge("[A]\nx=1\n");
    return target.GetChanges().empty();
  }));
}

TEST(ForkedClient, ConnectsAnewWhenItIsSingleThreaded) {
  ConnectedClient client(Client::SingleThreaded);
  EXPECT_TRUE(HoldsInChild([&] {
    const std::set<ino_t> before = FindConnections();
    client.Get()->SetValue("[A]y", "child");
    return client.Get()->GetValue("[A]y") == "child" && FindConnections() != before;
  }));
  client.ExpectStillConnected();
  EXPECT_EQ(client.Get()->GetValue("[A]y"), "child");
}

TEST(ForkedClient, GoesOnWithACopyOfALocalStore) {
  ConnectedClient client(Client::Local);
  EXPECT_TRUE(HoldsInChild([&] {
    client.Get()->SetValue("[A]x", "child");
    return client.Get()->GetValue("[A]x") == "child";
  }));
  client.ExpectStillConnected();
}

}  // namespace tavix::test
