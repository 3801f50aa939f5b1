#include "tavix/settings/common/Subscriptions.h"

#include <algorithm>
#include <functional>

#include "tavix/core/StringUtil.h"

namespace tavix::settings::common {

namespace {

bool IsBefore(const Subscriber* a, const Subscriber* b) {
  return std::less<>()(a->callback, b->callback);
}

}  // namespace

bool SubscriberList::Add(const Subscriber* subscriber) {
  if (IsEmpty()) {
    _one = subscriber;
    return true;
  }
  if (!_many) {
    if (_one == subscriber) return false;
    auto many = std::make_unique<std::vector<const Subscriber*>>();
    many->reserve(2);
    many->push_back(_one);
    _many = std::move(many);
    _one = nullptr;
  }
  const auto at = std::lower_bound(_many->begin(), _many->end(), subscriber, IsBefore);
  if (at != _many->end() && *at == subscriber) return false;
  _many->insert(at, subscriber);
  return true;
}

void SubscriberList::Remove(const Subscriber* subscriber) {
  if (_one == subscriber) _one = nullptr;
  if (!_many) return;
  const auto at = std::lower_bound(_many->begin(), _many->end(), subscriber, IsBefore);
  if (at != _many->end() && *at == subscriber) _many->erase(at);
  if (_many->size() > 1) return;
  _one = _many->empty() ? nullptr : _many->front();
  _many.reset();
}

bool Subscriptions::HasMatching(const Subscriber& subscriber, const std::string& name) const {
  return std::any_of(subscriber.texts.begin(), subscriber.texts.end(), [&](PatternIndex::Id text) {
    return core::StringUtil::MatchesPattern(_index.GetText(text), name);
  });
}

Subscriber& Subscriptions::Get(IChangeCallback* callback) {
  const auto found = _callbacks.find(callback);
  if (found != _callbacks.end()) return found->second;
  const auto free = std::find(_numbers.begin(), _numbers.end(), false);
  const size_t number = static_cast<size_t>(free - _numbers.begin());
  if (free == _numbers.end()) _numbers.push_back(false);
  Subscriber& subscriber = _callbacks[callback];
  subscriber.callback = callback;
  subscriber.number = static_cast<uint32_t>(number);
  _numbers[number] = true;
  _count.store(_callbacks.size(), std::memory_order_release);
  return subscriber;
}

std::vector<PatternIndex::Id> Subscriptions::Add(Subscriber& subscriber, const Texts& texts) {
  std::vector<PatternIndex::Id> added;
  for (const std::string& text : texts) {
    const PatternIndex::Id id = _index.Add(text);
    try {
      if (AddText(subscriber, id)) added.push_back(id);
    } catch (...) {
      DropIfUnused(id);
      throw;
    }
  }
  return added;
}

bool Subscriptions::AddText(Subscriber& subscriber, PatternIndex::Id id) {
  if (id >= _subscribers.size()) _subscribers.resize(id + size_t{1});
  subscriber.texts.push_back(id);
  bool isNew = false;
  try {
    isNew = _subscribers[id].Add(&subscriber);
  } catch (...) {
    subscriber.texts.pop_back();
    throw;
  }
  if (isNew) {
    _bytes.fetch_add(_index.GetText(id).size(), std::memory_order_relaxed);
    _texts.fetch_add(1, std::memory_order_relaxed);
  } else {
    subscriber.texts.pop_back();
  }
  return isNew;
}

const Subscriber* Subscriptions::Find(IChangeCallback* callback) const {
  const auto found = _callbacks.find(callback);
  return found == _callbacks.end() ? nullptr : &found->second;
}

void Subscriptions::Remove(IChangeCallback* callback) {
  const auto subscriber = _callbacks.find(callback);
  if (subscriber == _callbacks.end()) return;
  for (const PatternIndex::Id id : subscriber->second.texts) {
    _bytes.fetch_sub(_index.GetText(id).size(), std::memory_order_relaxed);
    _texts.fetch_sub(1, std::memory_order_relaxed);
    _subscribers[id].Remove(&subscriber->second);
    DropIfUnused(id);
  }
  _numbers[subscriber->second.number] = false;
  _callbacks.erase(subscriber);
  _count.store(_callbacks.size(), std::memory_order_release);
}

void Subscriptions::DropIfUnused(PatternIndex::Id id) {
  if (id >= _subscribers.size() || _subscribers[id].IsEmpty()) _index.Remove(id);
}

}  // namespace tavix::settings::common
