#include "programs/bridge/engines/MemoryBroker.h"

#include <algorithm>
#include <utility>

#include "programs/bridge/engines/KeyPrefix.h"

namespace tavix::bridge {

namespace {

// Of these nothing is reported any more when changes are lost; what became of puts is.
bool IsOfWatch(const EngineEvent& event) {
  return std::holds_alternative<Item>(event) || std::holds_alternative<Synced>(event) ||
         std::holds_alternative<Reread>(event);
}

}  // namespace

Version MemoryBroker::Put(const std::string& key, const std::optional<std::string>& bytes) {
  osa::PlainMutexLock lock(_mutex);
  return Write(key, bytes);
}

std::optional<Item> MemoryBroker::Get(const std::string& key) const {
  osa::PlainMutexLock lock(_mutex);
  const auto at = _store.find(key);
  if (at == _store.end()) return std::nullopt;
  return at->second;
}

MemoryBroker::Store MemoryBroker::GetAll() const {
  osa::PlainMutexLock lock(_mutex);
  return _store;
}

void MemoryBroker::Cut(const std::string& client) {
  osa::PlainMutexLock lock(_mutex);
  _clients[client].isCut = true;
  Break(_clients[client], "The link was cut");
}

void MemoryBroker::Heal(const std::string& client) {
  osa::PlainMutexLock lock(_mutex);
  _clients[client].isCut = false;
}

void MemoryBroker::Stall(const std::string& client) {
  osa::PlainMutexLock lock(_mutex);
  _clients[client].isStalled = true;
}

void MemoryBroker::Resume(const std::string& name) {
  osa::PlainMutexLock lock(_mutex);
  Client& client = _clients[name];
  client.isStalled = false;
  while (!client.requests.empty()) {
    const PendingPut put = std::move(client.requests.front());
    client.requests.pop_front();
    CarryOut(client, put);
  }
  _changed.notify_all();
}

void MemoryBroker::BreakAfterNextPut(const std::string& client) {
  osa::PlainMutexLock lock(_mutex);
  _clients[client].isBreakingAfterPut = true;
}

void MemoryBroker::CarryOutLatePuts(const std::string& client) {
  osa::PlainMutexLock lock(_mutex);
  for (const PendingPut& put : std::exchange(_clients[client].late, {})) {
    const Item present = GetItem(put.key);
    const bool isExpected = !put.expected || *put.expected == (present.bytes ? present.version : 0);
    if (isExpected) (void)Write(put.key, put.bytes);
  }
}

void MemoryBroker::LoseItems(std::size_t count) {
  osa::PlainMutexLock lock(_mutex);
  _lost = count;
}

void MemoryBroker::LoseSynced(std::size_t count) {
  osa::PlainMutexLock lock(_mutex);
  _lostSynced = count;
}

void MemoryBroker::RefusePuts(std::size_t count) {
  osa::PlainMutexLock lock(_mutex);
  _refusedPuts = count;
}

void MemoryBroker::RepeatItems(std::size_t count) {
  osa::PlainMutexLock lock(_mutex);
  _repeated = count;
}

void MemoryBroker::Restart() {
  osa::PlainMutexLock lock(_mutex);
  BreakAll("The broker restarted");
}

void MemoryBroker::RestartWith(const Store& store) {
  osa::PlainMutexLock lock(_mutex);
  BreakAll("The broker restarted");
  _store = store;
  _changes.clear();
  _version = 0;
  for (const auto& entry : store) _version = std::max(_version, entry.second.version);
  _compacted = _version;
  ++_source;
}

void MemoryBroker::Compact() {
  osa::PlainMutexLock lock(_mutex);
  _changes.clear();
  _compacted = _version;
  if (!_capabilities.isResumable) return;
  for (auto& entry : _clients) {
    Client& client = entry.second;
    if (!client.isLinked || !client.isStalled || client.prefixes.empty()) continue;
    client.events.erase(std::remove_if(client.events.begin(), client.events.end(), IsOfWatch), client.events.end());
    RereadFor(client);
  }
}

bool MemoryBroker::IsQuiet() const {
  osa::PlainMutexLock lock(_mutex);
  return std::all_of(_clients.begin(), _clients.end(), [](const auto& entry) {
    const Client& client = entry.second;
    return client.isStalled || client.isClosing || (client.events.empty() && !client.isDelivering);
  });
}

std::size_t MemoryBroker::GetPutCount() const {
  osa::PlainMutexLock lock(_mutex);
  return _puts;
}

void MemoryBroker::Connect(const std::string& name, const ConnectOptions& options) {
  osa::PlainMutexLock lock(_mutex);
  Client& client = _clients[name];
  client.isClosing = false;
  if (client.isCut) {
    client.events.push_back(Lost{"The broker can't be reached"});
  } else {
    client.isLinked = true;
    client.will = options.will;
    const std::string source = GetSource();
    client.events.push_back(Connected{_capabilities.isResumable && options.source == source, source});
  }
  _changed.notify_all();
}

void MemoryBroker::Close(const std::string& name) {
  osa::PlainMutexLock lock(_mutex);
  Client& client = _clients[name];
  Break(client, "The client ended it");
  client.events.clear();
  client.isClosing = true;
  _changed.notify_all();
}

bool MemoryBroker::Put(const std::string& name, const std::string& key, const std::optional<std::string>& bytes,
                       const PutOptions& options) {
  osa::PlainMutexLock lock(_mutex);
  Client& client = _clients[name];
  if (!client.isLinked || client.inFlight >= Engine::kMaxInFlight) return false;
  ++client.inFlight;
  PendingPut put{key, bytes, _capabilities.canCompareAndPut ? options.expected : std::nullopt};
  if (client.isStalled) {
    client.requests.push_back(std::move(put));
  } else {
    CarryOut(client, put);
  }
  return true;
}

void MemoryBroker::Follow(const std::string& name, const std::vector<std::string>& prefixes, Version from) {
  osa::PlainMutexLock lock(_mutex);
  Client& client = _clients[name];
  if (!client.isLinked) return;
  const std::vector<std::string> added = FindAdded(client.prefixes, prefixes);
  const bool isSame = added.empty() && FindAdded(prefixes, client.prefixes).empty() && !prefixes.empty();
  client.prefixes = prefixes;
  const bool isResumed = _capabilities.isResumable && from != 0 && from <= _version;
  if (isResumed && from < _compacted) {
    // The source may notice that only behind its first answer.
    client.events.push_back(Synced{from, false});
    RereadFor(client);
  } else if (isResumed) {
    for (const Item& item : _changes) {
      if (item.version > from && IsFollowedByAny(added, item.key)) client.events.push_back(item);
    }
    client.events.push_back(Synced{_version, false});
  } else if (isSame && _capabilities.isResumable) {
    RereadFor(client);
  } else {
    ReportAllTo(client, added);
  }
  _changed.notify_all();
}

void MemoryBroker::ReportAllTo(Client& client, const std::vector<std::string>& prefixes) {
  for (const auto& entry : _store) {
    if (IsFollowedByAny(prefixes, entry.first)) client.events.push_back(entry.second);
  }
  if (_lostSynced > 0) {
    --_lostSynced;
    return;
  }
  client.events.push_back(Synced{_capabilities.isResumable ? _version : 0, _capabilities.isResumable});
}

void MemoryBroker::RereadFor(Client& client) {
  client.events.push_back(Reread{});
  ReportAllTo(client, client.prefixes);
}

std::optional<EngineEvent> MemoryBroker::AwaitEvent(const std::string& name) {
  osa::PlainMutexLock lock(_mutex);
  Client& client = _clients[name];
  client.isDelivering = false;
  lock.Wait(_changed,
            [&]() TAVIX_REQUIRES(_mutex) { return client.isClosing || (!client.isStalled && !client.events.empty()); });
  if (client.isClosing) return std::nullopt;
  std::optional<EngineEvent> event = std::move(client.events.front());
  client.events.pop_front();
  client.isDelivering = true;
  if (std::holds_alternative<PutDone>(*event)) --client.inFlight;
  return event;
}

Version MemoryBroker::Write(const std::string& key, const std::optional<std::string>& bytes) {
  const bool isRemoval = !bytes || bytes->empty();
  if (isRemoval && _store.count(key) == 0) return 0;
  ++_version;
  const Item item{key, isRemoval ? std::nullopt : bytes, HasVersions() ? _version : 0};
  if (isRemoval) {
    _store.erase(key);
  } else {
    _store[key] = item;
  }
  _changes.push_back(item);
  for (auto& entry : _clients) ReportTo(entry.second, item);
  _changed.notify_all();
  return item.version;
}

void MemoryBroker::ReportTo(Client& client, const Item& item) {
  if (!client.isLinked || !IsFollowedByAny(client.prefixes, item.key)) return;
  if (_lost > 0) {
    --_lost;
    return;
  }
  client.events.push_back(item);
  if (_repeated > 0) {
    --_repeated;
    client.events.push_back(item);
  }
  if (_capabilities.isResumable) client.events.push_back(Synced{item.version, false});
}

void MemoryBroker::CarryOut(Client& client, const PendingPut& put) {
  PutDone done;
  done.key = put.key;
  const Item present = GetItem(put.key);
  if (_refusedPuts > 0) {
    --_refusedPuts;
    done.outcome = PutDone::Outcome::kRefused;
    done.reason = "refused by the test";
  } else if (put.expected && *put.expected != (present.bytes ? present.version : 0)) {
    done.outcome = PutDone::Outcome::kConflict;
    done.present = present;
  } else {
    done.version = Write(put.key, put.bytes);
    ++_puts;
  }
  if (client.isBreakingAfterPut) {
    client.isBreakingAfterPut = false;
    Break(client, "The link broke");
    return;
  }
  client.events.push_back(std::move(done));
  _changed.notify_all();
}

void MemoryBroker::Break(Client& client, const char* reason) {
  if (!client.isLinked) return;
  client.isLinked = false;
  client.isStalled = false;
  client.prefixes.clear();
  client.late.insert(client.late.end(), client.requests.begin(), client.requests.end());
  client.requests.clear();
  client.events.clear();
  client.inFlight = 0;
  client.events.push_back(Lost{reason});
  PublishWill(client);
  _changed.notify_all();
}

void MemoryBroker::BreakAll(const char* reason) {
  for (auto& entry : _clients) Break(entry.second, reason);
}

void MemoryBroker::PublishWill(Client& client) {
  const std::optional<LastWill> will = std::exchange(client.will, std::nullopt);
  if (will) Write(will->key, will->bytes);
}

Item MemoryBroker::GetItem(const std::string& key) const {
  const auto at = _store.find(key);
  return at == _store.end() ? Item{key, std::nullopt, HasVersions() ? _version : 0} : at->second;
}

std::string MemoryBroker::GetSource() const {
  return _capabilities.isResumable ? "memory-" + std::to_string(_source) : "";
}

}  // namespace tavix::bridge
