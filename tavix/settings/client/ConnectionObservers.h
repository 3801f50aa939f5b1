#pragma once

#include <set>

#include "tavix/osa/Mutex.h"
#include "tavix/osa/ThreadAnnotations.h"
#include "tavix/settings/client/IConnectionObserver.h"

namespace tavix::core {
class Logger;
}

namespace tavix::settings::client {

// Those that are called when a client has a connection again.
//
// Threads: any.
// Locks:   "_mutex" is held while observers are called; an observer that adds or removes one then gets an exception.
class ConnectionObservers {
 public:
  // logger: outlives this.
  explicit ConnectionObservers(const core::Logger& logger)
      : _logger(logger), _mutex("TavixSettingsClientImpl::_observerMutex") {}

  void Add(IConnectionObserver* observer) TAVIX_EXCLUDES(_mutex);
  void Remove(IConnectionObserver* observer) TAVIX_EXCLUDES(_mutex);

  // What an observer throws is logged.
  void CallAll() TAVIX_EXCLUDES(_mutex);

 private:
  const core::Logger& _logger;
  osa::Mutex _mutex;
  std::set<IConnectionObserver*> _observers TAVIX_GUARDED_BY(_mutex);
};

}  // namespace tavix::settings::client
