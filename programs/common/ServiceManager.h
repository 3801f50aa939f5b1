#pragma once

#include <chrono>
#include <string>

#include "tavix/osa/Descriptor.h"

namespace tavix::programs {

// Notifies a service manager about this process: datagrams to the socket that NOTIFY_SOCKET names, as sd_notify(3)
// describes them. Without one, nothing is sent.
//
// Threads: any.
// Errors:  none; what can't be sent within a second is dropped.
class ServiceManager {
 public:
  // Reads NOTIFY_SOCKET, WATCHDOG_USEC and WATCHDOG_PID, once.
  ServiceManager();

  // lines: "READY=1", or several with line feeds between them.
  void Notify(const std::string& lines) const;

  // How often this process has to send WATCHDOG=1; zero: it need not.
  std::chrono::microseconds GetWatchdogTime() const { return _watchdogTime; }

  // Whether standard error is connected to the system's journal, as JOURNAL_STREAM says.
  static bool HasJournal();

 private:
  std::string _name;        // of the service manager's socket, as it stands in an address; empty: there is none
  osa::Descriptor _socket;  // ours, so that one is left when descriptors run out
  std::chrono::microseconds _watchdogTime{0};
};

}  // namespace tavix::programs
