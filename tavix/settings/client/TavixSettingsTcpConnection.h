#pragma once

#include <sys/types.h>

#include <condition_variable>
#include <exception>
#include <memory>
#include <optional>
#include <string>

#include "tavix/osa/PlainMutex.h"
#include "tavix/osa/TcpSocket.h"
#include "tavix/osa/TcpSocketStream.h"
#include "tavix/osa/ThreadAnnotations.h"
#include "tavix/osa/Time.h"
#include "tavix/settings/client/TavixSettingsConnection.h"

namespace tavix::settings::client {

// A connection to the settings server of the device, found by its service label "tavix-settings-server"
// (osa::FindServiceEndpoint). Reads wait without limit; a write that makes no progress for 10 s fails and breaks the
// connection, so that no caller sleeps for ever on a peer that stopped reading.
//
// A process that was forked drops its copy of the connection, which is its parent's, and connects anew.
//
// From the first attempt that fails up to the one that succeeds is an outage. It is logged in detail when all attempts
// of a call have failed, and again when the reason has changed; the lines of each attempt stay as they are. A
// TAVIX_SETTINGS_SERVER that can't be an address is logged once at error for each value: no waiting helps against that.
// A forked process logs what it finds itself.
//
// Threads: as TavixSettingsConnection; LimitWrites any, too.
class TavixSettingsTcpConnection : public TavixSettingsConnection {
 public:
  // Does not connect.
  TavixSettingsTcpConnection();
  ~TavixSettingsTcpConnection() override;

  // Makes up to "attempts" attempts, a second apart.
  void EnsureConnection(int attempts) override TAVIX_EXCLUDES(_mutex);
  void CloseConnection() override TAVIX_EXCLUDES(_mutex);
  void BreakConnection() noexcept override TAVIX_EXCLUDES(_mutex);
  void AbortConnection() noexcept override TAVIX_EXCLUDES(_mutex);
  void LimitWrites(unsigned int timeout) noexcept override TAVIX_EXCLUDES(_mutex);
  osa::InputWatch* WatchInput() override TAVIX_EXCLUDES(_mutex);
  std::string DescribeFailure() const override TAVIX_EXCLUDES(_mutex);

 private:
  void Connect() TAVIX_EXCLUDES(_mutex);
  void DropOfParent() TAVIX_EXCLUDES(_mutex);
  void PauseBeforeRetry() TAVIX_EXCLUDES(_mutex);
  void RefuseWhenAborted() const TAVIX_REQUIRES(_mutex);
  void NoteFailure(const std::exception& exception) noexcept TAVIX_EXCLUDES(_mutex);
  void ReportWrongVariable(const std::string& text);
  void ReportOutage() noexcept TAVIX_EXCLUDES(_mutex);

  // That the last attempt failed.
  struct Failure {
    std::string text;
    std::string reported;                    // the text that was logged last
    osa::Deadline::Clock::time_point since;  // the outage began
  };

  pid_t _process;  // whose connection it is; the owner's alone
  mutable osa::PlainMutex _mutex;
  std::condition_variable _abort;
  bool _isAborted TAVIX_GUARDED_BY(_mutex) = false;
  std::unique_ptr<osa::TcpSocket> _socket TAVIX_GUARDED_BY(_mutex);
  std::optional<Failure> _failure TAVIX_GUARDED_BY(_mutex);
  std::string _wrongVariable;                                              // that was reported last
  std::unique_ptr<osa::TcpSocketStream> _stream TAVIX_GUARDED_BY(_mutex);  // its users read and write without the lock
};

}  // namespace tavix::settings::client
