#pragma once

#include <condition_variable>
#include <cstddef>
#include <deque>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "programs/bridge/engines/Engine.h"
#include "tavix/osa/PlainMutex.h"
#include "tavix/osa/ThreadAnnotations.h"

namespace tavix::bridge {

// A store in memory that several MemoryEngines share, for tests of what uses engines: it plays a broker of MQTT or a
// cluster of etcd by its capabilities, and fails in the ways in which they do.
//
// Threads: any. What a call here causes is with the engines' threads when it returns; they report it then.
// Owns:    nothing of the engines, which must be gone before it.
class MemoryBroker {
 public:
  using Store = std::map<std::string, Item>;

  explicit MemoryBroker(Capabilities capabilities) : _capabilities(capabilities) {}
  ~MemoryBroker() = default;

  MemoryBroker(const MemoryBroker&) = delete;
  MemoryBroker& operator=(const MemoryBroker&) = delete;

  Capabilities GetCapabilities() const { return _capabilities; }

  // What others do with the store: nothing of it fails. The version; 0 without versions.
  Version Put(const std::string& key, const std::optional<std::string>& bytes) TAVIX_EXCLUDES(_mutex);
  std::optional<Item> Get(const std::string& key) const TAVIX_EXCLUDES(_mutex);
  Store GetAll() const TAVIX_EXCLUDES(_mutex);

  // Breaks the client's link, and lets none be made until Heal. The last will is published.
  void Cut(const std::string& client) TAVIX_EXCLUDES(_mutex);
  void Heal(const std::string& client) TAVIX_EXCLUDES(_mutex);

  // The client's link stays, and nothing passes in either direction until Resume.
  void Stall(const std::string& client) TAVIX_EXCLUDES(_mutex);
  void Resume(const std::string& client) TAVIX_EXCLUDES(_mutex);

  // The client's next put is carried out, and its link breaks before the answer.
  void BreakAfterNextPut(const std::string& client) TAVIX_EXCLUDES(_mutex);

  // Puts that were stalled when the link broke are carried out now, as by a network that is late. Nobody is told.
  void CarryOutLatePuts(const std::string& client) TAVIX_EXCLUDES(_mutex);

  // The next so many changes that would be reported to a client are lost, or reported twice.
  void LoseItems(std::size_t count) TAVIX_EXCLUDES(_mutex);
  void RepeatItems(std::size_t count) TAVIX_EXCLUDES(_mutex);

  // The next so many Synced that would answer a Follow are lost, as a broker of MQTT may lose the mark.
  void LoseSynced(std::size_t count) TAVIX_EXCLUDES(_mutex);

  // The next so many puts of clients are refused.
  void RefusePuts(std::size_t count) TAVIX_EXCLUDES(_mutex);

  // Breaks all links, with the last wills.
  void Restart() TAVIX_EXCLUDES(_mutex);

  // As Restart; what it has afterwards is "store", as if restored from a backup: versions are those of another source.
  void RestartWith(const Store& store) TAVIX_EXCLUDES(_mutex);

  // Forgets changes of the past: Follow from before now reports everything, behind a Synced that knows nothing of that,
  // and so does the link of a client that is stalled.
  void Compact() TAVIX_EXCLUDES(_mutex);

  // Whether all that happened has been handed to the queues of the clients whose links are not stalled.
  bool IsQuiet() const TAVIX_EXCLUDES(_mutex);

  // How many puts of clients were carried out, to count messages.
  std::size_t GetPutCount() const TAVIX_EXCLUDES(_mutex);

 private:
  friend class MemoryEngine;

  struct PendingPut {
    std::string key;
    std::optional<std::string> bytes;
    std::optional<Version> expected;
  };

  // A client, as the broker sees it. Known from the first time that anybody names it.
  struct Client {
    bool isLinked = false;
    bool isCut = false;
    bool isStalled = false;
    bool isBreakingAfterPut = false;
    bool isClosing = false;     // its thread has to end
    bool isDelivering = false;  // its thread has an event that is not in the queue yet
    std::optional<LastWill> will;
    std::vector<std::string> prefixes;
    std::deque<PendingPut> requests;  // of a stalled link
    std::deque<PendingPut> late;      // of links that broke while they were stalled
    std::size_t inFlight = 0;
    std::deque<EngineEvent> events;
  };

  // The clients' calls.
  void Connect(const std::string& client, const ConnectOptions& options) TAVIX_EXCLUDES(_mutex);
  void Close(const std::string& client) TAVIX_EXCLUDES(_mutex);
  bool Put(const std::string& client, const std::string& key, const std::optional<std::string>& bytes,
           const PutOptions& options) TAVIX_EXCLUDES(_mutex);
  void Follow(const std::string& client, const std::vector<std::string>& prefixes, Version from) TAVIX_EXCLUDES(_mutex);

  // Waits for the client's next event; none when its thread has to end. The one before has been handed over.
  std::optional<EngineEvent> AwaitEvent(const std::string& client) TAVIX_EXCLUDES(_mutex);

  Version Write(const std::string& key, const std::optional<std::string>& bytes) TAVIX_REQUIRES(_mutex);
  void ReportTo(Client& client, const Item& item) TAVIX_REQUIRES(_mutex);
  void ReportAllTo(Client& client, const std::vector<std::string>& prefixes) TAVIX_REQUIRES(_mutex);
  void RereadFor(Client& client) TAVIX_REQUIRES(_mutex);
  void CarryOut(Client& client, const PendingPut& put) TAVIX_REQUIRES(_mutex);
  void Break(Client& client, const char* reason) TAVIX_REQUIRES(_mutex);
  void BreakAll(const char* reason) TAVIX_REQUIRES(_mutex);
  void PublishWill(Client& client) TAVIX_REQUIRES(_mutex);
  Item GetItem(const std::string& key) const TAVIX_REQUIRES(_mutex);
  bool HasVersions() const { return _capabilities.canCompareAndPut || _capabilities.isResumable; }
  std::string GetSource() const TAVIX_REQUIRES(_mutex);

  const Capabilities _capabilities;
  mutable osa::PlainMutex _mutex;
  std::condition_variable _changed;
  Store _store TAVIX_GUARDED_BY(_mutex);
  std::deque<Item> _changes TAVIX_GUARDED_BY(_mutex);  // since the last compaction
  Version _version TAVIX_GUARDED_BY(_mutex) = 0;
  Version _compacted TAVIX_GUARDED_BY(_mutex) = 0;
  int _source TAVIX_GUARDED_BY(_mutex) = 1;
  std::size_t _lost TAVIX_GUARDED_BY(_mutex) = 0;  // how many more are to be
  std::size_t _lostSynced TAVIX_GUARDED_BY(_mutex) = 0;
  std::size_t _refusedPuts TAVIX_GUARDED_BY(_mutex) = 0;
  std::size_t _repeated TAVIX_GUARDED_BY(_mutex) = 0;
  std::size_t _puts TAVIX_GUARDED_BY(_mutex) = 0;
  std::map<std::string, Client> _clients TAVIX_GUARDED_BY(_mutex);
};

}  // namespace tavix::bridge
