#pragma once

#include <chrono>
#include <cstdint>
#include <string>

namespace tavix::bridge {

// A broker, and how to be its client. A plain value.
struct MqttSettings {
  std::string host;
  int port = 8883;
  std::string clientId;         // the device; a broker ends the link of an older client of the same name
  std::string mark;             // a topic that this client alone writes and reads: it shows where retained messages end
  std::string credentialsFile;  // empty: none
  std::string caFile;           // in PEM; empty: the system's authorities, and no TLS to loopback
  std::chrono::seconds keepAlive{60};         // at least 5
  std::chrono::seconds patience{30};          // for the answer to a connect
  std::uint32_t maxPacket = 4 * 1024 * 1024;  // larger messages are not received
};

}  // namespace tavix::bridge
