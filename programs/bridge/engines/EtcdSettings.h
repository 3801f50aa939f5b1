#pragma once

#include <chrono>
#include <string>
#include <vector>

namespace tavix::bridge {

// A cluster, and how to be its client. A plain value.
struct EtcdSettings {
  std::vector<std::string> endpoints;      // "https://HOST:PORT" each; "http://" to loopback alone
  std::string prefix;                      // ends with "/"; of the keys that this client may read
  std::string credentialsFile;             // empty: none
  std::string caFile;                      // in PEM; empty: the system's authorities
  std::chrono::seconds probeInterval{10};  // how often a silent watch has to be proved alive
  std::chrono::seconds patience{10};       // for an answer
};

}  // namespace tavix::bridge
