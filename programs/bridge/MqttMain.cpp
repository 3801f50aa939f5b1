#include <algorithm>
#include <cinttypes>
#include <cstdio>
#include <memory>
#include <string>

#include "programs/bridge/Program.h"
#include "programs/bridge/core/DeviceMirror.h"
#include "programs/bridge/engines/Credentials.h"
#include "programs/bridge/engines/MqttEngine.h"
#include "programs/bridge/service/EngineKind.h"
#include "programs/bridge/service/RandomNumber.h"

namespace tavix::bridge {

namespace {

constexpr int kPlainPort = 1883;
constexpr int kTlsPort = 8883;
constexpr std::uint32_t kTopicBytes = 64 * 1024;  // beside a document, in one message

class MqttKind : public EngineKind {
 public:
  const char* GetProgram() const override { return "tavix-settings-bridge-mqtt"; }
  const char* GetSection() const override { return "mqtt"; }
  bool IsConfigured(const Configuration& configuration) const override { return configuration.mqtt.has_value(); }

  std::unique_ptr<Engine> MakeEngine(const Configuration& configuration, EventQueue& events) const override {
    const MqttSection& section = *configuration.mqtt;
    MqttSettings settings;
    settings.host = section.host;
    const bool isPlain = section.ca.empty() && IsLoopback(section.host);
    settings.port = section.port != 0 ? section.port : isPlain ? kPlainPort : kTlsPort;
    settings.clientId = section.device;
    settings.mark = section.root + "/" + section.device + "/mark";
    settings.credentialsFile = section.credentials;
    settings.caFile = section.ca;
    const auto document = static_cast<std::uint32_t>(std::min<size_t>(configuration.limits.maxDocument, 255U << 20U));
    settings.maxPacket = std::max(settings.maxPacket, document + kTopicBytes);
    return std::make_unique<MqttEngine>(settings, events);
  }

  std::unique_ptr<Mirror> MakeMirror(const Configuration& configuration, const MirrorParts& parts) const override {
    const MqttSection& section = *configuration.mqtt;
    char epoch[17];
    std::snprintf(epoch, sizeof epoch, "%016" PRIx64, MakeRandomNumber());
    const DeviceIdentity identity{section.root, section.device, section.deviceClass, TAVIX_VERSION, epoch};
    return std::make_unique<DeviceMirror>(parts.rules, configuration.limits, identity, parts.engine, parts.local,
                                          parts.state, parts.report);
  }
};

}  // namespace

}  // namespace tavix::bridge

int main(int argc, char** argv) {
  return tavix::bridge::RunProgram(tavix::bridge::MqttKind(), argc, argv);
}
