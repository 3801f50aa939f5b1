#pragma once

#include <memory>
#include <string>

#include "programs/bridge/engines/MqttEngine.h"
#include "tests/programs/bridge/engines/EngineHost.h"
#include "tests/programs/bridge/engines/MosquittoBroker.h"
#include "tests/support/Patience.h"
#include "tests/support/TcpProxy.h"
#include "tests/support/TemporaryDirectory.h"

namespace tavix::test {

// A client of a broker on this machine, without TLS.
inline bridge::MqttSettings MakeMqttSettings(unsigned short port, const std::string& clientId) {
  bridge::MqttSettings settings;
  settings.host = "127.0.0.1";
  settings.port = port;
  settings.clientId = clientId;
  settings.patience = kPatience;
  settings.mark = "fleet/" + clientId + "/mark";
  return settings;
}

class MqttHost : public EngineHost {
 public:
  std::unique_ptr<bridge::Engine> MakeEngine(bridge::EventQueue& events) override {
    return std::make_unique<bridge::MqttEngine>(MakeMqttSettings(_proxy.GetPort(), "engine"), events);
  }
  std::unique_ptr<bridge::Engine> MakeOther(bridge::EventQueue& events) override {
    return std::make_unique<bridge::MqttEngine>(MakeMqttSettings(_broker.GetPort(), "other"), events);
  }
  void Cut() override {
    _proxy.SetMode(TcpProxy::Mode::kRefuse);
    _proxy.CutAll();
  }
  void Heal() override { _proxy.SetMode(TcpProxy::Mode::kPass); }
  void Stall() override { _proxy.SetMode(TcpProxy::Mode::kStall); }

  MosquittoBroker& GetBroker() { return _broker; }
  TcpProxy& GetProxy() { return _proxy; }

 private:
  TemporaryDirectory _folder;
  MosquittoBroker _broker{_folder};
  TcpProxy _proxy{_broker.GetPort()};
};

}  // namespace tavix::test
