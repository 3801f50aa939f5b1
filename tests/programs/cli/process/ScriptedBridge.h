#pragma once

#include <sys/socket.h>
#include <sys/un.h>

#include <cerrno>
#include <chrono>
#include <mutex>
#include <stdexcept>
#include <string>
#include <system_error>
#include <thread>
#include <utility>
#include <vector>

#include "tavix/osa/Descriptor.h"
#include "tests/support/ScriptedServer.h"

namespace tavix::test {

// The socket of a bridge, which gives each request the same answer. It serves one connection after the other.
class ScriptedBridge {
 public:
  // What it does behind the answer.
  enum class Ending { kHangUp, kKeepSilent, kDribble };

  ScriptedBridge(const std::string& runtime, const std::string& name, std::string answer,
                 Ending ending = Ending::kHangUp)
      : _answer(std::move(answer)),
        _ending(ending),
        _listener(Listen(runtime + "/bridge-" + name + ".sock")),
        _thread(&ScriptedBridge::Serve, this) {}

  // The socket stays where it is, as that of a bridge that was killed.
  ~ScriptedBridge() {
    shutdown(_listener.Get(), SHUT_RDWR);
    _thread.join();
  }

  ScriptedBridge(const ScriptedBridge&) = delete;
  ScriptedBridge& operator=(const ScriptedBridge&) = delete;

  std::vector<std::string> GetRequests() const {
    const std::lock_guard<std::mutex> guard(_mutex);
    return _requests;
  }

 private:
  static osa::Descriptor Listen(const std::string& path) {
    osa::Descriptor listener(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    if (path.size() >= sizeof address.sun_path) throw std::runtime_error("too long for a socket: " + path);
    path.copy(address.sun_path, sizeof address.sun_path - 1);
    const bool isListening = bind(listener.Get(), reinterpret_cast<sockaddr*>(&address), sizeof address) == 0 &&
                             listen(listener.Get(), 16) == 0;
    if (!isListening) throw std::system_error(errno, std::generic_category(), path);
    return listener;
  }

  void Serve() {
    while (true) {
      osa::Descriptor socket(accept4(_listener.Get(), nullptr, nullptr, SOCK_CLOEXEC));
      if (!socket) return;
      try {
        ServerEnd peer(std::move(socket));
        const std::string request = peer.ReadLine();
        {
          const std::lock_guard<std::mutex> guard(_mutex);
          _requests.push_back(request);
        }
        peer.Send(_answer);
        if (_ending == Ending::kKeepSilent) peer.ReadToEnd();
        while (_ending == Ending::kDribble) {  // until the command is gone
          peer.Send(" ");
          std::this_thread::sleep_for(std::chrono::milliseconds(10));
        }
      } catch (const std::runtime_error&) {  // the command is gone
      }
    }
  }

  const std::string _answer;
  const Ending _ending;
  mutable std::mutex _mutex;
  std::vector<std::string> _requests;
  const osa::Descriptor _listener;
  std::thread _thread;
};

}  // namespace tavix::test
