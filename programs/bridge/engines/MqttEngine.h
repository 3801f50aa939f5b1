#pragma once

#include <string>
#include <utility>

#include "programs/bridge/engines/MqttLink.h"
#include "programs/bridge/engines/MqttSettings.h"
#include "programs/bridge/engines/ThreadedEngine.h"

namespace tavix::bridge {

// Items as retained messages of QoS 1 in a broker of MQTT 5. Keys are topics, so each must have one writer; there are
// no versions. Session and queue end with the link: retained messages are the queue.
//
// Synced: the broker has sent back a message that was sent behind its confirmation of the subscription. A broker may
//         have dropped retained messages before, when they were more than it queues; it does not report that.
// TLS:    1.2 or later, and the certificate must be the host's. None to loopback without a file of authorities;
//         everywhere else always.
// Threads: as every engine's.
// Errors:  likewise. The file of credentials is read for each link.
class MqttEngine : public ThreadedEngine, private MqttLink::Observer {
 public:
  MqttEngine(const MqttSettings& settings, EventQueue& events);
  ~MqttEngine() override;

  Capabilities GetCapabilities() const override { return {}; }

 private:
  std::string RunLink(const ConnectOptions& options) override;
  static void CarryOut(MqttLink& link, const Request& request);

  void OnConnected() override { ReportConnected({}); }
  void OnItem(Item item) override { Report(std::move(item)); }
  void OnSynced() override { Report(Synced{}); }
  void OnPutDone(PutDone done) override { ReportPutDone(std::move(done)); }

  const MqttSettings _settings;
};

}  // namespace tavix::bridge
