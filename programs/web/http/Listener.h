#pragma once

#include <functional>
#include <string>
#include <vector>

#include "programs/web/http/EventBase.h"
#include "tavix/osa/Descriptor.h"

namespace tavix::web {

// A listening socket: HOST:PORT, [V6]:PORT or unix:PATH, or one that was passed to the program.
//
// Threads: one.
// Owns:    the socket, and the file of a unix socket that it made, which goes with it.
// Errors:  osa::Exception that names the address.
class Listener {
 public:
  explicit Listener(const std::string& address);
  explicit Listener(osa::Descriptor passed);
  ~Listener();

  Listener(Listener&& other) noexcept;
  Listener& operator=(Listener&&) = delete;

  // With the port that the system picked.
  const std::string& GetAddress() const { return _address; }
  bool IsUnix() const { return _isUnix; }
  bool IsLoopback() const { return _isLoopback; }
  int GetDescriptor() const { return _socket.Get(); }

  // The next connection; none when nobody waits, or none can be had now.
  osa::Descriptor Accept() const;

 private:
  void ListenOnPath(const std::string& path);
  void ListenOnHost(const std::string& address);
  void FindAddress();

  osa::Descriptor _socket;
  std::string _address;
  std::string _file;  // of a unix socket that was made here
  bool _isUnix = false;
  bool _isLoopback = false;
};

// The sockets that a service manager passed, or else the address.
std::vector<Listener> OpenListeners(const std::string& address);

}  // namespace tavix::web
