#pragma once

#include <condition_variable>
#include <memory>
#include <mutex>

#include "tavix/osa/TcpSocket.h"
#include "tavix/osa/TcpSocketStream.h"
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
  void EnsureConnection(int attempts) override;
  void CloseConnection() override;
  void BreakConnection() noexcept override;
  void AbortConnection() noexcept override;
  void LimitWrites(unsigned int timeout) noexcept override;

 private:
  void Connect();
  void PauseBeforeRetry();

  std::mutex _mutex;  // guards which socket there is, and _aborted; not the streams
  std::condition_variable _abort;
  bool _aborted = false;
  std::unique_ptr<osa::TcpSocket> _socket;
  std::unique_ptr<osa::TcpSocketStream> _stream;
};

}  // namespace tavix::settings::client
