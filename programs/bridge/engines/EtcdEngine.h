#pragma once

#include <cstddef>
#include <string>
#include <utility>

#include "programs/bridge/engines/EtcdLink.h"
#include "programs/bridge/engines/EtcdSettings.h"
#include "programs/bridge/engines/ThreadedEngine.h"

namespace tavix::bridge {

// Items as keys of a cluster of etcd 3, through its JSON gateway. A version is the revision of a key's last change, and
// the source is the cluster's number.
//
// Endpoints: a link uses one of them. An attempt tries them one after the other, beginning with the one behind that of
//            the link before, and is lost when none answers.
// Silence:   a read every few seconds proves that a majority stands behind the endpoint. The watch is given up when two
//            of them in a row find a change that it did not report.
// TLS:       1.2 or later, and the certificate must be the host's. None to loopback with "http://"; everywhere else
//            always.
// Threads:   as every engine's.
// Errors:    likewise. The file of credentials is read for each link.
class EtcdEngine : public ThreadedEngine, private EtcdLink::Observer {
 public:
  EtcdEngine(const EtcdSettings& settings, EventQueue& events);
  ~EtcdEngine() override;

  Capabilities GetCapabilities() const override { return {true, true}; }

 private:
  std::string RunLink(const ConnectOptions& options) override;
  void RunUntilLost(EtcdLink& link);
  void CarryOut(EtcdLink& link, const Request& request) const;

  void OnConnected(const std::string& source) override;
  void OnItem(Item item) override { Report(std::move(item)); }
  void OnSynced(Synced synced) override { Report(synced); }
  void OnReread() override { Report(Reread{}); }
  void OnPutDone(PutDone done) override { ReportPutDone(std::move(done)); }

  const EtcdSettings _settings;
  std::size_t _endpoint = 0;  // that is tried next
  std::string _knownSource;   // as ConnectOptions has it
  bool _isResumed = false;    // the link
};

}  // namespace tavix::bridge
