#pragma once

#include <atomic>
#include <functional>
#include <memory>
#include <string>

#include "tavix/osa/Runnable.h"
#include "tavix/osa/TcpSocket.h"
#include "tavix/osa/TcpSocketStream.h"
#include "tavix/osa/Thread.h"
#include "tavix/settings/server/ServerEnv.h"

namespace tavix::daemon {

// One client's connection, served on a thread of its own from construction until the client quits, goes away, sends
// what can't be parsed, or stops taking what it is sent for 10 s.
class Connection : private osa::Runnable {
 public:
  // descriptor: connected; taken over. env: outlives the connection. onEnd: called once, on the connection's thread, as
  // the last thing that it does.
  Connection(int descriptor, settings::server::ServerEnv* env, std::function<void()> onEnd);

  // Ends the connection and waits for its thread.
  ~Connection() override;

  // Whether its thread is done; destroying it then does not wait.
  bool HasEnded() const { return _ended; }

  // Has the connection end soon: behind the request that is being handled, whatever the client has sent ahead. Returns
  // at once.
  void Shutdown();

 private:
  void Run() override;
  void Serve();

  settings::server::ServerEnv* const _env;
  const std::function<void()> _onEnd;
  const std::unique_ptr<osa::TcpSocket> _socket;
  const std::string _peer;
  osa::TcpSocketStream _stream;
  std::atomic<bool> _stop{false};
  std::atomic<bool> _ended{false};
  osa::Thread _thread;
};

}  // namespace tavix::daemon
