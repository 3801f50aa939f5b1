#pragma once

#include <chrono>
#include <cstddef>
#include <functional>
#include <optional>
#include <set>
#include <string>

#include "tavix/core/IniFile.h"

// What ProtocolClient takes and gives: plain values, and functions of its user.
namespace tavix::settings::client {

struct ProtocolTimeouts {
  // How long the server may take nothing and send nothing while a call waits for it, connecting included.
  std::chrono::milliseconds silence{2000};

  // How long one call may take in all; none: as long as there is progress. A wait for a notice that has not begun ends
  // then without one, as at its own limit.
  std::optional<std::chrono::milliseconds> call = {};
};

struct ProtocolOptions {
  // HOST, HOST:PORT, [V6], [V6]:PORT or unix:PATH. Empty: what TAVIX_SETTINGS_SERVER or the hosts database say of
  // tavix-settings-server, else 127.0.0.1.
  std::string address = {};

  // Where the address comes from, for error texts.
  std::string addressSource = "address";

  ProtocolTimeouts timeouts = {};

  // The bytes that one reply or notice may have.
  size_t maxMessageBytes = 256 * size_t{1024} * 1024;

  // The limit of the pending notices in bytes; see ProtocolClient::AwaitNotice.
  size_t maxPendingBytes = 16 * size_t{1024} * 1024;
};

// Takes each line of the protocol as it is, without its line feed: '>' is sent, '<' is received.
using ProtocolTrace = std::function<void(char direction, const std::string& line)>;

// Gets how many of all bytes of a request have left.
using ProtocolProgress = std::function<void(size_t done, size_t all)>;

// Some groups have changed.
struct ProtocolNotice {
  std::set<std::string> groups;  // that have changed
  core::IniFile settings;        // what they hold now; those that are missing are gone
};

}  // namespace tavix::settings::client
