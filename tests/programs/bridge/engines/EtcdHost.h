#pragma once

#include <memory>
#include <string>
#include <vector>

#include "programs/bridge/engines/EtcdEngine.h"
#include "tests/programs/bridge/engines/EngineHost.h"
#include "tests/programs/bridge/engines/EtcdCluster.h"
#include "tests/support/Patience.h"
#include "tests/support/TcpProxy.h"
#include "tests/support/TemporaryDirectory.h"

namespace tavix::test {

// A client of members on this machine, without TLS.
inline bridge::EtcdSettings MakeEtcdSettings(const std::vector<unsigned short>& ports) {
  bridge::EtcdSettings settings;
  for (const unsigned short port : ports) settings.endpoints.push_back("http://127.0.0.1:" + std::to_string(port));
  settings.prefix = "fleet/";
  settings.patience = kPatience;
  return settings;
}

class EtcdHost : public EngineHost {
 public:
  std::unique_ptr<bridge::Engine> MakeEngine(bridge::EventQueue& events) override {
    return std::make_unique<bridge::EtcdEngine>(MakeEtcdSettings({_proxy.GetPort()}), events);
  }
  std::unique_ptr<bridge::Engine> MakeOther(bridge::EventQueue& events) override {
    return std::make_unique<bridge::EtcdEngine>(MakeEtcdSettings({_cluster.GetPort(0)}), events);
  }
  void Cut() override {
    _proxy.SetMode(TcpProxy::Mode::kRefuse);
    _proxy.CutAll();
  }
  void Heal() override { _proxy.SetMode(TcpProxy::Mode::kPass); }
  void Stall() override { _proxy.SetMode(TcpProxy::Mode::kStall); }

  EtcdCluster& GetCluster() { return _cluster; }
  TcpProxy& GetProxy() { return _proxy; }

 private:
  TemporaryDirectory _folder;
  EtcdCluster _cluster{_folder, 1};
  TcpProxy _proxy{_cluster.GetPort(0)};
};

}  // namespace tavix::test
