#pragma once

#include <functional>
#include <list>
#include <mutex>
#include <string>
#include <thread>

#include "tavix/osa/Descriptor.h"
#include "tests/support/Environment.h"
#include "tests/support/ListeningSocket.h"

namespace tavix::test {

// A server's end of one connection, in plain blocking system calls: what it reads and what it sends are bytes.
//
// Errors: what waits for kPatience, a peer that is gone included, throws std::runtime_error.
class ServerEnd {
 public:
  explicit ServerEnd(osa::Descriptor socket);

  // What comes up to the line "last", that line included.
  std::string ReadThrough(const std::string& last = ".");

  // The next line, with its line feed.
  std::string ReadLine();

  // What comes up to the end of the connection. A reset is an end, too.
  std::string ReadToEnd();

  // Waits until something came that was not read.
  void AwaitBytes();

  void Send(const std::string& text);

  // Nothing more will be sent; the peer may go on writing.
  void HalfClose();

  // Ends the connection without a farewell.
  void Reset() const;

  void Close() { _socket.Reset(); }

  // Ends both directions under whoever is asleep in them. Any thread may call.
  void Shutdown() const;

 private:
  bool Receive();

  osa::Descriptor _socket;
  std::string _received;  // and not yet asked for
};

// A settings server on 127.0.0.1 whose every byte a test decides. As long as it lives, TAVIX_SETTINGS_SERVER leads
// clients to it; make it before the clients.
class ScriptedServer {
 public:
  // backlog: how many connections wait for Accept; kNotListening refuses connections until Listen.
  explicit ScriptedServer(int backlog = 16);

  unsigned short GetPort() const { return _listener.GetPort(); }

  void Listen();

  // The next connection; throws std::runtime_error when none comes for kPatience.
  ServerEnd Accept() const;

  // Whether a connection waits to be accepted.
  bool HasWaitingConnection() const;

  // Wakes an Accept that waits, for good: it throws.
  void StopListening() const;

 private:
  const ListeningSocket _listener;
  const ScopedEnvironment _local;
  const ScopedEnvironment _endpoint;
};

// Accepts all connections and runs a script for each, on a thread of its own, until it is destroyed.
class ServerThreads {
 public:
  // number: counts connections from 0. An exception ends the script's connection, as its return does.
  using Script = std::function<void(ServerEnd& peer, size_t number)>;

  // server: outlives this.
  ServerThreads(const ScriptedServer& server, Script script);
  ~ServerThreads();

  ServerThreads(const ServerThreads&) = delete;
  ServerThreads& operator=(const ServerThreads&) = delete;

 private:
  void AcceptAll();

  const ScriptedServer& _server;
  const Script _script;
  std::mutex _mutex;  // guards what follows
  std::list<ServerEnd> _peers;
  std::list<std::thread> _threads;
  std::thread _acceptor;
};

}  // namespace tavix::test
