#include "tavix/settings/client/ConnectionObservers.h"

#include <exception>

#include "tavix/core/Logger.h"
#include "tavix/osa/MutexAutoLock.h"

namespace tavix::settings::client {

void ConnectionObservers::Add(IConnectionObserver* observer) {
  osa::MutexAutoLock lock(_mutex);
  _observers.insert(observer);
}

void ConnectionObservers::Remove(IConnectionObserver* observer) {
  osa::MutexAutoLock lock(_mutex);
  const auto found = _observers.find(observer);
  if (found != _observers.end()) _observers.erase(found);
}

// What one throws does not keep the others from being called.
void ConnectionObservers::CallAll() {
  osa::MutexAutoLock lock(_mutex);
  for (IConnectionObserver* observer : _observers) {
    try {
      observer->OnConnected();
    } catch (const std::exception& exception) {
      _logger.Error("Caught %s", exception.what());
    } catch (...) {
      _logger.Error("Caught %s", "unknown");
    }
  }
}

}  // namespace tavix::settings::client
