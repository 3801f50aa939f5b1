#pragma once

#include <condition_variable>
#include <memory>

#include "tavix/osa/PlainMutex.h"
#include "tavix/osa/TcpSocket.h"
#include "tavix/osa/TcpSocketStream.h"
#include "tavix/osa/ThreadAnnotations.h"
#include "tavix/settings/client/TavixSettingsConnection.h"

namespace tavix::settings::client {

// A connection to the settings server of the device, found by its service label "tavix-settings-server"
// (osa::FindServiceEndpoint). Reads wait without limit; a write that makes no progress for 10 s fails and breaks the
// connection, so that nobody sleeps for ever on a peer that stopped reading.
class TavixSettingsTcpConnection : public TavixSettingsConnection {
 public:
  // Does not connect.
  TavixSettingsTcpConnection() = default;
  ~TavixSettingsTcpConnection() override;

  // Makes up to "attempts" attempts, a second apart.
  void EnsureConnection(int attempts) override TAVIX_EXCLUDES(_mutex);
  void CloseConnection() override TAVIX_EXCLUDES(_mutex);
  void BreakConnection() noexcept override TAVIX_EXCLUDES(_mutex);
  void AbortConnection() noexcept override TAVIX_EXCLUDES(_mutex);
  void LimitWrites(unsigned int timeout) noexcept override TAVIX_EXCLUDES(_mutex);

 private:
  void Connect() TAVIX_EXCLUDES(_mutex);
  void PauseBeforeRetry() TAVIX_EXCLUDES(_mutex);
  void RefuseWhenAborted() const TAVIX_REQUIRES(_mutex);

  osa::PlainMutex _mutex;
  std::condition_variable _abort;
  bool _isAborted TAVIX_GUARDED_BY(_mutex) = false;
  std::unique_ptr<osa::TcpSocket> _socket TAVIX_GUARDED_BY(_mutex);
  std::unique_ptr<osa::TcpSocketStream> _stream TAVIX_GUARDED_BY(_mutex);  // its users read and write without the lock
};

}  // namespace tavix::settings::client
