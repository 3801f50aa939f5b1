#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <map>
#include <memory>
#include <set>
#include <string>
#include <vector>

#include "tavix/settings/IChangeCallback.h"
#include "tavix/settings/common/PatternIndex.h"

namespace tavix::settings::common {

// One callback and the texts (names and patterns) that it subscribed to.
struct Subscriber {
  IChangeCallback* callback = nullptr;
  uint32_t number = 0;  // small, used again once the subscriber is gone
  std::vector<PatternIndex::Id> texts;
};

// Subscribers of one text, in ascending order of their callbacks' addresses. Texts mostly have one, which takes no
// memory of its own.
class SubscriberList {
 public:
  // False: it was there.
  bool Add(const Subscriber* subscriber);
  void Remove(const Subscriber* subscriber);

  bool IsEmpty() const { return !_one && !_many; }
  size_t GetSize() const { return static_cast<size_t>(end() - begin()); }
  const Subscriber* const* begin() const { return _many ? _many->data() : &_one; }
  const Subscriber* const* end() const { return _many ? _many->data() + _many->size() : &_one + (_one ? 1 : 0); }

 private:
  const Subscriber* _one = nullptr;
  std::unique_ptr<std::vector<const Subscriber*>> _many;  // never empty
};

// Who subscribed to what.
//
// Threads: as a standard container; but the sizes may be asked for at any time.
class Subscriptions {
 public:
  using Texts = std::set<std::string>;
  using Callbacks = std::map<IChangeCallback*, Subscriber>;

  // The subscriber of that callback, a new one if need be.
  Subscriber& Get(IChangeCallback* callback);

  // Returns the texts that the subscriber did not have before.
  std::vector<PatternIndex::Id> Add(Subscriber& subscriber, const Texts& texts);

  // Null: the callback has none.
  const Subscriber* Find(IChangeCallback* callback) const;

  // A callback without a subscriber is ignored.
  void Remove(IChangeCallback* callback);

  // Whether one of the subscriber's texts matches the name. Tries them one by one, and asks for no memory.
  bool HasMatching(const Subscriber& subscriber, const std::string& name) const;

  // By address.
  const Callbacks& GetCallbacks() const { return _callbacks; }

  // All numbers of subscribers are below it.
  size_t GetEndOfNumbers() const { return _numbers.size(); }

  const PatternIndex& GetIndex() const { return _index; }
  const SubscriberList& GetSubscribersOf(PatternIndex::Id text) const { return _subscribers[text]; }

  bool IsEmpty() const { return CountSubscribers() == 0; }
  size_t CountSubscribers() const { return _count.load(std::memory_order_acquire); }

  // The bytes of all texts of all subscribers.
  size_t CountBytes() const { return _bytes.load(std::memory_order_relaxed); }

  // How many these are, those that several subscribers have each time.
  size_t CountTexts() const { return _texts.load(std::memory_order_relaxed); }

 private:
  bool AddText(Subscriber& subscriber, PatternIndex::Id id);
  void DropIfUnused(PatternIndex::Id id);

  Callbacks _callbacks;
  PatternIndex _index;
  std::deque<SubscriberList> _subscribers;  // by the text's id
  std::vector<bool> _numbers;               // which are in use
  std::atomic<size_t> _count{0};
  std::atomic<size_t> _bytes{0};
  std::atomic<size_t> _texts{0};
};

}  // namespace tavix::settings::common
