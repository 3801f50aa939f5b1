#pragma once

#include <string>
#include <vector>

namespace tavix::daemon {

// One listening socket. Non-blocking, closed on exec, its address reusable at once after a restart.
class Listener {
 public:
  // address: HOST:PORT or [V6]:PORT, port 0 for one that the kernel picks. A name may have several addresses: there is
  // a listener for each. Throws osa::Exception that names the address and the reason; without "allowRemote" an address
  // that is not loopback is refused.
  static std::vector<Listener> Open(const std::string& address, bool allowRemote);

  ~Listener();
  Listener(Listener&& other) noexcept;
  Listener& operator=(Listener&&) = delete;

  int GetDescriptor() const { return _descriptor; }

  // HOST:PORT as bound, with the port that the kernel picked.
  const std::string& GetAddress() const { return _address; }

  // The next connection's descriptor, or -1 with errno set.
  int Accept() const;

 private:
  Listener(int descriptor, std::string address) : _descriptor(descriptor), _address(std::move(address)) {}

  int _descriptor;
  std::string _address;
};

// HOST:PORT of the far end of a connected socket, for log lines.
std::string PeerAddress(int descriptor);

}  // namespace tavix::daemon
