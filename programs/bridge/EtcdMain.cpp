#include <memory>

#include "programs/bridge/Program.h"
#include "programs/bridge/core/SharedGroups.h"
#include "programs/bridge/engines/EtcdEngine.h"
#include "programs/bridge/service/EngineKind.h"
#include "programs/bridge/service/RandomNumber.h"

namespace tavix::bridge {

namespace {

class EtcdKind : public EngineKind {
 public:
  const char* GetProgram() const override { return "tavix-settings-bridge-etcd"; }
  const char* GetSection() const override { return "etcd"; }
  bool IsConfigured(const Configuration& configuration) const override { return configuration.etcd.has_value(); }

  std::unique_ptr<Engine> MakeEngine(const Configuration& configuration, EventQueue& events) const override {
    const EtcdSection& section = *configuration.etcd;
    EtcdSettings settings;
    settings.endpoints = section.endpoints;
    settings.prefix = section.prefix + "/";
    settings.credentialsFile = section.credentials;
    settings.caFile = section.ca;
    return std::make_unique<EtcdEngine>(settings, events);
  }

  std::unique_ptr<Mirror> MakeMirror(const Configuration& configuration, const MirrorParts& parts) const override {
    return std::make_unique<SharedGroups>(parts.rules, configuration.limits, configuration.etcd->prefix, parts.engine,
                                          parts.local, parts.state, parts.report, MakeRandomNumber());
  }
};

}  // namespace

}  // namespace tavix::bridge

int main(int argc, char** argv) {
  return tavix::bridge::RunProgram(tavix::bridge::EtcdKind(), argc, argv);
}
