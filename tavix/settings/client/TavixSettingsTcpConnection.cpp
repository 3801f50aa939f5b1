#include "tavix/settings/client/TavixSettingsTcpConnection.h"

#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <utility>

#include "tavix/core/Logger.h"
#include "tavix/osa/Exception.h"
#include "tavix/osa/ServiceEndpoint.h"

namespace tavix::settings::client {

namespace {

constexpr char kServiceLabel[] = "tavix-settings-server";
constexpr char kConnectFailed[] = "Failed to connect to tavix-settings-server";
constexpr unsigned short kServicePort = 0;     // the service's own
constexpr unsigned int kConnectTimeout = 10;   // milliseconds, counted as a second: the shortest there is
constexpr unsigned int kWriteTimeout = 10000;  // milliseconds
constexpr unsigned int kRetryPause = 1000;     // milliseconds

}  // namespace

TavixSettingsTcpConnection::TavixSettingsTcpConnection() : _process(getpid()) {}

TavixSettingsTcpConnection::~TavixSettingsTcpConnection() {
  TavixSettingsTcpConnection::CloseConnection();
}

void TavixSettingsTcpConnection::EnsureConnection(int attempts) {
  DropOfParent();
  for (int attempt = 0; !IsInOrder(); ++attempt) {
    if (attempt >= attempts) {
      _logger->Warning("%s", kConnectFailed);
      ReportOutage();
      throw osa::Exception("%s", kConnectFailed);
    }
    CloseConnection();
    ClearStreams();
    if (attempt > 0) PauseBeforeRetry();
    try {
      Connect();
    } catch (const std::exception& exception) {
      _logger->Trace("%s", exception.what());
      CloseConnection();
      _logger->Warning("%s", kConnectFailed);
      _logger->Information("Retrying connection");
      NoteFailure(exception);
    }
  }
}

// To close a copy of a descriptor ends no connection. The outage is the parent's, too: that of this process is yet to
// be reported.
void TavixSettingsTcpConnection::DropOfParent() {
  const pid_t process = getpid();
  if (process == _process) return;
  CloseConnection();
  ClearStreams();
  _process = process;
  _wrongVariable.clear();
  osa::PlainMutexLock lock(_mutex);
  _failure.reset();
}

// The socket is visible to other threads only once it is connected: a connect takes a second at most, and an abort that
// came meanwhile is noticed then.
void TavixSettingsTcpConnection::Connect() {
  auto socket = std::make_unique<osa::TcpSocket>(1);
  {
    osa::PlainMutexLock lock(_mutex);
    RefuseWhenAborted();
  }
  socket->Connect(kServiceLabel, kServicePort, kConnectTimeout);
  auto stream = std::make_unique<osa::TcpSocketStream>(socket.get(), osa::kWaitForever, kWriteTimeout);
  osa::PlainMutexLock lock(_mutex);
  RefuseWhenAborted();
  _socket = std::move(socket);
  _stream = std::move(stream);
  _failure.reset();
  _pIstream = _stream.get();
  _pOstream = &_stream->GetOstream();
  ++_number;
}

// The attempts of one outage differ in their reasons at times: the last one counts.
// Without memory the reason is not kept: that is no reason to end otherwise than required.
void TavixSettingsTcpConnection::NoteFailure(const std::exception& exception) noexcept {
  try {
    std::string text = exception.what();
    if (dynamic_cast<const osa::EndpointException*>(&exception)) ReportWrongVariable(text);
    osa::PlainMutexLock lock(_mutex);
    if (_isAborted) return;
    if (!_failure) _failure = Failure{{}, {}, osa::Deadline::Clock::now()};
    _failure->text = std::move(text);
  } catch (const std::exception& failure) {
    _logger->Trace("The reason is not kept: %s", failure.what());
  }
}

void TavixSettingsTcpConnection::ReportWrongVariable(const std::string& text) {
  if (_wrongVariable == text) return;
  _logger->Error("%s", text.c_str());
  _wrongVariable = text;
}

// A log output may be slow: nothing is logged under the lock, which callers take to end a connection.
void TavixSettingsTcpConnection::ReportOutage() noexcept {
  try {
    const std::string text = DescribeFailure();
    {
      osa::PlainMutexLock lock(_mutex);
      if (_isAborted || !_failure || _failure->text == _wrongVariable || _failure->text == _failure->reported) return;
      _failure->reported = _failure->text;
    }
    _logger->Warning("%s", text.c_str());
  } catch (const std::exception& failure) {
    _logger->Trace("The outage is not reported: %s", failure.what());
  }
}

std::string TavixSettingsTcpConnection::DescribeFailure() const {
  osa::PlainMutexLock lock(_mutex);
  if (!_failure) return std::string();
  const std::chrono::duration<double> tried = osa::Deadline::Clock::now() - _failure->since;
  char time[48];
  std::snprintf(time, sizeof time, " (tried for %.1f s)", tried.count());
  return _failure->text + time;
}

void TavixSettingsTcpConnection::RefuseWhenAborted() const {
  if (_isAborted) throw osa::Exception("%s", kConnectFailed);
}

void TavixSettingsTcpConnection::PauseBeforeRetry() {
  osa::PlainMutexLock lock(_mutex);
  const auto isAborted = [this]() TAVIX_REQUIRES(_mutex) { return _isAborted; };
  (void)lock.WaitUntil(_abort, osa::Deadline(kRetryPause), isAborted);
}

void TavixSettingsTcpConnection::CloseConnection() {
  osa::PlainMutexLock lock(_mutex);
  _stream.reset();
  _socket.reset();
}

void TavixSettingsTcpConnection::BreakConnection() noexcept {
  osa::PlainMutexLock lock(_mutex);
  if (_socket) _socket->Shutdown();
}

void TavixSettingsTcpConnection::AbortConnection() noexcept {
  osa::PlainMutexLock lock(_mutex);
  _isAborted = true;
  _abort.notify_all();
  if (_socket) _socket->Shutdown();
}

void TavixSettingsTcpConnection::LimitWrites(unsigned int timeout) noexcept {
  osa::PlainMutexLock lock(_mutex);
  if (_stream) _stream->SetWriteTimeout(timeout);
}

osa::InputWatch* TavixSettingsTcpConnection::WatchInput() {
  osa::PlainMutexLock lock(_mutex);
  return _stream ? _stream->WatchInput() : nullptr;
}

}  // namespace tavix::settings::client
