#pragma once

#include <gtest/gtest.h>

#include <cstdint>
#include <map>
#include <memory>
#include <nlohmann/json.hpp>
#include <string>

#include "programs/bridge/formats/DesiredDocument.h"
#include "tests/programs/bridge/engines/LinkedEngine.h"
#include "tests/programs/bridge/engines/MqttHost.h"
#include "tests/programs/bridge/process/BridgeProcess.h"

namespace tavix::test {

constexpr char kOpenBroker[] = "allow_anonymous true\n";

// Groups of state that are seen, and others that are changed from outside.
constexpr char kMaps[] =
    "[map state]\npattern=State/*\ndirection=up\n[map net]\npattern=Net/*\ndirection=both\nwinner=device\n";

// A bridge between a daemon and a broker of MQTT, the network to that, and a centre.
//
// Threads: the test's main thread.
class MirroredDaemon {
 public:
  explicit MirroredDaemon(const std::string& brokerLines = kOpenBroker, const std::string& maps = kMaps)
      : broker(directory, brokerLines),
        bridge(TAVIX_BRIDGE_MQTT_PROGRAM, directory, daemon.address,
               "[mqtt]\nhost=127.0.0.1\nport=" + std::to_string(link.GetPort()) + "\nroot=fleet\ndevice=cam\n" +
                   kQuickLimits + maps) {
    LinkCentre();
    bridge.Start();
  }

  // Again, as it does not survive the broker. It knows only what stands there then.
  void LinkCentre() {
    centre.reset();
    centre = std::make_unique<LinkedEngine>([this](bridge::EventQueue& events) {
      return std::make_unique<bridge::MqttEngine>(MakeMqttSettings(broker.GetPort(), "centre"), events);
    });
    centre->Connect();
    centre->Follow({"fleet/"});
  }

  void Want(std::uint64_t version, const std::map<std::string, bridge::DesiredKeys>& groups,
            const std::string& epoch = "a", const std::string& name = "doc") {
    centre->Put("fleet/cam/desired/" + name, bridge::ComposeDesired(bridge::DesiredDocument{epoch, version, groups}));
  }

  // Until the topic holds that member.
  nlohmann::json AwaitMessage(const std::string& topic, const std::string& member, const nlohmann::json& value) {
    while (true) {
      const auto found = centre->GetStore().find("fleet/cam/" + topic);
      if (found != centre->GetStore().end()) {
        const nlohmann::json message = nlohmann::json::parse(found->second);
        if (message.contains(member) && message[member] == value) return message;
      }
      centre->Await<bridge::Item>();
    }
  }

  TemporaryDirectory directory;
  BridgedDaemon daemon{directory, "daemon"};
  MosquittoBroker broker;
  TcpProxy link{broker.GetPort()};
  std::unique_ptr<LinkedEngine> centre;
  BridgeProcess bridge;
};

class MqttBridge : public testing::Test, protected MirroredDaemon {};

}  // namespace tavix::test
