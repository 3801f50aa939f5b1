#include "programs/bridge/engines/MqttEngine.h"

#include <utility>

#include "programs/bridge/engines/MqttLink.h"
#include "tavix/osa/Exception.h"

namespace tavix::bridge {

MqttEngine::MqttEngine(const MqttSettings& settings, EventQueue& events)
    : ThreadedEngine("MqttEngine", events), _settings(settings) {
  if (settings.host.empty()) throw osa::Exception("The broker of MQTT has no host");
  if (settings.port < 1 || settings.port > 65535)
    throw osa::Exception("The broker's port %d is none of 1 to 65535", settings.port);
  if (settings.clientId.empty())
    throw osa::Exception("The client of the broker '%s' has no name", settings.host.c_str());
}

MqttEngine::~MqttEngine() {
  Close();
}

std::string MqttEngine::RunLink(const ConnectOptions& options) {
  MqttLink link(_settings, *this);
  link.Begin(options.will);
  while (!link.HasFailed() && !IsClosing()) {
    link.Step(GetWakeDescriptor());
    for (Request& request : TakeRequests()) CarryOut(link, request);
  }
  if (!link.HasFailed()) link.End();
  return link.GetReason();
}

void MqttEngine::CarryOut(MqttLink& link, const Request& request) {
  if (const auto* put = std::get_if<PutRequest>(&request)) {
    link.Put(put->key, put->bytes, put->options.expiry);
  } else {
    link.Follow(std::get<FollowRequest>(request).prefixes);
  }
}

}  // namespace tavix::bridge
