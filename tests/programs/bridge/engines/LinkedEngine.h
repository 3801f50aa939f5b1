#pragma once

#include <poll.h>

#include <chrono>
#include <map>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include "programs/bridge/engines/Engine.h"
#include "programs/bridge/engines/EventQueue.h"
#include "tests/support/Patience.h"

namespace tavix::test {

// Prints the kind of an event, for messages of tests.
inline std::string NameOf(const bridge::EngineEvent& event) {
  static const char* const kNames[] = {"Connected", "Lost", "Item", "Synced", "Reread", "PutDone"};
  std::string name = kNames[event.index()];
  if (const auto* lost = std::get_if<bridge::Lost>(&event)) name += ": " + lost->reason;
  if (const auto* item = std::get_if<bridge::Item>(&event)) name += " of " + item->key;
  if (const auto* done = std::get_if<bridge::PutDone>(&event)) name += " of " + done->key + " " + done->reason;
  return name;
}

// An engine with its queue, and waits for its events.
//
// Threads: one.
// Errors:  a wait throws std::runtime_error after kPatience, with the names of the events that came.
class LinkedEngine {
 public:
  using Store = std::map<std::string, std::string>;

  // make: makes the engine, given the queue.
  template <class Make>
  explicit LinkedEngine(Make make) : _engine(make(_queue)) {}
  ~LinkedEngine() { _engine->Close(); }

  LinkedEngine(const LinkedEngine&) = delete;
  LinkedEngine& operator=(const LinkedEngine&) = delete;

  bridge::Engine& Get() { return *_engine; }
  bridge::EventQueue& GetQueue() { return _queue; }

  // The next event of whatever kind.
  bridge::EngineEvent AwaitAny() {
    const auto end = std::chrono::steady_clock::now() + kPatience;
    while (true) {
      if (std::optional<bridge::EngineEvent> event = _queue.TryPop()) {
        _seen += NameOf(*event) + "\n";
        if (const auto* item = std::get_if<bridge::Item>(&*event)) Note(*item);
        return std::move(*event);
      }
      if (std::chrono::steady_clock::now() > end) throw std::runtime_error("No event came in time after\n" + _seen);
      pollfd look{_queue.GetDescriptor(), POLLIN, 0};
      poll(&look, 1, 1000);
    }
  }

  // The next event of that kind; others, but those that end the wait for ever, are dropped.
  template <class Event>
  Event Await() {
    while (true) {
      bridge::EngineEvent event = AwaitAny();
      if (auto* found = std::get_if<Event>(&event)) return std::move(*found);
      if (const auto* lost = std::get_if<bridge::Lost>(&event))
        throw std::runtime_error("The link was lost: " + lost->reason + "\nafter\n" + _seen);
    }
  }

  bridge::Connected Connect(const bridge::ConnectOptions& options = {}) {
    _engine->Connect(options);
    return Await<bridge::Connected>();
  }

  bridge::Lost FailToConnect() {
    _engine->Connect({});
    return std::get<bridge::Lost>(AwaitAny());
  }

  // Follows, and waits until everything has come.
  bridge::Synced Follow(const std::vector<std::string>& prefixes, bridge::Version from = 0) {
    _engine->Follow(prefixes, from);
    return Await<bridge::Synced>();
  }

  // Puts and waits for the outcome.
  bridge::PutDone Put(const std::string& key, const std::optional<std::string>& bytes,
                      const bridge::PutOptions& options = {}) {
    if (!_engine->Put(key, bytes, options)) throw std::runtime_error("The put of " + key + " was not taken");
    return Await<bridge::PutDone>();
  }

  // Waits until the key has that value, by the items that came.
  void AwaitValue(const std::string& key, const std::string& value) {
    while (_store.count(key) == 0 || _store.at(key) != value) Await<bridge::Item>();
  }
  void AwaitGone(const std::string& key) {
    while (_store.count(key) != 0) Await<bridge::Item>();
  }

  // What the items so far amount to.
  const Store& GetStore() const { return _store; }
  std::size_t GetItemCount() const { return _itemCount; }
  void ForgetStore() { _store.clear(); }

 private:
  void Note(const bridge::Item& item) {
    ++_itemCount;
    if (item.bytes) {
      _store[item.key] = *item.bytes;
    } else {
      _store.erase(item.key);
    }
  }

  bridge::EventQueue _queue;
  std::unique_ptr<bridge::Engine> _engine;
  Store _store;
  std::size_t _itemCount = 0;
  std::string _seen;
};

}  // namespace tavix::test
