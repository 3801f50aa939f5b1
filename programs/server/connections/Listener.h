#pragma once

#include <memory>
#include <string>
#include <vector>

#include "programs/server/options/Options.h"
#include "programs/server/system/SocketName.h"
#include "tavix/osa/Descriptor.h"

namespace tavix::daemon {

class UnixSocketFile;

// One listening socket. Non-blocking, closed on exec. A TCP address is reusable at once after a restart.
//
// Threads: one at a time.
class Listener {
 public:
  // Listens where the options say, and on the sockets that a service manager passed, if it did, instead. Clients queue
  // from now on. Throws osa::Exception that names the address and the reason; without allowRemote an address that is
  // not loopback is refused.
  static std::vector<Listener> OpenAll(const Options& options);

  // Why the options' addresses can't be listened on, as far as that can be told without doing it; empty: they can.
  static std::vector<std::string> FindProblems(const Options& options);

  ~Listener();
  Listener(Listener&& other) noexcept;
  Listener& operator=(Listener&&) = delete;

  int GetDescriptor() const { return _descriptor.Get(); }
  bool IsUnix() const { return _isUnix; }

  // HOST:PORT as bound, with the port that the kernel picked, or unix:PATH.
  const std::string& GetAddress() const { return _address; }

  // The next connection's descriptor, or -1 with errno set. It is set up as osa::SetUpConnection does, and closed on
  // exec. peer: becomes its far end's address.
  int Accept(SocketAddress& peer) const;

  bool DoesAnybodyWait() const;

 private:
  Listener(osa::Descriptor descriptor, std::unique_ptr<UnixSocketFile> file);

  static void OpenTcp(const ListenAddress& address, bool allowRemote, std::vector<Listener>& listeners);
  static void OpenUnix(const ListenAddress& address, const Options& options, std::vector<Listener>& listeners);
  static void TakePassed(std::vector<osa::Descriptor> passed, bool allowRemote, std::vector<Listener>& listeners);

  std::unique_ptr<UnixSocketFile> _file;  // goes after the socket
  osa::Descriptor _descriptor;
  bool _isUnix;
  mutable bool _hasOlder = false;  // connections that were made before the socket was set up may wait
  std::string _address;
};

}  // namespace tavix::daemon
