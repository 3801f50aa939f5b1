#include "programs/server/Connection.h"

#include <exception>
#include <utility>

#include "programs/server/Listener.h"
#include "tavix/core/Logger.h"
#include "tavix/osa/Time.h"
#include "tavix/settings/server/ClientHandler.h"

namespace tavix::daemon {

namespace {

constexpr unsigned int kStackSize = 64 * 1024;
constexpr unsigned int kWriteTimeout = 10 * 1000;

}  // namespace

Connection::Connection(int descriptor, settings::server::ServerEnv* env, std::function<void()> onEnd)
    : _env(env),
      _onEnd(std::move(onEnd)),
      _socket(osa::TcpSocket::Adopt(descriptor)),
      _peer(PeerAddress(descriptor)),
      _stream(_socket.get(), osa::kWaitForever, kWriteTimeout),
      _thread("Connection", this, kStackSize, 0) {
  _thread.Run();
}

Connection::~Connection() {
  Shutdown();
  _thread.Join();
}

// What has arrived can still be read from a socket that is shut down; the flag ends the reading of it.
void Connection::Shutdown() {
  _stop = true;
  _socket->Shutdown();
}

void Connection::Run() {
  try {
    Serve();
  } catch (const std::exception& exception) {
    core::Logger::GetLogger("Connection")->Warning("%s: connection ended: %s", _peer.c_str(), exception.what());
  }
  Shutdown();  // the client learns of the end now, not when the thread is joined
  _ended = true;
  _onEnd();
}

void Connection::Serve() {
  settings::server::ClientHandler handler(_env, &_stream, &_stream.GetOstream());
  while (!_stop && handler.HandleNext()) continue;
}

}  // namespace tavix::daemon
