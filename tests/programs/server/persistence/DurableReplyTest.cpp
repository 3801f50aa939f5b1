#include <gtest/gtest.h>
#include <poll.h>
#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>

#include <algorithm>
#include <condition_variable>
#include <iostream>
#include <map>
#include <mutex>
#include <random>
#include <thread>
#include <vector>

#include "programs/server/connections/Connection.h"
#include "programs/server/persistence/ChangeBatch.h"
#include "tavix/osa/Descriptor.h"
#include "tavix/settings/common/GroupNameMatcher.h"
#include "tavix/settings/server/SerializationManager.h"
#include "tests/programs/server/persistence/PersisterTest.h"

namespace tavix::test {

namespace {

using Kind = MemoryFiles::Operation::Kind;
using Groups = std::set<std::string>;

constexpr int kLongWait = 200 * 1000;  // milliseconds
constexpr size_t kConnections = 4;
constexpr size_t kHistories = 8;
constexpr unsigned int kSteps = 150;
constexpr size_t kCuts = 2;  // images of power cuts for each reply
constexpr char kDefaults[] = "[A]\nx=default\n[NetA]\nx=default\n[NetB]\ny=default\n";
constexpr char kEmptyReply[] = "data\n.\n";
const Groups kNames{"A", "B", "C", "NetA", "NetB", settings::server::SettingsManager::kDeletedGroups};

// A disk whose syncs stand still; each goes on when the test lets it.
class SlowSyncs {
 public:
  void OnOperation(const MemoryFiles::Operation& operation) {
    if (operation.kind != Kind::kSync && operation.kind != Kind::kSyncDirectory) return;
    std::unique_lock<std::mutex> lock(_mutex);
    _changed.wait(lock, [this] { return !_holds || _permits > 0; });
    if (_holds) --_permits;
  }

  void Hold(bool holds) {
    std::lock_guard<std::mutex> lock(_mutex);
    _holds = holds;
    _permits = 0;
    _changed.notify_all();
  }

  void LetOneGo() {
    std::lock_guard<std::mutex> lock(_mutex);
    _permits = 1;
    _changed.notify_all();
  }

 private:
  std::mutex _mutex;  // guards what follows
  std::condition_variable _changed;
  bool _holds = false;
  size_t _permits = 0;
};

// The states that the user layer went through, and which of them was the last to change each group.
class LayerStates {
 public:
  explicit LayerStates(std::string first) { _texts.push_back(std::move(first)); }

  void Note(const std::string& text) {
    if (text == _texts.back()) return;
    const core::IniFile before = DocumentOf(_texts.back());
    const core::IniFile after = DocumentOf(text);
    for (const std::string& name : kNames) {
      if (ContentOf(before, name) != ContentOf(after, name)) _lastChange[name] = _texts.size();
    }
    _texts.push_back(text);
  }

  // The state that the disk must have, or a later one, for these groups to be as they are.
  size_t FindLastOf(const Groups& groups) const {
    size_t last = 0;
    for (const std::string& name : groups) {
      const auto found = _lastChange.find(name);
      if (found != _lastChange.end()) last = std::max(last, found->second);
    }
    return last;
  }

  // Whether the text is that state, or a later one.
  testing::AssertionResult IsAsNewAs(size_t required, const std::string& text) const {
    for (size_t number = _texts.size(); number-- > required;) {
      if (_texts[number] == text) return testing::AssertionSuccess();
    }
    return testing::AssertionFailure() << "state " << required << " of " << _texts.size() << " was promised:\n"
                                       << _texts[required] << "found:\n"
                                       << text;
  }

  const std::string& GetLast() const { return _texts.back(); }

 private:
  static std::string ContentOf(const core::IniFile& document, const std::string& name) {
    core::IniFile content;
    content.MergeSettings(document, name);
    return TextOf(content);
  }

  std::vector<std::string> _texts;
  std::map<std::string, size_t> _lastChange;
};

// A request, and the groups that it relies on to be on the disk when its connection hears anything more.
struct Request {
  std::string text;
  Groups groups;
};

class RandomRequests {
 public:
  explicit RandomRequests(unsigned int seed) : _random(seed) {}

  // Half of them repeat what somebody else asked for.
  Request Next(const std::string& layer) {
    switch (Below(9)) {
      case 0:
      case 1:
        return OverwriteOne(layer);
      case 2:
        return {"restore\n" + _name + "\n.\n", {_name}};
      case 3:
        return {"restore\nNet*\n.\n", {"NetA", "NetB"}};
      case 4:
        return {"merge nopersist\n" + NextContent(layer) + ".\n", {}};
      case 5:
        return TestAndMerge(layer);
      default: {
        const std::string content = NextContent(layer);
        return {"merge\n" + content + ".\n", {_name}};
      }
    }
  }

  size_t Below(size_t limit) { return _random() % limit; }

 private:
  Request OverwriteOne(const std::string& layer) {
    const std::string content = Below(2) == 0 ? "" : NextContent(layer);
    const bool isPattern = Below(3) == 0;
    Request request{"overwrite\n" + (isPattern ? "Net*" : _name) + "\n.\n" + content + ".\n",
                    {settings::server::SettingsManager::kDeletedGroups}};
    if (isPattern) request.groups.insert({"NetA", "NetB"});
    if (!isPattern || !content.empty()) request.groups.insert(_name);
    return request;
  }

  Request TestAndMerge(const std::string& layer) {
    const std::string content = NextContent(layer);
    if (Below(3) == 0) return {"test-and-merge\n[Missing]\nx=1\n.\n" + content + ".\n", {}};
    return {"test-and-merge\n.\n" + content + ".\n", {_name}};
  }

  // Of the group that is named: as it is in the layer, or something that it never was.
  std::string NextContent(const std::string& layer) {
    const std::vector<std::string> names{"A", "B", "C", "NetA", "NetB"};
    _name = names[Below(names.size())];
    core::IniFile content;
    content.MergeSettings(DocumentOf(layer), _name);
    if (content.IsEmpty() || Below(2) == 0) content.SetValue(_name, "x", std::to_string(++_values));
    if (Below(40) == 0) content.SetValue(_name, "large", std::string(70'000 + 100 * _values, 'v'));
    return TextOf(content);
  }

  std::mt19937 _random;
  size_t _values = 0;
  std::string _name = "A";
};

// A connection whose client is the test.
class Client {
 public:
  Client(int poll, int wake, const daemon::Connection::Shared& shared) {
    int ends[2];
    EXPECT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends), 0);
    _peer = osa::Descriptor(ends[1]);
    _connection = std::make_unique<daemon::Connection>(osa::Descriptor(ends[0]), poll, wake, shared);
  }

  // Asks behind the request for what shows nothing of it. maySync: the batch may wait for the disk.
  void Send(const std::string& request, bool maySync) {
    const std::string bytes = request + "get delimited\nNothing\n.\n";
    EXPECT_EQ(send(_peer.Get(), bytes.data(), bytes.size(), MSG_NOSIGNAL), static_cast<ssize_t>(bytes.size()));
    std::vector<char> scratch(bytes.size());
    daemon::ChangeBatch batch;
    EXPECT_TRUE(_connection->OnReadable(scratch.data(), scratch.size()));
    batch.Flush([maySync] { return maySync; });
    ++_asked;
  }

  // How many of its questions were answered since the last call.
  size_t CountNewReplies() {
    char bytes[4096];
    for (ssize_t count; (count = recv(_peer.Get(), bytes, sizeof bytes, MSG_DONTWAIT)) > 0;)
      _received.append(bytes, static_cast<size_t>(count));
    size_t replies = 0;
    for (size_t at; (at = _received.find(kEmptyReply)) != std::string::npos; ++replies)
      _received.erase(0, at + std::string(kEmptyReply).size());
    _answered += replies;
    return replies;
  }

  bool AwaitsReplies() const { return _answered < _asked; }
  size_t GetAnswered() const { return _answered; }

  // False when nothing comes.
  bool AwaitMore() const {
    pollfd watched{_peer.Get(), POLLIN, 0};
    return poll(&watched, 1, kLongWait) == 1;
  }

 private:
  osa::Descriptor _peer;
  std::unique_ptr<daemon::Connection> _connection;
  std::string _received;
  size_t _asked = 0;
  size_t _answered = 0;
};

// Who syncs: the syncing thread, and the test lets each sync go; or, beside it, who makes changes.
enum class Syncs { kHeld, kInBatch };

// A daemon's parts around one store.
class DurableReply : public Persister {
 protected:
  void RunHistories(Syncs kind) {
    const unsigned int seed = std::random_device()();
    std::cout << "seed " << seed << std::endl;
    for (unsigned int history = 0; history < kHistories && !HasFailure(); ++history)
      RunHistory(seed + history * kSteps, kind);
    std::cout << _replies << " replies, " << _early << " before the end, " << _syncsInBatch << " syncs in batches\n";
  }

  void RunHistory(unsigned int seed, Syncs kind) {
    RandomRequests requests(seed);
    MemoryFiles files(_image);
    SlowSyncs syncs;
    files.AddObserver([&](const auto& operation) { syncs.OnOperation(operation); });
    PersistedStore store(files, kAlways, kDefaults);
    files.AddObserver([this, self = std::this_thread::get_id()](const auto& operation) {
      if (operation.kind == Kind::kSync && std::this_thread::get_id() == self) ++_syncsInBatch;
    });
    settings::server::ServerEnv env{&store.GetManager(), &_serializers};
    const daemon::Connection::Shared shared{&env, _limits, _bounds, _counters, &store.GetGate(), kLongWait};
    std::vector<std::unique_ptr<Client>> clients;
    while (clients.size() < kConnections) clients.push_back(std::make_unique<Client>(_poll.Get(), _wake.Get(), shared));
    LayerStates states(UserSettingsOf(store.GetManager()));
    std::vector<std::vector<size_t>> promised(kConnections);  // at each question
    syncs.Hold(kind == Syncs::kHeld);
    for (unsigned int step = 0; step < kSteps && !HasFailure(); ++step) {
      const size_t who = requests.Below(kConnections);
      const Request request = requests.Next(states.GetLast());
      clients[who]->Send(request.text, kind == Syncs::kInBatch);
      states.Note(UserSettingsOf(store.GetManager()));
      const size_t before = promised[who].empty() ? 0 : promised[who].back();
      promised[who].push_back(std::max(before, states.FindLastOf(request.groups)));
      for (size_t i = 0; i < kConnections; ++i) CheckReplies(*clients[i], promised[i], states, files, seed + step);
      if (requests.Below(3) == 0) syncs.LetOneGo();
    }
    syncs.Hold(false);
    for (const auto& client : clients) {
      while (client->AwaitsReplies() && client->AwaitMore()) _replies += client->CountNewReplies();
      EXPECT_FALSE(client->AwaitsReplies());
    }
  }

  // Whenever the power goes now, the disk has what the replies promise.
  void CheckReplies(Client& client, const std::vector<size_t>& promised, const LayerStates& states,
                    const MemoryFiles& files, unsigned int seed) {
    const size_t replies = client.CountNewReplies();
    if (replies == 0) return;
    _replies += replies;
    _early += replies;
    PowerCuts cuts(_image, files.GetOperations(), seed);
    while (cuts.Advance()) continue;
    for (size_t i = 0; i < kCuts; ++i) {
      MemoryFiles image(cuts.Cut());
      const daemon::FoundUserSettings found = daemon::UserSettingsFiles(image, kUserFile).Find(true);
      EXPECT_TRUE(states.IsAsNewAs(promised[client.GetAnswered() - 1], TextOf(found.settings)));
    }
  }

  settings::server::SerializationManager _serializers;
  daemon::Limits _limits;
  daemon::SharedBounds _bounds{daemon::SharedBound(_limits.allRequestBytes),
                               daemon::SharedBound(_limits.allBacklogBytes)};
  daemon::Counters _counters;
  const osa::Descriptor _poll{epoll_create1(EPOLL_CLOEXEC)};
  const osa::Descriptor _wake{eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)};
  size_t _replies = 0;
  size_t _early = 0;  // while changes were made
  size_t _syncsInBatch = 0;
};

}  // namespace

TEST_F(DurableReply, IsNeverSeenBeforeAllThatItsConnectionAskedForIsDurable) {
  RunHistories(Syncs::kHeld);
  EXPECT_GT(_early, kHistories);
  EXPECT_EQ(_syncsInBatch, 0u);
}

TEST_F(DurableReply, IsNotSeenEarlierWhereWhoMakesChangesSyncsThem) {
  RunHistories(Syncs::kInBatch);
  EXPECT_GT(_syncsInBatch, 0u);
}

}  // namespace tavix::test
