#pragma once

#include <poll.h>

#include <cstddef>
#include <functional>
#include <list>
#include <optional>
#include <string>
#include <vector>

#include "programs/bridge/core/Keys.h"
#include "tavix/osa/Descriptor.h"

namespace tavix::bridge {

// The socket by which persons and programs of this device ask a bridge. A client sends one line and gets one document;
// then the connection ends. No client delays anybody else: nothing waits for one, and one that takes too long is cut.
//
// Threads: one.
// Owns:    the socket's file, which nobody else makes: a lock keeps a second bridge of the name away. One that is left
//          of a process that was killed is replaced.
// Errors:  the constructor throws osa::Exception.
class ControlSocket {
 public:
  // request: without its line feed. What it returns gets a line feed.
  using Answer = std::function<std::string(const std::string& request)>;

  static constexpr size_t kMaxClients = 8;  // at a time; others wait, or get the place of a silent one
  static constexpr size_t kMaxRequest = 256;
  static constexpr Milliseconds kRequestTime{5'000};  // until the request is there
  static constexpr Milliseconds kCrowdedTime{250};    // likewise, while others wait for a place
  static constexpr Milliseconds kAnswerTime{10'000};  // until the answer was taken

  // path: the process's user and group alone may connect. tooLong: the answer to a request that is longer than allowed.
  ControlSocket(const std::string& path, Answer answer, std::string tooLong);
  ~ControlSocket();

  ControlSocket(const ControlSocket&) = delete;
  ControlSocket& operator=(const ControlSocket&) = delete;

  // What is to be waited for until Run has something to do.
  void AddTo(std::vector<pollfd>& watched) const;
  std::optional<Milliseconds> GetNext() const;

  // Takes clients, answers requests, and ends what is over. Does not wait.
  void Run(Milliseconds now);

 private:
  struct Client {
    osa::Descriptor socket;
    Milliseconds end;  // of its time
    std::string request;
    std::string answer;  // with its line feed; empty: the request is not there
    size_t sent = 0;     // of it
  };

  using Clients = std::list<Client>;

  bool IsFull() const { return _clients.size() >= kMaxClients; }
  Clients::const_iterator FindSilent() const;
  bool HasPlace(Milliseconds now) const;
  void Accept(Milliseconds now);
  void ServeAll(Milliseconds now);
  bool Serve(Client& client, Milliseconds now) const;
  bool Receive(Client& client, Milliseconds now) const;
  static bool Send(Client& client);
  static void DropRest(const Client& client);

  const std::string _path;
  const Answer _answer;
  const std::string _tooLong;
  osa::Descriptor _listener;
  Milliseconds _acceptAfter{0};  // the system had no descriptor left
  Clients _clients;              // in the order in which they came
  Milliseconds _now{0};          // of the last Run
};

}  // namespace tavix::bridge
