#pragma once

#include <chrono>
#include <functional>
#include <optional>
#include <string>

namespace tavix::cli {

// A connection to the daemon, in lines. One attempt to connect, and no other.
//
// Errors: Failure: kExitUsage for an address that is none; kExitNoServer when nobody listens, the connection is lost,
//         or the peer makes no progress for the time given.
class Connection {
 public:
  using Progress = std::function<void(size_t done, size_t all)>;

  // Takes a line as it is shown to a person; '>' is sent, '<' is received.
  using Trace = std::function<void(char direction, const std::string& line)>;

  // server: HOST, HOST:PORT, [V6]:PORT or unix:PATH; empty: TAVIX_SETTINGS_SERVER, the hosts database, or 127.0.0.1.
  // trace: gets every line; may be empty.
  Connection(const std::string& server, std::chrono::milliseconds timeout, Trace trace);
  ~Connection();

  Connection(const Connection&) = delete;
  Connection& operator=(const Connection&) = delete;

  const std::string& GetAddress() const { return _address; }

  void Send(const std::string& text, const Progress& progress);

  // The next line, without its line feed.
  std::string ReadLine();

  // Whether something came, or was there, within the limit. Without a limit it waits for ever.
  bool AwaitInput(std::optional<std::chrono::milliseconds> limit) const;

 private:
  void Connect(const std::string& server);
  void ConnectUnix(const std::string& path);
  void ConnectTcp(const std::string& host, unsigned short port);
  bool TryConnect(int family, const void* address, unsigned int size);
  void Receive();
  void ShowLines(char direction, const std::string& text) const;
  std::string ShowTimeout() const;
  [[noreturn]] void FailToConnect() const;
  [[noreturn]] void FailLost() const;
  [[noreturn]] void FailTimedOut() const;

  const std::chrono::milliseconds _timeout;
  const Trace _trace;
  std::string _address;
  bool _hasSentMuch = false;  // more than a server may take
  int _descriptor = -1;
  int _error = 0;         // of the attempts to connect
  std::string _received;  // and not yet read, from _start on
  size_t _start = 0;
};

}  // namespace tavix::cli
