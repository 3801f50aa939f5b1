#include "tavix/settings/client/TavixSettingsLocalConnection.h"

#include <ostream>

#include "tavix/core/Logger.h"
#include "tavix/osa/Exception.h"
#include "tavix/settings/client/ProtocolConstants.h"

namespace tavix::settings::client {

namespace {

constexpr unsigned int kStackSize = 32768;

// Closes both pipes whatever ends the handler, so that the client does not wait for replies that never come.
class PipeCloser {
 public:
  PipeCloser(osa::PipeStreamPair& first, osa::PipeStreamPair& second) : _first(first), _second(second) {}
  ~PipeCloser() {
    _first.ClosePipe();
    _second.ClosePipe();
  }

  PipeCloser(const PipeCloser&) = delete;
  PipeCloser& operator=(const PipeCloser&) = delete;

 private:
  osa::PipeStreamPair& _first;
  osa::PipeStreamPair& _second;
};

}  // namespace

TavixSettingsLocalConnection::TavixSettingsLocalConnection()
    : _env{&_settingsManager, &_serializationManager},
      _handler(&_env, _requests.GetIstream(), _responses.GetOstream()),
      _thread(std::make_unique<osa::Thread>("LocalConnection", this, kStackSize, 0)) {
  _thread->Run();
}

TavixSettingsLocalConnection::~TavixSettingsLocalConnection() {
  try {
    *_requests.GetOstream() << protocol::kQuit << std::endl;
    _requests.ClosePipe();  // for a stream that has failed and took no quit
    _thread->Join();
    _thread.reset();
  } catch (const std::exception& exception) {
    _logger->Error("Failed to end the local connection: %s", exception.what());
  }
}

void TavixSettingsLocalConnection::EnsureConnection(int) {
  const bool closed = _responses.IsClosed() || _requests.IsClosed();
  if (closed || _responses.GetIstream()->fail() || _requests.GetOstream()->fail())
    throw osa::Exception("TavixSettingsLocalConnection: Connection is in invalid state");
  _pIstream = _responses.GetIstream();
  _pOstream = _requests.GetOstream();
}

void TavixSettingsLocalConnection::BreakConnection() noexcept {
  _requests.ClosePipe();
  _responses.ClosePipe();
}

void TavixSettingsLocalConnection::Run() {
  const PipeCloser closer(_requests, _responses);
  _handler.Run();
}

}  // namespace tavix::settings::client
