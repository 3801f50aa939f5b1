#pragma once

#include <cstddef>
#include <memory>
#include <optional>
#include <string>
#include <variant>
#include <vector>

#include "programs/bridge/engines/Engine.h"
#include "programs/bridge/engines/EventQueue.h"
#include "tavix/osa/Descriptor.h"
#include "tavix/osa/PlainMutex.h"
#include "tavix/osa/Runnable.h"
#include "tavix/osa/Thread.h"
#include "tavix/osa/ThreadAnnotations.h"

namespace tavix::bridge {

// What engines share that talk to a network: the thread of an attempt and its link, and the requests that wait for it.
//
// Threads: as every engine's; Run and what is protected belong to the engine's own thread.
// Owns:    its thread, which ends with Close. The destructor of a class that derives calls Close.
class ThreadedEngine : public Engine, private osa::Runnable {
 public:
  void Connect(const ConnectOptions& options) override;
  void Close() override;
  bool Put(const std::string& key, const std::optional<std::string>& bytes, const PutOptions& options) override;
  void Follow(const std::vector<std::string>& prefixes, Version from) override;

 protected:
  struct PutRequest {
    std::string key;
    std::optional<std::string> bytes;  // never empty
    PutOptions options;
  };
  struct FollowRequest {
    std::vector<std::string> prefixes;
    Version from = 0;
  };
  using Request = std::variant<PutRequest, FollowRequest>;

  // name: of the thread; outlives the engine.
  ThreadedEngine(const char* name, EventQueue& events);

  // One link from its first attempt to its end. Returns the reason why there is none any more, for Lost.
  virtual std::string RunLink(const ConnectOptions& options) = 0;

  // Reports, and waits for a place in the queue.
  void ReportConnected(Connected event) TAVIX_EXCLUDES(_mutex);
  void ReportPutDone(PutDone event) TAVIX_EXCLUDES(_mutex);
  void Report(EngineEvent event) { _events.Push(std::move(event)); }

  // Whether Close was called: the link has to end.
  bool IsClosing() const TAVIX_EXCLUDES(_mutex);

  // Requests in their order, each once.
  std::vector<Request> TakeRequests() TAVIX_EXCLUDES(_mutex);

  // Readable when there are requests, or the link has to end; until TakeRequests.
  int GetWakeDescriptor() const { return _wake.Get(); }

 private:
  void Run() override;
  void Begin() TAVIX_EXCLUDES(_mutex);
  void End() TAVIX_EXCLUDES(_mutex);
  void Unlink() TAVIX_EXCLUDES(_mutex);
  void Wake() TAVIX_REQUIRES(_mutex);

  const char* const _name;
  EventQueue& _events;
  const osa::Descriptor _wake;
  ConnectOptions _options;  // of the link; set while there is no thread
  std::unique_ptr<osa::Thread> _thread;
  mutable osa::PlainMutex _mutex;
  std::vector<Request> _requests TAVIX_GUARDED_BY(_mutex);
  std::size_t _inFlight TAVIX_GUARDED_BY(_mutex) = 0;
  bool _isLinked TAVIX_GUARDED_BY(_mutex) = false;
  bool _isClosing TAVIX_GUARDED_BY(_mutex) = false;
};

}  // namespace tavix::bridge
