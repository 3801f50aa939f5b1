#pragma once

#include <poll.h>

#include <chrono>
#include <csignal>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "tests/c/CodeOf.h"
#include "tests/support/BackgroundCall.h"
#include "tests/support/DaemonProcess.h"
#include "tests/support/OwnLoopbackAddress.h"
#include "tests/support/OwnSockets.h"
#include "tests/support/Patience.h"
#include "tests/support/ScriptedServer.h"
#include "tests/support/TemporaryDirectory.h"

namespace tavix::test {

// As long as tests wait, in milliseconds.
constexpr int32_t kPatient = static_cast<int32_t>(std::chrono::milliseconds(kPatience).count());

// Waits until the one client of that server has something to receive, the end of its connection included.
inline void AwaitReadable(const ScriptedServer& server) {
  pollfd wait{FindConnectionsTo(server.GetPort()).at(0), POLLIN, 0};
  EXPECT_EQ(poll(&wait, 1, kPatient), 1);
}

// A daemon that can be ended and replaced by another one at the same address.
class ReplacedDaemon {
 public:
  explicit ReplacedDaemon(std::vector<std::string> arguments = {}) : _arguments(std::move(arguments)) {
    Start(OwnLoopbackAddress() + ":0");
  }

  const std::string& GetAddress() const { return _address; }

  void Kill() {
    EXPECT_EQ(_daemon->Stop(SIGKILL), 128 + SIGKILL);
    _daemon.reset();
  }

  void StartAgain() { Start(_address); }

  void Replace() {
    Kill();
    StartAgain();
  }

  DaemonProcess& Get() { return *_daemon; }

 private:
  void Start(const std::string& address) {
    std::vector<std::string> arguments{"--listen", address};
    arguments.insert(arguments.end(), _arguments.begin(), _arguments.end());
    _daemon.emplace(TAVIX_SERVER_PROGRAM, _directory.GetPath(), arguments);
    _address = _daemon->AwaitAddresses().front();
  }

  const TemporaryDirectory _directory;
  const std::vector<std::string> _arguments;
  std::string _address;
  std::optional<DaemonProcess> _daemon;
};

inline ClientHandle Open(const std::string& address, int32_t timeoutMs = kPatient) {
  tavix_client* client = nullptr;
  tavix_error error;
  std::string code;
  // A machine may stand still for longer than a short time-out while it connects.
  Eventually([&] { return (code = CodeOf(tavix_open_z(address.c_str(), timeoutMs, &client, &error))) != "TIMEOUT"; });
  EXPECT_EQ(code, "OK") << error.text;
  return ClientHandle(client);
}

// The groups that the names mean, as settings text, or the code.
inline std::string GetText(const ClientHandle& client, const std::vector<const char*>& names) {
  tavix_document* document = nullptr;
  const int32_t code = tavix_get_z(client.get(), names.data(), names.size(), &document, nullptr);
  const DocumentHandle owned(document);
  return code == TAVIX_OK ? TextOf(owned) : CodeOf(code);
}

inline std::string Merge(const ClientHandle& client, const std::string& text, int32_t flags = 0) {
  return CodeOf(tavix_merge(client.get(), Document(text).get(), flags, nullptr));
}

inline std::string Flush(const ClientHandle& client) {
  return CodeOf(tavix_flush(client.get(), nullptr));
}

}  // namespace tavix::test
