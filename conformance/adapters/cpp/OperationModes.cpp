// TavixSettingsClient's modes over TCP. Their waits, repetitions and reconnections are the library's own.
#include <fcntl.h>
#include <unistd.h>

#include <cstdlib>
#include <deque>
#include <map>
#include <mutex>
#include <utility>

#include "conformance/adapters/cpp/Store.h"
#include "tavix/osa/Descriptor.h"
#include "tavix/osa/Exception.h"
#include "tavix/settings/IChangeCallback.h"
#include "tavix/settings/TavixSettingsClient.h"

namespace tavix::conformance {

namespace {

using core::IniFile;
using settings::TavixSettingsClient;

constexpr Store::Milliseconds kRetry{20};

class ModeStore : public Store {
 public:
  ModeStore(const std::string& address, TavixSettingsClient::OperationMode mode) : _client(Connect(address, mode)) {}

  IniFile Get(const Groups& names) override {
    IniFile document;
    if (!_client->GetSettings(names, document)) throw StoreError("PARSE", "the reply is no settings text");
    return document;
  }

  void Merge(const IniFile& change, bool isVolatile) override {
    _client->MergeSettings(change, isVolatile ? TavixSettingsClient::kNoPersist : 0);
  }

  bool TestAndMerge(const IniFile& test, const IniFile& change) override { return _client->TestAndMerge(test, change); }

  bool Amend(const settings::Amendment& amendment) override { return _client->Amend(amendment); }

  void Overwrite(const Groups& names, const IniFile& change) override { _client->OverwriteSettings(names, change); }

  void Restore(const Groups& names) override { _client->RestoreToDefaults(names); }

  void Flush() override { Get({}); }

  void Watch(int, const Groups&, bool) override { throw StoreError("UNSUPPORTED", "this mode has no subscriptions"); }
  void Unwatch(int) override {}
  std::vector<int> GetDescriptors() override { return {}; }
  void Advance() override {}

 protected:
  TavixSettingsClient& GetClient() { return *_client; }

 private:
  static std::unique_ptr<TavixSettingsClient> Connect(const std::string& address,
                                                      TavixSettingsClient::OperationMode mode) {
    setenv("TAVIX_SETTINGS_SERVER", address.c_str(), 1);
    return std::make_unique<TavixSettingsClient>(mode);
  }

  const std::unique_ptr<TavixSettingsClient> _client;
};

// A pipe that any thread can make readable.
class Bell {
 public:
  Bell() {
    int ends[2];
    if (pipe2(ends, O_CLOEXEC | O_NONBLOCK) != 0) throw StoreError("BUSY", "no descriptor is left");
    _read.Reset(ends[0]);
    _write.Reset(ends[1]);
  }

  int GetDescriptor() const { return _read.Get(); }

  // A full pipe is readable.
  void Ring() { [[maybe_unused]] const ssize_t written = write(_write.Get(), "!", 1); }

  void Silence() {
    char bytes[64];
    while (read(_read.Get(), bytes, sizeof bytes) > 0) {
    }
  }

 private:
  osa::Descriptor _read;
  osa::Descriptor _write;
};

// What the client's thread has taken, in order: notices of watches, and new connections.
class Inbox {
 public:
  struct Entry {
    int watch = 0;  // 0: there is a new connection
    std::set<std::string> groups;
    IniFile settings;
  };

  void Add(Entry entry) {
    {
      const std::lock_guard<std::mutex> lock(_mutex);
      _entries.push_back(std::move(entry));
    }
    _bell.Ring();
  }

  std::deque<Entry> TakeAll() {
    _bell.Silence();
    const std::lock_guard<std::mutex> lock(_mutex);
    return std::exchange(_entries, {});
  }

  int GetDescriptor() const { return _bell.GetDescriptor(); }

 private:
  Bell _bell;
  std::mutex _mutex;
  std::deque<Entry> _entries;
};

class InboxCallback : public settings::IChangeCallback {
 public:
  InboxCallback(Inbox& inbox, int watch) : _inbox(inbox), _watch(watch) {}

  void OnChange(const std::set<std::string>& changedGroups, const IniFile& settings) override {
    _inbox.Add({_watch, changedGroups, settings});
  }

 private:
  Inbox& _inbox;
  const int _watch;
};

class InboxObserver : public settings::IConnectionObserver {
 public:
  explicit InboxObserver(Inbox& inbox) : _inbox(inbox) {}

  void OnConnected() override { _inbox.Add({}); }

 private:
  Inbox& _inbox;
};

struct ModeWatch {
  ModeWatch(Inbox& inbox, int number, Store::Groups watched) : names(std::move(watched)), callback(inbox, number) {}

  const Store::Groups names;
  IniFile known;  // as far as events have shown
  InboxCallback callback;
};

// A notice that is older than a reading may be applied behind it: then a newer one follows, which puts that right.
class MultiThreadedStore : public ModeStore {
 public:
  MultiThreadedStore(const std::string& address, EventWriter& writer)
      : ModeStore(address, TavixSettingsClient::MultiThreaded), _writer(writer), _observer(_inbox) {
    Get({});  // there is a connection now, which is none to come back to
    GetClient().AddConnectionObserver(&_observer);
  }

  ~MultiThreadedStore() override {
    GetClient().RemoveConnectionObserver(&_observer);
    for (const auto& [number, watch] : _watches) GetClient().UnSubscribe(&watch->callback);
  }

  void Watch(int number, const Groups& names, bool isInitial) override {
    auto watch = std::make_unique<ModeWatch>(_inbox, number, names);
    GetClient().Subscribe(&watch->callback, names);
    ModeWatch& made = *(_watches[number] = std::move(watch));
    IniFile now = Get(names);
    if (isInitial) _writer.WriteDifferences(number, {}, now);
    made.known = std::move(now);
  }

  void Unwatch(int number) override {
    GetClient().UnSubscribe(&_watches.at(number)->callback);
    _watches.erase(number);
    _unread.erase(number);
  }

  std::optional<Milliseconds> GetDelay() override {
    return _unread.empty() ? std::nullopt : std::optional<Milliseconds>(kRetry);
  }

  std::vector<int> GetDescriptors() override { return {_inbox.GetDescriptor()}; }

  void Advance() override {
    for (const Inbox::Entry& entry : _inbox.TakeAll()) {
      if (entry.watch == 0) {
        _unread = {};
        for (const auto& [number, watch] : _watches) _unread.insert(number);
      } else if (_watches.count(entry.watch) != 0) {
        Apply(entry);
      }
    }
    ReadAgain();
  }

 private:
  void Apply(const Inbox::Entry& entry) {
    IniFile now = _watches.at(entry.watch)->known;
    for (const std::string& group : entry.groups) {
      now.RemoveGroup(group);
      now.MergeSettings(entry.settings, group);
    }
    Show(entry.watch, std::move(now));
  }

  // The first call after a lost connection fails.
  void ReadAgain() {
    while (!_unread.empty()) {
      const int number = *_unread.begin();
      try {
        Show(number, Get(_watches.at(number)->names));
      } catch (const osa::Exception&) {
        return;
      }
      _writer.WriteResync(number);
      _unread.erase(number);
    }
  }

  void Show(int number, IniFile now) {
    IniFile& known = _watches.at(number)->known;
    _writer.WriteDifferences(number, known, now);
    known = std::move(now);
  }

  EventWriter& _writer;
  Inbox _inbox;
  InboxObserver _observer;
  std::map<int, std::unique_ptr<ModeWatch>> _watches;
  std::set<int> _unread;  // watches that are to be read again
};

}  // namespace

std::unique_ptr<Store> MakeMultiThreadedStore(const std::string& address, EventWriter& writer) {
  return std::make_unique<MultiThreadedStore>(address, writer);
}

std::unique_ptr<Store> MakeSingleThreadedStore(const std::string& address) {
  return std::make_unique<ModeStore>(address, TavixSettingsClient::SingleThreaded);
}

}  // namespace tavix::conformance
