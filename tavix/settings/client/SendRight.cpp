#include "tavix/settings/client/SendRight.h"

#include <cstdio>
#include <cstdlib>
#include <string>

#include "tavix/osa/LockException.h"
#include "tavix/settings/client/TavixSettingsConnection.h"

namespace tavix::settings::client {

SendRightLock::SendRightLock(SendRight& right, unsigned int timeout, const TavixSettingsConnection* connection)
    : _semaphore(right._semaphore) {
  try {
    _semaphore.Lock(timeout);
  } catch (const osa::LockException& exception) {
    const std::string failure = connection ? connection->DescribeFailure() : std::string();
    if (failure.empty()) throw;
    throw osa::LockException("Lock Timeout: no connection within " + std::to_string(timeout) + " ms: " + failure,
                             exception.GetError());
  }
}

SendRightLock::~SendRightLock() {
  try {
    _semaphore.Release();
  } catch (...) {
    std::fputs("TavixSettingsClientImplMultiThreaded: SemAutoLock: failed to release semaphore!\n", stderr);
    std::abort();
  }
}

}  // namespace tavix::settings::client
