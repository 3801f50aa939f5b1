#pragma once

#include <optional>
#include <string>
#include <vector>

#include "programs/bridge/config/ConfigurationError.h"
#include "programs/bridge/core/Limits.h"
#include "programs/bridge/core/Rules.h"

namespace tavix::bridge {

// The section [mqtt]. A plain value.
struct MqttSection {
  std::string host;
  int port = 0;  // 0: the one that is usual
  std::string root;
  std::string device;
  std::string deviceClass;
  std::string credentials;  // a file
  std::string ca;           // likewise
};

// The section [etcd]. A plain value.
struct EtcdSection {
  std::vector<std::string> endpoints;
  std::string prefix;
  std::string credentials;
  std::string ca;
};

// What a bridge is configured with; docs have the sections and keys. A plain value.
struct Configuration {
  std::string name;
  std::string server;   // of the daemon; empty: where clients find it
  std::string state;    // a file
  std::string runtime;  // a directory
  std::vector<std::string> never;
  std::vector<std::string> mask;
  std::optional<MqttSection> mqtt;  // one of both is there
  std::optional<EtcdSection> etcd;
  Limits limits;
  std::vector<MapRule> maps;  // in the order of the file
};

// text: settings text. source: what errors call it. Throws ConfigurationError, which names the section and the key.
Configuration ParseConfiguration(const std::string& text, const std::string& source);

// The same of a file.
Configuration ReadConfiguration(const std::string& path);

}  // namespace tavix::bridge
