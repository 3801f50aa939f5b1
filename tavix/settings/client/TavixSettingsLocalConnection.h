#pragma once

#include <memory>

#include "tavix/osa/PipeStreamPair.h"
#include "tavix/osa/Runnable.h"
#include "tavix/osa/Thread.h"
#include "tavix/settings/client/TavixSettingsConnection.h"
#include "tavix/settings/server/ClientHandler.h"
#include "tavix/settings/server/SerializationManager.h"
#include "tavix/settings/server/ServerEnv.h"
#include "tavix/settings/server/SettingsManager.h"

namespace tavix::settings::client {

// A settings server of its own inside the process: an empty store that is never saved, and a handler on the thread
// "LocalConnection", reached over two pipes. Once the handler has ended, the connection can't be made again.
//
// Threads: as TavixSettingsConnection; Run is the handler's own.
class TavixSettingsLocalConnection : public TavixSettingsConnection, public osa::Runnable {
 public:
  // Starts the handler's thread.
  TavixSettingsLocalConnection();

  // Has the handler quit and waits for it.
  ~TavixSettingsLocalConnection() override;

  // attempts: ignored. Throws osa::Exception "TavixSettingsLocalConnection: Connection is in invalid state" once the
  // pipes have failed.
  void EnsureConnection(int attempts) override;

  // Does nothing: the pipes last as long as the connection.
  void CloseConnection() override {}
  bool OutlivesClosing() const override { return true; }
  void BreakConnection() noexcept override;
  void AbortConnection() noexcept override { BreakConnection(); }

  osa::InputWatch* WatchInput() override { return &_responses.GetWatch(); }

  // Writes to a pipe never wait.
  void LimitWrites(unsigned int) noexcept override {}

  // The handler's thread.
  void Run() override;
  void Stop() override {}

 private:
  server::SettingsManager _settingsManager;
  server::SerializationManager _serializationManager;
  server::ServerEnv _env;
  osa::PipeStreamPair _requests;   // from client to handler
  osa::PipeStreamPair _responses;  // from handler to client
  server::ClientHandler _handler;
  std::unique_ptr<osa::Thread> _thread;
};

}  // namespace tavix::settings::client
